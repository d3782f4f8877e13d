#pragma once

#include <functional>
#include <memory>

#include "EventStream.h"
#include "Result.h"
#include "Session.h"

namespace arborctl {

/// Hands every event to `take` until the user interrupts or nobody reads the output. Goes on after a broken connection,
/// of which it tells `reconnected`.
Result<ExitCode> FollowEvents(Session& session, std::unique_ptr<EventStream> stream, LogLines log,
                              const std::function<void(const ServerEvent&)>& take,
                              const std::function<void()>& reconnected = {});

}  // namespace arborctl
