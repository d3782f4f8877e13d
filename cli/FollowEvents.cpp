#include "FollowEvents.h"

#include "Interrupt.h"

namespace arborctl {

Result<ExitCode> FollowEvents(Session& session, std::unique_ptr<EventStream> stream, LogLines log,
                              const std::function<void(const ServerEvent&)>& take,
                              const std::function<void()>& reconnected) {
    while (session.HasReader()) {
        const auto event = stream->Next(kInterruptPoll);
        if (Interrupted()) {
            return InterruptedByUser();
        }
        if (event && !event->IsComment()) {
            take(*event);
        } else if (!event && stream->Broken()) {
            session.Note("the connection broke off; connecting again");
            auto again = EventStream::Reopen(session.settings, log);
            if (!again) {
                return again.error();
            }
            stream = std::move(*again);
            if (reconnected) {
                reconnected();
            }
        }
    }
    return ExitCode::kDone;
}

}  // namespace arborctl
