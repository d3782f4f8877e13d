#include "ZMessages/ZMessage.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ZMessages/ZFields.h"
#include "ZShared/ZError.h"
#include "ZShared/ZReplaceFile.h"

Z_IMPLEMENT(ZMessage)

namespace {

constexpr const char* kClassKey = "className";
constexpr std::uintmax_t kLargestFile = std::uintmax_t{16} * 1024 * 1024;

ZResult<void> ReadFile(const std::filesystem::path& file, std::string& text) {
    std::error_code code;
    const std::uintmax_t size = std::filesystem::file_size(file, code);
    if (code || size > kLargestFile) {
        return ZError(code ? code.message() : "larger than 16 MiB");
    }
    std::ifstream input(file, std::ios::binary);
    std::ostringstream content;
    if (!input || (size > 0 && !(content << input.rdbuf()))) {
        return ZError(std::strerror(errno));
    }
    text = std::move(content).str();
    return {};
}

}  // namespace

void ZMessage::SetEnvironment(const std::shared_ptr<ZEnvironment>&) {}
bool ZMessage::Serialize(ZCommStream&) const {
    return true;
}
bool ZMessage::Deserialize(ZCommStream&) {
    return true;
}
void ZMessage::ResolvePaths() {}
int ZMessage::GetDefaultPriority() const {
    return 0;
}
bool ZMessage::IsCloneable() const {
    return true;
}
void ZMessage::CloneDataMembers(const ZMessage&) {}
void ZMessage::VisitFields(const ZFieldVisitor&) {}
std::shared_ptr<const ZCommEndpoint> ZMessage::GetResponseEndpoint() const {
    return nullptr;
}
std::shared_ptr<const ZCommEndpoint> ZMessage::GetProgressEndpoint() const {
    return nullptr;
}

bool ZMessage::SerializeClass(ZCommStream& stream) const {
    stream.WriteString(kClassKey, ClassName());
    return true;
}

bool ZMessage::DeserializeClass(ZCommStream& stream) {
    ZString name;
    const bool same = stream.ReadString(kClassKey, name) && name == ClassName();
    if (!same) {
        stream.SetError(kClassKey, ClassName());
    }
    return same;
}

bool ZMessage::SerializeMessage(ZCommStream& stream) const {
    return SerializeClass(stream) && Serialize(stream);
}

bool ZMessage::Save(std::string& text, ZCommStream& stream) const {
    stream.Clear();
    const bool written = SerializeMessage(stream);
    text = stream.Text();
    return written;
}

bool ZMessage::Save(const std::filesystem::path& file, ZCommStream& stream) const {
    std::string text;
    if (!Save(text, stream)) {
        stream.SetError({}, file.string() + " could not be written");
        return false;
    }
    const auto replaced = ReplaceFile(file, text + '\n');
    if (!replaced) {
        stream.SetError({}, replaced.error().text);
    }
    return replaced.has_value();
}

bool ZMessage::Load(std::string_view text, ZCommStream& stream) {
    return stream.LoadText(text) && Deserialize(stream);
}

bool ZMessage::LoadDocument(const std::filesystem::path& file, ZCommStream& stream) {
    stream.Clear();
    std::string text;
    if (const auto read = ReadFile(file, text); !read) {
        stream.SetError({}, read.error().In(file.string()).text);
        return false;
    }
    return stream.LoadText(text);
}

std::shared_ptr<ZMessage> ZMessage::Load(const std::filesystem::path& file, ZCommStream& stream) {
    return LoadDocument(file, stream) ? CreateFrom(stream) : nullptr;
}

std::shared_ptr<ZMessage> ZMessage::CreateFrom(ZCommStream& stream, std::string_view defaultClass) {
    ZString name(defaultClass);
    stream.ReadString(kClassKey, name);
    auto message = cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(name));
    if (!message) {
        stream.SetError(kClassKey, "the name of a message class");
        return nullptr;
    }
    return message->Deserialize(stream) ? message : nullptr;
}

std::shared_ptr<const ZResponseSource> ZMessage::GetResponseSource() const {
    const std::lock_guard lock(m_sourceMutex);
    return m_source;
}

void ZMessage::SetResponseSource(std::shared_ptr<const ZResponseSource> source) {
    const std::lock_guard lock(m_sourceMutex);
    m_source = std::move(source);
}

ZVector<std::shared_ptr<ZMessage>> ZFields::CloneMessages(const ZVector<std::shared_ptr<ZMessage>>& messages) {
    ZVector<std::shared_ptr<ZMessage>> copies;
    for (const auto& message : messages) {
        if (!message || !message->IsCloneable()) {
            continue;
        }
        if (auto copy = cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(message->ClassName()))) {
            copy->CloneDataMembers(*message);
            copy->SetOrigin(message->Origin());
            copies.push_back(std::move(copy));
        }
    }
    return copies;
}
