// The state's file through power cuts, and boot loaders: a link, U-Boot's variables with its own tools, a command.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include "TestSupport.h"
#include "ZBoot/ZBootSteps.h"
#include "ZBoot/ZTrialWatch.h"
#include "ZShared/ZPlatform.h"

namespace fs = std::filesystem;

namespace {

void Write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

class Boot : public testing::Test {
protected:
    Boot() {
        settings.slots = folder / "Slots";
        settings.state = folder / "state" / "trial";
        settings.runningSlotFile = folder / "slot";
        settings.kernelCommandLine = "/dev/null";
        settings.bootIdFile = folder / "id";
        for (const auto& [slot, version] : {std::pair{"A", "3.044"}, std::pair{"B", "3.046"}}) {
            Write(folder / "Slots" / slot / "version", version + std::string("\n"));
            Write(folder / "Slots" / slot / "digest", std::string(64, *slot == 'A' ? 'a' : 'b') + "\n");
        }
        Start("A");
        fs::create_symlink("A", folder / "Slots" / "active");
    }
    void Start(const char* slot) {
        Write(folder / "slot", slot);
        Write(folder / "id", "boot " + std::to_string(++boots) + "\n");
    }
    std::unique_ptr<ZBootControl> Control() {
        auto control = ZBootControl::Make(settings);
        EXPECT_TRUE(control) << (control ? "" : control.error().text);
        return control ? std::move(*control) : nullptr;
    }

    const TemporaryFolder temporary;
    const fs::path folder = temporary.Path();
    ZBootSettings settings;
    int boots = 0;
};

/// The file with its newest generation as it would be after a write of which only the first `size` bytes arrived.
void Tear(const fs::path& file, const std::string& before, const std::string& after, std::size_t size) {
    std::string torn = before;
    for (std::size_t at = 0, written = 0; at < after.size() && written < size; ++at) {
        if (before.at(at) != after.at(at)) {
            torn.at(at) = after.at(at);
            ++written;
        }
    }
    Write(file, torn);
}

}  // namespace

