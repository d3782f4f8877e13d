#include "ZBoot/ZTrialState.h"

#include <algorithm>
#include <array>
#include <boost/json.hpp>

namespace json = boost::json;

namespace {

constexpr std::size_t kLongestReason = 400;
constexpr std::size_t kLongestName = 96;
constexpr std::array<const char*, 3> kStages{"installed", "trial", "reverting"};
constexpr std::array<const char*, 5> kCauses{"said", "check", "late", "starts", "neverUp"};

/// The text in printable ASCII, cut: what is kept never grows when it is written.
std::string Kept(std::string_view text, std::size_t most) {
    std::string kept(text.substr(0, most));
    std::ranges::replace_if(
        kept, [](char letter) { return letter < ' ' || letter > '~' || letter == '"' || letter == '\\'; }, '\'');
    return kept;
}

const json::value* Find(const json::value& from, const char* key) {
    return from.is_object() ? from.as_object().if_contains(key) : nullptr;
}

std::string Text(const json::value& from, const char* key) {
    const json::value* const found = Find(from, key);
    return found != nullptr && found->is_string() ? std::string(found->get_string()) : std::string();
}

template <typename T>
T Number(const json::value& from, const char* key) {
    const json::value* const found = Find(from, key);
    boost::system::error_code error;
    const T number = found != nullptr ? found->to_number<T>(error) : T{};
    return error ? T{} : number;
}

bool Flag(const json::value& from, const char* key) {
    const json::value* const found = Find(from, key);
    return found != nullptr && found->is_bool() && found->get_bool();
}

json::object ToJson(const ZSlotVersion& version) {
    return {{"slot", Kept(version.slot, kLongestName)},
            {"version", Kept(version.version, kLongestName)},
            {"digest", Kept(version.digest, kLongestName)}};
}

ZSlotVersion ToVersion(const json::value& from) {
    return {.slot = Text(from, "slot"), .version = Text(from, "version"), .digest = Text(from, "digest")};
}

json::object ToJson(const ZTrial& trial) {
    json::object object = ToJson(trial.version);
    object["stage"] = ToText(trial.stage);
    object["attempts"] = trial.attempts;
    object["restarts"] = trial.restarts;
    object["since"] = trial.since;
    object["goneBack"] = trial.goneBack;
    object["reason"] = Kept(trial.fault.reason, kLongestReason);
    object["cause"] = ToText(trial.fault.cause);
    object["failedCheck"] = Kept(trial.fault.failedCheck, kLongestName);
    object["bootId"] = Kept(trial.bootId, kLongestName);
    return object;
}

std::optional<ZTrial> ToTrial(const json::value& from) {
    const auto stage = std::ranges::find(kStages, Text(from, "stage"));
    if (stage == kStages.end()) {
        return std::nullopt;
    }
    const auto cause = std::ranges::find(kCauses, Text(from, "cause"));
    return ZTrial{.version = ToVersion(from),
                  .stage = static_cast<ZTrialStage>(stage - kStages.begin()),
                  .attempts = Number<std::uint32_t>(from, "attempts"),
                  .restarts = Number<std::uint32_t>(from, "restarts"),
                  .since = Number<std::int64_t>(from, "since"),
                  .goneBack = Number<std::uint32_t>(from, "goneBack"),
                  .fault = {.reason = Text(from, "reason"),
                            .cause = cause == kCauses.end() ? ZTrialCause::Said
                                                            : static_cast<ZTrialCause>(cause - kCauses.begin()),
                            .failedCheck = Text(from, "failedCheck")},
                  .bootId = Text(from, "bootId")};
}

json::object ToJson(const ZTrialEnd& end) {
    json::object object = ToJson(end.version);
    object["confirmed"] = end.bConfirmed;
    object["reason"] = Kept(end.reason, kLongestReason);
    object["failedCheck"] = Kept(end.failedCheck, kLongestName);
    object["since"] = end.since;
    object["at"] = end.at;
    object["told"] = end.bTold;
    object["judged"] = end.bJudged;
    object["alike"] = end.bAlike;
    return object;
}

ZTrialEnd ToEnd(const json::value& from) {
    return {.version = ToVersion(from),
            .bConfirmed = Flag(from, "confirmed"),
            .reason = Text(from, "reason"),
            .failedCheck = Text(from, "failedCheck"),
            .since = Number<std::int64_t>(from, "since"),
            .at = Number<std::int64_t>(from, "at"),
            .bTold = Flag(from, "told"),
            .bJudged = Flag(from, "judged"),
            .bAlike = Flag(from, "alike")};
}

json::object ToJson(const ZTakenBack& entry) {
    return {{"version", Kept(entry.version, kLongestName)},
            {"digest", Kept(entry.digest, kLongestName)},
            {"reason", Kept(entry.reason, kLongestReason)},
            {"at", entry.at}};
}

json::object ToJson(const ZTrialCounts& counts) {
    json::object object{{"begun", counts.begun}, {"confirmed", counts.confirmed}};
    for (std::size_t cause = 0; cause < kCauses.size(); ++cause) {
        object[kCauses.at(cause)] = counts.takenBack.at(cause);
    }
    return object;
}

ZTrialCounts ToCounts(const json::value& from) {
    ZTrialCounts counts{.begun = Number<std::uint64_t>(from, "begun"),
                        .confirmed = Number<std::uint64_t>(from, "confirmed")};
    for (std::size_t cause = 0; cause < kCauses.size(); ++cause) {
        counts.takenBack.at(cause) = Number<std::uint64_t>(from, kCauses.at(cause));
    }
    return counts;
}

bool IsOf(const ZTakenBack& entry, std::string_view version, std::string_view digest) {
    return entry.digest.empty() || digest.empty() ? entry.version == version : entry.digest == digest;
}

}  // namespace

