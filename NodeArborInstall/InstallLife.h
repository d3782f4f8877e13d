#pragma once

#include "InstallRecord.h"
#include "NodeBase/ZOperation.h"
#include "ZShared/ZLog.h"

/// The life of one install on this device, from the start of its installer to the end of its process. What happens to
/// it comes as events; one table says what each means. Thread-safe.
class InstallLife {
public:
    /// `slots` is where the installer leaves its record.
    InstallLife(std::shared_ptr<ZOperation> operation, std::filesystem::path slots)
        : m_operation(std::move(operation)), m_slots(std::move(slots)) {}

    ZOperation& Operation() const { return *m_operation; }
    /// Whether its process may live: no other install is started meanwhile.
    bool IsAlive() const { return m_state.Lock()->stage != Stage::Over; }
    /// One that has told its end is gone in a moment: waits for that, a few seconds at most.
    void AwaitEndOfTold();

    // What happens.
    void OnStarted(const ZProcessId& process);
    /// The installer could not be started.
    void OnNotStarted(const ZString& reason, ZFrameworkErrorCodes::ZErrorCode code);
    void OnDocument(const InstallProgressMsg& document);
    /// The process has ended; `waitStatus` is unknown of one that was not this host's child.
    void OnEnded(std::optional<int> waitStatus);

    /// Takes the process from the record that the installer of this operation has written; whether it has.
    bool FindInstaller();

    /// Whether what its installer has started may still change the slots, though the installer has ended.
    bool SlotsAreHeld() const { return AreSlotsHeld(m_slots); }

    ZProcessId Process() const { return m_state.Lock()->process; }

private:
    enum class Stage {
        Working,
        Told,  ///< the installer has told its end; its process lives on, to restart the device
        Over,
    };
    enum class Event { Document, LastDocument, NotStarted, Ended };
    enum class Effect { None, Tell, SettleByDocument, Fail, SettleByEnd };
    struct Row {
        Stage stage;
        Event event;
        Stage next;
        Effect effect;
    };
    static const Row kTable[];
    struct State {
        Stage stage = Stage::Working;
        ZProcessId process;
    };
    /// Goes on to the next stage; what is to be done about the event.
    Effect Take(Event event);
    void SettleByDocument(const InstallProgressMsg& document);
    void SettleByEnd(std::optional<int> waitStatus);
    bool SettleByRecord(std::optional<int> waitStatus);
    void FailOrCancel(const std::string& reason);

    const std::shared_ptr<ZOperation> m_operation;
    const std::filesystem::path m_slots;
    ZGuarded<State> m_state;
    std::condition_variable m_over;
};
