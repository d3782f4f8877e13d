#include "ZNodeFileIO.h"

#include <utility>

#include "FilePart.h"
#include "ZMessages/PeerMessages.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZPlatform.h"
#include "text/Base64.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeFileIOCfg)
Z_IMPLEMENT(ZNodeFileIO)

namespace {

constexpr std::chrono::seconds kLookAgain{1};

/// The message as what all file messages share; null for one of another class.
std::shared_ptr<ZFileMsg> ToFileMessage(const std::shared_ptr<ZMessage>& message) {
    // To others they are no kind of it, so each is asked for by itself.
    for (const ZShared::CID* kind :
         {&ZFileOpenMsg::m_cid, &ZFileWriteMsg::m_cid, &ZFileCloseMsg::m_cid, &ZFileReadMsg::m_cid}) {
        if (message->IsKindOf(*kind)) {
            return std::static_pointer_cast<ZFileMsg>(message);
        }
    }
    return nullptr;
}

std::shared_ptr<ZGenericResponseMsg> MakeAnswer(const ZMessage& request) {
    if (request.IsKindOf(ZFileReadMsg::m_cid)) {
        return Z_MAKE(ZFileReadResponseMsg);
    }
    return Z_MAKE(ZGenericResponseMsg);
}

/// The other device has a folder of its own: only what is below is told.
ZString WithoutFolder(const ZString& path, const fs::path& folder) {
    const fs::path below = fs::path(path).lexically_relative(folder);
    return below.empty() || *below.begin() == ".." ? path : ToZString(below.string());
}

}  // namespace

ZNodeFileIO::ZNodeFileIO(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeFileIO::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    const auto core = cast_shared<ZCoreConfigParams>(message);
    return ReadRecord<ZNodeFileIOCfg>(config, [&](const ZNodeFileIOCfg& record) {
        if (core) {
            m_updatesFolder = core->UpdatesFolder();
        }
        m_idle = std::chrono::seconds(record.m_IdleSeconds);
        m_files = std::make_unique<OpenFiles>(RootsOf(record), record.m_MaxOpenFiles);
        ReadIdentity();
        for (const fs::path& root : m_files->Roots()) {
            RemoveLeftovers(root);
        }
    });
}

std::vector<fs::path> ZNodeFileIO::RootsOf(const ZNodeFileIOCfg& record) const {
    std::vector<fs::path> roots(record.m_Roots.begin(), record.m_Roots.end());
    if (roots.empty() && !m_updatesFolder.empty()) {
        roots.push_back(m_updatesFolder);
    }
    if (roots.empty()) {
        Z_LOG(3, "No folder is configured; every file will be refused");
    }
    return roots;
}

void ZNodeFileIO::RemoveLeftovers(const fs::path& root) const {
    std::error_code code;
    for (fs::directory_iterator entry(root, code), end; !code && entry != end; entry.increment(code)) {
        const fs::path& path = entry->path();
        std::error_code failure;
        if (!IsTemporaryName(path.filename().string()) || !entry->is_regular_file(failure)) {
            continue;
        }
        if (fs::remove(path, failure)) {
            Z_LOG(2, "Removed %s, which an earlier run left unfinished", path);
        } else if (failure) {
            Z_LOG(3, "%s, which an earlier run left, can't be removed: %s", path, failure.message());
        }
    }
}

void ZNodeFileIO::ReadIdentity() {
    // What can't be read stays empty: the platform has logged why.
    ZString model;
    ZPlatform::ReadSerialNumber(m_serialNumber);
    if (ZPlatform::ReadModel(model)) {
        m_deviceModel = magic_enum::enum_cast<ZDeviceModel>(std::string_view(model)).value_or(ZDeviceModel{});
    }
}

bool ZNodeFileIO::InitMessageMap() {
    return Subscribe(GetEndpoint(ZEndpointType::DeviceRequest, "fileIO", 0),
                     [this](const std::shared_ptr<ZMessage>& message) { return OnFileMessage(message); }) &&
           SubscribeCancel();
}

