#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ZShared/ZFactory.h"

class ZCommStream;
class ZMessage;

/// Anything that a ZCommStream can carry.
class ZCommStreamObject : public ZShared::ZFactoryObject {
    Z_CLASS(ZCommStreamObject, ZFactoryObject)
public:
    /// Writes the object's members into the stream.
    virtual bool Serialize(ZCommStream& stream) const;
    /// Reads them back. A missing key leaves its member as it was; a value of the wrong type makes the result false and
    /// the stream name the key (ZCommStream::Error).
    virtual bool Deserialize(ZCommStream& stream);
};

/// A document of keys and typed values, in some encoding. Writers replace a key that is there already. Readers return
/// false and leave the value alone when the key is missing or of another type; only the latter sets Error().
/// Not thread-safe: one stream is used by one thread at a time.
class ZCommStream : public ZShared::ZFactoryObject {
    Z_CLASS(ZCommStream, ZFactoryObject)
public:
    /// Takes a text in place of the present document. Several documents one after the other load as one, in which the
    /// later ones' members win. False, with Error() set and the document empty, for anything that is not whole.
    virtual bool LoadText(std::string_view text) = 0;
    virtual std::string Text() const = 0;
    virtual void Clear() = 0;

    virtual void WriteBool(std::string_view key, bool value) = 0;
    virtual void WriteInt(std::string_view key, std::int64_t value) = 0;
    virtual void WriteUInt(std::string_view key, std::uint64_t value) = 0;
    virtual void WriteDouble(std::string_view key, double value) = 0;
    virtual void WriteString(std::string_view key, std::string_view value) = 0;
    virtual void WriteStrings(std::string_view key, const ZVector<ZString>& values) = 0;
    virtual void WriteObject(std::string_view key, const ZCommStreamObject& value) = 0;
    virtual void WriteMessages(std::string_view key, const ZVector<std::shared_ptr<ZMessage>>& values) = 0;

    virtual bool Has(std::string_view key) const = 0;
    virtual bool IsText(std::string_view key) const = 0;
    virtual bool ReadBool(std::string_view key, bool& value) = 0;
    /// Refuses a number outside [least, most].
    virtual bool ReadInt(std::string_view key, std::int64_t& value, std::int64_t least, std::int64_t most) = 0;
    virtual bool ReadUInt(std::string_view key, std::uint64_t& value, std::uint64_t most) = 0;
    virtual bool ReadDouble(std::string_view key, double& value) = 0;
    virtual bool ReadString(std::string_view key, ZString& value) = 0;
    virtual bool ReadStrings(std::string_view key, ZVector<ZString>& values) = 0;
    virtual bool ReadObject(std::string_view key, ZCommStreamObject& value) = 0;
    /// Each message is made by the class its document names ("className"), or by `defaultClass` when it names none.
    virtual bool ReadMessages(std::string_view key, ZVector<std::shared_ptr<ZMessage>>& values,
                              std::string_view defaultClass) = 0;

    struct Complaint {
        std::string key;  ///< empty when it is about the text as a whole
        std::string text;
    };
    /// What was wrong with the text or with values since the last Clear or LoadText, in that order; the first 64.
    const std::vector<Complaint>& Complaints() const { return m_complaints; }
    /// The text of the first of them; empty when nothing was wrong.
    std::string Error() const { return m_complaints.empty() ? std::string() : m_complaints.front().text; }

    /// The key that it is about; empty when it is about the text as a whole.
    std::string ErrorKey() const { return m_complaints.empty() ? std::string() : m_complaints.front().key; }

    /// Whether a number stands for a yes or no too (0 is no), as writers in languages without such a type send it. Off
    /// at first.
    void SetLenient(bool lenient) { m_bLenient = lenient; }

    /// Records that the value of `key` is not what was wanted.
    void SetError(std::string_view key, std::string_view wanted);

protected:
    bool IsLenient() const { return m_bLenient; }
    void ClearError() { m_complaints.clear(); }

private:
    std::vector<Complaint> m_complaints;
    bool m_bLenient = false;
};
