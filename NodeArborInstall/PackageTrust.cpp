#include "PackageTrust.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

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

// Users that own nothing on the system. Checks at the same time have different ones: the limit on processes is a
// user's.
constexpr unsigned kFirstNobody = 65'520;  // behind those that service managers give away
constexpr unsigned kNobodies = 14;

// Far more than any package needs to answer.
constexpr const char* kMostMemory = "536870912";  // bytes, of each process
constexpr const char* kMostProcesses = "32";
constexpr const char* kMostFiles = "64";
constexpr const char* kScratch = "16777216";  // bytes

// What of a signature beside it; larger ones are none.
constexpr ZSnapshotSize kSignature{.begin = std::size_t{129} * 1024, .end = 0};

constexpr const char* kOpened = "/proc/self/fd/8";  // by the shell, for what runs

constexpr auto kInvalid = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;

// Whether all certificates in the folder can be read.
constexpr const char* kCanRead =
    R"(ls "$0" > /dev/null && for file in "$0"/*.pem "$0"/*.crt; do [ ! -e "$file" ] || cat "$file" > /dev/null || exit 1; done)";

using Texts = std::vector<std::string>;

void Append(Texts& texts, std::initializer_list<const char*> further) {
    texts.insert(texts.end(), further.begin(), further.end());
}

/// Folders that anybody may look into, down to where `file` will be.
void AppendFolders(Texts& texts, const fs::path& file) {
    fs::path folder;
    for (const fs::path& part : file.parent_path()) {
        folder /= part;
        if (folder != folder.root_path()) {
            Append(texts, {"--perms", "0755", "--dir", folder.c_str()});
        }
    }
}

