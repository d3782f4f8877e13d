#include "Nodes.h"

#include <stdexcept>

InstallSettings::InstallSettings(const Scratch& scratch) {
    platform.identity = ZIdentity{"KiteQM", "SN42", "verdin-imx8mm"};
    platform.mounts = {{"/dev/archive", (scratch / "archive").parent_path().string()}};
    UseMachine();
    core->m_Files.m_UpdatesFolder = ToZString((scratch / "updates").string());
    record->SetEnvironment(std::make_shared<ZEnvironment>());
    record->m_SystemInfoFilePath = ToZString(scratch.Write("Manifest.json", ManifestText("1.0")).string());
    record->m_ArchiveDevice = "/dev/archive";
    record->m_archiveRoot = scratch / "archive";
    record->m_archiveMount = record->m_archiveRoot.parent_path();
    record->m_ProgressPath = "progress";
}

std::string ManifestText(const std::string& version) {
    const std::string part = R"(","version":")" + version + R"(","board":"verdin-imx8mm"})";
    return R"({"className":"ZSystemManifestMsg","systemVersion":")" + version +
           R"(","installerVersion":"7","installerPath":"installer","components":[{"name":"boot)" + part +
           R"(,{"name":"kernel)" + part + R"(,{"name":"application)" + part + "]}\n";
}

std::shared_ptr<ZNodeArborInstall> MakeInstallNode(const InstallSettings& settings) {
    auto node = ZMakeShared<ZNodeArborInstall>("ArborInstall");
    if (!node->OnConfig(settings.core, settings.record)) {
        throw std::runtime_error("the node refused its settings");
    }
    return node;
}

std::shared_ptr<ZNode> AddNode(ZGraph& graph, const char* className, const ZString& name,
                               const std::shared_ptr<ZConfig>& record) {
    graph.AddNode(className, name, record).value();
    return graph.Node(name);
}

void StartGraph(ZGraph& graph) {
    graph.Start().value();
}
