#pragma once

#include <string>
#include <vector>

#include "NodeBase/ZOperation.h"
#include "ZShared/ZCommandRunner.h"

/// Starts the installer that does the operation. Its process is told; the caller watches and reaps it. With a service
/// manager that is one which waits for the installer and ends as it does: the installer itself is a unit of its own.
ZResult<pid_t> StartInstallerProcess(const std::vector<std::string>& arguments, const ZOperation& operation,
                                     const ZSealedProgram* sealed);

/// Whether the operation's installer runs still, though the process that was told has ended.
bool OutlivesItsProcess(const ZOperation& operation);

/// Sends the operation's installer a signal, and all processes that it started: a package of somebody else's may be a
/// script with children. `process` is what StartInstallerProcess told, in this life of the host or an earlier one.
void EndInstallerProcess(const ZOperation& operation, pid_t process, int signal);
