#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "JsonFields.h"
#include "doctor/BoundedChild.h"
#include "doctor/Facts.h"

// How the device boots, and whether a version that does not work would be taken back.

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl::doctor {
namespace {

constexpr const char* kPoint = "boot";
constexpr const char* kInstallerSettings = "/etc/arbor/installer.json";

/// The program beside this one, else the one of the packages: none that a file names.
std::string BootProgram() {
    std::error_code error;
    const fs::path own = fs::read_symlink("/proc/self/exe", error).parent_path() / "arbor-boot";
    return !error && fs::exists(own, error) ? own.string() : "/usr/bin/arbor-boot";
}

bool IsForbidden(const std::string& text) {
    return geteuid() != 0 && text.find(std::strerror(EACCES)) != std::string::npos;
}

/// What to do about a problem that arbor-boot tells.
std::string Advice(const std::string& about, const std::string& control, const std::string& settings) {
    if (about == "settings") {
        return "mend " + settings + " (man arbor-boot)";
    }
    if (about == "running") {
        return "the boot has to tell its slot: arbor.slot=A on the kernel's command line; and the slot its version and "
               "digest";
    }
    if (about == "next") {
        return control == "link" ? "make the link: arbor-boot activate A (the slot that runs)"
               : control == "systemd-boot"
                   ? "mount the EFI system partition, and name the entries arbor-2-a.conf and arbor-1-b.conf"
               : control == "uboot-env" ? "apt install libubootenv-tool, and set /etc/fw_env.config"
                                        : "mend what " + settings + " names";
    }
    return about == "state" ? "look at its disk; the next start begins it anew, with what runs as confirmed"
                            : "install a version into that slot, so that there is a way back";
}

void LookAtInstaller(const std::string& control, Findings& found) {
    std::string problem;
    const auto text = ReadText(kInstallerSettings, problem);
    const auto document = text ? fields::Parse(*text) : Result<json::value>(json::value());
    const std::string command = document ? fields::Text(*document, "bootCommand") : "";
    const std::string advice = std::string("{\"bootCommand\": \"/usr/bin/arbor-boot\"} in ") + kInstallerSettings;
    if (!document) {
        found.Fault(kPoint, std::string(kInstallerSettings) + ": " + document.error().text,
                    "mend it, or no version is installed");
    } else if (!text && access(kInstallerSettings, F_OK) == 0) {
        found.Unknown(kPoint, std::string(kInstallerSettings) + ": " + problem, "sudo arborctl doctor");
    } else if (command.empty() && control != "link") {
        found.Fault(kPoint, "the installer does not tell the boot loader (" + control + ") of a switch", advice);
    } else if (command.empty()) {
        found.Warning(kPoint, "the installer does not ask before it writes over the way back", advice);
    } else if (access(command.c_str(), X_OK) != 0) {
        found.Fault(kPoint, std::string(kInstallerSettings) + " names " + command + ", which can't be run", advice);
    }
}

/// What arbor-boot says; null, told why, when it says nothing.
json::value AskProgram(const std::string& settings, Findings& found) {
    const ProgramEnd end = RunProgram({BootProgram(), "--settings", settings, "check"});
    const auto document = fields::Parse(end.output);
    if (document && document->is_object()) {
        return *document;
    }
    found.Fault(kPoint,
                BootProgram() + " does not say how the device boots; it ended with " + std::to_string(end.status),
                "apt install arbor-install, of the same version as arborctl");
    return {};
}

void AddSummary(const json::value& boot, Findings& found) {
    const std::string running = fields::Text(boot, "running");
    const auto& slots = fields::List(boot, "slots");
    const std::string text =
        fields::Text(boot, "control") + ": slot " + running + " runs, " + fields::Text(boot, "next") + " starts next";
    if (slots.size() < 2) {
        found.Warning(kPoint, text + "; the other one is empty, so there is no way back",
                      "that ends with the second version that is installed");
    } else {
        found.Ok(kPoint, text + "; " + fields::Text(boot, "state"));
    }
}

}  // namespace

void LookAtBoot(const Facts& facts, Findings& found) {
    const std::string settings = facts.BootSettings();
    struct stat status {};
    if (stat(settings.c_str(), &status) != 0) {
        found.Warning(kPoint, "there is no " + settings + ": a version that does not work is not taken back",
                      "cp /usr/share/arbor-install/boot.json " + settings + ", and set it (docs/trial.md)");
        return;
    }
    if (facts.HasGraph() && facts.Node("ZNodeTrial").is_null()) {
        found.Fault(
            kPoint,
            "there is " + settings + ", and no ZNodeTrial in the graph: every version is taken back after 15 minutes",
            "add a ZNodeTrial to " + facts.graphFile + ", or take " + settings + " away");
    }
    const json::value boot = AskProgram(settings, found);
    if (!boot.is_object()) {
        return;
    }
    const std::string control = fields::Text(boot, "control");
    for (const json::value& problem : fields::List(boot, "problems")) {
        const std::string text = fields::Text(problem, "text");
        const bool isForbidden = IsForbidden(text);
        found.Add({kPoint, isForbidden ? State::kUnknown : State::kFault,
                   isForbidden ? text + ": not readable for you" : text,
                   isForbidden ? "sudo arborctl doctor" : Advice(fields::Text(problem, "about"), control, settings)});
    }
    LookAtInstaller(control, found);
    const std::string judge = fields::Text(fields::Member(facts.status, "trial"), "problem");
    const auto isTold = [&judge](const Finding& each) { return each.text == judge; };
    if (!judge.empty() && std::ranges::none_of(found.All(), isTold)) {
        found.Fault(kPoint, judge, "arborctl slots; arborctl log --level warning");
    }
    if (found.Count(State::kFault) == 0 && found.Count(State::kUnknown) == 0) {
        AddSummary(boot, found);
    }
}

}  // namespace arborctl::doctor
