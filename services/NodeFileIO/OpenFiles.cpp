#include "OpenFiles.h"
#include "text/Base64.h"

#include <algorithm>
#include <cerrno>

namespace {
constexpr std::int32_t kPermissionBits = 0777;
}

FileError OpenFiles::Open(const ZFileOpenMsg& message) {
    if ((message.m_Mode & ~kPermissionBits) != 0) {
        return BadRequest("the mode " + std::to_string(message.m_Mode) + " holds more than permission bits");
    }
    if (m_files.size() >= m_most) {
        return {ZFrameworkErrorCodes::ERRCODE_BUSY, std::to_string(m_files.size()) + " files are open already"};
    }
    FileOwner owner = FileOwner::Of(message);
    if (HasItsShare(owner.asker)) {
        return {ZFrameworkErrorCodes::ERRCODE_BUSY, "as many files as one may have open are open already"};
    }
    FilePlace place;
    if (FileError error = FindPlace(m_roots, message.m_FilePath, MissingFolders::Made, place)) {
        return error;
    }
    const auto isThere = [&](const auto& entry) { return entry.second.file->Path() == place.path; };
    if (m_files.contains(message.m_FilePath) || std::ranges::any_of(m_files, isThere)) {
        return {ZFrameworkErrorCodes::ERRCODE_BUSY, "it is open already"};
    }
    auto file = std::make_unique<StoredFile>(std::move(place));
    if (FileError error = file->Create(static_cast<mode_t>(message.m_Mode))) {
        return error;
    }
    m_files.emplace(message.m_FilePath, Entry{std::move(owner), std::move(file), message.m_Size, Clock::now()});
    return {};
}

/// Three quarters: others must find a place, whatever one of them does. Nodes of this graph may have all.
bool OpenFiles::HasItsShare(const std::string& asker) const {
    const auto isIts = [&](const auto& entry) { return entry.second.owner.asker == asker; };
    const auto open = static_cast<std::size_t>(std::ranges::count_if(m_files, isIts));
    return !asker.empty() && open >= std::max<std::size_t>(m_most * 3 / 4, 1);
}

FileError OpenFiles::Find(const ZFileMsg& message, Table::iterator& entry) {
    entry = m_files.find(message.m_FilePath);
    if (entry == m_files.end()) {
        return {ZFrameworkErrorCodes::ERRCODE_NOT_FOUND, "it is not open"};
    }
    const FileOwner& owner = entry->second.owner;
    if (const FileOwner sender = FileOwner::Of(message); sender != owner) {
        return BadRequest(sender.asker != owner.asker ? "somebody else opened it" : "it was opened for another device");
    }
    return {};
}

FileError OpenFiles::Write(const ZFileWriteMsg& message) {
    Table::iterator entry;
    if (FileError error = Find(message, entry)) {
        return error;
    }
    FileError outcome = Append(message, *entry->second.file);
    entry->second.lastUse = Clock::now();  // not sooner: a slow disk is no idle sender
    return outcome;
}

/// Senders may go on after a failure. A file with a gap must not get its name, so every failure stays with it.
FileError OpenFiles::Append(const ZFileWriteMsg& message, StoredFile& file) {
    if (message.m_Position >= 0 && static_cast<std::uint64_t>(message.m_Position) != file.Size()) {
        return file.Break(BadRequest("a chunk for position " + std::to_string(message.m_Position) + " came at " +
                                     std::to_string(file.Size())));
    }
    try {
        return text::DecodeBase64(message.m_Data, m_bytes) ? file.Write({m_bytes.data(), m_bytes.size()})
                                                           : file.Break(BadRequest("the data is no base64"));
    } catch (const std::bad_alloc&) {
        return file.Break(SystemError(ENOMEM));
    }
}

FileError OpenFiles::Close(const ZFileCloseMsg& message) {
    Table::iterator entry;
    if (FileError error = Find(message, entry)) {
        return error;
    }
    const auto closed = m_files.extract(entry);
    const auto& [owner, file, size, lastUse] = closed.mapped();
    if (size >= 0 && file->Size() != static_cast<std::uint64_t>(size)) {
        file->Break(BadRequest(std::to_string(file->Size()) + " bytes came instead of " + std::to_string(size)));
    }
    return file->Commit();
}

std::vector<std::string> OpenFiles::DiscardUnusedSince(Clock::time_point limit) {
    std::vector<std::string> paths;
    std::erase_if(m_files, [&](const auto& entry) {
        const bool unused = entry.second.lastUse <= limit;
        if (unused) {
            paths.push_back(ToStdString(entry.first));
        }
        return unused;
    });
    return paths;
}
