#pragma once

#include <chrono>
#include <map>

#include "StoredFile.h"
#include "ZMessages/Messages.h"

/// Whose a file is while it is being received: of the device that its messages name (what comes in as an upload names
/// this one), and of who opened it. Nobody else may write to it or end it.
struct FileOwner {
    ZDeviceModel model;
    ZString serialNumber;
    std::string asker;  // empty: a node of this graph
    static FileOwner Of(const ZFileMsg& message) {
        return {message.m_DeviceModel, message.m_SerialNumber, message.Origin() ? message.Origin()->asker : ""};
    }
    bool operator==(const FileOwner&) const = default;
};

/// The files that are being received, by the path that their sender gave them. What is still open when the table goes
/// leaves nothing behind. One thread uses an object.
class OpenFiles {
public:
    using Clock = std::chrono::steady_clock;

    /// Files may be below `roots` (as FindPlace wants them); at most `most` are open at once,
    /// of one asker three quarters of them.
    OpenFiles(std::vector<std::filesystem::path> roots, std::size_t most) : m_roots(std::move(roots)), m_most(most) {}

    FileError Open(const ZFileOpenMsg& message);
    FileError Write(const ZFileWriteMsg& message);
    /// The file is closed whatever comes of it: afterwards it is complete under its name, or gone.
    FileError Close(const ZFileCloseMsg& message);

    /// Throws the files away that were not used since `limit`, and returns their paths.
    std::vector<std::string> DiscardUnusedSince(Clock::time_point limit);

    /// Throws one file away; whether it was open.
    bool Discard(const ZString& path) { return m_files.erase(path) > 0; }

    bool IsEmpty() const { return m_files.empty(); }
    const std::vector<std::filesystem::path>& Roots() const { return m_roots; }

private:
    struct Entry {
        FileOwner owner;
        std::unique_ptr<StoredFile> file;
        std::int64_t size;  // as announced; negative: it was not
        Clock::time_point lastUse;
    };
    using Table = std::map<ZString, Entry>;

    bool HasItsShare(const std::string& asker) const;
    FileError Find(const ZFileMsg& message, Table::iterator& entry);
    FileError Append(const ZFileWriteMsg& message, StoredFile& file);

    const std::vector<std::filesystem::path> m_roots;
    const std::size_t m_most;
    Table m_files;
    std::vector<char> m_bytes;  // of one write, kept so that its memory is used again
};
