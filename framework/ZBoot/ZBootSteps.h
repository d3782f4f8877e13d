#pragma once

#include <string>

#include "ZBoot/ZBootControl.h"
#include "ZBoot/ZTrialFile.h"

// What the start of a boot, the host and the installer do alike: each step keeps the state first, so that a power cut
// behind it is carried on at the next start.

/// Counts this boot, once. GoBack when the version that runs has to be left now: Leave does that. A boot loader that
/// means to start or to count something else than the confirmed version, while that one runs, is told; where it can't
/// be, the boot is not counted.
ZResult<ZBootAction> BeginBoot(const ZBootSettings& settings, ZBootControl& control);

/// Makes the version that starts next known to the state, when it is not the one that runs. Called after a switch.
ZResult<ZTrialState> NoteNext(const ZBootSettings& settings, const ZBootControl& control);

/// The version on trial has failed, unless it had already. An error, and nothing has changed, when none is on trial, or
/// when there is no way back.
ZResult<ZTrialState> FailTrial(const ZBootSettings& settings, const ZBootControl& control, const ZTrialFault& fault);

/// Lets the confirmed version start next. The caller restarts the device.
ZResult<void> Leave(const ZBootSettings& settings, ZBootControl& control);

/// Milliseconds since the start of this boot was counted.
std::int64_t MillisecondsOfBoot(const ZTrialState& state);
