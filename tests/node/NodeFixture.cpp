#include "NodeFixture.h"

#include "ZMessages/ZJSONCommStream.h"

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
    graph = std::make_unique<ZGraph>(core);
    EXPECT_EQ(ErrorOf(graph->AddNode("ProbeNode", "Probe", nullptr)), "");
    probe = cast_shared<ProbeNode>(graph->Node("Probe"));
}

NodeFixture::~NodeFixture() {
    node.reset();
    probe.reset();
    graph.reset();
    ZPlatform::Configure({});
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
    const auto devices = Z_MAKE(StorageDevicesMsg);
    devices->m_AddedDevices = {ToZString(Drive().string())};
    probe->Publish(probe->GetEndpoint(ZEndpointType::GraphService, "storagedeviceupdate", 0), devices);
    EXPECT_TRUE(probe->WaitForMessages(before + 1));
    return cast_shared<ZMessageArray>(probe->Received().back());
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
