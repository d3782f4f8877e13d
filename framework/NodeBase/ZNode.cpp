#include "NodeBase/ZNode.h"

#include <future>

#include "ZCoreConfigs/ZSettings.h"

#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNode)

namespace {
constexpr const char* kHostStops = "because the host stops";
}

ZNode::ZNode(const ZString& name) : ZCommEnabledObject(name) {
    m_logName = kClassName;
}

ZNode::~ZNode() {
    BeginStop();
    FinishStop();
}

bool ZNode::ReadChecked(ZConfig* record, const std::shared_ptr<ZConfig>& given,
                        const std::function<void()>& read) const {
    if (record == nullptr) {
        Z_LOG(4, "The record of %s is a %s", Name(), given->ClassName());
        return false;
    }
    const auto errors = CheckSettings(*record);
    for (const ZSettingError& error : errors) {
        Z_LOG(4, "%s can't be set up: %s", Name(), error.text);
    }
    if (!errors.empty()) {
        return false;
    }
    try {
        read();
        return true;
    } catch (const std::exception& failure) {
        Z_LOG(4, "%s can't be set up: %s", Name(), failure.what());
    }
    return false;
}

std::shared_ptr<ZTimer> ZNode::GetTimer(const ZString& name, ZTimer::Callback callback, void* context) {
    const std::lock_guard lock(m_timersMutex);
    auto& timer = m_timers[name];
    if (!timer) {
        timer = std::make_shared<ZTimer>(Mailbox(), std::move(callback), context);
    }
    return timer;
}

bool ZNode::OnForward(std::shared_ptr<ZMessage>&) {
    return false;
}
bool ZNode::OnInit() {
    return true;
}
bool ZNode::OnConnecting() {
    return true;
}
void ZNode::OnConnected() {}
void ZNode::OnIdle() {}
bool ZNode::OnFilterMessage(const std::shared_ptr<ZMessage>&) {
    return true;
}
bool ZNode::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>&) {
    return true;
}
void ZNode::OnConnectionLost(const ZNodeUID&) {}
void ZNode::OnGraphSwapped() {}
bool ZNode::ShouldRegisterWithDiscovery() const {
    return false;
}
void ZNode::OnShutdown() {}
void ZNode::OnShutdownWarning() {}
bool ZNode::OnShutdownRequest(bool) {
    return true;
}
bool ZNode::InitMessageMap() {
    return true;
}
void ZNode::OnDisconnect() {}
bool ZNode::OnGraphCreated() {
    return true;
}
bool ZNode::OnControl(std::shared_ptr<ZMessage>&) {
    return false;
}
bool ZNode::OnAction(const ZNodeAction&) {
    return true;
}

void ZNode::MessagePump() {
    const ZStopScope scope(m_actions.StopEvent());
    Mailbox()->Run([this] { OnIdle(); });
}

bool ZNode::PublishInternal(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                            std::shared_ptr<ZMessage>* responseOut, bool bReliable, bool bUrgent) {
    return PublishWithOutcome(endpoint, message, responseOut, {bReliable, bUrgent, {}}) == ZPublishOutcome::Delivered;
}

bool ZNode::PublishResponseInternal(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response, bool,
                                    bool) {
    const auto comm = source.Comm();
    return comm && comm->Respond(source, response);
}

bool ZNode::RunAction(const char* name, const std::shared_ptr<ZMessage>& message) {
    const std::string className = std::string(ClassName()) + '_' + name + "Action";
    const auto action = cast_shared<ZNodeAction>(ZShared::ZFactory::Instance().CreateShared(className));
    if (!action) {
        Z_LOG(4, "There is no action class %s", className);
        return false;
    }
    action->Prepare({message, this, m_logName, m_logLevel});
    const bool started = OnAction(*action) && m_actions.Start(action);
    if (!started) {
        Z_LOG(3, "Action %s was not started", className);
    }
    return started;
}

bool ZNode::StopAction(bool bWait) {
    const bool stopped = m_actions.StopNewest();
    if (bWait) {
        m_actions.Join();
    }
    return stopped;
}

