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
    std::vector<ZObjectCreator> creators;  // guarded by the registry's mutex; the first one is used
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
    return CID(record);
}

void ZFactory::UnregisterObjectCreator(const char* className, ZObjectCreator creator) {
    const std::lock_guard lock(m_registry->mutex);
    auto& creators = m_registry->Record(className)->creators;
    if (const auto found = std::find(creators.begin(), creators.end(), creator); found != creators.end()) {
        creators.erase(found);
    }
}

std::shared_ptr<ZFactoryObject> ZFactory::CreateShared(std::string_view className, const ZString& objectName) {
    ZObjectCreator creator = nullptr;
    {
        const std::lock_guard lock(m_registry->mutex);
        const auto found = m_registry->byName.find(className);
        if (found != m_registry->byName.end() && !found->second->creators.empty()) {
            creator = found->second->creators.front();
        }
    }
    return creator == nullptr ? nullptr : creator(objectName);
}

std::shared_ptr<ZFactoryObject> ZFactory::make_shared_direct(std::string_view className, const char* file, int line) {
    auto object = CreateShared(className);
    if (!object) {
        ZLog::Instance().Log(4, "ZFactory", file, "make_shared_direct", line, "No class <%s> is registered",
                             std::string(className).c_str());
    }
    return object;
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
