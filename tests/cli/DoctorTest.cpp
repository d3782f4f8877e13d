#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Conversation.h"

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testing::HasSubstr;

void Write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

/// A set-up in a folder of its own: all is as it should be, until a test breaks something.
class Doctor : public testing::Test {
protected:
    void SetUp() override {
        updates = folder / "updates";
        fs::create_directories(updates);
        fs::create_directories(folder / "disk/Packages");
        Write(folder / "slot", "A\n");
        for (const char* const slot : {"A", "B"}) {
            Write(folder / "Slots" / slot / "version", "3.04" + std::string(slot) + "\n");
        }
        fs::create_symlink("A", folder / "Slots/active");
        Write(folder / "trust/own.pem", "");
        told["graph"] = json::parse(R"({"nodes": [{"class": "ZNodeStorage", "config": {"removableRoots": []}},
            {"class": "ZNodeDeviceProps"}, {"class": "ZNodeJournal"}]})");
        Of("graph")["core"] = {{"updatesFolder", updates.string()}};
        Of("graph")["platform"] = {{"mounts", {{"/dev/data", (folder / "disk").string()}}}};
        AddNode("ZNodeArborInstall", {{"ArchiveDevice", "/dev/data"},
                                      {"ArchiveDir", "Packages"},
                                      {"TrustedSigners", (folder / "trust").string()},
                                      {"UnconfinedChecks", true}});
        AddNode("ZNodeTrial", {{"bootSettings", (folder / "boot.json").string()}});
    }

    json::object& Of(const char* document) { return told.at(document).as_object(); }
    /// Merges changes into what is there, such as {"trust": {"number": 4}}.
    static void Merge(json::object& into, const json::object& changes) {
        for (const auto& change : changes) {
            json::value* const known = into.if_contains(change.key());
            if (known != nullptr && known->is_object() && change.value().is_object() &&
                !change.value().get_object().empty()) {
                Merge(known->get_object(), change.value().get_object());
            } else {
                into[change.key()] = change.value();
            }
        }
    }
    void Change(const std::string& changes) { Merge(told, json::parse(changes).as_object()); }

    void AddNode(const char* name, const json::object& config) {
        Of("graph").at("nodes").as_array().push_back(json::object{{"class", name}, {"config", config}});
    }
    void ReplaceStorage(const json::object& config) {
        auto& nodes = Of("graph").at("nodes").as_array();
        nodes.erase(nodes.begin());
        if (!config.empty()) {
            AddNode("ZNodeStorage", config);
        }
    }

    /// The host answers as it would in such a set-up.
    void Answer() {
        Write(folder / "boot.json", json::serialize(told.at("boot")));
        Write(folder / "graph.json", json::serialize(told.at("graph")));
        Of("setup")["graphFile"] = (folder / "graph.json").string();
        Of("setup")["updatesFolder"] = updates.string();
        for (const char* const document : {"status", "setup", "trust", "peers"}) {
            gateway.Script(std::string("/v1/") + document, {200, json::serialize(told.at(document))});
        }
    }

    /// Looks at it; keeps what was found.
    int Look(const std::string& options = "") {
        Program program(gateway.Folder(), "doctor --json --socket " + gateway.Socket() + " " + options);
        const int end = program.Status();
        const auto document = json::parse(program.Output().empty() ? "{}" : program.Output());
        found = document.as_object().contains("points") ? document.at("points").as_array() : json::array();
        EXPECT_FALSE(found.empty()) << program.Output() << program.Errors();
        return end;
    }

    /// "state: text -> advice", one a line, of all that was found at a point.
    std::string At(std::string_view point) const {
        std::string text;
        for (const json::value& each : found) {
            if (each.at("point").as_string() == point) {
                text += std::string(each.at("state").as_string()) + ": " + std::string(each.at("text").as_string()) +
                        " -> " + std::string(each.at("advice").as_string()) + "\n";
            }
        }
        return text;
    }

    ScriptedGateway gateway;
    const fs::path folder{gateway.Folder()};
    fs::path updates;
    json::array found;
    /// What the host tells, and what lies on its disk, each document under its name.
    json::object told{
        {"boot",
         {{"slots", (folder / "Slots").string()},
          {"state", (folder / "trial").string()},
          {"runningSlotFile", (folder / "slot").string()}}},
        {"status", json::parse(R"({"you": {"name": "user root", "role": "administer"},
            "device": {"model": "KiteQM", "serialNumber": "7", "board": "b"}})")},
        {"setup", {{"version", ARBORCTL_VERSION}, {"user", "root"}, {"userId", geteuid()}, {"passesModes", false}}},
        {"trust", json::parse(R"({"trustedSigners": "/t", "number": 3, "trustThreshold": 1, "releaseThreshold": 1,
            "expires": "2999-01-31", "keys": [{"roles": ["trust", "release"]}]})")},
        {"peers", json::parse(R"({"peers": []})")}};
};

