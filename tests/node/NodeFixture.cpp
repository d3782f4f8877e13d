#include "NodeFixture.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZUnixAddress.h"

namespace fs = std::filesystem;

NodeFixture::NodeFixture() {
    fs::create_directories(folder / "mount/Archive");
    fs::create_directories(Drive());
    core->m_Files.m_UpdatesFolder = ToZString((folder / "updates").string());
    core->m_RequestTimeoutSeconds = 20;
    core->m_ShutdownGraceSeconds = 1;
    Restart();
}

void NodeFixture::Restart() {
    node.reset();
    probe.reset();
    jobs.reset();
    graph = std::make_unique<ZGraph>(core);
    EXPECT_EQ(ErrorOf(graph->AddNode("ProbeNode", "Probe", nullptr)), "");
    probe = cast_shared<ProbeNode>(graph->Node("Probe"));
    EXPECT_EQ(ErrorOf(graph->AddNode("ProbeNode", "Jobs", nullptr)), "");
    jobs = cast_shared<ProbeNode>(graph->Node("Jobs"));
    jobs->Listen(ZEndpointType::GraphService, "operation");
}

NodeFixture::~NodeFixture() {
    node.reset();
    probe.reset();
    jobs.reset();
    graph.reset();
    ZPlatform::Configure({});
    ::setenv("PATH", m_path.c_str(), 1);
    if (HasFailure()) {
        std::cerr << "Log:\n" << log.All();
    }
}

void NodeFixture::Start(const std::string& config) {
    ZPlatformSettings platform;
    platform.identity = identity;
    platform.mounts = {{"/dev/archive", (folder / "mount").string()}};
    ZPlatform::Configure(platform);
    const auto record = ZMakeShared<ZNodeArborInstallCfg>("ArborInstall");
    record->SetEnvironment(std::make_shared<ZEnvironment>());
    ZJSONCommStream stream;
    ASSERT_TRUE(stream.LoadText(R"({"ArchiveDevice":"/dev/archive","ArchiveDir":"Archive","ProgressPath":"progress",)"
                                R"("SystemInfoFilePath":")" +
                                (folder / "Manifest.json").string() + "\"} {" + config + "}"))
        << stream.Error();
    record->Deserialize(stream);
    ASSERT_EQ(stream.Error(), "");
    ASSERT_EQ(ErrorOf(graph->AddNode("ZNodeArborInstall", "ArborInstall", record)), "");
    node = std::static_pointer_cast<ZNodeArborInstall>(graph->Node("ArborInstall"));
    NodeAccess(*node).Slots() = folder / "mount/Slots";
    ASSERT_EQ(ErrorOf(graph->Start()), "");
}

void NodeFixture::InstallSystem(const std::string& version) {
    folder.Write("Manifest.json", R"({"className":"ZSystemManifestMsg","systemVersion":")" + version +
                                      R"(","installerVersion":"7","components":[{)"
                                      R"("name":"boot","version":"2","board":"b1"}]})");
}

fs::path NodeFixture::Archive(const std::string& version, const std::string& installerPath) {
    const std::string directory = "mount/Archive/" + version + "/";
    folder.Write(directory + "Manifest.json", R"({"className":"ZSystemManifestMsg","systemVersion":")" + version +
                                                  R"(","installerPath":")" + installerPath + "\"}");
    return folder.Write(directory + "arbor_qm.pkg", "archived " + version, 0755);
}

fs::path NodeFixture::Package(const std::string& name, const std::string& version, int verifyStatus,
                              const std::string& install) const {
    return folder.Write("drive/" + name,
                        "#!/bin/sh\ncase $1 in\n--version) echo '" + version +
                            "';;\n--verify) echo \"board:$2\"; exit " + std::to_string(verifyStatus) +
                            ";;\n*) printf '%s\\n' \"$@\" > \"$0.args.new\"; mv \"$0.args.new\" "
                            "\"$0.args\"\n" +
                            install + ";;\nesac\n",
                        0755);
}

std::shared_ptr<ZMessageArray> NodeFixture::AnnounceDrive() {
    const std::size_t before = probe->Received().size();
    TellDrives({Drive()}, {});
    EXPECT_TRUE(probe->WaitForMessages(before + 1));
    return cast_shared<ZMessageArray>(probe->Received().back());
}

std::vector<std::string> NodeFixture::AnnounceFile(const fs::path& file) const {
    const std::size_t before = probe->Received().size();
    TellFile(file);
    EXPECT_TRUE(probe->WaitForMessages(before + 1));
    return Records(cast_shared<ZMessageArray>(probe->Received().back()));
}

void NodeFixture::TellFile(const fs::path& file, bool bGone) const {
    const auto update = Z_MAKE(FolderUpdateMsg);
    update->m_bGone = bGone;
    update->m_Folder = ToZString(file.parent_path().string());
    update->m_FileName = ToZString(file.filename().string());
    probe->Tell("newFile", update);
}

void NodeFixture::TellDrives(const std::vector<fs::path>& added, const std::vector<fs::path>& removed) const {
    const auto devices = Z_MAKE(StorageDevicesMsg);
    for (const fs::path& drive : added) {
        devices->m_AddedDevices.push_back(ToZString(drive.string()));
    }
    for (const fs::path& drive : removed) {
        devices->m_RemovedDevices.push_back(ToZString(drive.string()));
    }
    probe->Tell("storagedeviceupdate", devices);
}

std::vector<std::string> NodeFixture::Offered() {
    return Records(cast_shared<ZMessageArray>(AskClient("findupdates", Z_MAKE(ZGenericRequestMsg))));
}