std::shared_ptr<ZOperation> ZNode::Keep(std::shared_ptr<ZOperationMsg> message) {
    auto operation = std::make_shared<ZOperation>(
        std::move(message), [this, endpoint = GetEndpoint(ZEndpointType::GraphService, "operation", 0)](
                                const std::shared_ptr<ZOperationMsg>& change) { Publish(endpoint, change); });
    {
        const auto operations = m_operations.Lock();
        std::erase_if(*operations, [](const auto& entry) { return entry.expired(); });
        operations->push_back(operation);
    }
    if (m_bInShutdown) {  // BeginStop may have looked at the others already
        operation->AskToCancel(kHostStops);
    }
    return operation;
}

std::shared_ptr<ZOperation> ZNode::BeginOperation(const ZOperationSubject& subject, const ZMessage* request) {
    auto message = Z_MAKE(ZOperationMsg);
    const auto origin = request == nullptr ? nullptr : request->Origin();
    const bool isFirst = origin && !origin->begun.exchange(true);
    message->m_Id = isFirst && !origin->operationId.empty() ? ToZString(origin->operationId) : ZOperation::NewId();
    message->m_Parent = subject.parent;
    message->m_Kind = subject.kind;
    message->m_Version = subject.version;
    message->m_File = subject.file;
    message->m_Device = subject.device;
    message->m_Asker = origin ? ToZString(origin->asker) : subject.asker;
    message->m_Node = Name();
    message->m_CreatedAt = MillisecondsNow();
    message->m_BootId = ToZString(BootId());
    return Keep(std::move(message));
}

std::shared_ptr<ZOperation> ZNode::AdoptOperation(const ZOperationMsg& left) {
    auto message = Z_MAKE(ZOperationMsg);
    message->CloneDataMembers(left);
    return Keep(std::move(message));
}

std::vector<std::shared_ptr<ZOperation>> ZNode::Operations() const {
    std::vector<std::shared_ptr<ZOperation>> open;
    const auto operations = m_operations.Lock();
    for (const auto& entry : *operations) {
        if (auto operation = entry.lock(); operation && operation->IsOpen()) {
            open.push_back(std::move(operation));
        }
    }
    return open;
}

bool ZNode::SubscribeCancel() {
    return Subscribe(GetEndpoint(ZEndpointType::GraphService, "cancel", 0),
                     [this](const std::shared_ptr<ZMessage>& message) {
                         const auto request = cast_shared<ZCancelMsg>(message);
                         if (!request) {
                             return false;
                         }
                         const auto origin = request->Origin();
                         for (const auto& operation : Operations()) {
                             if (operation->Id() == request->m_Id) {
                                 operation->AskToCancel("by " + (origin ? origin->asker : "the device itself"));
                             }
                         }
                         return true;
                     });
}

void ZNode::StartMessageThread() {
    m_messageThread = std::thread([this] { MessagePump(); });
}

bool ZNode::CallOnMessageThread(const std::function<void()>& work, ZMailbox::Clock::time_point deadline, ZTurn turn) {
    const auto done = std::make_shared<std::promise<void>>();
    auto future = done->get_future();
    const auto guarded = [work, done] {
        try {
            work();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    };
    if (!Mailbox()->Post(guarded, deadline, static_cast<int>(turn)) ||
        future.wait_until(deadline) != std::future_status::ready) {
        return false;
    }
    try {
        future.get();
        return true;
    } catch (const std::exception& failure) {
        Z_LOG(4, "An exception left an operation of %s: %s", Name(), failure.what());
    } catch (...) {
        Z_LOG(4, "An unknown exception left an operation of %s", Name());
    }
    return false;
}

void ZNode::BeginStop() {
    m_bInShutdown = true;
    for (const auto& operation : Operations()) {
        operation->AskToCancel(kHostStops);
    }
    m_actions.StopAll();
    const std::lock_guard lock(m_timersMutex);
    for (const auto& [name, timer] : m_timers) {
        timer->Stop();
    }
}

void ZNode::FinishStop() {
    m_actions.Join();
    if (Mailbox()) {
        Mailbox()->Close();
    }
    if (m_messageThread.joinable()) {
        m_messageThread.join();
    }
    Unsubscribe();
}
