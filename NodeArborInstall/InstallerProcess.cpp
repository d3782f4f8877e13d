#include "InstallerProcess.h"

#include <csignal>

#include "ShellText.h"
#include "TransientUnit.h"
#include "ZShared/ZPlatform.h"

ZResult<pid_t> StartInstallerProcess(const std::vector<std::string>& arguments, const ZOperation& operation,
                                     const ZSealedProgram* sealed) {
    const std::string variable = "ARBOR_OPERATION=" + ToStdString(operation.Id());
    const auto unit = TransientUnit::ForInstall(ToStdString(operation.Id()));
    if (!unit) {
        return ZPlatform::StartProgram(arguments, {variable}, sealed);
    }
    std::string inside;
    std::string program = ShellQuoted(arguments.front());
    std::string variables = "export " + variable;
    if (sealed != nullptr) {  // open in the one that waits
        const auto open = [&](int descriptor) {
            const std::string number = std::to_string(descriptor);
            inside.append("exec ").append(number).append("< /proc/$1/fd/").append(number).append("\n");
        };
        open(ZSealedProgram::kProgram);
        program = "/proc/self/fd/" + std::to_string(ZSealedProgram::kProgram);
        if (!sealed->file.empty()) {
            open(ZSealedProgram::kFile);
            variables += " ARBOR_PACKAGE_FD=" + std::to_string(ZSealedProgram::kFile);
        }
    }
    inside += variables + "\nexec " + program;
    for (auto argument = arguments.begin() + 1; argument != arguments.end(); ++argument) {
        inside += " " + ShellQuoted(*argument);
    }
    const std::string line = unit->CommandLine(
        Inhibiting("version " + ToStdString(operation.Get()->m_Version) + " is being installed", inside));
    ZSealedProgram started = sealed != nullptr ? *sealed : ZSealedProgram();
    started.starter = "/bin/sh";
    return ZPlatform::StartProgram({arguments.front(), "-c", line}, {}, &started);
}

bool OutlivesItsProcess(const ZOperation& operation) {
    const auto unit = TransientUnit::ForInstall(ToStdString(operation.Id()));
    return unit && unit->IsActive();
}

// A unit ends by itself once its processes have, and then the one that waits for it.
void EndInstallerProcess(const ZOperation& operation, pid_t process, int signal) {
    const auto unit = TransientUnit::ForInstall(ToStdString(operation.Id()));
    if (unit && unit->Signal(signal) && signal != SIGKILL) {
        return;
    }
    if (unit) {
        unit->End();  // what did not hear of the signal must not live on
    }
    ::kill(-process, signal);
    ::kill(process, signal);
}
