#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZNodeArborInstall.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZPlatform.h"

/// The node's tables, for looking at.
class NodeAccess {
public:
    explicit NodeAccess(ZNodeArborInstall& node) : m_node(node) {}
    auto& Packages() { return m_node.m_tables.m_packages; }
    auto& Builds() { return m_node.m_tables.m_builds; }
    auto& Manifests() { return m_node.m_tables.m_manifests; }
    auto AccessoryBoards() { return m_node.m_accessoryBoards.Copy(); }
    /// As a check does that has found the file good.
    void AddPackage(const char* version, const std::filesystem::path& file) {
        std::optional<VersionTables::PackageTable::value_type> erased;
        m_node.m_tables.RecordPackage(
            {ZSoftwareVersion(version), file, 1, 1, {}}, [] { return true; }, erased);
    }
    auto& DeviceModel() { return m_node.m_deviceModel; }
    auto& DeviceProperties() { return m_node.m_pDeviceProperties; }
    bool BuildInProgress() { return m_node.m_bBuildInProgress; }
    bool UpdateInProgress() { return m_node.m_bUpdateInProgress || m_node.m_remoteInstalls; }
    bool Relaying() { return m_node.m_relay.IsBound(); }
    std::filesystem::path& Slots() { return m_node.m_slots; }

private:
    ZNodeArborInstall& m_node;
};

/// An installer's end of the progress socket.
class Installer {
public:
    explicit Installer(const std::filesystem::path& socket);
    void Say(const std::string& text);
    /// Whether the other side has closed the connection, or does so within some time.
    bool IsCutOff();

private:
    ZFileDescriptor m_socket;
};

std::shared_ptr<ZSystemUpdateMsg> UpdateTo(const char* version);

/// A real node on a real bus beside a probe, with its archive, updates folder, drive and identity in a folder of its
/// own. A test writes what the machine holds, then calls Start.
class NodeFixture : public testing::Test {
protected:
    NodeFixture();
    ~NodeFixture() override;

    /// Starts the graph; `config` is JSON members that are added to the node's record.
    void Start(const std::string& config = "");
    /// Ends the graph, so that Start can be called once more.
    void Restart();

    /// Writes the installed system's manifest.
    void InstallSystem(const std::string& version);
    /// Writes a version's directory into the archive; an empty installer path leaves the manifest's out.
    std::filesystem::path Archive(const std::string& version, const std::string& installerPath = "installer");
    /// Writes an executable package file that answers as told and notes the arguments of an install beside itself.
    std::filesystem::path Package(const std::string& name, const std::string& version, int verifyStatus = 0,
                                  const std::string& install = "") const;
    /// What the installer of a package does to live as long as the test.
    static constexpr const char* kLives = "while [ -e \"$0\" ]; do sleep 0.05; done";

    /// Looks at the drive without telling anybody.
    void ScanDrive();
    /// Looks at the drive, then asks for the installation.
    std::shared_ptr<ZVersionInfoMsg> Install(const std::shared_ptr<ZSystemUpdateMsg>& request) {
        ScanDrive();
        return AskForUpdate(request);
    }
    std::shared_ptr<ZVersionInfoMsg> AskForUpdate(const std::shared_ptr<ZSystemUpdateMsg>& request) {
        return cast_shared<ZVersionInfoMsg>(AskClient("updatesystem", request));
    }
    /// What the answer to "remoteinstall" holds first.
    std::shared_ptr<ZVersionInfoMsg> InstallOn(const char* serialNumber, const char* version = "3.044");
    std::shared_ptr<ZVersionInfoMsg> Transfer(const char* version, const char* serialNumber = "",
                                              ZDeviceModel model = ZDeviceModel::KiteQM);
    /// Asks as an accessory does whether this device fits.
    std::shared_ptr<ZDeviceCompatibilityMsg> CheckFit(const char* version, const char* board = "verdin-imx8mm",
                                                      ZDeviceModel model = ZDeviceModel::KiteQM);
    /// Puts a program of that name first in the path of all commands, until the test ends.
    void Program(const std::string& name, const std::string& script);
    /// What could be installed, the newest first.
    std::vector<std::string> Offered();
    void TellFile(const std::filesystem::path& file, bool bGone = false) const;
    void TellDrives(const std::vector<std::filesystem::path>& added,
                    const std::vector<std::filesystem::path>& removed) const;
    /// Tells of a file, and what the node then announces.
    std::vector<std::string> AnnounceFile(const std::filesystem::path& file) const;
    void Cancel(const ZString& job, const char* asker = nullptr) const;
    bool WaitForNoRelay() {
        return WaitUntil([this] { return !Tables().Relaying(); });
    }
    /// Every job as it was told last, in the order in which they were begun.
    std::vector<std::shared_ptr<ZOperationMsg>> Jobs() const;
    /// Waits for a job that stands as in "Install 3.045 Failed: why"; of a file, by its name.
    bool WaitForJob(const std::string& line) const;
    /// As WaitForJob, for a part of the line.
    bool WaitForJobLike(const std::string& part) const;
    /// How the jobs stand, as above.
    std::vector<std::string> JobLines() const;

    std::shared_ptr<ZMessage> AskClient(const char* keyword, const std::shared_ptr<ZMessage>& request) {
        return probe->Ask(ZEndpointType::ClientRequest, keyword, request);
    }
    /// Tells the node that the drive has come, and waits for what it then announces.
    std::shared_ptr<ZMessageArray> AnnounceDrive();
    NodeAccess Tables() { return NodeAccess(*node); }
    std::filesystem::path Drive() const { return folder / "drive"; }

    TemporaryFolder folder;
    LogCapture log;
    ZIdentity identity{"KiteQM", "SN42", "verdin-imx8mm"};
    std::shared_ptr<ZCoreConfigParams> core = ZMakeShared<ZCoreConfigParams>();
    std::unique_ptr<ZGraph> graph;
    std::shared_ptr<ProbeNode> probe;
    std::shared_ptr<ProbeNode> jobs;  // hears of every job
    std::shared_ptr<ZNodeArborInstall> node;
    const std::filesystem::path socket = folder / "mount/Archive/progress";

private:
    const std::string m_path = std::getenv("PATH") == nullptr ? "" : std::getenv("PATH");
};

/// One record of a scan's result as a line: "3.045 System", or "3.1 /drive/a.pkg rejected 4".
std::vector<std::string> Records(const std::shared_ptr<ZMessageArray>& array);
