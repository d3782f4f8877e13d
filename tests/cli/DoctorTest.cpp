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
        Write(folder / "boot.json", json::serialize(boot));
        Write(folder / "trust/own.pem", "");
        graph = json::parse(R"({"nodes": [{"class": "ZNodeStorage", "config": {"removableRoots": []}},
            {"class": "ZNodeDeviceProps"}, {"class": "ZNodeJournal"}]})")
                    .as_object();
        graph["core"] = {{"updatesFolder", updates.string()}};
        graph["platform"] = {{"mounts", {{"/dev/data", (folder / "disk").string()}}}};
        AddNode("ZNodeArborInstall", {{"ArchiveDevice", "/dev/data"},
                                      {"ArchiveDir", "Packages"},
                                      {"TrustedSigners", (folder / "trust").string()},
                                      {"UnconfinedChecks", true}});
        AddNode("ZNodeTrial", {{"bootSettings", (folder / "boot.json").string()}});
    }

    void AddNode(const char* name, const json::object& config) {
        graph.at("nodes").as_array().push_back(json::object{{"class", name}, {"config", config}});
    }
    void RemoveNode(std::string_view name) {
        auto& nodes = graph.at("nodes").as_array();
        for (auto node = nodes.begin(); node != nodes.end();) {
            node = node->at("class").as_string() == name ? nodes.erase(node) : node + 1;
        }
    }

    /// The host answers as it would in such a set-up.
    void Answer() {
        Write(folder / "graph.json", json::serialize(graph));
        setup["graphFile"] = (folder / "graph.json").string();
        setup["updatesFolder"] = updates.string();
        gateway.Script("/v1/status", {200, json::serialize(status)});
        gateway.Script("/v1/setup", {200, json::serialize(setup)});
        gateway.Script("/v1/trust", {200, json::serialize(trust)});
        gateway.Script("/v1/peers", {200, json::serialize(peers)});
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
    json::object boot{{"slots", (folder / "Slots").string()},
                      {"state", (folder / "trial").string()},
                      {"runningSlotFile", (folder / "slot").string()}};
    json::object graph;
    json::object status{{"you", {{"name", "user root"}, {"role", "administer"}}},
                        {"device", {{"model", "KiteQM"}, {"serialNumber", "7"}, {"board", "b"}}}};
    json::object setup{{"version", ARBORCTL_VERSION}, {"user", "root"}, {"userId", geteuid()}, {"passesModes", false}};
    json::object trust{{"trustedSigners", "/t"},  {"number", 3},
                       {"trustThreshold", 1},     {"releaseThreshold", 1},
                       {"expires", "2999-01-31"}, {"keys", {{{"roles", {"trust", "release"}}}}}};
    json::object peers{{"peers", json::array{}}};
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
    trust["number"] = 4;
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
    boot["control"] = "command";
    boot["command"] = "sleep 600;";
    Write(folder / "boot.json", json::serialize(boot));
    Answer();
    gateway.Script("/v1/status", {200, "", true});
    EXPECT_EQ(Look("--timeout 0.5 --graph " + (folder / "graph.json").string()), 1);
    EXPECT_THAT(At("host"), HasSubstr("fault: "));
    EXPECT_THAT(At("boot"), HasSubstr("unknown: it could not be looked at within"));
    EXPECT_THAT(At("clock"), HasSubstr("it says"));
}

