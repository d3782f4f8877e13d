#include "ZNodeArborInstall.h"

bool ZNodeArborInstall::OnCompareVersions(std::shared_ptr<ZMessage>& request) {
    const ZAnswerLines answers;
    const auto compare = ZCAST(ZCompareVersionsMsg, request);
    if (!compare) {
        Z_LOG(4, "Unexpected message type specified!");
        return true;
    }
    const ZSoftwareVersion first(compare->m_Version1);
    const ZSoftwareVersion second(compare->m_Version2);
    const bool result = first >= second;
    Z_LOG(2, "Compare Versions %s %s %s", first.Get(), result ? ">=" : "<", second.Get());
    const auto answer = Z_MAKE(ZCompareVersionsResultMsg);
    answer->m_bResult = result;
    PublishResponse(request, answer, true, false);
    return true;
}

bool ZNodeArborInstall::OnGetInstalledVersionInfo(const std::shared_ptr<ZMessage>& request) {
    const ZAnswerLines answers;
    Z_LOG(2, "Entered OnGetInstalledVersionInfo()...");
    if (InShutdown() || m_bShutdownRequested) {
        return true;
    }
    const auto answer = Z_MAKE(ZVersionInfoMsg);
    answer->m_VersionType = "System";
    answer->m_bSuccess = true;
    answer->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
    answer->m_bInstalled = true;
    answer->m_Version = m_systemVersion.m_text;
    Z_LOG(2, "System Version = <%s>", answer->m_Version);
    PublishResponse(request, answer, true, false);
    return true;
}

bool ZNodeArborInstall::OnGetUpdateInProgress(std::shared_ptr<ZMessage>& request) {
    const ZAnswerLines answers;
    const bool inProgress = m_bUpdateInProgress || m_remoteInstalls;
    const char* const text = inProgress ? "TRUE" : "FALSE";
    Z_LOG(2, "Received request to check if an update is in progress - Update In Progress = <%s>; Message = <%s>...",
          text, request->ClassName());
    std::shared_ptr<ZSystemUpdateInProgressMsg> answer;
    if (const auto question = ZCAST(ZSystemUpdateInProgressRequestMsg, request)) {
        answer = Z_MAKE(ZSystemUpdateInProgressMsg);
        answer->m_bUpdateInProgress = inProgress;
        answer->m_Message = question->m_Message;
        answer->m_RequestTag = question->m_RequestTag;
    }
    // For a request of another class there is no answer: publishing none is reported by the framework.
    Z_LOG(2, "Publishing Update in progress message: %s", text);
    PublishResponse(request, answer, true, false);
    return true;
}