const char* ToText(ZTrialStage stage) {
    return kStages.at(static_cast<std::size_t>(stage));
}

const char* ToText(ZTrialCause cause) {
    return kCauses.at(static_cast<std::size_t>(cause));
}

bool ZSlotVersion::SameAs(const ZSlotVersion& other) const {
    return slot == other.slot &&
           (digest.empty() || other.digest.empty() ? version == other.version : digest == other.digest);
}

ZBootAction ZTrialState::Begin(const ZBootFacts& facts) {
    if (!facts.running.IsKnown()) {
        return ZBootAction::GoOn;
    }
    if (facts.bootId == bootId) {
        bOrderly = false;  // whoever said that the boot ends was wrong
        return ZBootAction::GoOn;
    }
    ZBootAction action = ZBootAction::GoOn;
    if (!confirmed.IsKnown() && facts.wayBack.IsKnown()) {
        confirmed = facts.wayBack;  // the state was lost in the middle of a trial, and the loader has not forgotten it
    }
    if (!confirmed.IsKnown()) {
        confirmed = facts.running;  // the first boot of all: what the factory put there is what there is
        trial.reset();
    } else if (!facts.running.SameAs(confirmed)) {
        action = BeginTrial(facts);
    } else if (trial && trial->stage == ZTrialStage::Installed) {
        // Such a loader had to start the other one, whatever it says now that it starts next.
        if (facts.bLoaderFallsBack && trial->bootId != facts.bootId) {
            End({"it never came up, so the boot loader went back", ZTrialCause::NeverUp}, facts.now);
        } else if (facts.next == confirmed.slot) {
            trial.reset();  // it was switched back before it had begun
        }
    } else if (trial) {
        const char* const why = bOrderly ? "the device was started from the version before"
                                         : "it did not come up, so the boot loader went back";
        End(trial->stage == ZTrialStage::Reverting ? trial->fault : ZTrialFault{why, ZTrialCause::NeverUp}, facts.now);
    }
    bootId = facts.bootId;
    bootClock = facts.clock;
    bOrderly = false;
    return action;
}

ZBootAction ZTrialState::BeginTrial(const ZBootFacts& facts) {
    if (!trial || !trial->version.SameAs(facts.running)) {
        trial = ZTrial{.version = facts.running};
    }
    if (trial->stage == ZTrialStage::Installed) {
        trial->stage = ZTrialStage::Trial;
        trial->since = facts.now;
        trial->attempts = 1;
        ++counts.begun;
    } else {
        ++(bOrderly ? trial->restarts : trial->attempts);
    }
    if (trial->stage == ZTrialStage::Trial && trial->attempts > facts.attempts) {
        Fail({"it did not prove itself in " + std::to_string(facts.attempts) + " starts", ZTrialCause::Starts});
    } else if (trial->stage == ZTrialStage::Trial && trial->restarts > kMostRestarts) {
        Fail({"it was restarted " + std::to_string(kMostRestarts) + " times without proving itself",
              ZTrialCause::Starts});
    }
    return IsLeaving() && facts.bCanGoBack ? ZBootAction::GoBack : ZBootAction::GoOn;
}

