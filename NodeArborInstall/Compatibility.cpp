#include <magic_enum/magic_enum.hpp>

#include "PackageFiles.h"
#include "ShellText.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZScopeEnd.h"
#include "ZShared/ZStopEvent.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_BuildAction)

namespace {

constexpr const char* kOtherBoard = "apalis-imx8";
constexpr std::size_t kLongestBoard = 64;  // as packages have it

std::string ModelName(ZDeviceModel model) {
    return std::string(magic_enum::enum_name(model));
}

}  // namespace

bool ZNodeArborInstall::OnCheckCompatibility(std::shared_ptr<ZMessage>& message) {
    const auto request = ZCAST(ZDeviceCompatibilityMsg, message);
    if (!request) {
        return true;
    }
    Z_LOG(2, "Checking compatibility of %s version %s", ModelName(request->m_Model), request->m_Version);
    const ZSoftwareVersion accessory(request->m_Version);
    if (!m_systemVersion.m_valid) {
        PublishResponse(message, message, true, false);
        return true;
    }
    request->m_bRequiresUpdate = accessory != m_systemVersion;
    // The "<" is printed whatever the order is; clients parse it.
    Z_LOG(2, "Version %s < %s -> Requires Update: %s", accessory.Get(), m_systemVersion.Get(),
          request->m_bRequiresUpdate ? "TRUE" : "FALSE");
    if (accessory > m_systemVersion) {
        Z_LOG(3,
              "Cart version <%s> is behind Palm version <%s> - Cart must be updated before connecting to this Palm "
              "device!",
              m_systemVersion.Get(), accessory.Get());
        request->m_bCompatible = false;
        request->m_TargetVersion = request->m_Version;
    } else {
        DecideBuild(message);
        request->m_bCompatible = true;
        request->m_TargetVersion = m_systemVersion.m_text;
    }
    PublishResponse(message, message, true, false);
    return true;
}

void ZNodeArborInstall::DecideBuild(const std::shared_ptr<ZMessage>& request) {
    const auto& compatibility = static_cast<const ZDeviceCompatibilityMsg&>(*request);
    const ZString board = ToZString(BoardAsked(compatibility));
    if (board.size() > kLongestBoard) {
        Z_LOG(3, "No package is built for a board whose name has %zu characters", board.size());
        return;
    }
    // Of models that there are: whoever asks with other numbers must not fill the table.
    if (!board.empty() && magic_enum::enum_contains(compatibility.m_Model)) {
        (*m_accessoryBoards.Lock())[compatibility.m_Model] = board;
    }
    if (m_bBuildInProgress) {
        Z_LOG(2, "Build already in progress");
        return;
    }
    // A package for another board is none for this one.
    if (m_tables.BuildFor(m_systemVersion, board)) {
        Z_LOG(2, "Skipping build because we already have it");
        return;
    }
    Z_LOG(2, "Spawning build action");
    const auto copy = ZNodeComm::CloneMessage(request);
    // Set before the action starts: it may have ended, and cleared the flag, when RunAction returns.
    m_bBuildInProgress = true;
    if (!StartJob("Build", copy, {.kind = ZOperationKind::Build, .version = m_systemVersion.m_text, .file = board})) {
        m_bBuildInProgress = false;
    }
}

void ZNodeArborInstall::BuildPackage(const std::shared_ptr<ZDeviceCompatibilityMsg>& message) {
    const ZScopeEnd clear([this] { m_bBuildInProgress = false; });
    if (!message) {
        return;
    }
    const auto operation = TakeJob(
        message.get(),
        {.kind = ZOperationKind::Build, .version = m_systemVersion.m_text, .file = ToZString(BoardAsked(*message))});
    try {
        const ZStopScope scope(operation->CancelEvent());
        const auto built = RunBuild(*message);
        if (const auto why = operation->CancelReason(); why && !built) {
            operation->Cancel(ToZString("cancelled " + *why));
        } else if (!built) {
            operation->Fail(ToZString(built.error().text));
        } else {
            operation->Succeed();
        }
    } catch (const std::exception& error) {
        Z_LOG(4, "%s", error.what());
        operation->Fail(error.what());
    }
}

ZResult<void> ZNodeArborInstall::RunBuild(const ZDeviceCompatibilityMsg& message) {
    const fs::path directory = m_archivePath / fs::path(m_systemVersion.m_text);
    Z_LOG(2, "Build package for model <%s> board = <%s>", ModelName(message.m_Model), message.m_Board);
    const std::string board = BoardOf(message);
    const auto script = InstallerScript(directory);
    if (!script) {
        return script.error();
    }
    if (auto own = IsArchiveOwn(); !own) {
        Z_LOG(4, "Build refused: %s", own.error().text);
        return own;
    }
    if (!fs::is_directory(directory)) {
        Z_LOG(4, "No package installed at %s", directory);
        return ZError("there is no " + directory.string());
    }
    // Neither is quoted in the command line.
    if (!IsPlainShellWord(script->string()) || !IsPlainShellWord(board, true)) {
        Z_LOG(4, "Build refused: script <%s> or board <%s> can't stand in a command line", script->c_str(), board);
        return ZError("the script's or the board's name can't stand in a command line");
    }
    const std::string package = board == kPackageBoard ? kPackageName : "arbor_kite.pkg";
    const std::string command = script->string() + " --build --device " + board + " --output " + package;
    Z_LOG(2, "Build command: %s", command);
    std::string output;
    const fs::path file = directory / package;
    const auto before = StampOf(file);
    const bool ran = ZPlatform::ExecuteCommand(command, output);
    const auto after = StampOf(file);
    const bool built = ran && after && after != before;  // one that lay there already may be another board's
    if (built) {
        m_tables.SetBuild(m_systemVersion, ToZString(board), file);
    }
    Z_LOG(2, "%s: %s", built ? "SUCCESS" : "FAILURE", output.c_str());
    if (ran && !built) {
        return ZError("the installer's script ended well and left no new " + file.string());
    }
    return built ? ZResult<void>() : ZError(output.empty() ? "the installer's script failed" : output);
}

std::string ZNodeArborInstall::BoardAsked(const ZDeviceCompatibilityMsg& message) {
    if (!message.m_Board.empty()) {
        return ToStdString(message.m_Board);
    }
    return message.m_BoardType == 1 ? kPackageBoard : message.m_BoardType == 0 ? kOtherBoard : "";
}

std::string ZNodeArborInstall::BoardOf(const ZDeviceCompatibilityMsg& message) {
    std::string board = BoardAsked(message);
    if (message.m_Board.empty()) {
        Z_LOG(2, "No board set in compatability request, set to %s", board);
    }
    return board;
}

ZResult<fs::path> ZNodeArborInstall::InstallerScript(const fs::path& versionDirectory) {
    const auto manifest = m_tables.Manifest(m_systemVersion);
    if (!manifest) {
        Z_LOG(4, "Could not find manifest for current software version %s", m_systemVersion.Get());
        return ZError("the archive holds no manifest of version " + ToStdString(m_systemVersion.m_text));
    }
    if (manifest->m_InstallerPath.empty()) {
        Z_LOG(4, "No Installer Path for package %s: %s", m_systemVersion.Get(), manifest->m_InstallerPath);
        return ZError("the manifest of version " + ToStdString(m_systemVersion.m_text) + " names no installer");
    }
    return versionDirectory / fs::path(manifest->m_InstallerPath) / "installer.py";
}

bool ZNodeArborInstall_BuildAction::Work() {
    Node().BuildPackage(ZCAST(ZDeviceCompatibilityMsg, m_pMessage));
    return true;
}
