#include "TestSupport.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "ZShared/ZLog.h"

Z_IMPLEMENT(ProbeNode)

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "arbor-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder could be made at " + name);
    }
    m_path = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::filesystem::path TemporaryFolder::Write(const std::string& name, const std::string& content, unsigned mode) const {
    const std::filesystem::path file = m_path / name;
    std::filesystem::create_directories(file.parent_path());
    // Written beside and renamed, so that no process that starts meanwhile holds the executable open for writing.
    const std::filesystem::path temporary = file.string() + ".part";
    std::ofstream(temporary, std::ios::binary) << content;
    ::chmod(temporary.c_str(), mode);
    std::filesystem::rename(temporary, file);
    return file;
}

LogCapture::LogCapture()
    : m_listener(ZLog::Instance().AddListener([this](const ZLogLine& line) {
          const std::lock_guard lock(m_mutex);
          m_lines.push_back({line.level, line.line});
      })) {}

LogCapture::~LogCapture() {
    ZLog::Instance().RemoveListener(m_listener);
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
    const std::lock_guard lock(m_mutex);
    return m_lines;
}

bool LogCapture::Has(int level, const std::string& text) const {
    const std::lock_guard lock(m_mutex);
    return std::any_of(m_lines.begin(), m_lines.end(),
                       [&](const Line& line) { return line.level == level && line.text.ends_with(text); });
}

bool LogCapture::WaitFor(int level, const std::string& text) const {
    return WaitUntil([&] { return Has(level, text); });
}

std::ptrdiff_t LogCapture::Count(const std::string& text, int level) const {
    return std::ranges::count_if(Lines(), [&](const Line& line) {
        return (level == 0 || line.level == level) && line.text.find(text) != std::string::npos;
    });
}

void LogCapture::Clear() {
    const std::lock_guard lock(m_mutex);
    m_lines.clear();
}

std::string LogCapture::All() const {
    std::string all;
    for (const Line& line : Lines()) {
        all += std::to_string(line.level) + ' ' + line.text + '\n';
    }
    return all;
}

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string ReadText(const std::filesystem::path& file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

void ProbeNode::Listen(ZEndpointType type, const char* name,
                       std::function<std::shared_ptr<ZMessage>(const std::shared_ptr<ZMessage>&)> answer) {
    Subscribe(GetEndpoint(type, name, 0), [this, answer](std::shared_ptr<ZMessage>& message) {
        {
            const std::lock_guard lock(m_mutex);
            m_received.push_back(message);
        }
        if (const auto response = answer ? answer(message) : nullptr) {
            PublishResponse(message, response, true, false);
        }
        return true;
    });
}

std::vector<std::shared_ptr<ZMessage>> ProbeNode::Received() const {
    const std::lock_guard lock(m_mutex);
    return m_received;
}

bool ProbeNode::WaitForMessages(std::size_t count) const {
    return WaitUntil([&] { return Received().size() >= count; });
}

std::shared_ptr<ZMessage> ProbeNode::Ask(ZEndpointType type, const char* name,
                                         const std::shared_ptr<ZMessage>& request) {
    std::shared_ptr<ZMessage> answer;
    PublishWithOutcome(GetEndpoint(type, name, 0), request, &answer, {true, false, std::chrono::minutes(1)});
    return answer;
}