void ZTrialState::Install(const ZSlotVersion& next, const std::string& inBoot) {
    if (trial && trial->stage != ZTrialStage::Installed) {
        return;  // it runs: where the device goes next is decided by how its trial ends
    }
    trial.reset();
    if (next.IsKnown() && confirmed.IsKnown() && !next.SameAs(confirmed)) {
        trial = ZTrial{.version = next, .bootId = inBoot};
    }
}

void ZTrialState::Confirm(const std::string& by, std::int64_t now) {
    if (trial) {
        last = ZTrialEnd{.version = trial->version, .bConfirmed = true, .reason = by, .since = trial->since, .at = now};
        confirmed = trial->version;
        ++counts.confirmed;
        std::erase_if(takenBack,
                      [&](const ZTakenBack& each) { return IsOf(each, confirmed.version, confirmed.digest); });
        trial.reset();
    }
}

void ZTrialState::Fail(const ZTrialFault& fault) {
    if (trial && trial->stage == ZTrialStage::Trial) {
        trial->stage = ZTrialStage::Reverting;
        trial->fault = fault;
    }
}

void ZTrialState::End(const ZTrialFault& why, std::int64_t now) {
    const ZTrialFault fault = why;  // it may be the trial's own
    ++counts.takenBack.at(static_cast<std::size_t>(fault.cause));
    last = ZTrialEnd{.version = trial->version,
                     .reason = fault.reason,
                     .failedCheck = fault.failedCheck,
                     .since = trial->since,
                     .at = now};
    std::erase_if(takenBack,
                  [&](const ZTakenBack& each) { return IsOf(each, last->version.version, last->version.digest); });
    takenBack.push_back(
        {.version = last->version.version, .digest = last->version.digest, .reason = fault.reason, .at = now});
    if (takenBack.size() > kMostTakenBack) {
        takenBack.erase(takenBack.begin());
    }
    trial.reset();
}

bool ZTrialState::Allow(std::string_view version) {
    return std::erase_if(takenBack, [&](const ZTakenBack& each) { return each.version == version; }) != 0;
}

const ZTakenBack* ZTrialState::FindTakenBack(std::string_view version, std::string_view digest) const {
    const auto found = std::ranges::find_if(takenBack, [&](const auto& each) { return IsOf(each, version, digest); });
    return found == takenBack.end() ? nullptr : &*found;
}

std::string ZTrialState::ToText() const {
    json::object object{{"format", 1}, {"sequence", sequence}, {"confirmed", ToJson(confirmed)}};
    object["bootId"] = Kept(bootId, kLongestName);
    object["bootClock"] = bootClock;
    object["orderly"] = bOrderly;
    if (trial) {
        object["trial"] = ToJson(*trial);
    }
    if (last) {
        object["last"] = ToJson(*last);
    }
    json::array entries;
    for (const ZTakenBack& entry : takenBack) {
        entries.push_back(ToJson(entry));
    }
    object["takenBack"] = std::move(entries);
    object["counts"] = ToJson(counts);
    return json::serialize(object);
}

std::optional<ZTrialState> ZTrialState::Parse(std::string_view text) {
    boost::system::error_code error;
    const json::value from = json::parse({text.data(), text.size()}, error);
    if (error || Number<int>(from, "format") != 1 || Find(from, "confirmed") == nullptr) {
        return std::nullopt;
    }
    ZTrialState state;
    state.sequence = Number<std::uint64_t>(from, "sequence");
    state.confirmed = ToVersion(*Find(from, "confirmed"));
    state.bootId = Text(from, "bootId");
    state.bootClock = Number<std::int64_t>(from, "bootClock");
    state.bOrderly = Flag(from, "orderly");
    if (const json::value* const counts = Find(from, "counts")) {
        state.counts = ToCounts(*counts);
    }
    if (const json::value* const trial = Find(from, "trial")) {
        state.trial = ToTrial(*trial);
    }
    if (const json::value* const last = Find(from, "last")) {
        state.last = ToEnd(*last);
    }
    if (const json::value* const entries = Find(from, "takenBack"); entries != nullptr && entries->is_array()) {
        for (const json::value& entry : entries->get_array()) {
            state.takenBack.push_back({.version = Text(entry, "version"),
                                       .digest = Text(entry, "digest"),
                                       .reason = Text(entry, "reason"),
                                       .at = Number<std::int64_t>(entry, "at")});
        }
        const auto surplus = std::max(state.takenBack.size(), kMostTakenBack) - kMostTakenBack;
        state.takenBack.erase(state.takenBack.begin(), state.takenBack.begin() + static_cast<std::ptrdiff_t>(surplus));
    }
    return state;
}