void NodeFixture::Cancel(const ZString& job, const char* asker) const {
    const auto cancel = Z_MAKE(ZCancelMsg);
    cancel->m_Id = job;
    if (asker != nullptr) {
        cancel->SetOrigin(std::make_shared<ZRequestOrigin>(asker, ""));
    }
    probe->Tell("cancel", cancel);
}

void NodeFixture::ScanDrive() {
    auto results = Z_MAKE(ZMessageArray);
    node->ScanDrive(Drive(), results);
}

std::shared_ptr<ZVersionInfoMsg> NodeFixture::InstallOn(const char* serialNumber, const char* version) {
    const auto request = UpdateTo(version);
    request->m_SerialNumber = serialNumber;
    const auto answer = cast_shared<ZMessageArray>(probe->Ask(ZEndpointType::DeviceRequest, "remoteinstall", request));
    return answer ? cast_shared<ZVersionInfoMsg>(answer->m_Messages.front()) : nullptr;
}

std::shared_ptr<ZVersionInfoMsg> NodeFixture::Transfer(const char* version, const char* serialNumber,
                                                       ZDeviceModel model) {
    const auto request = Z_MAKE(TransferMsg);
    request->m_Version = version;
    request->m_SerialNumber = serialNumber;
    request->m_DeviceModel = model;
    return cast_shared<ZVersionInfoMsg>(probe->Ask(ZEndpointType::DeviceRequest, "transfer", request));
}

std::shared_ptr<ZDeviceCompatibilityMsg> NodeFixture::CheckFit(const char* version, const char* board,
                                                               ZDeviceModel model) {
    const auto request = Z_MAKE(ZDeviceCompatibilityMsg);
    request->m_Model = model;
    request->m_Version = version;
    request->m_Board = board;
    request->m_BoardType = 1;
    return cast_shared<ZDeviceCompatibilityMsg>(probe->Ask(ZEndpointType::GraphService, "checkCompatibility", request));
}

void NodeFixture::Program(const std::string& name, const std::string& script) {
    folder.Write("bin/" + name, "#!/bin/sh\n" + script + "\n", 0755);
    ::setenv("PATH", ((folder / "bin").string() + ":/usr/sbin:/usr/bin:/sbin:/bin").c_str(), 1);
}

std::vector<std::shared_ptr<ZOperationMsg>> NodeFixture::Jobs() const {
    std::vector<std::shared_ptr<ZOperationMsg>> latest;
    for (const auto& message : jobs->Received()) {
        const auto job = cast_shared<ZOperationMsg>(message);
        const auto known = std::ranges::find_if(latest, [&](const auto& other) { return other->m_Id == job->m_Id; });
        if (known == latest.end()) {
            latest.push_back(job);
        } else {
            *known = job;
        }
    }
    return latest;
}

std::vector<std::string> NodeFixture::JobLines() const {
    std::vector<std::string> lines;
    for (const auto& job : Jobs()) {
        const std::string file = fs::path(job->m_File).filename().string();
        const std::string subject = job->m_Kind == ZOperationKind::Check ? file : ToStdString(job->m_Version);
        lines.push_back(std::string(magic_enum::enum_name(job->m_Kind)) + " " + (subject.empty() ? file : subject) +
                        " " + std::string(magic_enum::enum_name(job->m_State)) +
                        (job->m_Reason.empty() ? "" : ": " + ToStdString(job->m_Reason)));
    }
    return lines;
}

bool NodeFixture::WaitForJobLike(const std::string& part) const {
    const bool found = WaitUntil([&] {
        const auto lines = JobLines();
        return std::ranges::any_of(lines, [&](const auto& line) { return line.find(part) != std::string::npos; });
    });
    EXPECT_TRUE(found) << part << " is in none of " << testing::PrintToString(JobLines());
    return found;
}

bool NodeFixture::WaitForJob(const std::string& line) const {
    const bool found = WaitUntil([&] {
        const auto lines = JobLines();
        return std::ranges::find(lines, line) != lines.end();
    });
    EXPECT_TRUE(found) << line << " is none of " << testing::PrintToString(JobLines());
    return found;
}

Installer::Installer(const fs::path& socket) : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const auto address = ZUnixAddress::Of(socket.string());
    EXPECT_TRUE(WaitUntil([&] { return ::connect(m_socket.Get(), address->Get(), ZUnixAddress::Size()) == 0; }))
        << socket;
}

void Installer::Say(const std::string& text) {
    EXPECT_EQ(::send(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL), std::ssize(text));
}

bool Installer::IsCutOff() {
    pollfd entry{m_socket.Get(), POLLIN, 0};
    char byte = 0;
    return ::poll(&entry, 1, 30'000) > 0 && ::recv(m_socket.Get(), &byte, 1, 0) <= 0;
}

std::shared_ptr<ZSystemUpdateMsg> UpdateTo(const char* version) {
    auto request = Z_MAKE(ZSystemUpdateMsg);
    request->m_Version = version;
    return request;
}

std::vector<std::string> Records(const std::shared_ptr<ZMessageArray>& array) {
    std::vector<std::string> lines;
    for (const auto& message : array ? array->m_Messages : ZVector<std::shared_ptr<ZMessage>>()) {
        const auto record = cast_shared<ZVersionInfoMsg>(message);
        lines.push_back(ToStdString(record->m_Version + " " + record->m_VersionType) +
                        (record->m_bSuccess ? "" : " rejected " + std::to_string(record->m_ErrorCode)));
    }
    return lines;
}