TEST_F(Doctor, FindsNothingAtFaultWhereAllIsWell) {
    Answer();
    gateway.Script("/v1/peers", {503, "{}"});
    EXPECT_EQ(Look(), 0) << json::serialize(found);
    EXPECT_THAT(At("host"), HasSubstr("ok: it answers at"));
    EXPECT_THAT(At("rights"), HasSubstr("ok: user root may administer"));
    EXPECT_THAT(At("identity"), HasSubstr("ok: KiteQM 7, board b"));
    EXPECT_THAT(At("updates folder"), HasSubstr(" free ->"));
    EXPECT_THAT(At("archive"), HasSubstr((folder / "disk/Packages").string() + ": "));
    EXPECT_THAT(At("trust"), HasSubstr("ok: trust document 3, 1 keys"));
    EXPECT_THAT(At("boot"), HasSubstr("slot A runs, A starts next"));
    Program people(gateway.Folder(), "doctor --socket " + gateway.Socket());
    EXPECT_EQ(people.Status(), 0);
    EXPECT_THAT(people.Output(), testing::ContainsRegex("\nok +trust +trust document 3.*points looked at"));
}

TEST_F(Doctor, DoesWhatItCanWhereNoHostRuns) {
    Change(R"({"trust": {"number": 4}})");
    Answer();
    gateway.GoDown();
    EXPECT_EQ(Look("--graph " + (folder / "graph.json").string()), 1);
    EXPECT_EQ(found.front().at("point").as_string(), "host") << "first of all";
    EXPECT_THAT(At("host"), HasSubstr("fault: arbord does not run -> systemctl status arbord"));
    EXPECT_THAT(At("trust"), HasSubstr("the certificates in " + (folder / "trust").string()));
    EXPECT_THAT(At("boot"), HasSubstr("slot A runs"));
    EXPECT_THAT(At("identity"), HasSubstr("unknown: "));
    EXPECT_THAT(At("archive"), HasSubstr(" free ->"));
    EXPECT_EQ(Look("--graph /nowhere/graph.json"), 1);
    EXPECT_THAT(At("graph"), HasSubstr("fault: /nowhere/graph.json: No such file or directory"));
}

TEST_F(Doctor, WaitsForNobodyForLong) {
    Change(R"({"boot": {"control": "command", "command": "sleep 600;"}})");
    Answer();
    gateway.Script("/v1/status", {200, "", true});
    EXPECT_EQ(Look("--timeout 0.5 --graph " + (folder / "graph.json").string()), 1);
    EXPECT_THAT(At("host"), HasSubstr("fault: "));
    EXPECT_THAT(At("boot"), HasSubstr("unknown: it could not be looked at within"));
    EXPECT_THAT(At("clock"), HasSubstr("it says"));
}

