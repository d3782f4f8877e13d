#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "JsonFields.h"
#include "TimeText.h"
#include "doctor/Facts.h"

// What the host itself tells: whether it answers, who may ask it, what it is, and what time it is.

namespace json = boost::json;

namespace arborctl::doctor {
namespace {

std::string GroupName(gid_t id) {
    const group* const entry = getgrgid(id);
    return entry != nullptr ? entry->gr_name : std::to_string(id);
}

std::string OwnName() {
    const passwd* const entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

/// Whom the system lets in at the socket.
std::string AccessText(const struct stat& status) {
    const std::string group = (status.st_mode & S_IWGRP) != 0 ? " and the group " + GroupName(status.st_gid) : "";
    return (status.st_mode & S_IWOTH) != 0 ? "everybody may use it" : "its owner" + group + " may use it";
}

void LookAtSocket(const Facts& facts, Findings& found) {
    struct stat status {};
    const bool isThere = stat(facts.socketPath.c_str(), &status) == 0;
    if (facts.isReachable) {
        const std::string access = isThere ? "; " + AccessText(status) : "";
        found.Ok("host", "it answers at " + facts.socketPath + access);
    } else if (const auto colon = facts.silence.find(": "); colon != std::string::npos) {
        found.Fault("host", facts.silence.substr(0, colon), facts.silence.substr(colon + 2));
    } else {
        found.Fault("host", facts.silence, "systemctl status arbord; journalctl -u arbord");
    }
}

void LookAtRole(const Facts& facts, Findings& found) {
    if (facts.status.is_null()) {
        found.Fault("rights", "you (" + OwnName() + ") may not ask for its state: " + facts.silence,
                    "sudo usermod -aG arbor " + OwnName() + " (or the gateway's lookGroup), then log in again");
        return;
    }
    const json::value& you = fields::Member(facts.status, "you");
    const std::string role = fields::Text(you, "role", "look");
    const std::string text = fields::Text(you, "name", "you") + " may " + role;
    if (role == "administer") {
        found.Ok("rights", text);
        return;
    }
    const std::string group = facts.Setting("ZNodeGateway", role == "look" ? "operateGroup" : "administerGroup");
    found.Ok("rights", text + (group.empty() ? "" : "; more takes the group " + group));
}

void LookAtVersions(const Facts& facts, Findings& found) {
    const std::string theirs = fields::Text(facts.setup, "version");
    if (theirs.empty()) {
        found.Warning("versions",
                      "the host does not tell how it runs: it is older than this arborctl (" ARBORCTL_VERSION ")",
                      "bring arbor-install and arborctl to the same version");
    } else if (theirs != ARBORCTL_VERSION) {
        found.Warning("versions", "arbord is of " + theirs + ", arborctl of " ARBORCTL_VERSION,
                      "bring both packages to the same version, then systemctl restart arbord");
    } else {
        found.Ok("versions", "arbord and arborctl are of " + theirs);
    }
}

/// A time that the device has seen for sure, in milliseconds since 1970: nothing here is younger than now.
std::int64_t NewestKnown(const Facts& facts) {
    std::int64_t newest = fields::Number(fields::Member(facts.status, "lastInstall"), "endedAt");
    newest = std::max(newest, fields::Number(fields::Member(facts.status, "trial"), "lastAt"));
    for (const char* const path : {"/proc/self/exe", facts.graphFile.c_str(), "/var/lib/arbor"}) {
        struct stat status {};
        if (stat(path, &status) == 0) {
            newest = std::max(newest, static_cast<std::int64_t>(status.st_mtime) * 1000);
        }
    }
    return newest;
}

}  // namespace

void LookAtHost(const Facts& facts, Findings& found) {
    LookAtSocket(facts, found);
    if (!facts.isReachable) {
        return;
    }
    LookAtRole(facts, found);
    if (!facts.status.is_null()) {
        LookAtVersions(facts, found);
    }
}

void LookAtIdentity(const Facts& facts, Findings& found) {
    const json::value& platform = fields::Member(facts.graph, "platform");
    if (facts.status.is_null()) {
        const std::string eeprom = fields::Text(platform, "eeprom");
        if (!eeprom.empty() && access(eeprom.c_str(), F_OK) != 0) {
            found.Fault("identity", "there is no " + eeprom, "set platform.eeprom in " + facts.graphFile);
        } else {
            found.Unknown("identity", "only the host tells what it has read", "start it, and look again");
        }
        return;
    }
    const json::value& device = fields::Member(facts.status, "device");
    const std::string board = fields::Text(device, "board");
    const std::string model = fields::Text(device, "model");
    const std::string serial = fields::Text(device, "serialNumber");
    const std::string eeprom = fields::Text(platform, "eeprom");
    if (board.empty() || model.empty() || serial.empty()) {
        found.Fault("identity",
                    std::string("the device does not know its ") + (board.empty()   ? "board, so no package is for it"
                                                                    : model.empty() ? "model"
                                                                                    : "serial number"),
                    "set platform.eeprom in " + facts.graphFile + " to the EEPROM that holds it" +
                        (eeprom.empty() ? "" : "; now it is " + eeprom));
        return;
    }
    const std::string text = model + " " + serial + ", board " + board;
    if (fields::Member(platform, "identity").is_object()) {
        found.Warning("identity", text + ": simulated, by platform.identity of " + facts.graphFile,
                      "take platform.identity out, and set platform.eeprom, before it is shipped");
    } else if (!eeprom.empty() && !LiesIn(eeprom, "/sys")) {
        found.Warning("identity", text + ": simulated, read from the file " + eeprom,
                      "set platform.eeprom to the EEPROM below /sys before it is shipped");
    } else {
        found.Ok("identity", text);
    }
}

void LookAtAccessory(const Facts& facts, Findings& found) {
    if (facts.status.is_null()) {
        return;  // only the host knows
    }
    if (facts.peers.is_null()) {
        if (!facts.Node("ZNodePeer").is_null()) {
            found.Warning("accessory", "the graph has a link, and it does not answer", "arborctl log --level warning");
        }
        return;
    }
    bool isPaired = false;
    for (const json::value& peer : fields::List(facts.peers, "peers")) {
        if (!fields::Flag(peer, "pinned")) {
            continue;
        }
        isPaired = true;
        const std::string key = fields::Text(peer, "publicKey").substr(0, 16);
        const std::string name = fields::Text(peer, "name", key);
        if (!fields::Flag(peer, "connected")) {
            found.Warning("accessory", name + " is paired, and not connected",
                          "switch it on, look at the cable, and at arborctl peers on both sides");
        } else if (fields::Flag(peer, "requiresUpdate")) {
            found.Warning("accessory",
                          name + " runs " + fields::Text(peer, "version") + ", and needs " +
                              fields::Text(peer, "targetVersion", "another version"),
                          "arborctl remote-install --to " + fields::Text(peer, "serialNumber") + " --wait");
        } else {
            found.Ok("accessory",
                     name + " is connected, and runs " + fields::Text(peer, "version", "an unknown version"));
        }
    }
    if (!isPaired) {
        found.Warning("accessory", "the graph has a link, and no device is paired",
                      "arborctl pair on both devices, or take ZNodePeer out of the graph");
    }
}

void LookAtClock(const Facts& facts, Findings& found) {
    constexpr std::int64_t kDay = std::int64_t{24} * 3600 * 1000;
    const std::int64_t now = MillisecondsNow();
    const std::int64_t newest = NewestKnown(facts);
    timex state{};
    if (now + kDay < newest) {
        found.Fault("clock", "it says " + TimeText(now) + ", and something here is of " + TimeText(newest),
                    "set it: timedatectl set-time, a time server, or the battery of the real-time clock");
    } else if (adjtimex(&state) >= 0 && (static_cast<unsigned>(state.status) & STA_UNSYNC) != 0) {
        found.Warning("clock", "it says " + TimeText(now) + ", and nothing synchronises it",
                      "where there is a network: systemd-timesyncd or chrony; else compare it with your watch");
    } else {
        found.Ok("clock", "it says " + TimeText(now) + ", and is synchronised");
    }
}

}  // namespace arborctl::doctor
