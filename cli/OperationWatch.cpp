#include "OperationWatch.h"

#include <array>

#include "Interrupt.h"
#include "JsonFields.h"
#include "TextFormat.h"

namespace arborctl {
namespace {

using Clock = std::chrono::steady_clock;
using Meaning = LogSign::Meaning;

struct SignRow {
    Operation operation;
    std::string_view start;
    std::string_view later;  ///< Stands behind it in the line; empty: anything does.
    Meaning meaning;
};

constexpr std::array<SignRow, 8> kSigns{{
    {Operation::kTransfer, "Install File Close", " Complete SUCCESS", Meaning::kDone},
    {Operation::kTransfer, "Install File Close", " Complete FAILED", Meaning::kFailed},
    {Operation::kTransfer, "Unable to publish File Close!", "", Meaning::kFailed},
    {Operation::kTransfer, "Error on File write:", "", Meaning::kDamaged},
    {Operation::kTransfer, "The transfer of ", " ended after ", Meaning::kDamaged},
    {Operation::kRemoteInstall, "Unable to set LED on remote machine", "", Meaning::kFailed},
    {Operation::kRemoteInstall, "Failed to copy update file from remote", "", Meaning::kFailed},
    {Operation::kRemoteInstall, "Error executing remote install script", "", Meaning::kFailed},
}};

}  // namespace

std::optional<LogSign> SignOf(Operation operation, std::string_view logLine) {
    for (const auto& row : kSigns) {
        const std::size_t at = logLine.find(row.start);
        if (row.operation == operation && at != std::string_view::npos &&
            logLine.find(row.later, at) != std::string_view::npos) {
            return LogSign{row.meaning, Escaped(logLine.substr(at))};
        }
    }
    return std::nullopt;
}

Result<std::unique_ptr<OperationWatch>> OperationWatch::Begin(Session& session, Operation operation) {
    const auto log = operation == Operation::kInstall ? LogLines::kWithout : LogLines::kWith;
    auto stream = EventStream::Open(session.settings, log);
    if (!stream) {
        return stream.error();
    }
    return std::unique_ptr<OperationWatch>(new OperationWatch(session, operation, std::move(*stream)));
}

OperationWatch::OperationWatch(Session& session, Operation operation, std::unique_ptr<EventStream> stream)
    : m_session(session),
      m_operation(operation),
      m_log(operation == Operation::kInstall ? LogLines::kWithout : LogLines::kWith),
      m_stream(std::move(stream)),
      m_display(session.out, OutputColumns),
      m_lastNews(Clock::now()) {
    for (const auto& event : m_stream->TakeReplay()) {
        if (event.name == "progress") {
            m_oldProgress = event.data;
        }
    }
}

Result<void> OperationWatch::Follow(const std::string& version) {
    m_lastNews = Clock::now();
    while (Clock::now() - m_lastNews < m_session.settings.SilenceLimit()) {
        const auto event = m_stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return Failure{ExitCode::kInterrupted, "no longer watched; the device goes on with it"};
        }
        End end;
        if (event) {
            end = Take(*event);
        } else if (m_stream->Broken()) {
            end = Reconnect(version);
        } else if (!m_session.settings.json) {
            m_display.Tick();
        }
        if (end) {
            return *end;
        }
    }
    return m_damage.empty() ? Unreachable("the device has told nothing more about it in time; it may still be at work")
                            : Refused(m_damage);
}

OperationWatch::End OperationWatch::Take(const ServerEvent& event) {
    if (event.name == "progress") {
        return TakeProgress(event.data);
    }
    return event.name == "log" ? TakeLogLine(event.data) : std::nullopt;
}

OperationWatch::End OperationWatch::TakeProgress(const std::string& text) {
    if (m_reconnected && !m_sawOwnProgress && text == m_oldProgress) {
        return std::nullopt;
    }
    const auto document = fields::Parse(text);
    if (!document) {
        m_session.Note("a progress message is " + document.error().text);
        return std::nullopt;
    }
    const Progress progress = Progress::From(*document);
    if (m_operation == Operation::kTransfer && (progress.done || progress.error)) {
        return std::nullopt;  // another operation's: a transfer's own end is told by the log alone
    }
    m_sawOwnProgress = true;
    m_lastNews = Clock::now();
    if (m_session.settings.json) {
        m_session.PrintJson(*document);
    } else if (m_damage.empty()) {  // what goes on after a failed write is no way to a result any more
        m_display.Show(progress);
    }
    if (progress.error) {
        return Refused(progress.message.empty() ? "the device reports an error" : progress.message);
    }
    return progress.done ? End(Result<void>()) : std::nullopt;
}

OperationWatch::End OperationWatch::TakeLogLine(const std::string& text) {
    const auto document = fields::Parse(text);
    const auto sign = document ? SignOf(m_operation, fields::Text(*document, "line")) : std::nullopt;
    if (!sign) {
        return std::nullopt;
    }
    m_lastNews = Clock::now();
    if (sign->meaning == Meaning::kDamaged) {
        m_damage = m_damage.empty() ? sign->text : m_damage;
        return std::nullopt;
    }
    m_display.End();
    if (!m_damage.empty()) {
        return Refused(m_damage);  // the first thing that went wrong, whatever came of it
    }
    return sign->meaning == Meaning::kFailed ? End(Refused(sign->text)) : Result<void>();
}

OperationWatch::End OperationWatch::Reconnect(const std::string& version) {
    m_display.End();
    m_session.Note("the connection broke off; connecting again");
    auto stream = EventStream::Reopen(m_session.settings, m_log);
    if (!stream) {
        return stream.error();
    }
    m_stream = std::move(*stream);
    m_reconnected = true;
    const auto status = m_session.gateway.Get("/v1/status");
    const bool forgotten =
        status && fields::Member(*status, "progress").is_null() && !fields::Flag(*status, "updateInProgress");
    if (!forgotten) {
        return std::nullopt;  // the device goes on telling, beginning with its last progress
    }
    const std::string installed = fields::Text(*status, "installedVersion");
    if (m_operation == Operation::kInstall && installed == version) {
        return Result<void>();
    }
    return Unreachable("the device has restarted and no longer knows of it; it runs version " +
                       (installed.empty() ? std::string("unknown") : Escaped(installed)));
}

}  // namespace arborctl
