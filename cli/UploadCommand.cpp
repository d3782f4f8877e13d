#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "Commands.h"
#include "JsonFields.h"
#include "PackageCheck.h"
#include "ProgressDisplay.h"
#include "TextFormat.h"
#include "text/Base64.h"

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl {
namespace {

/// File bytes in one message: a multiple of three, so that only the last one's base64 text carries padding, and small
/// enough for the device's limit on a request.
constexpr std::size_t kChunkBytes = 776700;
/// The file's permissions at the device: a package has to be executable (octal 0755).
constexpr int kFileMode = 493;
constexpr std::chrono::milliseconds kOpeningTime{5000};

/// One file on its way. The device opens it under a temporary name and gives it its own when it is closed; an upload
/// that breaks off is therefore left open, and the device throws it away when nobody has used it for a while.
class Upload {
public:
    Upload(Session& session, std::string name, std::size_t size)
        : m_session(session), m_name(std::move(name)), m_size(size), m_display(session.out, OutputColumns) {}

    /// Everything but the closing.
    Result<void> Carry(std::istream& file) {
        if (auto opened = Open(); !opened) {
            return opened;
        }
        std::string chunk;
        while (m_sent < m_size) {
            chunk.resize(std::min(kChunkBytes, m_size - m_sent));
            if (!file.read(chunk.data(), static_cast<std::streamsize>(chunk.size()))) {
                return UsageFailure(Escaped(m_name) + ": could not be read to its end; has it changed meanwhile?");
            }
            json::object write{{"className", "ZFileWriteMsg"}, {"data", text::Base64(chunk)}, {"position", m_sent}};
            if (auto sent = Tell("write", std::move(write)); !sent) {
                if (m_refused) {
                    Close();  // what the device could not write it throws away now, and the next try finds the place
                              // free
                }
                return sent;
            }
            m_sent += chunk.size();
            ShowProgress();
        }
        return {};
    }

    Result<void> Close() { return Tell("close", {{"className", "ZFileCloseMsg"}}); }

private:
    /// A device that takes files says so at once; one that does not lets the question wait in vain.
    Result<void> Open() {
        const auto limit = std::min(kOpeningTime, m_session.settings.RequestLimit());
        auto opened = Tell("open", {{"className", "ZFileOpenMsg"}, {"mode", kFileMode}, {"size", m_size}}, limit);
        if (!opened && opened.error().timedOut) {
            return Unreachable(Escaped(m_name) + ": the device did not take the file in time: is there a file node " +
                               "(NodeFileIO) in its graph, and is it idle (arborctl status)?");
        }
        return opened;
    }

    Result<void> Tell(const std::string& step, json::object message,
                      std::optional<std::chrono::milliseconds> limit = {}) {
        message["filePath"] = m_name;
        const auto answer = m_session.gateway.Send("upload", message, limit);
        if (!answer) {
            return answer.error();
        }
        m_refused = !fields::Flag(*answer, "bSuccess");
        if (m_refused) {
            return Refused(Escaped(m_name) + ": " + step + " refused: " + fields::Refusal(*answer, "no reason given"));
        }
        return {};
    }

    void ShowProgress() {
        const auto percent = static_cast<int>(m_sent * 100 / m_size);
        if (m_session.settings.json) {
            m_session.PrintJson(json::object{{"sent", m_sent}, {"size", m_size}, {"percent", percent}});
            return;
        }
        Progress progress;
        progress.header = "Upload";
        progress.message = Escaped(m_name) + ", " + ByteCount(m_size);
        progress.percent = percent;
        progress.done = m_sent == m_size;
        m_display.Show(progress);
    }

    Session& m_session;
    std::string m_name;
    std::size_t m_size;
    std::size_t m_sent = 0;
    bool m_refused = false;  // by the device, with the last answer that it gave
    ProgressDisplay m_display;
};

/// Why the device takes a file of this name but never looks at it; empty when it does.
std::string WhyUnchecked(const std::string& name) {
    return name.starts_with('.') ? "its name begins with a dot" : WhyNoPackage(name);
}

/// Closes the file, has the device look at it and tells what the device makes of it.
Result<ExitCode> CloseAndCheck(Session& session, Upload& upload, const std::string& name, const std::string& size) {
    // From before the device can begin: the whole carrying would only fill the stream with other news.
    const auto watch = JobWatch::Begin(session, JobWatch::Show::kNothing);
    if (!watch) {
        return watch.error();
    }
    const auto wanted = NextCheckOf(session, **watch, name);
    if (!wanted) {
        return wanted.error();
    }
    if (const auto closed = upload.Close(); !closed) {
        return closed.error();
    }
    if (!session.settings.json) {
        session.out << Escaped(name) << ": uploaded, " << size << "; the device checks it" << std::endl;
    }
    const auto job = (*watch)->Follow(*wanted);
    return job ? TellCheck(session, wanted->file, *job) : job.error();
}

}  // namespace

Result<ExitCode> UploadFile(Session& session, const UploadOrder& order) {
    std::error_code error;
    const auto size = fs::file_size(order.file, error);
    if (error) {
        return UsageFailure(Escaped(order.file) + ": " + error.message());
    }
    std::ifstream stream(order.file, std::ios::binary);
    if (!stream) {
        return UsageFailure(Escaped(order.file) + ": " + std::strerror(errno));
    }
    const std::string name = fs::path(order.file).filename().string();
    if (const std::string reason = WhyUnchecked(name); order.check && !reason.empty()) {
        return UsageFailure(Escaped(order.file) + ": the device would not check it, since " + reason + " (--no-check)");
    }
    Upload upload(session, name, size);
    if (const auto carried = upload.Carry(stream); !carried) {
        return carried.error();
    }
    if (order.check) {
        return CloseAndCheck(session, upload, name, ByteCount(size));
    }
    if (const auto closed = upload.Close(); !closed) {
        return closed.error();
    }
    session.Print(json::object{{"outcome", "done"}, {"file", name}, {"size", size}},
                  Escaped(name) + ": uploaded, " + ByteCount(size) + "\n");
    return ExitCode::kDone;
}

}  // namespace arborctl
