#pragma once

#include "DriveMonitor.h"
#include "NodeBase/ZNode.h"
#include "UpdatesMonitor.h"
#include "ZMessages/Messages.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZStopEvent.h"

class ZNodeStorageCfg : public ZConfig {
    Z_MESSAGE(ZNodeStorageCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZVector<ZString> m_RemovableRoots{"/media", "/run/media"};
    ZVector<ZString> m_Roots;
    ZVector<ZString> m_ExcludedRoots;

    Z_FIELDS(
        Z_FIELD(m_RemovableRoots).Path().Means("Every mount below one of them counts as a drive."),
        Z_FIELD(m_Roots).Path().Means("These count as drives while they are mounted or filled. Put a filled folder in "
                                      "place with one rename: it is scanned as soon as it shows.",
                                      "[\"/mnt/stick\"]"),
        Z_FIELD(m_ExcludedRoots)
            .Path()
            .Means("Nothing there or below counts: the instrument's own storage.", "[\"/media/mmcblk1p3\"]"))
};

/// Tells the graph about storage: answers "getdevices" with the drives that are present, publishes
/// "storagedeviceupdate" when they change, and "newFile" when a file in the updates folder is complete, when it may be
/// run from then on or no longer, and when it has gone.
class ZNodeStorage : public ZNode {
    Z_CLASS(ZNodeStorage, ZNode)
public:
    explicit ZNodeStorage(const ZString& name);
    ~ZNodeStorage() override;

    /// Finds the drives that are present. False when the record is of another class or holds a path that is not
    /// absolute, or when the mount table can't be read.
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    /// Starts watching. The updates folder is made here and not earlier: other nodes empty it while they are set up.
    bool OnGraphCreated() override;
    void OnShutdown() override;

private:
    bool OnGetDevices(const std::shared_ptr<ZMessage>& request);
    void Watch();
    void Look(const DriveMonitor::PollEntries& polled);
    void TellDrives(const DriveChange& change);
    void TellFile(const UpdatesMonitor::Change& change);
    void StopWatching();
    std::shared_ptr<StorageDevicesMsg> DevicesMessage() const;

    std::filesystem::path m_updatesFolder;   // empty: none is configured
    std::unique_ptr<DriveMonitor> m_drives;  // the watching thread's once that runs
    std::unique_ptr<UpdatesMonitor> m_updates;
    ZGuarded<ZVector<ZString>> m_present;  // the drives, for answers
    ZStopEvent m_stop;
    std::thread m_watcher;
};
