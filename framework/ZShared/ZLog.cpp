#include "ZShared/ZLog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/sinks/systemd_sink.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <iterator>
#include <map>
#include <shared_mutex>
#include <string_view>

#include "ZShared/ZGuarded.h"
#include "ZShared/ZProcess.h"
#include "text/Escape.h"

namespace {

constexpr std::size_t kRemembered = 1000;
constexpr std::size_t kRememberedAnswers = 100;
// A text from outside may be megabytes long; a thousand such lines are kept in memory.
constexpr std::size_t kLongestText = std::size_t{8} * 1024;

thread_local int t_answerLines = 0;

spdlog::level::level_enum LibraryLevel(int level) {
    constexpr spdlog::level::level_enum kLevels[] = {spdlog::level::trace, spdlog::level::debug, spdlog::level::info,
                                                     spdlog::level::warn, spdlog::level::err};
    return kLevels[std::clamp(level, 0, 4)];
}

std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) {
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

/// The text as one line of a bounded length.
std::string Line(const std::string& text) {
    if (text.size() <= kLongestText) {
        return text::Escaped(text);
    }
    return text::Escaped(std::string_view(text).substr(0, kLongestText)) + "... " +
           std::to_string(text.size() - kLongestText) + " bytes left out";
}

/// The newest lines of one kind.
class RecentLines {
public:
    explicit RecentLines(std::size_t limit) : m_limit(limit) {}

    void Add(const ZLogLine& line) {
        m_lines.push_back(line);
        if (m_lines.size() > m_limit) {
            m_lines.pop_front();
        }
    }
    void AppendWanted(const ZLogChoice& choice, std::vector<ZLogLine>& to) const {
        std::ranges::copy_if(m_lines, std::back_inserter(to), [&](const ZLogLine& line) {
            return line.level >= choice.level && line.time >= choice.since;
        });
    }

private:
    std::size_t m_limit;
    std::deque<ZLogLine> m_lines;
};

std::shared_ptr<spdlog::logger> MakeLogger(const ZLogSettings& settings) {
    std::vector<spdlog::sink_ptr> sinks;
    if (settings.console) {
        sinks.push_back(std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
    }
    if (settings.journal) {
        sinks.push_back(std::make_shared<spdlog::sinks::systemd_sink_mt>("arbord"));
    }
    if (!settings.file.empty()) {
        sinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
            settings.file, settings.fileSizeKiB * 1024, settings.fileCount));
    }
    auto logger = std::make_shared<spdlog::logger>("arbor", sinks.begin(), sinks.end());
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::info);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%L%$ %v");
    return logger;
}

}  // namespace

struct ZLog::Impl {
    struct Outputs {
        std::shared_ptr<spdlog::logger> logger = MakeLogger({});
        std::uint64_t lastNumber = 0;
        RecentLines recent{kRemembered};
        RecentLines answers{kRememberedAnswers};
    };
    ZGuarded<Outputs> outputs;

    // Shared while listeners are called, so that removing one waits for its call to end.
    std::shared_mutex listenersMutex;
    std::map<int, Listener> listeners;
    int nextListener = 1;
};

ZAnswerLines::ZAnswerLines() {
    ++t_answerLines;
}
ZAnswerLines::~ZAnswerLines() {
    --t_answerLines;
}

ZLog::ZLog() : m_impl(std::make_unique<Impl>()) {}
ZLog::~ZLog() = default;

ZLog& ZLog::Instance() {
    static ZLog log;
    return log;
}

ZResult<void> ZLog::Configure(const ZLogSettings& settings) {
    try {
        auto logger = MakeLogger(settings);
        m_impl->outputs.Lock()->logger = std::move(logger);
        return {};
    } catch (const std::exception& failure) {
        return ZError(failure.what());
    }
}

void ZLog::Log(int level, const char* channel, const char* file, const char* function, int line, const char* format,
               ...) {
    va_list arguments;
    va_start(arguments, format);
    Write(level, channel, file, function, line, format, arguments);
    va_end(arguments);
}

void ZLog::LogChecked(int level, const char* channel, const char* file, const char* function, int line,
                      const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Write(level, channel, file, function, line, format, arguments);
    va_end(arguments);
}

void ZLog::Write(int level, const char* channel, const char* file, const char* function, int line, const char* format,
                 va_list arguments) {
    try {
        ZLogLine entry;
        entry.level = level;
        entry.line = std::string(channel) + ' ' + file + ' ' + function + ':' + std::to_string(line) + ' ';
        entry.channelEnd = std::string_view(channel).size();
        entry.textBegin = entry.line.size();
        entry.line += Line(Format(format, arguments));
        std::shared_ptr<spdlog::logger> logger;
        {
            const auto outputs = m_impl->outputs.Lock();
            logger = outputs->logger;
            entry.number = ++outputs->lastNumber;
            entry.time = MillisecondsNow();
            (t_answerLines > 0 ? outputs->answers : outputs->recent).Add(entry);
        }
        logger->log(LibraryLevel(level), spdlog::string_view_t(entry.line));
        const std::shared_lock lock(m_impl->listenersMutex);
        for (const auto& [id, listener] : m_impl->listeners) {
            listener(entry);
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): a log that fails has nowhere to say so
    }
}

int ZLog::AddListener(Listener listener) {
    const std::unique_lock lock(m_impl->listenersMutex);
    m_impl->listeners.emplace(m_impl->nextListener, std::move(listener));
    return m_impl->nextListener++;
}

void ZLog::RemoveListener(int id) {
    const std::unique_lock lock(m_impl->listenersMutex);
    m_impl->listeners.erase(id);
}

std::vector<ZLogLine> ZLog::Recent(const ZLogChoice& choice) const {
    std::vector<ZLogLine> lines;
    {
        const auto outputs = m_impl->outputs.Lock();
        outputs->recent.AppendWanted(choice, lines);
        outputs->answers.AppendWanted(choice, lines);
    }
    std::ranges::sort(lines, {}, &ZLogLine::number);
    const std::size_t skip = lines.size() - std::min(choice.count, lines.size());
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(skip));
    return lines;
}

void ZLog::Flush() {
    m_impl->outputs.Lock()->logger->flush();
}
