#include "ZNodeStorage.h"

#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeStorageCfg)
Z_IMPLEMENT(ZNodeStorage)

namespace {

constexpr int kLookAgainAfter = 1000;  // milliseconds, when the system lacked something

ZVector<ZString> ToZStrings(const std::vector<std::string>& texts) {
    return {texts.begin(), texts.end()};
}

std::vector<std::string> ToStdStrings(const ZVector<ZString>& texts) {
    return {texts.begin(), texts.end()};
}

}  // namespace

ZNodeStorage::ZNodeStorage(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodeStorage::~ZNodeStorage() {
    StopWatching();
}

bool ZNodeStorage::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    const auto core = cast_shared<ZCoreConfigParams>(message);
    return ReadRecord<ZNodeStorageCfg>(config, [&](const ZNodeStorageCfg& record) {
        if (core) {
            m_updatesFolder = core->UpdatesFolder();
        }
        DriveRules rules;
        rules.removableRoots = ToStdStrings(record.m_RemovableRoots);
        rules.roots = ToStdStrings(record.m_Roots);
        rules.excludedRoots = ToStdStrings(record.m_ExcludedRoots);
        m_drives = std::make_unique<DriveMonitor>(std::move(rules));
        m_present.Exchange(ToZStrings(m_drives->Drives()));
    });
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
    message->m_Devices = m_present.Copy();
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
        int wait = -1;
        try {
            Look(drives);
        } catch (const std::exception& failure) {
            Z_LOG(4, "Could not look at the storage: %s", failure.what());
            wait = kLookAgainAfter;
        }
        drives = m_drives->Entries();
        std::array<pollfd, 5> entries{drives[0],
                                      drives[1],
                                      drives[2],
                                      {m_stop.Descriptor(), POLLIN, 0},
                                      {m_updates ? m_updates->Descriptor() : -1, POLLIN, 0}};
        ::poll(entries.data(), entries.size(), wait);
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
    for (const UpdatesMonitor::Change& file : m_updates->Changes()) {
        TellFile(file);
    }
}

void ZNodeStorage::TellDrives(const DriveChange& change) {
    for (const std::string& drive : change.removed) {
        Z_LOG(2, "Drive %s left", drive);
    }
    for (const std::string& drive : change.added) {
        Z_LOG(2, "Drive %s came", drive);
    }
    m_present.Exchange(ToZStrings(m_drives->Drives()));
    const auto message = DevicesMessage();
    message->m_AddedDevices = ToZStrings(change.added);
    message->m_RemovedDevices = ToZStrings(change.removed);
    Publish(GetEndpoint(ZEndpointType::GraphService, "storagedeviceupdate", 0), message);
}

void ZNodeStorage::TellFile(const UpdatesMonitor::Change& change) {
    Z_LOG(2, "File %s %s", m_updatesFolder / change.name, change.removed ? "was removed" : "is complete");
    const auto message = ZMakeShared<FolderUpdateMsg>();
    message->m_Folder = ToZString(m_updatesFolder.string());
    message->m_FileName = ToZString(change.name);
    message->m_bGone = change.removed;
    Publish(GetEndpoint(ZEndpointType::GraphService, "newFile", 0), message);
}
