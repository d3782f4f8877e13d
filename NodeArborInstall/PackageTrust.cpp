#include "PackageTrust.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "PackageFiles.h"
#include "ShellText.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZFileSnapshot.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZReplaceFile.h"
#include "ZShared/ZStopEvent.h"

namespace fs = std::filesystem;

namespace {

// What of a package is read before it runs: what the format allows for its head and its trailer. Nearly all are content
// with less.
constexpr ZSnapshotSize kRead{.begin = std::size_t{4'300'000}, .end = std::size_t{64} * 1024};
constexpr ZSnapshotSize kUsuallyRead{.begin = std::size_t{192} * 1024, .end = std::size_t{64} * 1024};

// What of a signature beside it; larger ones are none.
constexpr ZSnapshotSize kSignature{.begin = std::size_t{129} * 1024, .end = 0};

constexpr const char* kOpened = "/proc/self/fd/8";  // by the shell, for what runs

constexpr auto kInvalid = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;

// Whether what says who is trusted can be read: the trust documents, or the certificates where there are none.
constexpr const char* kCanRead =
    R"(ls "$0" > /dev/null || exit 1
       for file in "$0"/arbor-trust.json "$1"/arbor-trust.json; do
           [ ! -e "$file" ] || { cat "$file" > /dev/null && there=1; } || exit 1
       done
       for file in "$0"/*.pem "$0"/*.crt; do [ -n "$there" ] || [ ! -e "$file" ] || cat "$file" > /dev/null || exit 1; done)";

/// For everybody to read, whatever new files usually allow: a package looks into it as nobody.
void MakeState(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    fs::permissions(folder,
                    fs::perms::group_read | fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec,
                    fs::perm_options::add, error);
}

ZResult<void> Keep(const std::string& chain, const fs::path& folder) {
    if (folder.empty()) {
        return ZError("there is no place to keep trust documents: TrustState is not set");
    }
    MakeState(folder);
    return ReplaceFile(folder / kTrustFileName, chain, 0644);
}

ZResult<ZFileDescriptor> Duplicate(const ZFileDescriptor& file) {
    ZFileDescriptor copy(::fcntl(file.Get(), F_DUPFD_CLOEXEC, 0));
    if (!copy) {
        return ZError::OfSystem("a descriptor", errno);
    }
    return copy;
}

}  // namespace

ZResult<ZTrustedSigners> PackageTrust::Signers() const {
    return ZTrustedSigners::Load(m_policy.signers.string(), m_policy.state.string());
}

ZResult<std::optional<std::uint32_t>> PackageTrust::Follow(const ZTrustChain& chain) {
    const std::lock_guard lock(*m_following);
    const auto signers = Signers();
    if (!signers) {
        return signers.error();
    }
    const auto followed = signers->Follow(chain);
    if (!followed) {
        return followed.error();
    }
    if (!*followed) {
        return std::optional<std::uint32_t>();
    }
    if (const auto kept = Keep((*followed)->text, m_policy.state); !kept) {
        return kept.error();
    }
    return std::optional((*followed)->signers.Document()->number);
}

bool PackageTrust::IsNewer(const ZTrustChain& chain) const {
    const auto signers = Signers();
    return signers && signers->Document() != nullptr && chain.Last().number > signers->Document()->number;
}

ZResult<PackageTrust::Opened> PackageTrust::Open(const fs::path& path, std::chrono::milliseconds limit) const {
    if (const auto may = MayRun(); !may) {
        return may.error();
    }
    const auto deadline = ZClock::now() + limit;
    const auto left = [&] { return std::chrono::ceil<std::chrono::milliseconds>(deadline - ZClock::now()); };
    auto file = SnapshotFile(path.string(), kUsuallyRead, limit);
    if (!file) {
        return file.error();
    }
    auto package = ZPackage::ReadSecondFormat(file->copy.Get());
    if (!package) {  // perhaps for want of what was not read
        file = SnapshotFile(path.string(), kRead, left());
        if (!file) {
            return file.error();
        }
        package = ZPackage::ReadSecondFormat(file->copy.Get());
    }
    if (package) {
        return Opened{std::move(*package), std::move(*file), {}};
    }
    if (package.error().code != ZVerdictCode::NotPackage) {
        return ZError(package.error().sentence, kInvalid);
    }
    return OpenWhole(path, std::move(*file), std::max<std::chrono::milliseconds>(left(), kCopyPatience));
}

ZResult<PackageTrust::Opened> PackageTrust::OpenWhole(const fs::path& path, ZFileSnapshot file,
                                                      std::chrono::milliseconds limit) const {
    const auto deadline = ZClock::now() + limit;
    const bool isFirstFormat = ZPackage::FormatOf(file.copy.Get()) == 1;
    const auto signature = SnapshotFile(path.string() + ".sig", kSignature, limit);
    if (!isFirstFormat && !signature) {
        return ZError(ZPackage::ReadSecondFormat(file.copy.Get()).error().sentence, kInvalid);
    }
    // Strangers' files are not copied, as far as that can be told without all of them.
    if (const auto may = isFirstFormat ? ZResult<void>() : MayBeCopied(signature->copy.Get()); !may) {
        return may.error();
    }
    if (m_policy.state.empty()) {
        return ZError(
            "all of it would have to be copied before it runs, and there is no place for that: TrustState is "
            "not set");
    }
    MakeState(m_policy.state);
    const std::lock_guard oneAtATime(*m_copying);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - ZClock::now());
    if (left <= left.zero()) {
        return ZError("other packages were being copied, and there was no time left for this one");
    }
    auto whole = CopyWhole(file, m_policy.state.string(), left);
    if (!whole) {
        return whole.error();
    }
    const ZStopEvent* const stop = ZStopEvent::OfThisThread();
    const auto isStopped = [&] { return ZClock::now() >= deadline || (stop != nullptr && stop->IsSet()); };
    auto package = isFirstFormat ? ZPackage::Read(whole->Get(), isStopped)
                                 : ZPackage::ReadDetached(whole->Get(), signature->copy.Get(), isStopped);
    if (!package) {
        const bool isKnown = package.error().code != ZVerdictCode::Unreadable;
        return isKnown ? ZError(package.error().sentence, kInvalid) : ZError(package.error().sentence);
    }
    return Opened{std::move(*package), std::move(file), std::move(*whole)};
}

ZResult<void> PackageTrust::MayBeCopied(int signature) const {
    const auto described = ZPackage::ReadSignature(signature);
    return described ? Judge(*described, {}) : ZError(described.error().sentence, kInvalid);
}

ZResult<void> PackageTrust::Judge(const ZPackage& package, const std::string& board) const {
    const auto signers = Signers();
    if (!signers) {
        return signers.error();
    }
    const ZTrustQuestion question{.board = board, .acceptsDevelopment = m_policy.acceptsDevelopment};
    const ZVerdict verdict = signers->Judge(package, question);
    return verdict.IsGood() ? ZResult<void>() : ZError(verdict.sentence, kInvalid);
}

ZResult<PackageTrust::Approved> PackageTrust::Approve(Opened opened, const std::string& board) const {
    if (board.empty()) {
        return ZError("this device's board is not known, so no package can be for it");
    }
    if (const auto good = Judge(opened.package, board); !good) {
        return good.error();
    }
    // The copy is open twice then: it says of the approved one that all of it is there.
    auto program = opened.whole ? Duplicate(opened.whole) : SealedFile(opened.package.head);
    if (!program) {
        return program.error();
    }
    return Approved{std::move(opened), std::move(*program)};
}

std::string PackageTrust::Command(const fs::path& file, const std::string& arguments, const Approved& package,
                                  std::chrono::seconds limit) const {
    // The shell opens both before anything is confined: what runs, and what it reads.
    const std::string program = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(package.program.Get());
    std::string opened = " 8<" + ShellQuoted(program);
    std::vector<std::pair<std::string, std::string>> variables{{"ARBOR_TRUST", m_policy.signers.string()},
                                                               {"ARBOR_TRUST_STATE", m_policy.state.string()}};
    if (m_policy.acceptsDevelopment) {
        variables.emplace_back("ARBOR_ACCEPT_DEVELOPMENT", "1");
    }
    if (const std::string source = package.Source(); !source.empty()) {
        variables.emplace_back("ARBOR_PACKAGE_FD", "9");
        opened += " 9<" + ShellQuoted(source);
    }
    if (m_policy.goesOnUnconfined && !CanConfine()) {
        std::string line = "exec env ";
        for (const auto& [name, value] : variables) {
            line.append(ShellQuoted(std::string(name).append("=").append(value))).append(" ");
        }
        return line + kOpened + arguments + opened;
    }
    Confinement confined = Confined();
    for (const auto& [name, value] : variables) {
        confined.Set(name, value);
    }
    // A head is put in the package's place. All of a package may be too large for that: it runs from where it is.
    if (!package.whole) {
        confined.Put(file, 8);
    }
    const std::string run = (package.whole ? kOpened : ShellQuoted(file.string())) + arguments;
    return confined.CommandLine({"/bin/sh", "-c", run}, limit) + opened;
}

/// What says who is trusted: a package looks at it, too.
Confinement PackageTrust::Confined() const {
    Confinement confined;
    confined.Show(m_policy.signers);
    if (std::error_code error; fs::is_directory(m_policy.state, error)) {
        confined.Show(m_policy.state);
    }
    return confined;
}

void PackageTrust::TryConfining(ConfinementTrial::Told told) {
    // A package looks at the signers as well, as nobody.
    constexpr auto kLimit = ConfinementTrial::kLimit;
    const std::string line =
        Confined().CommandLine({"/bin/sh", "-c", kCanRead, m_policy.signers.string(), m_policy.state.string()}, kLimit);
    m_trial = std::make_unique<ConfinementTrial>(line + " 2>&1", std::move(told));
}

ZResult<void> PackageTrust::CanConfine() const {
    return m_trial ? m_trial->Outcome() : ZResult<void>();
}

bool PackageTrust::KnowsConfining(std::chrono::milliseconds patience) const {
    return !m_trial || m_trial->IsKnown(patience);
}

ZResult<void> PackageTrust::MayRun() const {
    return m_policy.goesOnUnconfined ? ZResult<void>() : CanConfine();
}
