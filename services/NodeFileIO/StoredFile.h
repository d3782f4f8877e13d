#pragma once

#include "SafePath.h"

/// A file on its way into its place. Until it is committed it has a temporary name beside that, and goes with this
/// object. One that failed once can't be committed. One thread uses an object.
class StoredFile {
public:
    explicit StoredFile(FilePlace place) : m_place(std::move(place)) {}
    ~StoredFile();
    StoredFile(const StoredFile&) = delete;
    StoredFile& operator=(const StoredFile&) = delete;

    /// Makes the temporary file, with exactly these permission bits. Once, before anything else.
    FileError Create(mode_t mode);
    /// Writes behind what was written before; all or it failed.
    FileError Write(std::string_view bytes);
    /// Makes the file fail with `error`, unless it has before, and gives its room on the disk back. Returns why it
    /// failed first, as every later call does.
    FileError Break(FileError error);
    /// Brings the file safely to the disk and gives it its name, in place of an older file. Once.
    FileError Commit();

    const std::filesystem::path& Path() const { return m_place.path; }
    /// Bytes written so far.
    std::uint64_t Size() const { return m_size; }

private:
    void StartWriteBack();
    void Discard();

    FilePlace m_place;
    ZFileDescriptor m_file;
    std::string m_temporary;  // its name; empty: there is none
    FileError m_failure;
    std::uint64_t m_size = 0;
    std::uint64_t m_sentToDisk = 0;  // how much of it the system has been asked to write back
};
