#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>

#include "ZMessages/ZCommStream.h"
#include "ZMessages/ZFieldRule.h"

class ZCommEndpoint;
class ZEnvironment;
class ZResponseSource;

/// Who asks for what a request starts, as the door knows it that the request came through. No part of its text.
struct ZRequestOrigin {
    std::string asker;               ///< "user alice", "token ci", "device PM-B"
    std::string operationId;         ///< for the first job that is begun for the request; empty: it gets one of its own
    std::atomic<bool> begun{false};  ///< that job was begun

    ZRequestOrigin(std::string who, std::string id) : asker(std::move(who)), operationId(std::move(id)) {}
};

/// Base of all messages. A message is made by class name, held by shared pointer and, once published, only read,
/// but for its response source, which has a lock of its own. Copying is done with ZNodeComm::CloneMessage.
class ZMessage : public ZCommStreamObject {
    Z_CLASS(ZMessage, ZCommStreamObject)
public:
    ZMessage() = default;
    ZMessage(const ZMessage&) = delete;
    ZMessage& operator=(const ZMessage&) = delete;

    /// The environment whose variables ResolvePaths replaces; only configuration records keep it.
    virtual void SetEnvironment(const std::shared_ptr<ZEnvironment>& environment);
    bool Serialize(ZCommStream& stream) const override;
    bool Deserialize(ZCommStream& stream) override;
    /// Writes and checks the key "className", which tells a reader what to make of the document.
    virtual bool SerializeClass(ZCommStream& stream) const;
    virtual bool DeserializeClass(ZCommStream& stream);
    virtual void ResolvePaths();
    /// The place in a queue: messages of a higher priority are taken first. 0 for nearly all.
    virtual int GetDefaultPriority() const;
    /// Where a transport wants answers to, and progress of, this request published. Null on a bus that answers by
    /// response source, as the in-process one does.
    virtual std::shared_ptr<const ZCommEndpoint> GetResponseEndpoint() const;
    virtual std::shared_ptr<const ZCommEndpoint> GetProgressEndpoint() const;
    /// Writes the message with its class name as text, into a string or, whole or not at all, into a file.
    virtual bool Save(std::string& text, ZCommStream& stream) const;
    virtual bool Save(const std::filesystem::path& file, ZCommStream& stream) const;
    /// Reads this message's members from a text. False as for Deserialize, or when the text is no document.
    virtual bool Load(std::string_view text, ZCommStream& stream);
    /// The class name and the members.
    virtual bool SerializeMessage(ZCommStream& stream) const;
    virtual bool IsCloneable() const;
    /// Copies the members of a message of the same class, deeply.
    virtual void CloneDataMembers(const ZMessage& from);
    /// Shows every declared field with its value.
    virtual void VisitFields(const ZFieldVisitor& visitor);

    /// Loads a file's text into the stream. False, with stream.Error() set, when it can't be read, is larger than 16
    /// MiB or is no document.
    static bool LoadDocument(const std::filesystem::path& file, ZCommStream& stream);
    /// A new message of the class that the document names, read from it. Null, with stream.Error() set, when the file
    /// can't be loaded, names no message class or holds a value of the wrong type.
    static std::shared_ptr<ZMessage> Load(const std::filesystem::path& file, ZCommStream& stream);
    /// As above, from a loaded stream; a document that names no class is of `defaultClass`.
    static std::shared_ptr<ZMessage> CreateFrom(ZCommStream& stream, std::string_view defaultClass = {});

    /// Who waits for the answer. Set by the bus when the message is published; thread-safe.
    std::shared_ptr<const ZResponseSource> GetResponseSource() const;
    void SetResponseSource(std::shared_ptr<const ZResponseSource> source);

    /// Where the request came from; null when this host itself asks. A copy of a message has the same. Set before the
    /// message is published.
    const std::shared_ptr<ZRequestOrigin>& Origin() const { return m_origin; }
    void SetOrigin(std::shared_ptr<ZRequestOrigin> origin) { m_origin = std::move(origin); }

private:
    mutable std::mutex m_sourceMutex;
    std::shared_ptr<const ZResponseSource> m_source;
    std::shared_ptr<ZRequestOrigin> m_origin;
};
