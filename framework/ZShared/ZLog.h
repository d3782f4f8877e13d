#pragma once

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ZShared/ZError.h"
#include "ZShared/ZLogFormat.h"

/// Where log lines go. Relative sizes and counts follow the logging library's rotating file.
struct ZLogSettings {
    bool console = true;
    bool journal = false;            ///< the system journal, under the identifier "arbord"
    std::string file;                ///< empty: no file. Its directory is created.
    std::size_t fileSizeKiB = 1024;  ///< a file that grows past this is rotated
    std::size_t fileCount = 5;       ///< rotated files kept beside the current one
};

/// A line as it was written, and what it consists of.
struct ZLogLine {
    std::uint64_t number = 0;  ///< counted from 1 since the process began
    std::int64_t time = 0;     ///< milliseconds since 1970
    int level = 0;
    std::string line;            ///< "CHANNEL FILE FUNCTION:NUMBER TEXT"
    std::size_t channelEnd = 0;  ///< where the channel ends in it
    std::size_t textBegin = 0;   ///< where the text begins

    std::string_view Channel() const { return std::string_view(line).substr(0, channelEnd); }
    std::string_view Text() const { return std::string_view(line).substr(textBegin); }
};

/// While one of these lives, the lines of its thread count as the answer to somebody's question. The log remembers only
/// few of them, so that a program which asks every second does not push out what happened.
class ZAnswerLines {
public:
    ZAnswerLines();
    ~ZAnswerLines();
    ZAnswerLines(const ZAnswerLines&) = delete;
    ZAnswerLines& operator=(const ZAnswerLines&) = delete;
};

/// Which of the remembered lines are wanted.
struct ZLogChoice {
    std::size_t count = 1000;  ///< at most so many, the newest
    int level = 0;             ///< of this level and above
    std::int64_t since = 0;    ///< written then or later, in milliseconds since 1970
};

/// The process's log. Thread-safe. Levels: 1 detail, 2 information, 3 warning, 4 error.
/// Control characters and line breaks in a line, Unicode's too, are written as \n, \t or \xHH, so no text from outside
/// can forge a second line; what is longer than 8 KiB is cut.
class ZLog {
public:
    using Listener = std::function<void(const ZLogLine& line)>;

    static ZLog& Instance();

    /// Opens the outputs in `settings` in place of the present ones. On failure the present ones stay, and the error
    /// says what could not be opened.
    ZResult<void> Configure(const ZLogSettings& settings);

    /// Writes one line; printf-style, checked by the compiler. Never throws, whatever the outputs do.
    void Log(int level, const char* channel, const char* file, const char* function, int line, const char* format, ...)
        __attribute__((format(printf, 7, 8)));

    /// Calls `listener` with every later line, on the thread that logs; it must be quick and must not log.
    /// Returns a number to hand to RemoveListener, which waits for a call that is under way.
    int AddListener(Listener listener);
    void RemoveListener(int id);

    /// The newest lines that are wanted, oldest first. The log remembers the last 1,000, and of answers to questions
    /// the last 100.
    std::vector<ZLogLine> Recent(const ZLogChoice& choice) const;
    /// Writes what the outputs still buffer.
    void Flush();

private:
    friend class ZLogger;
    ZLog();
    ~ZLog();
    /// As Log, for a format that was compared with its arguments before.
    void LogChecked(int level, const char* channel, const char* file, const char* function, int line,
                    const char* format, ...);
    void Write(int level, const char* channel, const char* file, const char* function, int line, const char* format,
               va_list arguments);

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// A source path as log lines name it: from the room's folder on, without the extension. Made while compiling.
class ZSourcePath {
public:
    template <std::size_t N>
    consteval explicit ZSourcePath(const char (&file)[N]) {
        const std::size_t end = std::string_view(file).rfind('.');
        for (std::size_t at = 0; at < std::min(end, m_text.size() - 1); ++at) {
            m_text[at] = file[at];
        }
    }
    const char* Text() const { return m_text.data(); }

private:
    std::array<char, 64> m_text{};
};

/// Who writes log lines: the channel that they stand under, and from which level on they are written. Made where it is
/// needed; the texts must outlive it.
class ZLogger {
public:
    /// `source` is the source path, without its extension, that the lines name; null: the file that the compiler sees.
    constexpr explicit ZLogger(const char* channel, std::int32_t threshold = 1, const char* source = nullptr)
        : m_channel(channel), m_source(source), m_threshold(threshold) {}

    /// Whether a line of that level is written: never with a threshold of 0.
    constexpr bool Takes(int level) const { return m_threshold != 0 && m_threshold <= level; }

    template <typename... Arguments>
    void Write(int level, const char* file, const char* function, int line,
               const ZLogFormat<std::type_identity_t<std::decay_t<const Arguments>>...>& format,
               const Arguments&... arguments) const {
        ZLog::Instance().LogChecked(level, m_channel, m_source == nullptr ? file : m_source, function, line,
                                    format.Text(), ZLogArgument<std::decay_t<const Arguments>>(arguments).Get()...);
    }

private:
    const char* m_channel;
    const char* m_source;
    std::int32_t m_threshold;
};

/// One log line: Z_LOG(3, "Drive %s: %s", path, reason). Written by the `Log()` in scope: an object's own, or the
/// function of that name that a source file has. The format is printf's and compared with the arguments while
/// compiling; std::string, ZString, std::string_view, paths and enumerators stand for %s as they are. Arguments are
/// only evaluated when the line is written.
#define Z_LOG(level, ...)                                                                           \
    do {                                                                                            \
        if (const ZLogger& z_logger = Log(); z_logger.Takes(level)) {                               \
            z_logger.Write((level), ZSourcePath(__FILE__).Text(), __func__, __LINE__, __VA_ARGS__); \
        }                                                                                           \
    } while (false)
