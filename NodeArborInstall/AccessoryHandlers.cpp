#include "ZNodeArborInstall.h"
#include "ZShared/ZLog.h"

bool ZNodeArborInstall::OnTransfer(std::shared_ptr<ZMessage>& msg) {
    Z_LOG(2, "OnTransfer()");
    if (ZCAST(TransferMsg, msg)) {
        Z_LOG(2, "Starting Transfer Action");
        RunAction("Transfer", msg);
    } else {
        Z_LOG(4, "Unknown message in OnTransfer <%s>", msg->ClassName());
    }
    return true;
}

bool ZNodeArborInstall::OnRemoteInstall(std::shared_ptr<ZMessage>& msg) {
    if (InShutdown() || m_bShutdownRequested) {
        const auto refusal = Z_MAKE(ZVersionInfoMsg);
        refusal->m_VersionType = "System";
        refusal->m_bInstalled = false;
        refusal->m_bSuccess = false;
        refusal->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
        const auto answer = Z_MAKE(ZMessageArray);
        answer->Add(refusal);
        PublishResponse(msg, answer, true, false);
        return true;
    }
    const auto request = ZCAST(ZSystemUpdateMsg, msg);
    if (!request) {
        return true;
    }
    Z_LOG(2, "About to RunAction(RemoteInstall) for version %s", request->m_Version);
    {
        const std::lock_guard lock(m_tablesMutex);
        m_RemoteInstallSerial = request->m_SerialNumber;
        m_UpdateVersion = request->m_Version;
        // Busy from here on, not only when the action's thread runs: a shutdown request may be next in the queue.
        m_remoteInstallHolds.push_back(std::make_shared<ZUseFlag::Hold>(m_bBusy));
    }
    if (!RunAction("RemoteInstall", msg)) {
        TakeRemoteInstallHold();
    }
    return true;
}
