#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Confinement.h"
#include "ConfinementTrial.h"
#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZFileSnapshot.h"
#include "ZTrust/ZTrust.h"
#include "ZTrust/ZTrustInForce.h"

/// What tells the package's image from others; empty when the package does not tell it.
inline std::string ImageDigest(const ZPackage& package) {
    return package.isDetached ? std::string() : package.payload.sha256;
}

/// Which packages may run, and how: with a folder of trusted signers a package is read before anything of it runs, and
/// what runs is the copy that was read. Without one every file that may be executed is believed. Thread-safe.
class PackageTrust {
public:
    struct Policy {
        std::filesystem::path signers;  ///< the folder that says whose packages may run; empty: everybody's
        std::filesystem::path state;    ///< where trust documents are kept; empty: none can be
        bool acceptsDevelopment = false;
        bool goesOnUnconfined = false;  ///< where commands can't be confined they run all the same; else none does
    };
    PackageTrust() = default;
    explicit PackageTrust(Policy policy) : m_policy(std::move(policy)) {}

    bool IsOn() const { return !m_policy.signers.empty(); }
    /// Who is trusted now.
    ZResult<ZTrustedSigners> Signers() const;

    /// Puts the last of a chain of trust documents into force, safe on the disk. Gives its number, or nothing when it
    /// is nothing new. An error says why not; all stays as it was then.
    ZResult<std::optional<std::uint32_t>> Follow(const ZTrustChain& chain);
    /// Whether the chain's last document comes after the one in force. Where none is in force, there is no such chain.
    bool IsNewer(const ZTrustChain& chain) const;

    /// A package as it was read.
    struct Opened {
        ZPackage package;
        ZFileSnapshot file;
        /// A copy of all of it, of a package whose signature covers all: one of format 1, or one with its signature in
        /// a file beside it.
        ZFileDescriptor whole;
    };
    /// One that may run.
    struct Approved : Opened {
        ZFileDescriptor program;  ///< what runs, and nobody else can change: the package's head, or all of it
        /// What the program reads the package from; empty when it has all of it.
        std::string Source() const { return whole ? std::string() : file.Path(); }
    };
    /// Reads the file, which may be exchanged at any moment, within `limit`. An error has the code of an invalid
    /// package when what was read is none, and no code when it could not be read.
    ZResult<Opened> Open(const std::filesystem::path& file, std::chrono::milliseconds limit) const;
    /// Judges what was read. The error says why it may not run on `board`, which has to be known; its code is as
    /// Open's.
    ZResult<Approved> Approve(Opened opened, const std::string& board) const;

    /// Whether the package may run on `board` (empty: any), by who is trusted now. Its payload is not looked at. An
    /// error's code is as Open's.
    ZResult<void> Judge(const ZPackage& package, const std::string& board) const;

    /// The shell command line that runs the package with `arguments`, apart from the system: no network, no other
    /// processes, nothing of the files but programs and libraries, nowhere to write but a small folder, no privileges;
    /// memory, processes and processor time are bounded, and all of it ends with the command. Where that can't be, and
    /// the policy goes on, it runs as this process does. What runs are the approved bytes; those of a head at the path
    /// of `file`.
    std::string Command(const std::filesystem::path& file, const std::string& arguments, const Approved& package,
                        std::chrono::seconds limit) const;

    /// Begins to find out whether this system can confine commands, which takes a while: what depends on it waits, no
    /// longer than ConfinementTrial::kLimit. `told` gets the outcome, as there.
    void TryConfining(ConfinementTrial::Told told);
    /// Whether this system can confine commands. Waits as said above; before TryConfining it is taken for so.
    ZResult<void> CanConfine() const;
    /// Whether that can be told without waiting; as ConfinementTrial::IsKnown.
    bool KnowsConfining(std::chrono::milliseconds patience) const;

private:
    Confinement Confined() const;
    /// Whether anything may run, by what is known of this system.
    ZResult<void> MayRun() const;
    ZResult<void> MayBeCopied(int signature) const;
    ZResult<Opened> OpenWhole(const std::filesystem::path& file, ZFileSnapshot snapshot,
                              std::chrono::milliseconds limit) const;

    Policy m_policy;
    std::unique_ptr<std::mutex> m_following = std::make_unique<std::mutex>();
    std::unique_ptr<std::mutex> m_copying = std::make_unique<std::mutex>();
    std::unique_ptr<ConfinementTrial> m_trial;  // none: it was not tried
};
