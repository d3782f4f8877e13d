#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ZShared/ZAllocator.h"
#include "ZShared/ZError.h"

struct ZSealedProgram;

/// The instrument's identity, as the EEPROM or the graph file tells it.
struct ZIdentity {
    std::string model;
    std::string serialNumber;
    std::string board;
};

struct ZPlatformSettings {
    /// The identity EEPROM as the kernel presents it (a file under /sys), in TlvInfo layout. Empty: there is none.
    std::string eepromPath;
    /// Stands in for the EEPROM on a development machine.
    std::optional<ZIdentity> identity;
    /// Device to mount point; stands in for the kernel's mount table on a development machine.
    std::map<std::string, std::string> mounts;
    /// How long a command may run before its whole process group is ended and the call fails.
    std::chrono::milliseconds commandTimeout{std::chrono::minutes(15)};
    /// Whether what packages bring runs as units of the service manager, where there is one.
    bool transientUnits = false;
};

/// The only door to the machine: commands, identity, mounts. All functions are thread-safe and never throw.
/// A blocking call also ends, as a failure, when the calling thread's ZStopEvent is set.
class ZPlatform {
public:
    using LineCallback = std::function<void(std::string)>;
    using DoneCallback = std::function<void(std::string)>;

    /// Replaces the settings; calls under way keep theirs.
    static void Configure(const ZPlatformSettings& settings);

    /// Runs a shell command line and waits for its end. True when it ended with status 0. `output` receives its
    /// standard output without trailing line feeds, at most 1 MiB; more is read, dropped and logged. When the command
    /// could not run, timed out or was stopped, `output` ends with the reason. The first lines of its standard error
    /// are logged.
    static bool ExecuteCommand(const std::string& commandLine, std::string& output);
    /// As above, but hands every line of output to `onLine` as it comes, on the calling thread. A carriage return ends
    /// a line too, and stays in it; empty lines are left out. `onDone` receives the outcome as text. Either may be
    /// empty.
    static bool ExecuteCommand(const std::string& commandLine, const LineCallback& onLine, const DoneCallback& onDone);
    /// As the first, with a limit of its own, when that is below the platform's. `name` is what its complaints are
    /// logged of; empty: the command line.
    static bool ExecuteCommand(const std::string& commandLine, std::string& output, std::chrono::milliseconds limit,
                               const std::string& name = {});
    /// Starts a program, without a shell, in a session of its own, and returns whether it started. It outlives this
    /// process; its exit is logged later.
    static bool ExecuteCommand(const std::vector<std::string>& arguments);
    /// As above, with `further` variables ("NAME=value"), for a caller that watches the process and reaps it. A file
    /// that can't be read within some seconds is not run. With `sealed`, that program runs in the file's
    /// place, as StartDetached does it.
    static ZResult<pid_t> StartProgram(const std::vector<std::string>& arguments,
                                       const std::vector<std::string>& further, const ZSealedProgram* sealed = nullptr);

    /// The identity's fields. False, and `text` untouched, when there is no identity or it lacks the field.
    static bool ReadModel(ZString& text);
    static bool ReadBoard(ZString& text);
    static bool ReadSerialNumber(ZString& text);

    /// Whether programs can run as units of their own of the service manager, and are to.
    static bool HasUnits();

    /// Where the block device is mounted; empty when it is not.
    static std::string GetMountPointFromDevice(const std::string& device);
};
