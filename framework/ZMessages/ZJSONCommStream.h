#pragma once

#include <memory>

#include "ZMessages/ZCommStream.h"

/// A ZCommStream in JSON (RFC 8259): one object, UTF-8, members in the order written. Texts nested more than 32 levels
/// deep are refused.
class ZJSONCommStream : public ZCommStream {
    Z_CLASS(ZJSONCommStream, ZCommStream)
public:
    ZJSONCommStream();
    ~ZJSONCommStream() override;
    ZJSONCommStream(const ZJSONCommStream&) = delete;
    ZJSONCommStream& operator=(const ZJSONCommStream&) = delete;

    bool LoadText(std::string_view text) override;
    std::string Text() const override;
    void Clear() override;

    void WriteBool(std::string_view key, bool value) override;
    void WriteInt(std::string_view key, std::int64_t value) override;
    void WriteUInt(std::string_view key, std::uint64_t value) override;
    void WriteDouble(std::string_view key, double value) override;
    void WriteString(std::string_view key, std::string_view value) override;
    void WriteStrings(std::string_view key, const ZVector<ZString>& values) override;
    void WriteObject(std::string_view key, const ZCommStreamObject& value) override;
    void WriteMessages(std::string_view key, const ZVector<std::shared_ptr<ZMessage>>& values) override;

    bool Has(std::string_view key) const override;
    bool IsText(std::string_view key) const override;
    bool ReadBool(std::string_view key, bool& value) override;
    bool ReadInt(std::string_view key, std::int64_t& value, std::int64_t least, std::int64_t most) override;
    bool ReadUInt(std::string_view key, std::uint64_t& value, std::uint64_t most) override;
    bool ReadDouble(std::string_view key, double& value) override;
    bool ReadString(std::string_view key, ZString& value) override;
    bool ReadStrings(std::string_view key, ZVector<ZString>& values) override;
    bool ReadObject(std::string_view key, ZCommStreamObject& value) override;
    bool ReadMessages(std::string_view key, ZVector<std::shared_ptr<ZMessage>>& values,
                      std::string_view defaultClass) override;

private:
    struct Document;
    std::unique_ptr<Document> m_document;
};
