#include <fstream>
#include <future>
#include <magic_enum/magic_enum.hpp>
#include <utility>

#include "ZNodeArborInstallActions.h"
#include "text/Base64.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_TransferAction)

namespace {

constexpr std::int32_t kFileMode = 0755;

/// A file's chunks as messages. Each is read and encoded while the one before is on its way: the receiver's work and
/// the sender's go on at the same time, though only one message is ever unanswered.
class ChunkReader {
public:
    explicit ChunkReader(const fs::path& file)
        : m_input(file, std::ios::binary), m_buffer(ZFileWriteMsg::kChunkBytes), m_next(Prepare()) {}

    /// The next chunk, and how many bytes of the file it carries: 0 at the end of what can be read.
    std::pair<std::shared_ptr<ZFileWriteMsg>, std::size_t> Take() {
        auto chunk = m_next.get();
        m_next = Prepare();
        return chunk;
    }

private:
    using Chunk = std::pair<std::shared_ptr<ZFileWriteMsg>, std::size_t>;

    std::future<Chunk> Prepare() {
        return std::async(std::launch::async, [this]() -> Chunk {
            m_input.read(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
            const auto count = static_cast<std::size_t>(m_input.gcount());
            const auto message = Z_MAKE(ZFileWriteMsg);
            message->m_Data = text::Base64<ZString>({m_buffer.data(), count});
            message->m_Position = m_position;
            m_position += static_cast<std::int64_t>(count);
            return {message, count};
        });
    }

    std::ifstream m_input;
    std::vector<char> m_buffer;
    std::int64_t m_position = 0;
    std::future<Chunk> m_next;  // the last member: its end is waited for before the others go
};

}  // namespace

bool ZNodeArborInstall::OnTransfer(std::shared_ptr<ZMessage>& msg) {
    Z_LOG(2, "OnTransfer()");
    if (const auto request = ZCAST(TransferMsg, msg)) {
        if (ZResponseSource(*msg).IsAbandoned()) {
            Z_LOG(3, "Transferring %s is not begun: whoever asked for it has gone", request->m_Version);
            return true;
        }
        Z_LOG(2, "Starting Transfer Action");
        StartJob("Transfer", msg,
                 {.kind = ZOperationKind::Transfer, .version = request->m_Version, .device = request->m_SerialNumber});
    } else {
        Z_LOG(4, "Unknown message in OnTransfer <%s>", msg->ClassName());
    }
    return true;
}

/// What stays the same for all messages of one transfer.
struct ZNodeArborInstall_TransferAction::Journey {
    std::shared_ptr<TransferMsg> request;
    fs::path source;
    fs::path destination;
    std::shared_ptr<ZOperation> operation;
    std::string damage;  // the first thing that went wrong; the file is of no use then
};

std::uint64_t ZNodeArborInstall_TransferAction::GetFileSize(const fs::path& file) {
    std::ifstream input(file, std::ios::binary | std::ios::ate);
    return static_cast<std::uint64_t>(std::streamoff(input.tellg()));
}

bool ZNodeArborInstall_TransferAction::Work() {
    Journey journey;
    journey.request = ZCAST(TransferMsg, m_pMessage);
    if (!journey.request) {
        return true;
    }
    const TransferMsg& request = *journey.request;
    journey.operation = Node().TakeJob(
        m_pMessage.get(),
        {.kind = ZOperationKind::Transfer, .version = request.m_Version, .device = request.m_SerialNumber});
    std::string reason;
    journey.source = Node().PackageFor(request.m_Version, request.m_DeviceModel, reason);
    journey.destination = Node().UpdatesPath() / journey.source.filename();
    std::error_code error;
    if (journey.source.empty() || !fs::is_regular_file(journey.source, error)) {
        Z_LOG(4, "No QM install source file: %s.", journey.source);
        Refuse(journey, ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED, "Version does not exist",
               reason.empty() ? journey.source.string() + " is no file" : reason);
        return true;
    }
    if (!OpenFile(journey)) {
        Z_LOG(4, "Unable to Open file %s for transfer", journey.source);
        Refuse(journey, ZFrameworkErrorCodes::ERRCODE_NOT_FOUND, "Unable to start file transfer", journey.damage);
        return true;
    }
    Z_LOG(2, "Install File Open <%s> %s", journey.destination, "SUCCESS");
    const auto answer = MakeAnswer();
    answer->m_bSuccess = true;
    answer->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
    answer->m_SerialNumber = journey.request->m_SerialNumber;
    answer->m_DeviceModel = journey.request->m_DeviceModel;
    Node().PublishResponse(m_pMessage, answer, true, false);
    try {
        SendChunks(journey);
    } catch (...) {
        CloseFile(journey);  // the receiver notices that the file is not whole
        throw;
    }
    CloseFile(journey);
    Settle(journey);
    return true;
}

void ZNodeArborInstall_TransferAction::Settle(const Journey& journey) {
    if (const auto why = journey.operation->CancelReason(); why && !journey.damage.empty()) {
        journey.operation->Cancel(ToZString("cancelled " + *why));
    } else if (!journey.damage.empty()) {
        journey.operation->Fail(ToZString(journey.damage));
    } else {
        journey.operation->Succeed();
    }
}

std::shared_ptr<ZVersionInfoMsg> ZNodeArborInstall_TransferAction::MakeAnswer() const {
    auto answer = Z_MAKE(ZVersionInfoMsg);
    answer->m_Version = Node().SystemVersion().m_text;
    answer->m_VersionType = "System";
    answer->m_bInstalled = false;
    return answer;
}

void ZNodeArborInstall_TransferAction::Refuse(const Journey& journey, ZFrameworkErrorCodes::ZErrorCode code,
                                              const char* text, const std::string& reason) {
    journey.operation->Fail(ToZString(reason.empty() ? text : reason), code);
    const auto answer = MakeAnswer();
    answer->m_bSuccess = false;
    answer->m_ErrorCode = code;
    answer->m_ErrorText = text;
    Node().PublishResponse(m_pMessage, answer, true, false);
}

std::shared_ptr<ZGenericResponseMsg> ZNodeArborInstall_TransferAction::Send(const Journey& journey,
                                                                            const std::shared_ptr<ZFileMsg>& message) {
    message->m_FilePath = ToZString(journey.destination.string());
    message->m_SerialNumber = journey.request->m_SerialNumber;
    message->m_DeviceModel = journey.request->m_DeviceModel;
    std::shared_ptr<ZMessage> response;
    Node().Publish(Node().GetEndpoint(ZEndpointType::DeviceRequest, "fileIO", 0), message, &response, true, false);
    return ZCAST(ZGenericResponseMsg, response);
}

bool ZNodeArborInstall_TransferAction::OpenFile(Journey& journey) {
    const auto open = Z_MAKE(ZFileOpenMsg);
    open->m_Mode = kFileMode;
    std::error_code error;
    const std::uintmax_t size = fs::file_size(journey.source, error);
    open->m_Size = error ? -1 : static_cast<std::int64_t>(size);  // the receiver throws away what is cut short
    Z_LOG(2, "Sending Install File Open for <%s-%s> <%s> -> <%s>", journey.request->m_DeviceModel,
          journey.request->m_SerialNumber, journey.source, journey.destination);
    const auto answer = Send(journey, open);
    if (answer && answer->m_bSuccess) {
        return true;
    }
    journey.damage = answer ? ToStdString(answer->m_ErrorText) : "nobody takes the file";
    return false;
}

void ZNodeArborInstall_TransferAction::SendChunks(Journey& journey) {
    const std::uint64_t total = GetFileSize(journey.source);
    ChunkReader chunks(journey.source);
    std::uint64_t sent = 0;
    std::uint64_t lastPercent = 0;
    while (sent < total && m_bRun && !journey.operation->CancelReason()) {
        const auto [write, count] = chunks.Take();
        if (count == 0) {
            break;
        }
        const std::uint64_t percent = sent * 100 / total;  // before this chunk counts: 100 is never reported here
        if (percent > lastPercent) {
            Z_LOG(2, "Install File Transfer (%lu encoded %lu bytes) %lu%% (%lu of %lu) to %s", count,
                  write->m_Data.size(), percent, sent, total, journey.destination);
            PublishProgress(journey, static_cast<std::int32_t>(percent));
            journey.operation->Tell("Transfer install package", ToZString(journey.source.filename().string()),
                                    static_cast<std::int32_t>(percent));
            lastPercent = percent;
        }
        const auto answer = Send(journey, write);
        sent += count;
        if (!answer || !answer->m_bSuccess) {
            const char* const reason = answer ? answer->m_ErrorText.c_str() : "Bad Response";
            Z_LOG(4, "Error on File write: %s", reason);
            journey.damage = journey.damage.empty() ? reason : journey.damage;
        }
    }
    if (sent < total) {
        Z_LOG(4, "The transfer of %s ended after %lu of %lu bytes", journey.source, sent, total);
        if (journey.damage.empty()) {
            journey.damage = "it ended after " + std::to_string(sent) + " of " + std::to_string(total) + " bytes";
        }
    }
}

void ZNodeArborInstall_TransferAction::PublishProgress(const Journey& journey, std::int32_t percent) {
    const auto progress = Z_MAKE(InstallProgressMsg);
    progress->m_Header = "Transfer install package";
    progress->m_Operation = "copy";
    progress->m_Percent = percent;
    if (!Node().RemoteInstallSerial().empty()) {
        progress->m_SerialNumber = journey.request->m_SerialNumber;
        progress->m_DeviceModel = journey.request->m_DeviceModel;
    }
    Node().Publish(Node().GetEndpoint(ZEndpointType::Progress, "", 0), progress);
}

void ZNodeArborInstall_TransferAction::CloseFile(Journey& journey) {
    const auto answer = Send(journey, Z_MAKE(ZFileCloseMsg));
    if (!answer) {
        Z_LOG(4, "Unable to publish File Close!");
    } else {
        Z_LOG(2, "Install File Close %s Complete %s", journey.destination.c_str(),
              answer->m_bSuccess ? "SUCCESS" : "FAILED");
    }
    if (journey.damage.empty() && !(answer && answer->m_bSuccess)) {
        journey.damage = answer ? ToStdString(answer->m_ErrorText) : "the file's end was not confirmed";
    }
}
