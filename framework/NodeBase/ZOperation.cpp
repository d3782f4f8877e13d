#include "NodeBase/ZOperation.h"

#include <algorithm>
#include <cstdlib>

ZOperation::ZOperation(std::shared_ptr<ZOperationMsg> first, Publish publish)
    : m_begun(CopyOf(*first)),
      m_publish(std::move(publish)),
      m_open(first->IsOpen()),
      m_message(State{std::move(first), false}) {
    Tell(*m_message.Lock());
}

ZOperation::~ZOperation() {
    if (!m_message.Lock()->left) {
        Fail("it ended without telling how");
    }
}

/// The states in which a job is open, and what may follow each. What is not listed is an end.
bool ZOperation::MayFollow(ZOperationState from, ZOperationState to) {
    using enum ZOperationState;
    switch (from) {
        case Queued:
            return to != Queued && to != Succeeded;
        case Running:
            return to != Queued && to != Running;
        default:
            return false;
    }
}

ZString ZOperation::NewId() {
    // From the system's own source: ids of different boots and hosts must differ, too.
    std::string id;
    for (int word = 0; word < 2; ++word) {
        const std::uint32_t bits = ::arc4random();
        for (int nibble = 0; nibble < 8; ++nibble) {
            id += "0123456789abcdef"[(bits >> (nibble * 4)) & 0xF];
        }
    }
    return ToZString(id);
}

std::shared_ptr<ZOperationMsg> ZOperation::CopyOf(const ZOperationMsg& message) {
    auto copy = Z_MAKE(ZOperationMsg);
    copy->CloneDataMembers(message);
    return copy;
}

void ZOperation::CountTime(ZOperationMsg& job) {
    if (std::string_view(job.m_BootId) != BootId() || job.m_State == ZOperationState::Lost) {
        job.m_Took = 0;  // nobody knows when it ended
    } else if (job.m_StartedSinceBoot > 0) {
        job.m_Took = std::max<std::int64_t>(1, MillisecondsSinceBoot() - job.m_StartedSinceBoot);
    }
}

void ZOperation::Tell(const State& state) const {
    const auto copy = CopyOf(*state.message);
    CountTime(*copy);
    m_publish(copy);
}

std::shared_ptr<ZOperationMsg> ZOperation::Get() const {
    return CopyOf(*m_message.Lock()->message);
}

void ZOperation::Start() {
    const auto state = m_message.Lock();
    if (MayFollow(state->message->m_State, ZOperationState::Running)) {
        state->message->m_State = ZOperationState::Running;
        state->message->m_StartedAt = MillisecondsNow();
        state->message->m_StartedSinceBoot = MillisecondsSinceBoot();
        Tell(*state);
    }
}

namespace {
void Write(ZOperationMsg& job, const ZString& header, const ZString& message, std::int32_t percent) {
    job.m_Header = header;
    job.m_Message = message;
    job.m_Percent = std::clamp(percent, 0, 100);
}
}  // namespace

void ZOperation::SetStage(const ZString& header, const ZString& message, std::int32_t percent) {
    if (const auto state = m_message.Lock(); state->message->IsOpen()) {
        Write(*state->message, header, message, percent);
    }
}

void ZOperation::Tell(const ZString& header, const ZString& message, std::int32_t percent) {
    if (const auto state = m_message.Lock(); state->message->IsOpen()) {
        Write(*state->message, header, message, percent);
        Tell(*state);
    }
}

void ZOperation::SetVersion(const ZString& version) {
    m_message.Lock()->message->m_Version = version;
}

void ZOperation::SetFile(const ZString& file) {
    m_message.Lock()->message->m_File = file;
}

void ZOperation::SetProcess(const ZProcessId& process) {
    const auto state = m_message.Lock();
    state->message->m_ProcessId = process.id;
    state->message->m_ProcessStart = process.start;
    Tell(*state);
}

void ZOperation::ForgetTime() {
    const auto state = m_message.Lock();
    state->message->m_StartedSinceBoot = 0;
    state->message->m_Took = 0;
}

bool ZOperation::Settle(ZOperationState end, const ZString& reason, ZFrameworkErrorCodes::ZErrorCode code) {
    const auto state = m_message.Lock();
    ZOperationMsg& message = *state->message;
    if (end == ZOperationState::Succeeded && message.m_State == ZOperationState::Queued) {
        message.m_State = ZOperationState::Running;  // one that was done at once
    }
    if (!MayFollow(message.m_State, end)) {
        return false;
    }
    message.m_State = end;
    message.m_Reason = reason;
    message.m_ErrorCode = code;
    message.m_EndedAt = MillisecondsNow();
    m_open = false;
    if (end == ZOperationState::Succeeded) {
        message.m_Percent = 100;
    }
    Tell(*state);
    return true;
}

void ZOperation::LeaveOpen() {
    m_message.Lock()->left = true;
}

void ZOperation::AskToCancel(const std::string& why) {
    const auto wish = m_cancel.Lock();
    if (!wish->reason) {
        wish->reason = why;
    }
    if (wish->event) {
        wish->event->Set();
    }
}

std::optional<std::string> ZOperation::CancelReason() const {
    return m_cancel.Lock()->reason;
}

const ZStopEvent& ZOperation::CancelEvent() {
    const auto wish = m_cancel.Lock();
    if (!wish->event) {
        wish->event = std::make_unique<ZStopEvent>();
        if (wish->reason) {
            wish->event->Set();
        }
    }
    return *wish->event;
}
