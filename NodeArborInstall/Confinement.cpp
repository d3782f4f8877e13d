#include "Confinement.h"

#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>

#include "ShellText.h"
#include "ZShared/ZFileDescriptor.h"

namespace fs = std::filesystem;

namespace {

// Users that own nothing on the system. Checks at the same time have different ones: the limit on processes is a
// user's.
constexpr unsigned kFirstNobody = 65'520;  // behind those that service managers give away
constexpr unsigned kNobodies = 14;

// Far more than any package needs to answer.
constexpr const char* kMostMemory = "536870912";  // bytes, of each process
constexpr const char* kMostProcesses = "32";
constexpr const char* kMostFiles = "64";
constexpr const char* kScratch = "16777216";  // bytes

/// Which calls are refused: those that make namespaces, in which somebody without privileges has all of them over parts
/// of the kernel that only the privileged usually reach, and some of those that look into other processes. In the form
/// that the kernel takes; none where the library can't make it.
ZFileDescriptor MakeFilter() {
    const std::unique_ptr<void, decltype(&::seccomp_release)> filter(::seccomp_init(SCMP_ACT_ALLOW),
                                                                     &::seccomp_release);
    ZFileDescriptor file(::memfd_create("arbor-filter", MFD_CLOEXEC));
    const auto refuse = [&](int call) { return ::seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EPERM), call, 0) == 0; };
    const auto refuseNamespaces = [&](int call) {
        const scmp_arg_cmp isNew{0, SCMP_CMP_MASKED_EQ, CLONE_NEWUSER, CLONE_NEWUSER};  // of the first argument
        return ::seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EPERM), call, 1, isNew) == 0;
    };
    // Its flags lie in memory, where a filter can't look: the C library goes on with clone.
    const bool hidden = ::seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0;
    const bool made = filter && file && hidden && refuseNamespaces(SCMP_SYS(clone)) &&
                      refuseNamespaces(SCMP_SYS(unshare)) && refuse(SCMP_SYS(setns)) && refuse(SCMP_SYS(ptrace)) &&
                      refuse(SCMP_SYS(process_vm_readv)) && refuse(SCMP_SYS(process_vm_writev)) &&
                      refuse(SCMP_SYS(bpf)) && refuse(SCMP_SYS(perf_event_open)) && refuse(SCMP_SYS(keyctl)) &&
                      refuse(SCMP_SYS(add_key)) && refuse(SCMP_SYS(userfaultfd)) &&
                      ::seccomp_export_bpf(filter.get(), file.Get()) == 0;
    return made ? std::move(file) : ZFileDescriptor();
}

/// Where the shell finds the filter; empty when there is none, and then the command is not run.
std::string FilterPath() {
    static std::mutex mutex;
    static ZFileDescriptor filter;
    const std::lock_guard lock(mutex);
    if (!filter) {
        filter = MakeFilter();
    }
    return filter ? "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(filter.Get()) : "";
}

}  // namespace

Confinement::Confinement()
    : m_words{"bwrap",
              "--unshare-ipc",
              "--unshare-net",
              "--unshare-pid",
              "--unshare-uts",
              "--unshare-cgroup-try",
              "--die-with-parent",
              "--new-session",
              "--clearenv",
              "--seccomp",
              "7",
              "--cap-drop",
              "ALL"} {
    if (::geteuid() == 0) {  // to become nobody, and no longer
        Append({"--cap-add", "CAP_SETUID", "--cap-add", "CAP_SETGID", "--cap-add", "CAP_SETPCAP"});
    } else {
        Append({"--unshare-user", "--disable-userns"});
    }
    MakeFolders("/etc");
    for (const char* const folder : {"/usr", "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/etc/alternatives",
                                     "/etc/ld.so.cache", "/etc/ld.so.conf", "/etc/ld.so.conf.d", "/etc/localtime"}) {
        Append({"--ro-bind-try", folder, folder});
    }
    Append({"--proc",   "/proc",   "--dev",
            "/dev",     "--size",  kScratch,
            "--perms",  "1777",    "--tmpfs",
            "/dev/shm", "--size",  kScratch,
            "--perms",  "1777",    "--tmpfs",
            "/tmp",     "--chdir", "/tmp",
            "--setenv", "PATH",    "/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "--setenv", "LANG",    "C.UTF-8"});
}

void Confinement::Append(std::initializer_list<const char*> further) {
    m_words.insert(m_words.end(), further.begin(), further.end());
}

/// Folders that anybody may look into.
void Confinement::MakeFolders(const fs::path& folder) {
    fs::path made;
    for (const fs::path& part : folder) {
        made /= part;
        if (made != made.root_path()) {
            Append({"--perms", "0755", "--dir", made.c_str()});
        }
    }
}

void Confinement::Show(const fs::path& folder) {
    MakeFolders(folder);
    Append({"--ro-bind", folder.c_str(), folder.c_str()});
}

void Confinement::Put(const fs::path& file, int descriptor) {
    MakeFolders(file.parent_path());
    Append({"--perms", "0555", "--ro-bind-data", std::to_string(descriptor).c_str(), file.c_str()});
}

void Confinement::Set(const std::string& variable, const std::string& value) {
    Append({"--setenv", variable.c_str(), value.c_str()});
}

std::string Confinement::CommandLine(const std::vector<std::string>& command, std::chrono::seconds limit) const {
    std::vector<std::string> words = m_words;
    const auto append = [&](const std::vector<std::string>& further) {
        words.insert(words.end(), further.begin(), further.end());
    };
    append({"--remount-ro", "/dev", "--remount-ro", "/", "--"});
    append({"choom", "-n", "1000", "--", "prlimit", "--core=0", "--cpu=" + std::to_string(limit.count() + 1)});
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
        append({"setpriv", "--reuid", nobody, "--regid", nobody, "--clear-groups", "--inh-caps=-all",
                "--bounding-set=-all", "--no-new-privs", "--"});
    }
    append(command);
    std::string line = "exec";
    for (const std::string& word : words) {
        line += " " + ShellQuoted(word);
    }
    return line + " 7<" + ShellQuoted(FilterPath());
}
