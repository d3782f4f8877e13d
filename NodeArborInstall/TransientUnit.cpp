#include "TransientUnit.h"

#include <unistd.h>

#include <atomic>

#include "ShellText.h"
#include "ZShared/ZPlatform.h"

namespace {

// A check answers from some hundred kilobytes; an installer copies through a small buffer, and what the system keeps of
// its files is given back before a bound is met. Without a description a unit is described by its command line, and the
// unit's file can't hold one of several lines.
constexpr const char* kCheckLimits =
    " --description='Check of a package' -p MemoryMax=512M -p MemorySwapMax=0 -p TasksMax=64";
constexpr const char* kInstallLimits =
    " --description='Install of a version' -p MemoryMax=512M -p TasksMax=128 -p OOMPolicy=continue";
// For the service manager to end what this process should have ended, had it lived.
constexpr auto kPatience = std::chrono::seconds(10);
constexpr auto kSignalLimit = std::chrono::seconds(5);

}  // namespace

TransientUnit::TransientUnit(std::string name, std::string properties)
    : m_name(std::move(name)), m_properties(std::move(properties)) {}

std::optional<TransientUnit> TransientUnit::ForCheck(std::chrono::seconds limit) {
    static std::atomic<unsigned> count{0};
    if (!ZPlatform::HasUnits()) {
        return std::nullopt;
    }
    const std::string number = std::to_string(::getpid()) + "-" + std::to_string(++count);
    return TransientUnit(
        "arbor-check-" + number + ".service",
        kCheckLimits + (" -p TimeoutStopSec=2 -p RuntimeMaxSec=" + std::to_string((limit + kPatience).count())));
}

std::optional<TransientUnit> TransientUnit::ForInstall(const std::string& operation) {
    if (!ZPlatform::HasUnits()) {
        return std::nullopt;
    }
    return TransientUnit("arbor-install-" + operation + ".service", kInstallLimits);
}

std::string TransientUnit::CommandLine(const std::string& inside) const {
    std::string kept;
    for (const char letter : inside) {
        kept += letter == '$' ? "$$" : std::string(1, letter);  // the service manager reads it before the shell does
    }
    return "exec systemd-run --quiet --collect --wait --pipe --unit=" + m_name + m_properties + " -- /bin/sh -c " +
           ShellQuoted(kept) + " sh $$";
}

bool TransientUnit::Signal(int signal) const {
    std::string output;
    return ZPlatform::ExecuteCommand("exec systemctl kill --signal=" + std::to_string(signal) + " " + m_name + " 2>&1",
                                     output, kSignalLimit);
}

bool TransientUnit::IsActive() const {
    std::string state;  // what is not active ends with another status than 0
    ZPlatform::ExecuteCommand("systemctl is-active " + m_name + " 2> /dev/null; :", state, kSignalLimit);
    return state == "active" || state == "activating" || state == "deactivating" || state == "reloading";
}

void TransientUnit::End() const {
    ZPlatform::ExecuteCommand({"/bin/sh", "-c", "systemctl stop --quiet " + m_name + " 2> /dev/null || true"});
}

std::string Inhibiting(const std::string& why, const std::string& inside) {
    const std::string program =
        "systemd-inhibit --what=shutdown:sleep --mode=block --who='Arbor Install' --why=" + ShellQuoted(why);
    // This shell outlives the signal that ends an install, and tells how it ended.
    return "trap : TERM\nif " + program + " true 2> /dev/null; then " + program + " /bin/sh -c " + ShellQuoted(inside) +
           " sh \"$1\"; else /bin/sh -c " + ShellQuoted(inside) + " sh \"$1\"; fi\nexit $?";
}
