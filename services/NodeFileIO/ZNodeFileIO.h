#pragma once

#include "NodeBase/ZNode.h"
#include "OpenFiles.h"
#include "ZShared/ZFolderGuard.h"

class ZNodeFileIOCfg : public ZConfig {
    Z_MESSAGE(ZNodeFileIOCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZVector<ZString> m_Roots;
    std::uint32_t m_IdleSeconds = 30;
    std::uint32_t m_MaxOpenFiles = 64;

    Z_FIELDS(Z_FIELD(m_Roots)
                 .Path()
                 .Checked(&IsFolderOfItsOwn, "a folder of its own: not / nor one of the system's")
                 .Means("Files may be below these. Empty: below the updates folder.", "[\"/var/lib/arbor/updates\"]"),
             Z_FIELD(m_IdleSeconds).In(1, 3600).Means("A file that nobody used for so long is thrown away."),
             Z_FIELD(m_MaxOpenFiles).In(1, 256).Means("Files on their way at once."))
};

/// The service behind "fileIO": receives files, a chunk in each message, and reads parts of them. A file gets its name
/// when it is closed, whole and safe on the disk. Messages for another device are handed over to whoever reaches it.
class ZNodeFileIO : public ZNode {
    Z_CLASS(ZNodeFileIO, ZNode)
public:
    explicit ZNodeFileIO(const ZString& name);

    /// Removes the unfinished files that an earlier run left in the top folders. False when the record is of another
    /// class or holds a value that can't be used.
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    void OnShutdown() override;

private:
    /// The folders that are configured, or else the updates folder.
    std::vector<std::filesystem::path> RootsOf(const ZNodeFileIOCfg& record) const;
    void RemoveLeftovers(const std::filesystem::path& root) const;
    void ReadIdentity();

    bool OnFileMessage(const std::shared_ptr<ZMessage>& message);
    FileError Do(const std::shared_ptr<ZMessage>& message, ZGenericResponseMsg& answer);
    FileError Read(const ZFileReadMsg& request, ZFileReadResponseMsg& answer);
    bool IsForThisDevice(const ZFileMsg& file) const;
    FileError HandOver(const std::shared_ptr<ZMessage>& message, ZFileMsg& file);
    /// Tells the upload's job of what came of a message for it.
    void TellJob(const ZMessage& message, const ZFileMsg& file, const FileError& error);
    void BeginJob(const ZFileOpenMsg& open, const FileError& error);
    void EndJob(const std::string& path, const std::string& reason);
    void DiscardCancelled();
    void WatchIdleFiles();
    void Discard(OpenFiles::Clock::time_point limit, const std::string& reason);

    std::filesystem::path m_updatesFolder;  // empty: none is configured
    std::chrono::seconds m_idle{0};
    ZDeviceModel m_deviceModel{};
    ZString m_serialNumber;  // empty: unknown
    std::unique_ptr<OpenFiles> m_files;
    struct Upload {
        std::shared_ptr<ZOperation> operation;
        FileOwner owner;
        std::int64_t size = -1;  // as announced; negative: it was not
        std::int64_t received = 0;
    };
    std::map<std::string, Upload> m_uploads;  // by the path that their sender gave them
    std::vector<char> m_bytes;                // of one part that is read, kept so that its memory is used again
    bool m_bWatching = false;                 // the timer runs
};
