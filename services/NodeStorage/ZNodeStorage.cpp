#include "ZNodeStorage.h"

#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeStorageCfg)
Z_IMPLEMENT(ZNodeStorage)

namespace {

constexpr const char* kLogSource = "NodeStorage/ZNodeStorage";

ZVector<ZString> ToZStrings(const std::vector<std::string>& texts) {
    return {texts.begin(), texts.end()};
}

std::string WithoutSlashAtEnd(const std::filesystem::path& path) {
    const std::filesystem::path normal = path.lexically_normal();
    return normal.has_filename() || !normal.has_relative_path() ? normal.string() : normal.parent_path().string();
}

}  // namespace

ZNodeStorage::ZNodeStorage(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodeStorage::~ZNodeStorage() {
    StopWatching();
}

bool ZNodeStorage::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    DriveRules rules;
    if (!ReadRules(config, rules)) {
        return false;
    }
    if (const auto core = cast_shared<ZCoreConfigParams>(message)) {
        m_updatesFolder = WithoutSlashAtEnd(ToStdString(core->m_Files.m_UpdatesFolder));
    }
    try {
        m_drives = std::make_unique<DriveMonitor>(std::move(rules));
    } catch (const std::exception& failure) {
        Z_LOG(4, "The drives can't be watched: %s", failure.what());
        return false;
    }
    m_present = ToZStrings(m_drives->Drives());
    return true;
}

bool ZNodeStorage::ReadRules(const std::shared_ptr<ZConfig>& config, DriveRules& rules) {
    const auto record = config ? cast_shared<ZNodeStorageCfg>(config) : ZMakeShared<ZNodeStorageCfg>();
    if (!record) {
        Z_LOG(4, "The record of %s is a %s", Name().c_str(), config->ClassName());
        return false;
    }
    return ReadFolders(*record, "removableRoots", record->m_RemovableRoots, rules.removableRoots) &&
           ReadFolders(*record, "roots", record->m_Roots, rules.roots) &&
           ReadFolders(*record, "excludedRoots", record->m_ExcludedRoots, rules.excludedRoots);
}

bool ZNodeStorage::ReadFolders(const ZNodeStorageCfg& record, const char* key, const ZVector<ZString>& paths,
                               std::vector<std::string>& folders) const {
    for (const ZString& path : paths) {
        std::filesystem::path folder(path);
        if (record.Environment()) {
            record.Environment()->ResolveEnvVarsInPath(std::filesystem::path(path), folder);
        }
        if (!folder.is_absolute()) {
            Z_LOG(4, "\"%s\" holds \"%s\", which is no absolute path", key, path.c_str());
            return false;
        }
        folders.push_back(WithoutSlashAtEnd(folder));
    }
    return true;
}

bool ZNodeStorage::InitMessageMap() {
    return Subscribe(GetEndpoint(ZEndpointType::GraphService, "getdevices", 0),
                     [this](std::shared_ptr<ZMessage>& request) { return OnGetDevices(request); });
}

bool ZNodeStorage::OnGetDevices(const std::shared_ptr<ZMessage>& request) {
    return PublishResponse(request, DevicesMessage());
}

std::shared_ptr<StorageDevicesMsg> ZNodeStorage::DevicesMessage() const {
    auto message = ZMakeShared<StorageDevicesMsg>();
    const std::lock_guard lock(m_presentMutex);
    message->m_Devices = m_present;
    return message;
}

bool ZNodeStorage::OnGraphCreated() {
    try {
        if (m_updatesFolder.empty()) {
            Z_LOG(3, "No updates folder is configured; new files will not be noticed");
        } else {
            m_updates = std::make_unique<UpdatesMonitor>(m_updatesFolder);
        }
        m_watcher = std::thread([this] { Watch(); });
        return true;
    } catch (const std::exception& failure) {
        Z_LOG(4, "The storage can't be watched: %s", failure.what());
        return false;
    }
}

void ZNodeStorage::OnShutdown() {
    StopWatching();
}

void ZNodeStorage::StopWatching() {
    m_stop.Set();
    if (m_watcher.joinable()) {
        m_watcher.join();
    }
}

void ZNodeStorage::Watch() {
    DriveMonitor::PollEntries drives{};
    while (!m_stop.IsSet()) {
        try {
            Look(drives);
        } catch (const std::exception& failure) {
            Z_LOG(4, "Could not look at the storage: %s", failure.what());
        }
        drives = m_drives->Entries();
        std::array<pollfd, 5> entries{drives[0],
                                      drives[1],
                                      drives[2],
                                      {m_stop.Descriptor(), POLLIN, 0},
                                      {m_updates ? m_updates->Descriptor() : -1, POLLIN, 0}};
        ::poll(entries.data(), entries.size(), -1);
        std::copy_n(entries.begin(), drives.size(), drives.begin());
    }
}

void ZNodeStorage::Look(const DriveMonitor::PollEntries& polled) {
    const DriveChange change = m_drives->Refresh(polled);
    if (!change.IsEmpty()) {
        TellDrives(change);
    }
    if (!m_updates) {
        return;
    }
    for (const std::string& name : m_updates->NewFiles()) {
        TellFile(name);
    }
}

void ZNodeStorage::TellDrives(const DriveChange& change) {
    for (const std::string& drive : change.removed) {
        Z_LOG(2, "Drive %s left", drive.c_str());
    }
    for (const std::string& drive : change.added) {
        Z_LOG(2, "Drive %s came", drive.c_str());
    }
    {
        const std::lock_guard lock(m_presentMutex);
        m_present = ToZStrings(m_drives->Drives());
    }
    const auto message = DevicesMessage();
    message->m_AddedDevices = ToZStrings(change.added);
    message->m_RemovedDevices = ToZStrings(change.removed);
    Publish(GetEndpoint(ZEndpointType::GraphService, "storagedeviceupdate", 0), message);
}

void ZNodeStorage::TellFile(const std::string& name) {
    Z_LOG(2, "File %s is complete", (m_updatesFolder / name).c_str());
    const auto message = ZMakeShared<FolderUpdateMsg>();
    message->m_Folder = ToZString(m_updatesFolder.string());
    message->m_FileName = ToZString(name);
    Publish(GetEndpoint(ZEndpointType::GraphService, "newFile", 0), message);
}
