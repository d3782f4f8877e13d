#include "StoredFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace {
constexpr std::uint64_t kWriteBackStep = 4U << 20U;
}

StoredFile::~StoredFile() {
    Discard();
}

void StoredFile::Discard() {
    if (!m_temporary.empty()) {
        ::unlinkat(m_place.folder.Get(), m_temporary.c_str(), 0);
        m_temporary.clear();
    }
    m_file.Reset();
}

FileError StoredFile::Create(mode_t mode) {
    const std::string name = NewTemporaryName();
    m_file.Reset(::openat(m_place.folder.Get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR));
    if (!m_file) {
        return Break(SystemError(errno));
    }
    m_temporary = name;
    // Not left to the process's mask: installers are run straight from here.
    return ::fchmod(m_file.Get(), mode) == 0 ? FileError() : Break(SystemError(errno));
}

FileError StoredFile::Write(std::string_view bytes) {
    while (!m_failure && !bytes.empty()) {
        const ssize_t count = ::write(m_file.Get(), bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            m_size += static_cast<std::uint64_t>(count);
        } else if (errno != EINTR) {
            Break(SystemError(errno));
        }
    }
    if (!m_failure) {
        StartWriteBack();
    }
    return m_failure;
}

/// The disk writes while the next chunk is on its way, so that little is left to wait for at the end.
void StoredFile::StartWriteBack() {
    const std::uint64_t waiting = m_size - m_sentToDisk;
    if (waiting >= kWriteBackStep) {
        // Its outcome does not matter: what could not be written is reported by fsync.
        ::sync_file_range(m_file.Get(), static_cast<off64_t>(m_sentToDisk), static_cast<off64_t>(waiting),
                          SYNC_FILE_RANGE_WRITE);
        m_sentToDisk = m_size;
    }
}

FileError StoredFile::Break(FileError error) {
    if (!m_failure) {
        m_failure = std::move(error);
        Discard();
    }
    return m_failure;
}

FileError StoredFile::Commit() {
    if (!m_failure && ::fsync(m_file.Get()) != 0) {
        Break(SystemError(errno));
    }
    // Closed before it gets its name: whoever notices the new file must not take it for one that is being written.
    m_file.Reset();
    if (m_failure) {
        return m_failure;
    }
    const int folder = m_place.folder.Get();
    if (::renameat(folder, m_temporary.c_str(), folder, m_place.name.c_str()) != 0) {
        return Break(SystemError(errno));
    }
    m_temporary.clear();
    // Some file systems keep their folders safe by themselves and know no such call.
    return ::fsync(folder) == 0 || errno == EINVAL ? FileError() : Break(SystemError(errno));
}
