#include "ZShared/ZFactory.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

#include "ZShared/ZLog.h"

namespace ZShared {

namespace detail {

// Lives until the process ends, so an identity never dangles, whatever library is unloaded.
struct ClassRecord {
    std::string name;
    std::atomic<const ClassRecord*> base{nullptr};
    std::vector<ZObjectCreator> creators;          // guarded by the registry's mutex
    std::atomic<ZObjectCreator> creator{nullptr};  // the first of them

    void ChooseCreator() { creator.store(creators.empty() ? nullptr : creators.front(), std::memory_order_release); }
};

}  // namespace detail

struct ZFactory::Registry {
    mutable std::mutex mutex;
    std::deque<detail::ClassRecord> records;
    std::unordered_map<std::string_view, detail::ClassRecord*> byName;  // keys live in the records

    detail::ClassRecord* Record(const char* name) {
        if (const auto found = byName.find(name); found != byName.end()) {
            return found->second;
        }
        detail::ClassRecord& record = records.emplace_back();
        record.name = name;
        byName.emplace(record.name, &record);
        return &record;
    }
};

namespace {

/// Told of the place that asked for it.
void LogUnknown(std::string_view className, const char* file, int line) {
    ZLogger("ZFactory").Write(4, file, "make_shared_direct", line, "No class <%s> is registered", className);
}

}  // namespace

bool CID::IsKindOf(const CID& base) const noexcept {
    if (base.m_record == nullptr) {
        return false;
    }
    for (const detail::ClassRecord* record = m_record; record != nullptr;
         record = record->base.load(std::memory_order_acquire)) {
        if (record == base.m_record) {
            return true;
        }
    }
    return false;
}

const char* CID::Name() const noexcept {
    return m_record == nullptr ? "" : m_record->name.c_str();
}

ZFactory::ZFactory() : m_registry(std::make_unique<Registry>()) {}
ZFactory::~ZFactory() = default;

ZFactory& ZFactory::Instance() {
    static ZFactory factory;
    return factory;
}

CID ZFactory::RegisterObjectCreator(const char* className, const char* baseClassName, ZObjectCreator creator) {
    const std::lock_guard lock(m_registry->mutex);
    detail::ClassRecord* record = m_registry->Record(className);
    // The base may be registered later (another library): its record then already stands here by name.
    if (record->base.load(std::memory_order_relaxed) == nullptr && *baseClassName != '\0') {
        record->base.store(m_registry->Record(baseClassName), std::memory_order_release);
    }
    record->creators.push_back(creator);
    record->ChooseCreator();
    return CID(record);
}

void ZFactory::UnregisterObjectCreator(const char* className, ZObjectCreator creator) {
    const std::lock_guard lock(m_registry->mutex);
    detail::ClassRecord* record = m_registry->Record(className);
    auto& creators = record->creators;
    if (const auto found = std::find(creators.begin(), creators.end(), creator); found != creators.end()) {
        creators.erase(found);
        record->ChooseCreator();
    }
}

std::shared_ptr<ZFactoryObject> ZFactory::CreateShared(std::string_view className, const ZString& objectName) {
    const CID known = Find(className);
    const ZObjectCreator creator = known.m_record == nullptr ? nullptr : known.m_record->creator.load();
    return creator == nullptr ? nullptr : creator(objectName);
}

std::shared_ptr<ZFactoryObject> ZFactory::make_shared_direct(std::string_view className, const char* file, int line) {
    const CID known = Find(className);
    if (known.m_record != nullptr) {
        return make_shared_direct(known, file, line);
    }
    LogUnknown(className, file, line);
    return nullptr;
}

std::shared_ptr<ZFactoryObject> ZFactory::make_shared_direct(const CID& classId, const char* file, int line) {
    const ZObjectCreator creator =
        classId.m_record == nullptr ? nullptr : classId.m_record->creator.load(std::memory_order_acquire);
    if (creator == nullptr) {
        LogUnknown(classId.Name(), file, line);
        return nullptr;
    }
    return creator(ZString());
}

std::vector<std::string> ZFactory::ClassesOf(const CID& base) const {
    std::vector<std::string> names;
    {
        const std::lock_guard lock(m_registry->mutex);
        for (const detail::ClassRecord& record : m_registry->records) {
            if (record.creator.load() != nullptr && CID(&record).IsKindOf(base)) {
                names.push_back(record.name);
            }
        }
    }
    std::ranges::sort(names);
    return names;
}

CID ZFactory::Find(std::string_view className) const {
    const std::lock_guard lock(m_registry->mutex);
    const auto found = m_registry->byName.find(className);
    return found == m_registry->byName.end() ? CID() : CID(found->second);
}

namespace {
const ZClassRegistration g_rootRegistration(ZFactoryObject::kClassName, "", nullptr);
}
CID ZFactoryObject::m_cid = g_rootRegistration.Id();

}  // namespace ZShared
