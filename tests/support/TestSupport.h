#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "NodeBase/ZNode.h"
#include "ZShared/ZError.h"

/// A folder of its own, removed with all it holds.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    /// Writes a file below the folder, making its directories; returns its path.
    std::filesystem::path Write(const std::string& name, const std::string& content, unsigned mode = 0644) const;

private:
    std::filesystem::path m_path;
};

/// Keeps every log line written while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    struct Line {
        int level;
        std::string text;
    };
    std::vector<Line> Lines() const;
    /// Whether a line of that level ends with `text`.
    bool Has(int level, const std::string& text) const;
    /// As Has, and waits for the line for as long as a loaded machine may need.
    bool WaitFor(int level, const std::string& text) const;
    /// How many lines hold `text`, of that level unless it is 0.
    std::ptrdiff_t Count(const std::string& text, int level = 0) const;
    /// Forgets the lines so far.
    void Clear();
    /// All lines, for a failure's message.
    std::string All() const;

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
    int m_listener;
};

/// Waits until `condition` holds, for as long as a loaded machine may need (30 s). False when it never did.
bool WaitUntil(const std::function<bool()>& condition);

/// The text of a result's error; empty when it has none.
template <typename T>
std::string ErrorOf(const ZResult<T>& result) {
    return result ? std::string() : result.error().text;
}

std::string ReadText(const std::filesystem::path& file);

/// A node that answers and records: what a test wants to see on the bus or to say there.
class ProbeNode : public ZNode {
    Z_CLASS(ProbeNode, ZNode)
public:
    using ZCommEnabledObject::Publish;
    using ZNode::ZNode;

    /// Subscribes and records what arrives; `answer`, when given, makes the answer to each message.
    void Listen(ZEndpointType type, const char* name,
                std::function<std::shared_ptr<ZMessage>(const std::shared_ptr<ZMessage>&)> answer = nullptr);
    std::vector<std::shared_ptr<ZMessage>> Received() const;
    /// Waits for at least `count` messages.
    bool WaitForMessages(std::size_t count) const;
    /// Asks and returns the answer; null when there is none.
    std::shared_ptr<ZMessage> Ask(ZEndpointType type, const char* name, const std::shared_ptr<ZMessage>& request);
    /// Tells all nodes of an event, such as "newFile".
    void Tell(const char* event, const std::shared_ptr<ZMessage>& message) {
        Publish(GetEndpoint(ZEndpointType::GraphService, event, 0), message);
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<ZMessage>> m_received;
};