TEST_F(Boot, FileKeepsOneWholeStateThroughEveryPowerCut) {
    ZTrialFile file(settings.state);
    EXPECT_FALSE(file.Read()->confirmed.IsKnown()) << "a new device";
    const auto change = [&](const char* version) {
        return file.Change([&](ZTrialState& state) { state.confirmed = {"A", version, ""}; });
    };
    ASSERT_TRUE(change("3.044"));
    ASSERT_TRUE(change("3.045"));
    const std::string before = ReadText(settings.state);
    ASSERT_TRUE(change("3.046"));
    const std::string after = ReadText(settings.state);
    std::size_t differing = 0;
    for (std::size_t at = 0; at < after.size(); ++at) {
        differing += before.at(at) != after.at(at) ? 1 : 0;
    }
    ASSERT_GT(differing, 20U);
    for (std::size_t size = 0; size <= differing; ++size) {
        Tear(settings.state, before, after, size);
        const auto read = file.Read();
        ASSERT_TRUE(read) << size;
        ASSERT_EQ(read->confirmed.version, size == differing ? "3.046" : "3.045") << size;
        ASSERT_TRUE(change("3.047")) << size;
        ASSERT_EQ(file.Read()->confirmed.version, "3.047") << size;
    }
    Write(settings.state, std::string(40'000, 'x'));
    EXPECT_FALSE(file.Read());
    ASSERT_TRUE(change("3.048")) << "it is begun anew";
    EXPECT_EQ(file.Read()->confirmed.version, "3.048");
}

TEST_F(Boot, FileThatTakesNothingIsAnErrorAndChangesNothing) {
    settings.state = "/proc/trial";
    EXPECT_FALSE(ZTrialFile(settings.state).Change([](ZTrialState& state) { state.bOrderly = true; }));
    Write(folder / "file", "");
    settings.state = folder / "file" / "trial";
    EXPECT_FALSE(ZTrialFile(settings.state).Change([](ZTrialState& state) { state.bOrderly = true; }));
}

TEST_F(Boot, LinkLeadsToWhatStartsNext) {
    const auto control = Control();
    ASSERT_TRUE(BeginBoot(settings, *control));
    ASSERT_TRUE(control->Activate("B", true));
    EXPECT_EQ(control->Next()->version, "3.046");
    EXPECT_EQ(NoteNext(settings, *control)->trial->version.version, "3.046");
    Start("B");
    ASSERT_TRUE(BeginBoot(settings, *control));
    fs::remove(folder / "Slots" / "A" / "version");
    fs::remove(folder / "Slots" / "A" / "digest");
    const auto stuck = FailTrial(settings, *control, {"it is too loud"});
    ASSERT_FALSE(stuck);
    EXPECT_TRUE(stuck.error().text.starts_with("there is no way back: slot A")) << stuck.error().text;
    Write(folder / "Slots" / "A" / "version", "3.044");
    ASSERT_TRUE(FailTrial(settings, *control, {"it is too loud"}));
    ASSERT_TRUE(Leave(settings, *control));
    EXPECT_EQ(control->Next()->slot, "A");
    Write(folder / "slot", "C");
    EXPECT_FALSE(BeginBoot(settings, *control)) << "no such slot";
}

TEST_F(Boot, WhatCouldNotBeLeftIsLeftAtTheNextStart) {
    settings.control = "command";
    Write(folder / "loader", "case $1 in running|next) cat " + (folder / "slot").string() + ";; *) test -e " +
                                 (folder / "mended").string() + ";; esac\n");
    settings.command = "sh " + (folder / "loader").string();
    const auto control = Control();
    ASSERT_TRUE(BeginBoot(settings, *control));
    Start("B");
    ASSERT_EQ(*BeginBoot(settings, *control), ZBootAction::GoOn);
    ASSERT_TRUE(FailTrial(settings, *control, {"it is too loud"}));
    for (int boot = 0; boot < 5; ++boot) {
        EXPECT_FALSE(Leave(settings, *control)) << "the loader does not listen";
        Start("B");
        ASSERT_EQ(*BeginBoot(settings, *control), ZBootAction::GoBack);
    }
    Write(folder / "mended", "");
    for (std::uint32_t boot = 0; boot < ZTrialState::kMostGoneBack; ++boot) {
        EXPECT_TRUE(Leave(settings, *control)) << "it listens, and starts the same all the same";
        Start("B");
        static_cast<void>(BeginBoot(settings, *control));
    }
    Start("B");
    EXPECT_EQ(*BeginBoot(settings, *control), ZBootAction::GoOn) << "no circles";
}

namespace {

/// U-Boot's variables, in a file, with its own tools. They give no answer once while the file "late" is there, and none
/// at all while "silent" is.
class Environment : public Boot {
protected:
    Environment() {
        Write(folder / "env", std::string(0x4000, '\0'));
        Write(folder / "fw_env.config", (folder / "env").string() + " 0x0 0x4000\n");
        Write(folder / "defaults", "slot=A\nother=kept\n");
        const std::string config = " -c " + (folder / "fw_env.config").string();
        Write(folder / "print", "rm " + (folder / "late").string() + " 2>/dev/null && exit 1; test ! -e " +
                                    (folder / "silent").string() + " && exec fw_printenv" + config + " \"$@\"");
        settings.control = "uboot-env";
        settings.printEnvironment = "sh " + (folder / "print").string();
        settings.setEnvironment = "fw_setenv" + config + " -f " + (folder / "defaults").string();
    }
};

}  // namespace

TEST_F(Environment, IsSetInOneWrite) {
    const auto control = Control();
    ASSERT_TRUE(control->Activate("B", true)) << "its own tools have to be installed";
    EXPECT_EQ(control->Next()->slot, "B");
    EXPECT_NE(ReadText(folder / "env").find("upgrade_available=1"), std::string::npos);
    EXPECT_NE(ReadText(folder / "env").find("bootcount=0"), std::string::npos);
    ASSERT_TRUE(control->MarkGood());
    EXPECT_NE(ReadText(folder / "env").find("upgrade_available=0"), std::string::npos);
    EXPECT_NE(ReadText(folder / "env").find("slot=B"), std::string::npos);
    EXPECT_TRUE(control->FallsBack());
    // It went back by itself, and has not kept that: it is told, so that it does not start the other one again.
    const fs::path link = folder / "Slots" / "active";
    ASSERT_TRUE(control->Activate("B", true));
    ASSERT_TRUE(control->TurnLink("B"));
    ASSERT_TRUE(BeginBoot(settings, *control));
    EXPECT_EQ(control->Next()->slot, "A");
    EXPECT_FALSE(control->Counts());
    EXPECT_EQ(fs::read_symlink(link), "A") << "whoever looks there is told the same";
    // The power went between the installer's word to the loader and the link.
    ASSERT_TRUE(control->Activate("B", true));
    Start("B");
    ASSERT_TRUE(BeginBoot(settings, *control));
    EXPECT_EQ(fs::read_symlink(link), "B");
    ASSERT_TRUE(FailTrial(settings, *control, {"it is too loud"}));
    ASSERT_TRUE(Leave(settings, *control));
    EXPECT_EQ(fs::read_symlink(link), "A");
    // The state is lost in the middle of a trial: what the loader still counts has to prove itself all the same.
    const auto lose = [&](const char* next, const char* runs) {
        EXPECT_TRUE(control->Activate(next, true));
        Start(runs);
        fs::remove_all(folder / "state");
        EXPECT_TRUE(BeginBoot(settings, *control));
        return ZTrialFile(settings.state).Read();
    };
    EXPECT_TRUE(lose("B", "B")->IsOnTrial(control->At("B")));
    Write(folder / "late", "");
    EXPECT_EQ(lose("B", "B")->confirmed.slot, "A") << "it is asked twice";
    EXPECT_TRUE(control->Counts());
    EXPECT_EQ(lose("B", "A")->confirmed.slot, "A") << "it went back by itself";
    EXPECT_FALSE(control->Counts());
    Write(folder / "Slots/A/digest", "");
    Write(folder / "Slots/A/version", "");
    EXPECT_EQ(lose("B", "B")->confirmed.slot, "B") << "there is no way back";
    settings.setEnvironment = "false";
    EXPECT_FALSE(Control()->Activate("A", false));
}

TEST_F(Environment, VersionThatNeverCameUpIsTakenBackHoweverTheLoaderHasLeftIt) {
    const auto control = Control();
    ASSERT_TRUE(control->Activate("A", false));
    for (const bool isSilent : {false, true}) {
        for (const char* const left : {"A", "B"}) {
            SCOPED_TRACE(std::string(left) + (isSilent ? ", and does not answer at first" : ""));
            fs::remove_all(folder / "state");
            Start("A");
            ASSERT_TRUE(BeginBoot(settings, *control));
            ASSERT_TRUE(control->Activate("B", true));
            ASSERT_TRUE(NoteNext(settings, *control));
            ASSERT_TRUE(control->Activate(left, true));
            Start("A");
            if (isSilent) {
                Write(folder / "silent", "");
                EXPECT_FALSE(BeginBoot(settings, *control));
                fs::remove(folder / "silent");
            }
            ASSERT_TRUE(BeginBoot(settings, *control)) << "the host";
            EXPECT_EQ(control->Next()->slot, "A");
            EXPECT_FALSE(control->Counts());
            const auto state = NoteNext(settings, *control);
            EXPECT_FALSE(state->trial);
            EXPECT_EQ(state->takenBack.size(), 1U);
        }
    }
}

TEST_F(Environment, InstallIsNotUndoneByAHostThatStartsMeanwhile) {
    const auto control = Control();
    ASSERT_TRUE(control->Activate("A", false));
    ASSERT_TRUE(BeginBoot(settings, *control));
    ASSERT_TRUE(control->Activate("B", true)) << "noted a moment later, or never";
    ASSERT_TRUE(BeginBoot(settings, *control));
    EXPECT_EQ(control->Next()->slot, "B");
    ASSERT_TRUE(control->Activate("A", false));
    Start("A");
    Write(folder / "silent", "");
    EXPECT_FALSE(BeginBoot(settings, *control)) << "so the next one that starts counts this boot";
    fs::remove(folder / "silent");
    ASSERT_TRUE(control->Activate("B", true));
    ASSERT_TRUE(NoteNext(settings, *control));
    ASSERT_TRUE(BeginBoot(settings, *control));
    EXPECT_EQ(control->Next()->slot, "B");
    EXPECT_EQ(NoteNext(settings, *control)->trial->version.version, "3.046");
}

namespace {

/// What systemd-boot does with entries at a start, as tests/boot/real_loader.py has seen it do.
class Loader : public Boot {
protected:
    Loader() {
        settings.control = "systemd-boot";
        settings.entries = folder / "entries";
        Write(folder / "entries/arbor-2-a.conf", "linux /a\noptions arbor.slot=A\n");
        Write(folder / "entries/arbor-1-b.conf", "linux /b\noptions arbor.slot=B\n");
        Write(folder / "entries/auto-other.conf", "linux /c\n");
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& file : fs::directory_iterator(folder / "entries")) {
            names.push_back(file.path().filename().string());
        }
        std::ranges::sort(names);
        return names;
    }
    /// Starts, and counts down; the slot that runs.
    std::string Load() {
        const std::regex form("arbor-([0-9]+)-([ab])([+]([0-9]+)(-([0-9]+))?)?[.]conf");
        std::tuple<bool, int, std::string> best{false, -1, ""};
        std::smatch match;
        for (const std::string& name : Names()) {
            if (std::regex_match(name, match, form)) {
                best = std::max(best, {!match[3].matched || match[4] != "0", std::stoi(match[1]), name});
            }
        }
        const std::string name = std::get<2>(best);
        std::regex_match(name, match, form);
        if (match[3].matched && match[4] != "0") {
            const int done = match[6].matched ? std::stoi(match[6]) : 0;
            const std::string counted = "arbor-" + match[1].str() + "-" + match[2].str() + "+" +
                                        std::to_string(std::stoi(match[4]) - 1) + "-" + std::to_string(done + 1) +
                                        ".conf";
            fs::rename(folder / "entries" / name, folder / "entries" / counted);
        }
        const std::string slot = match[2] == "a" ? "A" : "B";
        EXPECT_NE(ReadText(folder / "entries" / Names().front()), "");
        Start(slot.c_str());
        return slot;
    }
};

}  // namespace

TEST_F(Loader, CountsStartsOfAVersionOnTrialAndGoesBackByItself) {
    const auto control = Control();
    ASSERT_TRUE(BeginBoot(settings, *control));
    EXPECT_EQ(control->Next()->slot, "A");
    EXPECT_FALSE(control->Counts());
    EXPECT_TRUE(control->FallsBack());
    ASSERT_TRUE(control->Activate("B", true));
    ASSERT_TRUE(NoteNext(settings, *control));
    EXPECT_EQ(Names(), (std::vector<std::string>{"arbor-2-a.conf", "arbor-3-b+3.conf", "auto-other.conf"}));
    EXPECT_EQ(ReadText(folder / "entries/arbor-3-b+3.conf"), "linux /b\noptions arbor.slot=B\n");
    ASSERT_TRUE(control->Activate("B", true));
    EXPECT_EQ(Names().at(1), "arbor-3-b+3.conf") << "it is so already";
    for (const char* const left : {"arbor-3-b+2-1.conf", "arbor-3-b+1-2.conf", "arbor-3-b+0-3.conf"}) {
        EXPECT_EQ(Load(), "B");
        EXPECT_EQ(Names().at(1), left);
        EXPECT_EQ(*BeginBoot(settings, *control), ZBootAction::GoOn);
        EXPECT_TRUE(control->Counts() || control->Next()->slot == "A") << "after the last one it goes back";
    }
    EXPECT_EQ(Load(), "A");
    EXPECT_EQ(*BeginBoot(settings, *control), ZBootAction::GoOn);
    const auto state = ZTrialFile(settings.state).Read();
    EXPECT_FALSE(state->trial);
    EXPECT_EQ(state->takenBack.size(), 1U);
    EXPECT_EQ(Load(), "A") << "and stays";
    ASSERT_TRUE(control->Activate("B", true));
    EXPECT_EQ(Load(), "B") << "the next version has all its starts";
    EXPECT_EQ(Names().at(1), "arbor-4-b+2-1.conf");
}

TEST_F(Loader, OrderlyStartsCostNothingAndWhatIsGoodIsCountedNoMore) {
    const auto control = Control();
    ASSERT_TRUE(BeginBoot(settings, *control));
    ASSERT_TRUE(control->Activate("B", true));
    for (int start = 0; start < 5; ++start) {
        ASSERT_EQ(Load(), "B");
        ASSERT_TRUE(control->Uncount());
    }
    for (int start = 0; start < 3; ++start) {
        ASSERT_EQ(Load(), "B");
    }
    EXPECT_EQ(control->Next()->slot, "A");
    ASSERT_TRUE(control->Activate("B", false)) << "confirmed in its last start";
    ASSERT_TRUE(control->MarkGood());
    EXPECT_EQ(Names().at(1), "arbor-4-b.conf");
    for (int start = 0; start < 5; ++start) {
        ASSERT_EQ(Load(), "B");
    }
    ASSERT_TRUE(control->Activate("A", true));
    ASSERT_EQ(Load(), "A");
    ASSERT_TRUE(control->MarkGood());
    EXPECT_EQ(Names(), (std::vector<std::string>{"arbor-4-b.conf", "arbor-5-a.conf", "auto-other.conf"}));
    ASSERT_TRUE(control->Activate("B", false));
    EXPECT_EQ(Load(), "B");
}

TEST_F(Loader, PowerCutsBetweenTheStepsLeaveAWayBack) {
    const auto control = Control();
    // What a step removes is still there, as when the power goes before that.
    const auto cut = [&](const auto& step) {
        fs::remove_all(folder / "before");
        fs::copy(folder / "entries", folder / "before");
        ASSERT_TRUE(step());
        fs::copy(folder / "before", folder / "entries", fs::copy_options::skip_existing);
        Write(folder / "entries/arbor-9-b.conf.new", "half");
    };
    for (int round = 0; round < 4; ++round) {
        cut([&] { return control->Activate("B", true); });
        for (int start = 0; start < 2; ++start) {
            ASSERT_EQ(Load(), "B") << round;
            cut([&] { return control->Uncount(); });
        }
        int starts = 0;
        while (Load() == "B" && starts < 100) {
            ++starts;
        }
        ASSERT_GE(starts, 3);
        ASSERT_LE(starts, 20) << "it comes to an end";
        cut([&] { return control->Activate("A", false); });
        ASSERT_EQ(Load(), "A");
        cut([&] { return control->Activate("B", true); });
        ASSERT_EQ(Load(), "B");
        cut([&] { return control->MarkGood(); });
        for (int start = 0; start < 5; ++start) {
            ASSERT_EQ(Load(), "B");
        }
        cut([&] { return control->Activate("A", false); });
        ASSERT_EQ(Load(), "A");
    }
}

TEST_F(Loader, SaysWhatIsMissing) {
    fs::remove(folder / "entries/arbor-1-b.conf");
    EXPECT_NE(Control()->Activate("B", true).error().text.find("no entry for slot B"), std::string::npos);
    EXPECT_EQ(Names().size(), 2U);
    Write(folder / "entries/arbor-1-b.conf", "");
    EXPECT_FALSE(Control()->Activate("B", true)) << "an empty one starts nothing";
    fs::remove_all(folder / "entries");
    EXPECT_NE(Control()->Next().error().text.find("No such file"), std::string::npos);
}

TEST_F(Boot, CommandOfTheBuilderIsAskedAndTold) {
    settings.control = "command";
    Write(folder / "loader", "case $1 in running|next) echo B;; activate) echo $2 >> " + (folder / "told").string() +
                                 ";; *) exit 1;; esac\n");
    settings.command = "sh " + (folder / "loader").string();
    const auto control = Control();
    EXPECT_EQ(control->Running()->version, "3.046");
    ASSERT_TRUE(control->Activate("A", false));
    EXPECT_EQ(ReadText(folder / "told"), "A\n");
    const auto good = control->MarkGood();
    ASSERT_FALSE(good);
    EXPECT_NE(good.error().text.find("good' failed"), std::string::npos) << good.error().text;
}

TEST_F(Boot, SettingsNameWhatIsWrong) {
    EXPECT_EQ(ZBootSettings::Load(folder / "none")->control, "link");
    Write(
        folder / "boot.json",
        R"({"control":"c","attempts":100,"command":"d","slotVariable":"v","printEnvironment":"p","setEnvironment":"s","entries":"e"})");
    const auto read = ZBootSettings::Load(folder / "boot.json");
    ASSERT_TRUE(read) << ErrorOf(read);
    EXPECT_EQ(read->attempts, 100U);
    Write(folder / "least.json", R"({"attempts":1})");
    EXPECT_EQ(ZBootSettings::Load(folder / "least.json")->attempts, 1U);
    EXPECT_EQ(read->control + read->command + read->slotVariable + read->printEnvironment + read->setEnvironment +
                  read->entries,
              "cdvpse");
    for (const auto& [text, told] :
         {std::pair{R"({"attempts":0})", "attempts: it must be a number from 1 to 100"},
          std::pair{R"({"attempts":101})", "attempts: it must be a number from 1 to 100"},
          std::pair{R"({"slot":"A"})", "slot: there is no such setting"},
          std::pair{R"({"state":""})", "state: it must be a text"}, std::pair{R"([])", "it is no JSON object"}}) {
        Write(folder / "boot.json", text);
        const auto loaded = ZBootSettings::Load(folder / "boot.json");
        ASSERT_FALSE(loaded) << text;
        EXPECT_EQ(loaded.error().text, (folder / "boot.json").string() + ": " + told);
    }
    settings.control = "magic";
    EXPECT_FALSE(ZBootControl::Make(settings));
}

/// The program itself, as units and the installer call it.
TEST_F(Boot, ProgramLeavesAVersionThatNobodyJudges) {
    const auto quoted = [&](const char* name) { return '"' + (folder / name).string() + '"'; };
    Write(folder / "boot.json", R"({"slots":)" + quoted("Slots") + R"(,"state":)" + quoted("state/trial") +
                                    R"(,"runningSlotFile":)" + quoted("slot") +
                                    R"(,"kernelCommandLine":"/dev/null","bootIdFile":)" + quoted("id") +
                                    R"(,"restart":"touch )" + (folder / "restarted").string() + "\"}");
    std::string said;
    const auto does = [&](const std::string& command) {
        return ZPlatform::ExecuteCommand(
            ARBOR_BOOT " --settings " + (folder / "boot.json").string() + ' ' + command + " 2>&1", said);
    };
    for (const auto& [command, reason] : {std::pair{"expire", "nothing on it told in time that it works"},
                                          std::pair{"emergency", "it came no further than emergency mode"}}) {
        fs::remove_all(folder / "state");
        Start("A");
        ASSERT_TRUE(does("start")) << said;
        EXPECT_TRUE(does("may-install")) << said;
        EXPECT_EQ(does(command), command == std::string("expire")) << "nothing is on trial: " << said;
        ASSERT_TRUE(does("activate B")) << said;
        EXPECT_TRUE(does("may-install")) << "a second install before the restart: " << said;
        Start("B");
        ASSERT_TRUE(does("start")) << said;
        EXPECT_FALSE(does("may-install")) << "A is the way back: " << said;
        if (const auto judge = ZTrialWatch::Hold(settings.state); command == std::string("expire")) {
            EXPECT_TRUE(does(command)) << said;
        }
        EXPECT_FALSE(fs::exists(folder / "restarted")) << said;
        EXPECT_TRUE(does(command)) << said;
        EXPECT_NE(said.find("version 3.046 is left for 3.044: " + std::string(reason)), std::string::npos) << said;
        EXPECT_TRUE(fs::remove(folder / "restarted")) << said;
        EXPECT_EQ(fs::read_symlink(folder / "Slots" / "active"), "A");
    }
    Write(folder / "state" / "trial", "damaged");
    for (const char* command : {"expire", "emergency", "may-install", "show"}) {
        EXPECT_FALSE(does(command)) << said;
    }
}

TEST_F(Boot, NobodyElseCanHoldTheLocks) {
    // Made by an earlier release, for others to open; who may open a file may lock it.
    for (const char* const name : {"state/trial", "state/trial.watched"}) {
        Write(folder / name, "");
        fs::permissions(folder / name, fs::perms(0644));
    }
    ASSERT_TRUE(ZTrialFile(settings.state).Change([](ZTrialState& state) { state.bOrderly = true; }));
    ASSERT_TRUE(ZTrialWatch::Hold(settings.state));
    for (const char* const name : {"state/trial", "state/trial.watched"}) {
        EXPECT_EQ(fs::status(folder / name).permissions(), fs::perms(0600)) << name;
    }
}
