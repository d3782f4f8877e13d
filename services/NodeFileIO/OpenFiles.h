#pragma once

#include <chrono>
#include <map>

#include "StoredFile.h"
#include "ZMessages/Messages.h"

/// The files that are being received, by the path that their sender gave them. Messages about a file belong to the one
/// that opened it when they name the same device: what comes in as an upload names this one. What is still open when
/// the table goes leaves nothing behind. One thread uses an object.
class OpenFiles {
public:
    using Clock = std::chrono::steady_clock;

    /// Files may be below `roots` (as FindPlace wants them); at most `most` are open at once.
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
    struct Owner {
        ZDeviceModel model;
        ZString serialNumber;
        bool operator==(const Owner&) const = default;
    };
    struct Entry {
        Owner owner;
        std::unique_ptr<StoredFile> file;
        std::int64_t size;  // as announced; negative: it was not
        Clock::time_point lastUse;
    };
    using Table = std::map<ZString, Entry>;

    FileError Find(const ZFileMsg& message, Table::iterator& entry);
    FileError Append(const ZFileWriteMsg& message, StoredFile& file);

    const std::vector<std::filesystem::path> m_roots;
    const std::size_t m_most;
    Table m_files;
    std::vector<char> m_bytes;  // of one write, kept so that its memory is used again
};
