#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZFileSnapshot.h"
#include "ZTrust/ZTrust.h"

/// Which packages may run, and how: with a folder of trusted signers a package is read before anything of it runs, and
/// what runs is the copy that was read. Without one every file that may be executed is believed. Thread-safe.
class PackageTrust {
public:
    PackageTrust() = default;
    explicit PackageTrust(std::filesystem::path signers) : m_signers(std::move(signers)) {}

    bool IsOn() const { return !m_signers.empty(); }

    /// A package that may run.
    struct Approved {
        ZPackage package;
        ZFileDescriptor head;  ///< what runs, sealed
        ZFileSnapshot file;    ///< what was read, which holds the payload
    };
    /// Reads the file, which may be exchanged at any moment, within `limit`, and judges what was read. The error says
    /// why it may not run on `board`, which has to be known; it has the code of an invalid package when that was found
    /// out, and none when the file could not be read.
    ZResult<Approved> Examine(const std::filesystem::path& file, const std::string& board,
                              std::chrono::milliseconds limit) const;

    /// The shell command line that runs the package with `arguments`, apart from the system: no network, no other
    /// processes, nothing of the files but programs and libraries, nowhere to write but a small folder, no privileges;
    /// memory, processes and processor time are bounded, and all of it ends with the command. What runs are the
    /// approved bytes, at the path of `file`.
    std::string Command(const std::filesystem::path& file, const std::string& arguments, const Approved& package,
                        std::chrono::seconds limit) const;
    /// From now on commands run as this process does, with the approved bytes all the same.
    void LeaveUnconfined() { m_isConfined = false; }

    /// Whether the signers can be read; whether this system can confine commands.
    ZResult<void> HasSigners() const;
    ZResult<void> CanConfine() const;

private:
    std::filesystem::path m_signers;
    bool m_isConfined = true;
};
