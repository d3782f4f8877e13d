#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "ZShared/ZAllocator.h"

namespace ZShared {

class ZFactoryObject;

namespace detail {
struct ClassRecord;
}

/// A registered class's identity. Small, copied freely; comparing and walking to a base is pointer work only.
class CID {
public:
    CID() = default;

    /// Whether the class is `base` or derives from it. False when either is empty.
    bool IsKindOf(const CID& base) const noexcept;
    /// The registered name; "" for an empty identity.
    const char* Name() const noexcept;
    bool operator==(const CID&) const = default;

private:
    friend class ZFactory;
    explicit CID(const detail::ClassRecord* record) : m_record(record) {}
    const detail::ClassRecord* m_record = nullptr;
};

/// Makes one object of a class; the text is the object's name where the class takes one. Null for abstract classes.
using ZObjectCreator = std::shared_ptr<ZFactoryObject> (*)(const ZString& name);

/// Knows every loaded class by name. One per process; thread-safe.
class ZFactory {
public:
    static ZFactory& Instance();

    /// Makes a class known and returns its identity. A further registration of the same name returns the first one's
    /// identity and keeps its creator in reserve, so that several libraries may register what they need.
    CID RegisterObjectCreator(const char* className, const char* baseClassName, ZObjectCreator creator);
    /// Takes back one registration; the class stops being creatable when its last one is gone. The identity stays
    /// valid.
    void UnregisterObjectCreator(const char* className, ZObjectCreator creator);

    /// A new object of the named class, or null when the class is unknown or abstract.
    std::shared_ptr<ZFactoryObject> CreateShared(std::string_view className, const ZString& objectName = ZString());
    /// As CreateShared; a failure is logged with the place that asked for it.
    std::shared_ptr<ZFactoryObject> make_shared_direct(std::string_view className, const char* file, int line);
    /// The same for a class whose identity is at hand: no search for the name, and no lock.
    std::shared_ptr<ZFactoryObject> make_shared_direct(const CID& classId, const char* file, int line);

    /// The names of the classes of that kind that can be created now, sorted.
    std::vector<std::string> ClassesOf(const CID& base) const;
    /// The identity of a known class; empty otherwise.
    CID Find(std::string_view className) const;

private:
    ZFactory();
    ~ZFactory();
    struct Registry;
    std::unique_ptr<Registry> m_registry;
};

/// Base of every class that the factory can create or that is tested by identity.
class ZFactoryObject {
public:
    static constexpr const char* kClassName = "ZFactoryObject";
    static CID m_cid;

    ZFactoryObject() = default;
    ZFactoryObject(const ZFactoryObject&) = default;
    ZFactoryObject& operator=(const ZFactoryObject&) = default;
    virtual ~ZFactoryObject() = default;

    virtual const CID& GetCID() const { return m_cid; }
    /// The registered name of the object's own class.
    const char* ClassName() const { return GetCID().Name(); }
    bool IsKindOf(const CID& base) const { return GetCID().IsKindOf(base); }
};

template <typename T>
ZObjectCreator MakeCreator() {
    if constexpr (std::is_abstract_v<T>) {
        return nullptr;
    } else if constexpr (std::is_constructible_v<T, const ZString&>) {
        return [](const ZString& name) -> std::shared_ptr<ZFactoryObject> {
            return std::allocate_shared<T>(ZAllocator<T>(), name);
        };
    } else {
        return
            [](const ZString&) -> std::shared_ptr<ZFactoryObject> { return std::allocate_shared<T>(ZAllocator<T>()); };
    }
}

/// Keeps a class registered for as long as the object lives: a static one in a library, until it is unloaded.
class ZClassRegistration {
public:
    ZClassRegistration(const char* className, const char* baseClassName, ZObjectCreator creator)
        : m_className(className),
          m_creator(creator),
          m_id(ZFactory::Instance().RegisterObjectCreator(className, baseClassName, creator)) {}
    ~ZClassRegistration() { ZFactory::Instance().UnregisterObjectCreator(m_className, m_creator); }
    ZClassRegistration(const ZClassRegistration&) = delete;
    ZClassRegistration& operator=(const ZClassRegistration&) = delete;

    const CID& Id() const { return m_id; }

    template <typename T>
    static ZClassRegistration Of() {
        return ZClassRegistration(T::kClassName, T::kBaseClassName, MakeCreator<T>());
    }

private:
    const char* m_className;
    ZObjectCreator m_creator;
    CID m_id;
};

}  // namespace ZShared

/// Inside a class: its name, its base's name and its identity. `Base` is named without qualification.
#define Z_CLASS(Class, Base)                                        \
public:                                                             \
    static constexpr const char* kClassName = #Class;               \
    static constexpr const char* kBaseClassName = Base::kClassName; \
    static ZShared::CID m_cid;                                      \
    const ZShared::CID& GetCID() const override {                   \
        return m_cid;                                               \
    }                                                               \
                                                                    \
private:

/// In one source file per class: registers it when the library is loaded and unregisters it when it is unloaded.
#define Z_IMPLEMENT(Class)                                                                              \
    namespace {                                                                                         \
    const ZShared::ZClassRegistration g_registrationOf##Class(Class::kClassName, Class::kBaseClassName, \
                                                              ZShared::MakeCreator<Class>());           \
    }                                                                                                   \
    ZShared::CID Class::m_cid = g_registrationOf##Class.Id();

/// A new object in framework memory.
template <typename T, typename... Args>
std::shared_ptr<T> ZMakeShared(Args&&... args) {
    return std::allocate_shared<T>(ZAllocator<T>(), std::forward<Args>(args)...);
}

/// `object` as a `T` when it is of that kind, else null. Null in, null out.
template <typename T, typename From>
std::shared_ptr<T> cast_shared(const std::shared_ptr<From>& object) {
    if (object && object->GetCID().IsKindOf(std::remove_const_t<T>::m_cid)) {
        return std::static_pointer_cast<T>(object);
    }
    return nullptr;
}
template <typename T, typename From>
std::shared_ptr<T> cast_shared(std::shared_ptr<From>&& object) {
    if (object && object->GetCID().IsKindOf(std::remove_const_t<T>::m_cid)) {
        return std::static_pointer_cast<T>(std::move(object));
    }
    return nullptr;
}

/// The test and conversion in one, written as the log texts name it.
#define ZCAST(Class, pointer) cast_shared<Class>(pointer)

/// A new object of T's class as it is registered; null (and a log line) when it is not.
template <typename T>
std::shared_ptr<T> ZCreate(const char* file, int line) {
    return cast_shared<T>(ZShared::ZFactory::Instance().make_shared_direct(T::m_cid, file, line));
}
#define Z_MAKE(Class) ZCreate<Class>(__FILE__, __LINE__)