TEST_F(Doctor, SaysWhatToMend) {
    const struct {
        const char* what;
        std::function<void()> spoil;
        const char* point;
        std::string says;
        int end;
    } cases[]{
        {"an older host", [this] { setup["version"] = "0.1"; }, "versions", "warning: arbord is of 0.1", 0},
        {"expired", [this] { trust["expires"] = "2001-01-31"; }, "trust",
         "warning: trust document 3, 1 keys, was meant", 0},
        {"too few keys", [this] { trust["releaseThreshold"] = 2; }, "trust",
         "fault: a release signature takes 2 keys, and the trust document has 1 -> make", 1},
        {"damaged", [this] { trust["problem"] = "arbor-trust.json: damaged"; }, "trust",
         "fault: arbor-trust.json: damaged", 1},
        {"policy off", [this] { trust["trustedSigners"] = ""; }, "trust", "warning: the policy is off", 0},
        {"no board", [this] { status["device"].as_object()["board"] = ""; }, "identity",
         "fault: the device does not know its board", 1},
        {"simulated", [this] { graph.at("platform").as_object()["identity"] = json::object(); }, "identity",
         "warning: KiteQM 7, board b: simulated", 0},
        {"no folder", [this] { updates = folder / "gone"; }, "updates folder",
         "gone: No such file or directory -> mkdir -p", 1},
        {"somebody else's",
         [this] {
             setup["userId"] = geteuid() + 1;
             chmod(updates.c_str(), 0700);
         },
         "updates folder", "fault: " + folder.string() + "/updates: the host's user root may not write there", 1},
        {"read-only",
         [this] {
             setup["mounts"] = {"1 1 0:1 / / rw - ext4 /dev/x rw",
                                "2 1 0:2 / " + updates.string() + " ro,nodev - ext4 /dev/x rw"};
         },
         "updates folder", "updates is read-only for the host", 1},
        {"full",
         [this] {
             updates = "/proc";
             setup["passesModes"] = true;
         },
         "updates folder", "fault: /proc: 0 B free: it is full", 1},
        {"mounted, as the host sees it",
         [this] {
             graph.at("platform").as_object()["mounts"] = json::object();
             setup["mounts"] = {"1 1 0:1 / / rw - ext4 /dev/x rw",
                                "2 1 0:2 / " + (folder / "disk").string() + " rw - ext4 /dev/data rw"};
         },
         "archive", "disk/Packages: ", 0},
        {"clock behind what it has seen",
         [this] {
             status["lastInstall"] = {{"endedAt", 4102444800000}};
         },
         "clock", "and something here is of 2100-01-01", 1},
        {"not mounted", [this] { graph.at("platform").as_object()["mounts"] = json::object(); }, "archive",
         "fault: /dev/data is not mounted", 1},
        {"developer mode", [this] { status["developerMode"] = true; }, "graph", "warning: developerMode is on", 0},
        {"no storage", [this] { RemoveNode("ZNodeStorage"); }, "graph",
         "fault: without a ZNodeStorage no stick is seen", 1},
        {"slot missing", [this] { fs::remove_all(folder / "Slots/B"); }, "boot", "the other one is empty", 0},
        {"running slot unknown", [this] { fs::remove(folder / "Slots/A/version"); }, "boot",
         "fault: slot A runs, and does not tell which version stands in it -> ", 1},
        {"no link", [this] { fs::remove(folder / "Slots/active"); }, "boot",
         "No such file or directory -> make the link", 1},
        {"broken settings", [this] { Write(folder / "boot.json", "{"); }, "boot",
         "boot.json: it is no JSON object -> mend", 1},
        {"state lost", [this] { Write(folder / "trial", "x"); }, "boot", "neither of its generations is whole", 1},
        {"no environment",
         [this] {
             boot["control"] = "uboot-env";
             boot["printEnvironment"] = "/nowhere/fw_printenv";
             Write(folder / "boot.json", json::serialize(boot));
         },
         "boot", "libubootenv-tool", 1},
        {"a judge's trouble",
         [this] {
             status["trial"] = {{"problem", "there is no way back"}};
         },
         "boot", "fault: there is no way back", 1},
        {"nobody paired", [] {}, "accessory", "warning: the graph has a link, and no device is paired", 0},
        {"away",
         [this] {
             peers["peers"] = {{{"name", "palm"}, {"pinned", true}}};
         },
         "accessory", "warning: palm is paired, and not connected", 0},
        {"too old",
         [this] {
             peers["peers"] = {{{"name", "palm"},
                                {"pinned", true},
                                {"connected", true},
                                {"requiresUpdate", true},
                                {"version", "1"},
                                {"serialNumber", "4"}}};
         },
         "accessory", "palm runs 1, and needs another version -> arborctl remote-install --to 4", 0},
        {"stick unseen",
         [this] {
             RemoveNode("ZNodeStorage");
             AddNode("ZNodeStorage", {{"removableRoots", {"/proc", "/"}}});
             setup["mounts"] = {"1 1 0:1 / / rw shared:1 - ext4 /dev/x rw"};
         },
         "sticks", "/proc is mounted, and the host does not see it", 1},
        {"sticks to come unseen",
         [this] {
             RemoveNode("ZNodeStorage");
             AddNode("ZNodeStorage", {{"removableRoots", {"/nowhere"}}});
             setup["mounts"] = {"1 1 0:1 / / rw - ext4 /dev/x rw"};
             setup["mountNamespace"] = "mnt:[1]";
         },
         "sticks", "fault: what is mounted below /nowhere from now on is not seen", 1},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        const json::object before[]{boot, graph, status, setup, trust, peers};
        const fs::path was = updates;
        item.spoil();
        Answer();
        EXPECT_EQ(Look(), item.end) << json::serialize(found);
        EXPECT_THAT(At(item.point), HasSubstr(item.says));
        boot = before[0], graph = before[1], status = before[2], setup = before[3], trust = before[4],
        peers = before[5];
        updates = was;
        fs::remove(folder / "trial");
        fs::remove(folder / "Slots/active");
        fs::create_symlink("A", folder / "Slots/active");
        Write(folder / "Slots/A/version", "3.04A\n");
        Write(folder / "Slots/B/version", "3.04B\n");
        Write(folder / "boot.json", json::serialize(boot));
        chmod(updates.c_str(), 0755);
    }
}

}  // namespace