TEST_F(Doctor, SaysWhatToMend) {
    const auto mounts = [](const std::string& more, const char* root = "1 1 0:1 / / rw - ext4 /dev/x rw") {
        return R"("mounts": [")" + std::string(root) + '"' + (more.empty() ? "" : ", \"" + more + '"') + "]";
    };
    const auto peer = [](const std::string& facts) {
        return R"({"peers": {"peers": [{"name": "palm", "pinned": true)" + facts + "}]}}";
    };
    // clang-format off
    // What is merged into what is told, and perhaps done; what is said of which point, and how the program ends.
    const std::tuple<const char*, std::string, std::function<void()>, const char*, std::string, int> cases[]{
        {"an older host", R"({"setup": {"version": "0.1"}})", {}, "versions", "warning: arbord is of 0.1", 0},
        {"expired", R"({"trust": {"expires": "2001-01-31"}})", {}, "trust", "warning: trust document 3, 1 keys, was meant", 0},
        {"too few keys", R"({"trust": {"releaseThreshold": 2}})", {}, "trust",
         "fault: a release signature takes 2 keys, and the trust document has 1 -> make", 1},
        {"damaged", R"({"trust": {"problem": "arbor-trust.json: damaged"}})", {}, "trust", "fault: arbor-trust.json: damaged", 1},
        {"policy off", R"({"trust": {"trustedSigners": ""}})", {}, "trust", "warning: the policy is off", 0},
        {"no board", R"({"status": {"device": {"board": ""}}})", {}, "identity", "fault: the device does not know its board", 1},
        {"simulated", R"({"graph": {"platform": {"identity": {}}}})", {}, "identity", "warning: KiteQM 7, board b: simulated", 0},
        {"no folder", "{}", [this] { updates = folder / "gone"; }, "updates folder", "gone: No such file or directory -> mkdir -p", 1},
        {"somebody else's", R"({"setup": {"userId": )" + std::to_string(geteuid() + 1) + "}}",
         [this] { chmod(updates.c_str(), 0700); }, "updates folder",
         "fault: " + folder.string() + "/updates: the host's user root may not write there", 1},
        {"read-only", "{\"setup\": {" + mounts("2 1 0:2 / " + updates.string() + " ro,nodev - ext4 /dev/x rw") + "}}", {},
         "updates folder", "updates is read-only for the host", 1},
        {"full", R"({"setup": {"passesModes": true}})", [this] { updates = "/proc"; }, "updates folder",
         "fault: /proc: 0 B free: it is full", 1},
        {"mounted, as the host sees it",
         R"({"graph": {"platform": {"mounts": {}}}, "setup": {)" +
             mounts("2 1 0:2 / " + (folder / "disk").string() + " rw - ext4 /dev/data rw") + "}}", {}, "archive", "disk/Packages: ", 0},
        {"clock behind what it has seen", R"({"status": {"lastInstall": {"endedAt": 4102444800000}}})", {}, "clock",
         "and something here is of 2100-01-01", 1},
        {"not mounted", R"({"graph": {"platform": {"mounts": {}}}})", {}, "archive", "fault: /dev/data is not mounted", 1},
        {"developer mode", R"({"status": {"developerMode": true}})", {}, "graph", "warning: developerMode is on", 0},
        {"no storage", "{}", [this] { ReplaceStorage({}); }, "graph", "fault: without a ZNodeStorage no stick is seen", 1},
        {"slot missing", "{}", [this] { fs::remove_all(folder / "Slots/B"); }, "boot", "the other one is empty", 0},
        {"running slot unknown", "{}", [this] { fs::remove(folder / "Slots/A/version"); }, "boot",
         "fault: slot A runs, and does not tell which version stands in it -> ", 1},
        {"no link", "{}", [this] { fs::remove(folder / "Slots/active"); }, "boot", "No such file or directory -> make the link", 1},
        {"broken settings", R"({"boot": "{"})", {}, "boot", "boot.json: it is no JSON object -> mend", 1},
        {"state lost", "{}", [this] { Write(folder / "trial", "x"); }, "boot", "neither of its generations is whole", 1},
        {"no environment", R"({"boot": {"control": "uboot-env", "printEnvironment": "/nowhere/fw_printenv"}})", {}, "boot",
         "libubootenv-tool", 1},
        {"a judge's trouble", R"({"status": {"trial": {"problem": "there is no way back"}}})", {}, "boot", "fault: there is no way back", 1},
        {"nobody paired", "{}", {}, "accessory", "warning: the graph has a link, and no device is paired", 0},
        {"away", peer(""), {}, "accessory", "warning: palm is paired, and not connected", 0},
        {"too old", peer(R"(, "connected": true, "requiresUpdate": true, "version": "1", "serialNumber": "4")"), {}, "accessory",
         "palm runs 1, and needs another version -> arborctl remote-install --to 4", 0},
        {"stick unseen", "{\"setup\": {" + mounts("", "1 1 0:1 / / rw shared:1 - ext4 /dev/x rw") + "}}",
         [this] { ReplaceStorage({{"removableRoots", {"/proc", "/"}}}); }, "sticks",
         "/proc is mounted, and the host does not see it", 1},
        {"sticks to come unseen", "{\"setup\": {" + mounts("") + R"(, "mountNamespace": "mnt:[1]"}})",
         [this] { ReplaceStorage({{"removableRoots", {"/nowhere"}}}); }, "sticks",
         "fault: what is mounted below /nowhere from now on is not seen", 1},
    };
    // clang-format on
    for (const auto& [what, change, spoil, point, says, end] : cases) {
        SCOPED_TRACE(what);
        const json::object before = told;
        const fs::path was = updates;
        Change(change);
        if (spoil) {
            spoil();
        }
        Answer();
        EXPECT_EQ(Look(), end) << json::serialize(found);
        EXPECT_THAT(At(point), HasSubstr(says));
        told = before;
        updates = was;
        fs::remove(folder / "trial");
        fs::remove(folder / "Slots/active");
        fs::create_symlink("A", folder / "Slots/active");
        Write(folder / "Slots/A/version", "3.04A\n");
        Write(folder / "Slots/B/version", "3.04B\n");
        chmod(updates.c_str(), 0755);
    }
}

}  // namespace
