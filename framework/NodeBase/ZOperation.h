#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "ZMessages/OperationMessages.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZProcess.h"
#include "ZShared/ZStopEvent.h"

/// What a job is about; texts that do not apply stay empty.
struct ZOperationSubject {
    ZOperationKind kind = ZOperationKind::Check;
    ZString version{};
    ZString file{};
    ZString device{};  ///< the accessory's serial number
    ZString parent{};  ///< the job that it is a part of
    ZString asker{};   ///< for one that no request asked for
};

/// One job: begun, told, and settled once. A node makes it (ZNode::BeginOperation); every change is published on
/// "operation", in order. One that goes away unsettled has failed, and says so. Thread-safe.
class ZOperation {
public:
    using Publish = std::function<void(const std::shared_ptr<ZOperationMsg>&)>;

    /// Publishes what it begins with. `publish` must be usable as long as the object lives.
    ZOperation(std::shared_ptr<ZOperationMsg> first, Publish publish);
    ~ZOperation();
    ZOperation(const ZOperation&) = delete;
    ZOperation& operator=(const ZOperation&) = delete;

    // What these tell never waits for a change that is being published.
    const ZString& Id() const { return m_begun->m_Id; }
    ZOperationKind Kind() const { return m_begun->m_Kind; }
    /// The file that it was begun for.
    const ZString& File() const { return m_begun->m_File; }
    bool IsOpen() const { return m_open; }

    /// A copy of it as it stands.
    std::shared_ptr<ZOperationMsg> Get() const;

    /// The job, which waited, has its turn.
    void Start();
    /// How far it is; `percent` from 0 to 100.
    void Tell(const ZString& header, const ZString& message, std::int32_t percent);
    /// As above, told with the next change: the stage in which it ends.
    void SetStage(const ZString& header, const ZString& message, std::int32_t percent);
    /// What became known of it; told with the next change, but for the process, which is told at once.
    void SetVersion(const ZString& version);
    void SetFile(const ZString& file);
    void SetProcess(const ZProcessId& process);
    /// How long it took is not known: nobody watched it. Told with the next change.
    void ForgetTime();

    // How it ends. The first one counts; true for that one.
    bool Succeed() { return Settle(ZOperationState::Succeeded, {}, ZFrameworkErrorCodes::ERRCODE_NONE); }
    bool Fail(const ZString& reason, ZFrameworkErrorCodes::ZErrorCode code = ZFrameworkErrorCodes::ERRCODE_NONE) {
        return Settle(ZOperationState::Failed, reason, code);
    }
    /// It was ended because somebody wanted that.
    bool Cancel(const ZString& reason) {
        return Settle(ZOperationState::Cancelled, reason, ZFrameworkErrorCodes::ERRCODE_NONE);
    }
    /// Nothing tells how it ended.
    bool Lose(const ZString& reason) {
        return Settle(ZOperationState::Lost, reason, ZFrameworkErrorCodes::ERRCODE_NONE);
    }
    /// It goes on without this host: whoever finds it open later deals with it.
    void LeaveOpen();

    /// Somebody wants it to end; `why` goes behind "cancelled". Whoever does the job looks at this, and settles it.
    void AskToCancel(const std::string& why);
    /// Why it is to end; none while nobody wants that.
    std::optional<std::string> CancelReason() const;
    /// Set once somebody wants it to end. Throws std::system_error at the first call when no descriptor is left.
    const ZStopEvent& CancelEvent();

    /// Whether a job may go from one state to the other.
    static bool MayFollow(ZOperationState from, ZOperationState to);
    static ZString NewId();
    /// Brings up to date how long a job that runs has taken so far; that of one of another boot, or that was
    /// lost, is not known.
    static void CountTime(ZOperationMsg& job);

private:
    struct State {
        std::shared_ptr<ZOperationMsg> message;
        bool left = false;
    };
    struct Wish {
        std::optional<std::string> reason;
        std::unique_ptr<ZStopEvent> event;
    };
    bool Settle(ZOperationState state, const ZString& reason, ZFrameworkErrorCodes::ZErrorCode code);
    static std::shared_ptr<ZOperationMsg> CopyOf(const ZOperationMsg& message);
    void Tell(const State& state) const;

    const std::shared_ptr<const ZOperationMsg> m_begun;
    const Publish m_publish;
    std::atomic<bool> m_open;
    ZGuarded<State> m_message;  // held while a change is published, so that changes arrive in order
    ZGuarded<Wish> m_cancel;
};
