#include "ZBoot/ZBootSteps.h"

#include <ctime>
#include <fstream>

#include "ZShared/ZProcess.h"

namespace {

/// By the clock that nobody sets.
std::int64_t BootClock() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

/// The kernel's name of this boot, or of the file that stands in for it.
std::string IdOfBoot(const std::string& file) {
    std::ifstream stream(file);
    std::string id;
    std::getline(stream, id);
    return id;
}

/// What the loader says of its next start. A question may run a program: it is asked once for both steps that need the
/// answer.
struct Loader {
    ZResult<ZSlotVersion> next;
    bool bCounts = false;  ///< it starts again what runs, and counts that

    Loader(const ZBootControl& control, const ZSlotVersion& running)
        : next(control.Next()), bCounts(next && next->slot == running.slot && control.Counts()) {}
};

/// What runs is confirmed: the loader is to start it again, and to count nothing. It may have gone back by itself, and
/// know nothing of that at its next start; or the state may have been lost.
ZResult<void> Agree(ZBootControl& control, const ZTrialState& state, const Loader& loader) {
    if (!loader.next || state.trial) {
        return loader.next ? ZResult<void>() : loader.next.error();
    }
    if (loader.next->slot != state.confirmed.slot) {
        return control.Activate(state.confirmed.slot, false);
    }
    return loader.bCounts ? control.MarkGood() : ZResult<void>();
}

/// Where the loader would go back to, while it counts starts of what runs. It may have gone there already.
ZSlotVersion WayBack(const ZBootControl& control, const Loader& loader, const ZSlotVersion& running) {
    if (loader.bCounts) {
        for (const ZSlotVersion& version : control.Slots()) {
            if (version.slot != running.slot && control.IsWhole(version)) {
                return version;
            }
        }
    }
    return {};
}

}  // namespace

ZResult<ZBootAction> BeginBoot(const ZBootSettings& settings, ZBootControl& control) {
    const auto running = control.Running();
    if (!running) {
        return running.error();
    }
    if (!running->IsKnown()) {
        return ZError("slot " + running->slot + " does not tell which version stands in it");
    }
    Loader loader(control, *running);
    if (!loader.next) {
        loader = Loader(control, *running);  // its variables may come late
    }
    ZBootFacts facts{.running = *running,
                     .next = loader.next ? loader.next->slot : std::string(),
                     .bootId = IdOfBoot(settings.bootIdFile),
                     .now = MillisecondsNow(),
                     .clock = BootClock(),
                     .bLoaderFallsBack = control.FallsBack(),
                     .bCanGoBack = false,
                     .attempts = settings.attempts,
                     .wayBack = WayBack(control, loader, *running)};
    auto action = ZBootAction::GoOn;
    bool isCounted = false;
    ZTrialFile file(settings.state);
    const auto state = file.Change([&](ZTrialState& kept) {
        isCounted = kept.bootId == facts.bootId;
        facts.bCanGoBack = control.IsWhole(kept.confirmed);
        action = kept.Begin(facts);
    });
    if (!state) {
        return state.error();
    }
    // Later in the same boot the loader may have been told of an install that the state does not know yet.
    if (!isCounted && control.FallsBack() && running->SameAs(state->confirmed)) {
        if (const auto agreed = Agree(control, *state, loader); !agreed) {
            // Whoever is next to count this boot tries again.
            static_cast<void>(file.Change([](ZTrialState& kept) { kept.bootId.clear(); }));
            return agreed.error();
        }
    }
    // A loader that went back by itself, or an install that was cut behind its word to the loader, has left it behind.
    // Where it can't be turned that is no reason to stay, or not to start: the next start tries again.
    if (const auto meant = control.Next(); meant) {
        static_cast<void>(control.TurnLink(meant->slot));
    }
    return action;
}

ZResult<ZTrialState> NoteNext(const ZBootSettings& settings, const ZBootControl& control) {
    const auto next = control.Next();
    if (!next) {
        return next.error();
    }
    const std::string boot = IdOfBoot(settings.bootIdFile);
    return ZTrialFile(settings.state).Change([&](ZTrialState& state) { state.Install(*next, boot); });
}

ZResult<ZTrialState> FailTrial(const ZBootSettings& settings, const ZBootControl& control, const ZTrialFault& fault) {
    const auto running = control.Running();
    if (!running) {
        return running.error();
    }
    std::string wrong;
    auto state = ZTrialFile(settings.state).Change([&](ZTrialState& kept) {
        if (!kept.IsOnTrial(*running)) {
            wrong = "no version is on trial";
        } else if (!control.IsWhole(kept.confirmed)) {
            wrong = "there is no way back: slot " + kept.confirmed.slot + " does not hold version " +
                    kept.confirmed.version + " any more";
        } else {
            kept.Fail(fault);
        }
    });
    return wrong.empty() ? state : ZError(wrong);
}

ZResult<void> Leave(const ZBootSettings& settings, ZBootControl& control) {
    ZTrialFile file(settings.state);
    const auto state = file.Read();
    if (!state) {
        return state.error();
    }
    if (const auto done = control.Activate(state->confirmed.slot, false); !done) {
        return done.error();
    }
    static_cast<void>(control.TurnLink(state->confirmed.slot));
    // Counted once it is so: what could not be told to the loader is tried again at the next start.
    const auto counted = file.Change([](ZTrialState& kept) {
        if (kept.IsLeaving()) {
            ++kept.trial->goneBack;
        }
    });
    return counted ? ZResult<void>() : counted.error();
}

std::int64_t MillisecondsOfBoot(const ZTrialState& state) {
    return BootClock() - state.bootClock;
}
