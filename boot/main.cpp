#include <CLI/CLI.hpp>
#include <iostream>

#include "Check.h"
#include "ZBoot/ZBootSteps.h"
#include "ZBoot/ZTrialWatch.h"
#include "ZShared/ZPlatform.h"

namespace {

/// Says what is wrong; the status of a command that failed.
int Fail(const ZError& error) {
    std::cerr << "arbor-boot: " << error.text << '\n';
    return 1;
}

struct Device {
    ZBootSettings settings;
    std::unique_ptr<ZBootControl> control;
};

ZResult<Device> Open(const std::string& file) {
    auto settings = ZBootSettings::Load(file);
    if (!settings) {
        return settings.error();
    }
    auto control = ZBootControl::Make(*settings);
    if (!control) {
        return control.error().In(file);
    }
    return Device{.settings = *settings, .control = std::move(*control)};
}

int Restart(const Device& device) {
    std::string output;
    return ZPlatform::ExecuteCommand(device.settings.restart, output)
               ? 0
               : Fail(ZError(device.settings.restart + ": " + output));
}

/// Lets the confirmed version start next, and restarts.
int GoBack(Device& device, const ZTrialState& state) {
    std::cout << "arbor-boot: version " << state.trial->version.version << " is left for " << state.confirmed.version
              << ": " << state.trial->fault.reason << std::endl;
    if (const auto done = Leave(device.settings, *device.control); !done) {
        return Fail(done.error());
    }
    return Restart(device);
}

int Start(Device& device) {
    const ZTrialFile file(device.settings.state);
    if (const auto before = file.Read(); !before) {
        std::cerr << "arbor-boot: " << before.error().text << "; what runs counts as confirmed\n";
    }
    const auto action = BeginBoot(device.settings, *device.control);
    if (!action) {
        return Fail(action.error());
    }
    if (*action == ZBootAction::GoOn) {
        return 0;
    }
    const auto state = file.Read();
    return state ? GoBack(device, *state) : Fail(state.error());
}

int Stop(Device& device) {
    // First that the end is an orderly one: the next start counts on it.
    const auto state = ZTrialFile(device.settings.state).Change([](ZTrialState& kept) { kept.bOrderly = true; });
    if (!state) {
        return Fail(state.error());
    }
    if (const auto noted = NoteNext(device.settings, *device.control); !noted) {
        Fail(noted.error());
    }
    const bool counts = state->trial && state->trial->stage == ZTrialStage::Trial;
    const auto done = counts ? device.control->Uncount() : ZResult<void>();
    return done ? 0 : Fail(done.error());
}

/// For a version whose graph never came up: nobody is there who would judge it.
int Expire(Device& device) {
    const auto state = ZTrialFile(device.settings.state).Read();
    if (!state) {
        return Fail(state.error());
    }
    const bool isOpen = state->trial && (state->trial->stage == ZTrialStage::Trial || state->IsLeaving());
    if (!isOpen || ZTrialWatch::IsHeld(device.settings.state)) {
        return 0;
    }
    const auto failed =
        FailTrial(device.settings, *device.control, {"nothing on it told in time that it works", ZTrialCause::Late});
    return failed ? GoBack(device, *failed) : Fail(failed.error());
}

/// The system came no further than a shell for emergencies, which nobody sees on an instrument.
int Emergency(Device& device) {
    const auto state = ZTrialFile(device.settings.state).Read();
    if (state && state->confirmed.IsKnown()) {
        if (!state->trial || state->trial->stage != ZTrialStage::Trial) {
            return Fail(ZError("what runs is not on trial; somebody has to look at this device"));
        }
        const auto failed =
            FailTrial(device.settings, *device.control, {"it came no further than emergency mode", ZTrialCause::Late});
        return failed ? GoBack(device, *failed) : Fail(failed.error());
    }
    // The storage with the state is not there. A loader that counts starts ends this one's by itself.
    if (!device.control->Counts()) {
        return Fail(ZError("the state of trials is not there, and the boot loader does not count starts"));
    }
    std::cout << "arbor-boot: the state of trials is not there; the boot loader counts this start" << std::endl;
    return Restart(device);
}

int Activate(Device& device, const std::string& slot) {
    const auto before = ZTrialFile(device.settings.state).Read();
    const bool onTrial = !before || before->confirmed.slot != slot;
    if (const auto done = device.control->Activate(slot, onTrial); !done) {
        return Fail(done.error());
    }
    // It is switched, whatever becomes of the note: the next start finds out what it has to know.
    if (const auto noted = NoteNext(device.settings, *device.control); !noted) {
        Fail(noted.error());
    }
    return 0;
}

/// An install writes over the slot that does not run: not while that is the way back.
int MayInstall(const Device& device) {
    const auto state = ZTrialFile(device.settings.state).Read();
    if (!state) {
        return Fail(state.error());
    }
    if (state->trial && state->trial->stage != ZTrialStage::Installed && device.control->IsWhole(state->confirmed)) {
        return Fail(ZError("version " + state->trial->version.version +
                           " has not proved itself yet, and an install would write over the way back"));
    }
    return 0;
}

int Show(const Device& device) {
    const auto state = ZTrialFile(device.settings.state).Read();
    if (!state) {
        return Fail(state.error());
    }
    std::cout << state->ToText() << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app("Counts starts of a version on trial, and leaves one that fails", "arbor-boot");
    std::string file = ZBootSettings::kFile;
    std::string slot;
    int status = 0;
    const auto on = [&](const char* name, const char* text, auto&& work) {
        CLI::App* const command = app.add_subcommand(name, text);
        command->callback([&status, &file, work] {
            auto device = Open(file);
            status = device ? work(*device) : Fail(device.error());
        });
        return command;
    };
    app.add_option("--settings", file, "The file that says how the device boots")->capture_default_str();
    app.require_subcommand(1);
    on("start", "At the start of each boot, once the state's storage is mounted", [](Device& d) { return Start(d); });
    on("stop", "At the end of a boot in order: the next start does not count", [](Device& d) { return Stop(d); });
    on("expire", "Some minutes after the start: goes back when nobody judges the trial",
       [](Device& d) { return Expire(d); });
    on("emergency", "When the system came no further than emergency mode: goes back when what runs is on trial",
       [](Device& d) { return Emergency(d); });
    on("show", "The state, as JSON", [](const Device& d) { return Show(d); });
    app.add_subcommand("check",
                       "What is known of how this device boots, and what is wrong with it, as JSON; changes nothing")
        ->callback([&] {
            const BootCheck checked = CheckBoot(file);
            std::cout << checked.text << '\n';
            status = checked.isWell ? 0 : 1;
        });
    app.add_subcommand("schema", "The settings that the file may have, as a JSON Schema")->callback([] {
        std::cout << ZBootSettings::Schema() << '\n';
    });
    on("may-install", "Whether the slot that does not run may be written over",
       [](const Device& d) { return MayInstall(d); });
    on("activate", "Makes a slot start next", [&slot](Device& d) { return Activate(d, slot); })
        ->add_option("slot", slot, "A or B")
        ->required()
        ->check(CLI::IsMember({"A", "B"}));
    CLI11_PARSE(app, argc, argv);
    return status;
} catch (const std::exception& error) {
    std::cerr << "arbor-boot: " << error.what() << '\n';
    return 1;
}