/// An empty system with the programs and libraries of this one.
Texts EmptySystem() {
    Texts words{"bwrap",
                "--unshare-ipc",
                "--unshare-net",
                "--unshare-pid",
                "--unshare-uts",
                "--unshare-cgroup-try",
                "--die-with-parent",
                "--new-session",
                "--clearenv",
                "--cap-drop",
                "ALL"};
    if (::geteuid() == 0) {  // to become nobody, and no longer
        Append(words, {"--cap-add", "CAP_SETUID", "--cap-add", "CAP_SETGID", "--cap-add", "CAP_SETPCAP"});
    } else {
        Append(words, {"--unshare-user", "--disable-userns"});
    }
    AppendFolders(words, "/etc/any");
    for (const char* const folder : {"/usr", "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/etc/alternatives",
                                     "/etc/ld.so.cache", "/etc/ld.so.conf", "/etc/ld.so.conf.d", "/etc/localtime"}) {
        Append(words, {"--ro-bind-try", folder, folder});
    }
    Append(words, {"--proc",   "/proc",   "--dev",
                   "/dev",     "--size",  kScratch,
                   "--perms",  "1777",    "--tmpfs",
                   "/dev/shm", "--size",  kScratch,
                   "--perms",  "1777",    "--tmpfs",
                   "/tmp",     "--chdir", "/tmp",
                   "--setenv", "PATH",    "/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                   "--setenv", "LANG",    "C.UTF-8"});
    return words;
}

/// What says who is trusted: a package looks at it, too.
void AppendPolicy(Texts& words, const PackageTrust::Policy& policy) {
    AppendFolders(words, policy.signers / "any");
    Append(words, {"--ro-bind", policy.signers.c_str(), policy.signers.c_str()});
    if (!policy.state.empty()) {
        AppendFolders(words, policy.state / "any");
        Append(words, {"--ro-bind-try", policy.state.c_str(), policy.state.c_str()});
    }
}

/// What goes before the command, in the empty system.
Texts Limits(std::chrono::seconds limit) {
    Texts words{"--remount-ro", "/dev", "--remount-ro", "/", "--"};
    const std::string time = "--cpu=" + std::to_string(limit.count() + 1);
    Append(words, {"choom", "-n", "1000", "--", "prlimit", "--core=0", time.c_str()});
    for (const auto& [option, value] : {std::pair{"--as=", kMostMemory},
                                        {"--nproc=", kMostProcesses},
                                        {"--nofile=", kMostFiles},
                                        {"--fsize=", kScratch}}) {
        words.push_back(std::string(option) + value);
    }
    words.emplace_back("--");
    if (::geteuid() == 0) {
        static std::atomic<unsigned> next{0};
        const std::string nobody = std::to_string(kFirstNobody + next++ % kNobodies);
        Append(words, {"setpriv", "--reuid", nobody.c_str(), "--regid", nobody.c_str(), "--clear-groups",
                       "--inh-caps=-all", "--bounding-set=-all", "--no-new-privs", "--"});
    }
    return words;
}

std::string CommandLine(const Texts& words) {
    std::string line;
    for (const std::string& word : words) {
        line += ShellQuoted(word) + " ";
    }
    return line;
}

/// For everybody to read: a package looks at it as nobody.
ZResult<void> Keep(const std::string& chain, const fs::path& folder) {
    if (folder.empty()) {
        return ZError("there is no place to keep trust documents: TrustState is not set");
    }
    std::error_code error;
    fs::create_directories(folder, error);
    if (auto replaced = ReplaceFile(folder / kTrustFileName, chain, 0644); !replaced) {
        return replaced;
    }
    fs::permissions(folder,
                    fs::perms::group_read | fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec,
                    fs::perm_options::add, error);
    fs::permissions(folder / kTrustFileName, fs::perms::group_read | fs::perms::others_read, fs::perm_options::add,
                    error);
    return {};
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
    return OpenWhole(path, std::move(*file), left());
}

ZResult<PackageTrust::Opened> PackageTrust::OpenWhole(const fs::path& path, ZFileSnapshot file,
                                                      std::chrono::milliseconds limit) const {
    const auto deadline = ZClock::now() + limit;
    const bool isFirstFormat = ZPackage::FormatOf(file.copy.Get()) == 1;
    const auto signature = SnapshotFile(path.string() + ".sig", kSignature, limit);
    if (!isFirstFormat && !signature) {
        return ZError(ZPackage::ReadSecondFormat(file.copy.Get()).error().sentence, kInvalid);
    }
    if (m_policy.state.empty()) {
        return ZError(
            "all of it would have to be copied before it runs, and there is no place for that: TrustState is "
            "not set");
    }
    std::error_code error;
    fs::create_directories(m_policy.state, error);
    auto whole = CopyWhole(file, m_policy.state.string(), limit);
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

ZResult<PackageTrust::Approved> PackageTrust::Approve(Opened opened, const std::string& board) const {
    const auto signers = Signers();
    if (!signers) {
        return signers.error();
    }
    if (board.empty()) {
        return ZError("this device's board is not known, so no package can be for it");
    }
    const ZTrustQuestion question{.board = board, .acceptsDevelopment = m_policy.acceptsDevelopment};
    if (const ZVerdict verdict = signers->Judge(opened.package, question); !verdict.IsGood()) {
        return ZError(verdict.sentence, kInvalid);
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
    Texts variables{"ARBOR_TRUST=" + m_policy.signers.string(), "ARBOR_TRUST_STATE=" + m_policy.state.string()};
    if (m_policy.acceptsDevelopment) {
        variables.emplace_back("ARBOR_ACCEPT_DEVELOPMENT=1");
    }
    if (const std::string source = package.Source(); !source.empty()) {
        variables.emplace_back("ARBOR_PACKAGE_FD=9");
        opened += " 9<" + ShellQuoted(source);
    }
    if (!m_isConfined) {
        Texts words{"exec", "env"};
        words.insert(words.end(), variables.begin(), variables.end());
        words.emplace_back(kOpened);
        return CommandLine(words) + arguments + opened;
    }
    Texts words = EmptySystem();
    AppendFolders(words, file);
    AppendPolicy(words, m_policy);
    for (const std::string& variable : variables) {
        const std::size_t equals = variable.find('=');
        Append(words, {"--setenv", variable.substr(0, equals).c_str(), variable.c_str() + equals + 1});
    }
    // A head is put in the package's place. All of a package may be too large for that: it runs from where it is.
    if (!package.whole) {
        Append(words, {"--perms", "0555", "--ro-bind-data", "8", file.c_str()});
    }
    const Texts limits = Limits(limit);
    words.insert(words.end(), limits.begin(), limits.end());
    Append(words, {"/bin/sh", "-c"});
    words.push_back((package.whole ? kOpened : ShellQuoted(file.string())) + arguments);
    return "exec " + CommandLine(words) + opened;
}

ZResult<void> PackageTrust::CanConfine() const {
    Texts words = EmptySystem();
    AppendPolicy(words, m_policy);
    const Texts limits = Limits(std::chrono::seconds(10));
    words.insert(words.end(), limits.begin(), limits.end());
    // A package looks at the signers as well, as nobody.
    Append(words, {"/bin/sh", "-c", kCanRead, m_policy.signers.c_str()});
    std::string output;
    if (ZPlatform::ExecuteCommand(CommandLine(words) + "2>&1", output, std::chrono::seconds(10))) {
        return {};
    }
    return ZError("checks can't be confined: " + output);
}