bool ZNodeFileIO::OnFileMessage(const std::shared_ptr<ZMessage>& message) {
    const auto file = ToFileMessage(message);
    const bool isOthers = file && !IsForThisDevice(*file);
    const auto answer = MakeAnswer(*message);
    FileError error;
    try {
        error = isOthers ? HandOver(message, *file) : Do(message, *answer);
        if (file && !isOthers) {
            TellJob(*message, *file, error);
        }
    } catch (const std::exception& failure) {
        error.reason = failure.what();
    }
    if (isOthers && !error) {
        return true;  // the other device's answer is the requester's
    }
    if (error) {
        const std::string text = (file ? Shown(file->m_FilePath) + ": " : std::string()) + error.reason;
        Z_LOG(error.IsOfSystem() ? 4 : 3, "A %s failed: %s", message->ClassName(), text.c_str());
        answer->m_bSuccess = false;
        answer->m_ErrorCode = error.code;
        answer->m_ErrorText = ToZString(text);
    }
    WatchIdleFiles();
    return PublishResponse(message, answer);
}

FileError ZNodeFileIO::Do(const std::shared_ptr<ZMessage>& message, ZGenericResponseMsg& answer) {
    if (const auto write = cast_shared<ZFileWriteMsg>(message)) {
        return m_files->Write(*write);
    }
    if (const auto open = cast_shared<ZFileOpenMsg>(message)) {
        return m_files->Open(*open);
    }
    if (const auto close = cast_shared<ZFileCloseMsg>(message)) {
        return m_files->Close(*close);
    }
    if (const auto read = cast_shared<ZFileReadMsg>(message)) {
        return Read(*read, static_cast<ZFileReadResponseMsg&>(answer));
    }
    return {ZFrameworkErrorCodes::ERRCODE_NOT_SUPPORTED,
            std::string("a ") + message->ClassName() + " is no file message"};
}

void ZNodeFileIO::TellJob(const ZMessage& message, const ZFileMsg& file, const FileError& error) {
    const std::string path = ToStdString(file.m_FilePath);
    const auto known = m_uploads.find(path);
    if (message.IsKindOf(ZFileOpenMsg::m_cid)) {
        if (known == m_uploads.end()) {  // else the one that is under way goes on
            BeginJob(static_cast<const ZFileOpenMsg&>(file), error);
        }
        return;
    }
    if (known == m_uploads.end() || message.IsKindOf(ZFileReadMsg::m_cid) ||
        known->second.owner != FileOwner::Of(file)) {
        return;
    }
    Upload& upload = known->second;
    if (error) {
        upload.operation->Fail(ToZString(error.reason), error.code);
    }
    if (message.IsKindOf(ZFileCloseMsg::m_cid)) {
        upload.operation->Succeed();  // unless it has failed
        m_uploads.erase(known);
    } else if (const auto* const write = dynamic_cast<const ZFileWriteMsg*>(&file)) {
        upload.received += static_cast<std::int64_t>(write->m_Data.size() / 4 * 3);
        const std::int64_t percent =
            upload.size > 0 ? std::min<std::int64_t>(upload.received * 100 / upload.size, 99) : 0;
        upload.operation->Tell("Upload", ToZString(fs::path(path).filename().string()),
                               static_cast<std::int32_t>(percent));
    }
}

void ZNodeFileIO::BeginJob(const ZFileOpenMsg& open, const FileError& error) {
    Upload upload{BeginOperation({.kind = ZOperationKind::Upload, .file = open.m_FilePath}, &open), FileOwner::Of(open),
                  open.m_Size, 0};
    upload.operation->Start();
    if (error) {
        upload.operation->Fail(ToZString(error.reason), error.code);
    } else {
        m_uploads.emplace(ToStdString(open.m_FilePath), std::move(upload));
    }
}

