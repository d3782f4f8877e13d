#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Where log lines go. Relative sizes and counts follow the logging library's rotating file.
struct ZLogSettings {
    bool console = true;
    bool journal = false;            ///< the system journal, under the identifier "arbord"
    std::string file;                ///< empty: no file. Its directory is created.
    std::size_t fileSizeKiB = 1024;  ///< a file that grows past this is rotated
    std::size_t fileCount = 5;       ///< rotated files kept beside the current one
};

/// The process's log. Thread-safe. Levels: 1 detail, 2 information, 3 warning, 4 error.
/// Control characters and line breaks in a line, Unicode's too, are written as \n, \t or \xHH, so no text from outside
/// can forge a second line; what is longer than 8 KiB is cut.
class ZLog {
public:
    using Listener = std::function<void(int level, const std::string& line)>;

    static ZLog& Instance();

    /// Opens the outputs in `settings` in place of the present ones. On failure the present ones stay, `error` says
    /// what could not be opened, and false is returned.
    bool Configure(const ZLogSettings& settings, std::string& error);

    /// Writes one line; printf-style, checked by the compiler. Never throws, whatever the outputs do.
    void Log(int level, const char* channel, const char* file, const char* function, int line, const char* format, ...)
        __attribute__((format(printf, 7, 8)));

    /// Calls `listener` with every later line, on the thread that logs; it must be quick and must not log.
    /// Returns a number to hand to RemoveListener, which waits for a call that is under way.
    int AddListener(Listener listener);
    void RemoveListener(int id);

    /// The newest lines, oldest first, at most `count`; the log remembers the last 1,000.
    std::vector<std::string> Recent(std::size_t count) const;
    /// Writes what the outputs still buffer.
    void Flush();

private:
    ZLog();
    ~ZLog();
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// One log line of an object that has `m_logName`, `m_logLevel` and, in scope, `kLogSource` (its source path without
/// extension). A threshold of 0 silences the object.
#define Z_LOG(level, ...)                                                                                  \
    do {                                                                                                   \
        if (m_logLevel != 0 && m_logLevel <= (level)) {                                                    \
            ZLog::Instance().Log((level), m_logName.c_str(), kLogSource, __func__, __LINE__, __VA_ARGS__); \
        }                                                                                                  \
    } while (false)
