#include "ZShared/ZPlatform.h"

#include <systemd/sd-daemon.h>

#include <memory>
#include <numeric>

#include "ZShared/ZChildReaper.h"
#include "ZShared/ZCommandRunner.h"
#include "ZShared/ZEeprom.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLineSplitter.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZMountTable.h"

namespace {

using SharedSettings = std::shared_ptr<const ZPlatformSettings>;

ZGuarded<SharedSettings>& Holder() {
    static ZGuarded<SharedSettings> holder(std::make_shared<const ZPlatformSettings>());
    return holder;
}

SharedSettings Settings() {
    return Holder().Copy();
}

// For a program's file to be read: who asked for it waits.
constexpr auto kReadLimit = std::chrono::seconds(5);

constexpr ZLogger Log() {
    return ZLogger("ZPlatform");
}

std::string EndOfCommand(const ZCommandResult& result) {
    return result.reason.empty() ? "exit status " + std::to_string(result.exitStatus) : result.reason;
}

bool Succeeded(const ZCommandResult& result) {
    return result.reason.empty() && result.exitStatus == 0;
}

bool ReadField(ZString& text, std::string ZIdentity::*field) {
    try {
        const auto settings = Settings();
        std::optional<ZIdentity> identity = settings->identity;
        if (!identity && !settings->eepromPath.empty()) {
            if (const auto read = ReadIdentityFromEeprom(settings->eepromPath)) {
                identity = *read;
            } else {
                Z_LOG(3, "The identity could not be read: %s", read.error().text);
            }
        }
        if (!identity || ((*identity).*field).empty()) {
            return false;
        }
        text = ToZString((*identity).*field);
        return true;
    } catch (const std::exception& failure) {
        Z_LOG(4, "The identity could not be read: %s", failure.what());
        return false;
    }
}

void LogComplaint(const std::string& command, const std::string& complaint) {
    Z_LOG(3, "A command complains: %s: %s", command, complaint);
}

/// Runs the command with its complaints in the log, as those of `name`: there a text from outside is seen for what it
/// is, and a flood of it is bounded.
ZCommandResult RunLogged(const std::string& commandLine, const std::string& name, const ZOutputCallback& onOutput,
                         std::chrono::milliseconds limit) {
    constexpr std::size_t kMostComplaints = 20;
    std::size_t count = 0;
    std::size_t dropped = 0;
    const ZPlatform::LineCallback log = [&](const std::string& line) {
        if (++count <= kMostComplaints) {
            LogComplaint(name, line);
        } else {
            dropped += line.size();
        }
    };
    ZLineSplitter complaints(log);
    const auto onComplaint = [&](std::string_view data) {
        if (count <= kMostComplaints) {
            complaints.Add(data);
        } else {
            dropped += data.size();  // a flood is not looked at
        }
    };
    ZCommandResult result = RunShellCommand(commandLine, onOutput, onComplaint, limit);
    complaints.Finish();
    if (count > kMostComplaints) {
        Z_LOG(3, "Complaints beyond 20 were dropped: %s", std::to_string(dropped) + " bytes of " + name);
    }
    return result;
}

}  // namespace

void ZPlatform::Configure(const ZPlatformSettings& settings) {
    Holder().Exchange(std::make_shared<const ZPlatformSettings>(settings));
}

bool ZPlatform::ExecuteCommand(const std::string& commandLine, std::string& output) {
    return ExecuteCommand(commandLine, output, Settings()->commandTimeout);
}

bool ZPlatform::ExecuteCommand(const std::string& commandLine, std::string& output, std::chrono::milliseconds limit,
                               const std::string& called) {
    const std::string& name = called.empty() ? commandLine : called;
    constexpr std::size_t kMostOutput = std::size_t{1024} * 1024;
    try {
        output.clear();
        std::size_t dropped = 0;
        const auto keep = [&](std::string_view data) {
            const std::size_t kept = std::min(data.size(), kMostOutput - output.size());
            output.append(data.substr(0, kept));
            dropped += data.size() - kept;
        };
        const ZCommandResult result = RunLogged(commandLine, name, keep, std::min(limit, Settings()->commandTimeout));
        if (dropped > 0) {
            Z_LOG(3, "Output beyond 1 MiB was dropped: %s", std::to_string(dropped) + " bytes of " + name);
        }
        while (!output.empty() && output.back() == '\n') {
            output.pop_back();
        }
        if (!result.reason.empty()) {
            output += (output.empty() ? "" : "\n") + result.reason;
        }
        return Succeeded(result);
    } catch (const std::exception& failure) {
        Z_LOG(4, "The command could not be run: %s", failure.what());
        return false;
    }
}

bool ZPlatform::ExecuteCommand(const std::string& commandLine, const LineCallback& onLine, const DoneCallback& onDone) {
    try {
        ZLineSplitter lines(onLine);
        const ZCommandResult result = RunLogged(
            commandLine, commandLine, [&lines](std::string_view data) { lines.Add(data); }, Settings()->commandTimeout);
        lines.Finish();
        if (!Succeeded(result)) {
            Z_LOG(3, "The command failed: %s", EndOfCommand(result));
        }
        if (onDone) {
            onDone(EndOfCommand(result));
        }
        return Succeeded(result);
    } catch (const std::exception& failure) {
        Z_LOG(4, "The command could not be run: %s", failure.what());
        return false;
    }
}

ZResult<pid_t> ZPlatform::StartProgram(const std::vector<std::string>& arguments,
                                       const std::vector<std::string>& further, const ZSealedProgram* sealed) {
    try {
        auto child = StartDetached(arguments, further, kReadLimit, sealed);
        if (!child) {
            Z_LOG(4, "%s", child.error().text);
        }
        return child;
    } catch (const std::exception& failure) {
        Z_LOG(4, "The program could not be started: %s", failure.what());
        return ZError(failure.what());
    }
}

bool ZPlatform::ExecuteCommand(const std::vector<std::string>& arguments) {
    try {
        ZChildReaper& reaper = ZChildReaper::Instance();
        const auto child = StartProgram(arguments, {});
        if (child) {
            reaper.Watch(*child, arguments.front());
        }
        return child.has_value();
    } catch (const std::exception& failure) {
        Z_LOG(4, "The program could not be started: %s", failure.what());
        return false;
    }
}

bool ZPlatform::ReadModel(ZString& text) {
    return ReadField(text, &ZIdentity::model);
}
bool ZPlatform::ReadBoard(ZString& text) {
    return ReadField(text, &ZIdentity::board);
}
bool ZPlatform::ReadSerialNumber(ZString& text) {
    return ReadField(text, &ZIdentity::serialNumber);
}

bool ZPlatform::HasUnits() {
    return Settings()->transientUnits && ::sd_booted() > 0;
}

std::string ZPlatform::GetMountPointFromDevice(const std::string& device) {
    try {
        const auto settings = Settings();
        const auto found = settings->mounts.find(device);
        return found != settings->mounts.end() ? found->second : MountPointOfDevice(device);
    } catch (const std::exception& failure) {
        Z_LOG(4, "The mount table could not be read: %s", failure.what());
        return {};
    }
}