void ZNodeFileIO::EndJob(const std::string& path, const std::string& reason) {
    const auto upload = m_uploads.extract(path);
    if (!upload) {
        return;
    }
    ZOperation& operation = *upload.mapped().operation;
    if (const auto why = operation.CancelReason()) {
        operation.Cancel(ToZString("cancelled " + *why));
    } else {
        operation.Fail(ToZString(reason));
    }
}

void ZNodeFileIO::DiscardCancelled() {
    std::vector<std::string> cancelled;
    for (const auto& [path, upload] : m_uploads) {
        if (upload.operation->CancelReason()) {
            cancelled.push_back(path);
        }
    }
    for (const std::string& path : cancelled) {
        if (m_files->Discard(ToZString(path))) {
            Z_LOG(2, "The upload of %s was cancelled", Shown(path));
        }
        EndJob(path, {});
    }
}

FileError ZNodeFileIO::Read(const ZFileReadMsg& request, ZFileReadResponseMsg& answer) {
    FilePlace place;
    if (FileError error = FindPlace(m_files->Roots(), request.m_FilePath, MissingFolders::Refused, place)) {
        return error;
    }
    if (FileError error = ReadFilePart(place, request.m_Position, request.m_Length, m_bytes, answer.m_Size)) {
        return error;
    }
    answer.m_Data = text::Base64<ZString>({m_bytes.data(), m_bytes.size()});
    return {};
}

bool ZNodeFileIO::IsForThisDevice(const ZFileMsg& file) const {
    return file.m_SerialNumber.empty() ||
           (file.m_SerialNumber == m_serialNumber && file.m_DeviceModel == m_deviceModel);
}

FileError ZNodeFileIO::HandOver(const std::shared_ptr<ZMessage>& message, ZFileMsg& file) {
    if (message->IsKindOf(ZFileReadMsg::m_cid)) {
        return {ZFrameworkErrorCodes::ERRCODE_NOT_SUPPORTED, "a file can't be read from another device"};
    }
    const ZString path = std::exchange(file.m_FilePath, WithoutFolder(file.m_FilePath, m_updatesFolder));
    const auto forward = Z_MAKE(ZForwardMsg);
    forward->m_DeviceModel = file.m_DeviceModel;
    forward->m_SerialNumber = file.m_SerialNumber;
    forward->m_Keyword = "upload";
    forward->m_pMessage = message;
    if (Publish(GetEndpoint(ZEndpointType::GraphService, "forward", 0), forward)) {
        return {};
    }
    file.m_FilePath = path;  // as the requester knows it
    return {ZFrameworkErrorCodes::ERRCODE_DEVICE_NOT_CONNECTED,
            "device " + Shown(file.m_SerialNumber) + " can't be reached: nothing here connects to other devices"};
}

/// The timer runs only while there is something to look at.
void ZNodeFileIO::WatchIdleFiles() {
    if (m_files->IsEmpty() != m_bWatching) {
        return;
    }
    const auto timer = GetTimer(
        "idle files",
        [this](void*) {
            DiscardCancelled();
            Discard(OpenFiles::Clock::now() - m_idle, "nobody used it for " + std::to_string(m_idle.count()) + " s");
            WatchIdleFiles();
        },
        nullptr);
    if (m_bWatching) {
        timer->Stop();
        m_bWatching = false;
    } else {
        m_bWatching = timer->Start(kLookAgain, true);
    }
}

void ZNodeFileIO::Discard(OpenFiles::Clock::time_point limit, const std::string& reason) {
    for (const std::string& path : m_files->DiscardUnusedSince(limit)) {
        Z_LOG(3, "Unfinished file %s was thrown away: %s", Shown(path), reason);
        EndJob(path, reason);
    }
}

void ZNodeFileIO::OnShutdown() {
    if (m_files) {
        Discard(OpenFiles::Clock::time_point::max(), "the graph ends");
        WatchIdleFiles();
    }
}
