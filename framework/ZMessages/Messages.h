#pragma once

#include "ZMessages/ZFields.h"
#include "ZShared/Enumerations.h"

// Every message of the graph. A message is one short struct: its members and, once, the list of its fields, from which
// reading, writing, copying and descriptions follow; and the line that registers it.

/// An empty request: the endpoint says what is asked for.
class ZGenericRequestMsg : public ZMessage {
    Z_MESSAGE(ZGenericRequestMsg, ZMessage)
public:
    Z_NO_FIELDS()
};
Z_REGISTER(ZGenericRequestMsg)

/// An answer with its outcome.
class ZGenericResponseMsg : public ZMessage {
    Z_MESSAGE(ZGenericResponseMsg, ZMessage)
public:
    ZString m_ErrorText;
    bool m_bSuccess = true;
    ZFrameworkErrorCodes::ZErrorCode m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;

    Z_FIELDS(Z_KEYED_FIELD("text", m_ErrorText), Z_KEYED_FIELD("bSuccess", m_bSuccess),
             Z_KEYED_FIELD("ErrCode", m_ErrorCode))
};
Z_REGISTER(ZGenericResponseMsg)

/// A software version: answer to version requests, and one record of a scan's result.
class ZVersionInfoMsg : public ZGenericResponseMsg {
    Z_MESSAGE(ZVersionInfoMsg, ZGenericResponseMsg)
public:
    ZString m_VersionType;  ///< "System"; in the record of a rejected package, the file's path
    ZString m_Version;
    bool m_bInstalled = false;
    ZString m_SerialNumber;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;

    Z_FIELDS(Z_FIELD(m_VersionType), Z_FIELD(m_Version), Z_FIELD(m_bInstalled), Z_FIELD(m_SerialNumber),
             Z_FIELD(m_DeviceModel))
};
Z_REGISTER(ZVersionInfoMsg)

/// Messages that travel as one, in order.
class ZMessageArray : public ZMessage {
    Z_MESSAGE(ZMessageArray, ZMessage)
public:
    ZVector<std::shared_ptr<ZMessage>> m_Messages;

    void Add(std::shared_ptr<ZMessage> message) { m_Messages.push_back(std::move(message)); }

    Z_FIELDS(Z_FIELD(m_Messages))
};
Z_REGISTER(ZMessageArray)

/// One part of a system, in its manifest.
class ZComponentVersionMsg : public ZMessage {
    Z_MESSAGE(ZComponentVersionMsg, ZMessage)
public:
    ZString m_Name;
    ZString m_Version;
    ZString m_Board;

    Z_FIELDS(Z_FIELD(m_Name), Z_FIELD(m_Version), Z_FIELD(m_Board))
};
Z_REGISTER(ZComponentVersionMsg)

/// Contents of a "Manifest.json".
class ZSystemManifestMsg : public ZMessage {
    Z_MESSAGE(ZSystemManifestMsg, ZMessage)
public:
    ZString m_SystemVersion;
    ZString m_InstallerVersion;
    ZString m_InstallerPath;  ///< the installer's folder, relative to the version's directory
    ZVector<std::shared_ptr<ZComponentVersionMsg>> m_Components;

    Z_FIELDS(Z_FIELD(m_SystemVersion), Z_FIELD(m_InstallerVersion), Z_FIELD(m_InstallerPath), Z_FIELD(m_Components))
};
Z_REGISTER(ZSystemManifestMsg)

/// Request "updatesystem", and "remoteinstall".
class ZSystemUpdateMsg : public ZMessage {
    Z_MESSAGE(ZSystemUpdateMsg, ZMessage)
public:
    ZString m_Version;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;
    ZString m_SerialNumber;
    ZString m_ProgressHost;  ///< mDNS name, without ".local", of the device that takes the progress; empty: this one
    bool m_bReboot = true;

    Z_FIELDS(Z_FIELD(m_Version), Z_FIELD(m_DeviceModel), Z_FIELD(m_SerialNumber), Z_FIELD(m_ProgressHost),
             Z_FIELD(m_bReboot))
};
Z_REGISTER(ZSystemUpdateMsg)

/// Request "getUpdateInProgress".
class ZSystemUpdateInProgressRequestMsg : public ZMessage {
    Z_MESSAGE(ZSystemUpdateInProgressRequestMsg, ZMessage)
public:
    ZString m_Message;
    ZString m_RequestTag;  ///< returned unchanged, so that a requester can tell its answers apart

    Z_FIELDS(Z_FIELD(m_Message), Z_FIELD(m_RequestTag))
};
Z_REGISTER(ZSystemUpdateInProgressRequestMsg)

class ZSystemUpdateInProgressMsg : public ZMessage {
    Z_MESSAGE(ZSystemUpdateInProgressMsg, ZMessage)
public:
    bool m_bUpdateInProgress = false;
    ZString m_Message;
    ZString m_RequestTag;

    Z_FIELDS(Z_FIELD(m_bUpdateInProgress), Z_FIELD(m_Message), Z_FIELD(m_RequestTag))
};
Z_REGISTER(ZSystemUpdateInProgressMsg)

/// Request "compareversions": is the first at least the second?
class ZCompareVersionsMsg : public ZMessage {
    Z_MESSAGE(ZCompareVersionsMsg, ZMessage)
public:
    ZString m_Version1;
    ZString m_Version2;

    Z_FIELDS(Z_FIELD(m_Version1), Z_FIELD(m_Version2))
};
Z_REGISTER(ZCompareVersionsMsg)

class ZCompareVersionsResultMsg : public ZMessage {
    Z_MESSAGE(ZCompareVersionsResultMsg, ZMessage)
public:
    bool m_bResult = false;

    Z_FIELDS(Z_FIELD(m_bResult))
};
Z_REGISTER(ZCompareVersionsResultMsg)

/// Answer of "deviceProps".
class ZDevicePropertiesMsg : public ZMessage {
    Z_MESSAGE(ZDevicePropertiesMsg, ZMessage)
public:
    ZDeviceType m_DeviceType = DEVICE_CART;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;
    ZString m_Model;  ///< the model's text as the EEPROM has it, which need not be one of the known names
    ZString m_SerialNumber;
    ZString m_Board;
    ZString m_HostName;

    Z_FIELDS(Z_FIELD(m_DeviceType), Z_FIELD(m_DeviceModel), Z_FIELD(m_Model), Z_FIELD(m_SerialNumber), Z_FIELD(m_Board),
             Z_FIELD(m_HostName))
};
Z_REGISTER(ZDevicePropertiesMsg)

/// Request "checkCompatibility", and, with the verdict written in, its answer.
class ZDeviceCompatibilityMsg : public ZMessage {
    Z_MESSAGE(ZDeviceCompatibilityMsg, ZMessage)
public:
    ZString m_Version;
    bool m_bRequiresUpdate = false;
    ZDeviceModel m_Model = ZDeviceModel::KiteQM;
    std::int32_t m_BoardType = 0;  ///< read when m_Board is empty: 0 "apalis-imx8", 1 "verdin-imx8mm"
    ZString m_TargetVersion;
    bool m_bCompatible = false;
    ZString m_Board;

    Z_FIELDS(Z_FIELD(m_Version), Z_FIELD(m_bRequiresUpdate), Z_FIELD(m_Model), Z_FIELD(m_BoardType),
             Z_FIELD(m_TargetVersion), Z_FIELD(m_bCompatible), Z_FIELD(m_Board))
};
Z_REGISTER(ZDeviceCompatibilityMsg)

/// Asks the graph to end.
class ZShutdownMsg : public ZMessage {
    Z_MESSAGE(ZShutdownMsg, ZMessage)
public:
    bool m_bRestart = false;        ///< start the graph again afterwards
    bool m_bUnconditional = false;  ///< a node's refusal is not waited for
    std::uint16_t m_DelaySeconds = 0;

    Z_FIELDS(Z_FIELD(m_bRestart), Z_FIELD(m_bUnconditional), Z_FIELD(m_DelaySeconds))
};
Z_REGISTER(ZShutdownMsg)

/// Progress of an install or a transfer; also the installer's own JSON document.
class InstallProgressMsg : public ZMessage {
    Z_MESSAGE(InstallProgressMsg, ZMessage)
public:
    ZString m_Header;
    ZString m_Message;
    std::int32_t m_Percent = 0;
    bool m_bError = false;
    bool m_bDone = false;
    bool m_bSpinner = false;  ///< show an indeterminate indicator in place of the percentage
    ZString m_Operation;      ///< "copy" while a package is carried to the accessory
    ZString m_SerialNumber;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;

    Z_FIELDS(Z_FIELD(m_Header), Z_FIELD(m_Message), Z_FIELD(m_Percent), Z_FIELD(m_bError), Z_FIELD(m_bDone),
             Z_FIELD(m_bSpinner), Z_FIELD(m_Operation), Z_FIELD(m_SerialNumber), Z_FIELD(m_DeviceModel))
};
Z_REGISTER(InstallProgressMsg)

/// What the messages about a file have in common: which file, on which device.
class ZFileMsg : public ZMessage {
    Z_MESSAGE(ZFileMsg, ZMessage)
public:
    ZString m_FilePath;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;
    ZString m_SerialNumber;

    Z_FIELDS(Z_FIELD(m_FilePath), Z_FIELD(m_DeviceModel), Z_FIELD(m_SerialNumber))
};
Z_REGISTER(ZFileMsg)

/// Open (create) a file on a peer or in the upload folder.
class ZFileOpenMsg : public ZFileMsg {
    Z_MESSAGE_AS(ZFileOpenMsg, ZMessage, ZFileMsg)
public:
    std::int32_t m_Mode = 0;  ///< permission bits
    /// How long the file will be, in bytes, so that one that was broken off is not taken for whole; negative: not
    /// known.
    std::int64_t m_Size = -1;

    Z_FIELDS(Z_FIELD(m_Mode), Z_FIELD(m_Size))
};
Z_REGISTER(ZFileOpenMsg)

/// One chunk of a file, to be written behind the chunk before.
class ZFileWriteMsg : public ZFileMsg {
    Z_MESSAGE_AS(ZFileWriteMsg, ZMessage, ZFileMsg)
public:
    /// How much of a file one message usually carries: a multiple of 3, so that only the last one's text is padded.
    static constexpr std::uint32_t kChunkBytes = 776'700;

    ZString m_Data;  ///< base64
    /// Where in the file the chunk belongs, so that a lost one is noticed; negative: behind the chunk before.
    std::int64_t m_Position = -1;

    Z_FIELDS(Z_FIELD(m_Data), Z_FIELD(m_Position))
};
Z_REGISTER(ZFileWriteMsg)

class ZFileCloseMsg : public ZFileMsg {
    Z_MESSAGE_AS(ZFileCloseMsg, ZMessage, ZFileMsg)
public:
    Z_NO_FIELDS()
};
Z_REGISTER(ZFileCloseMsg)

/// Asks for a part of a file.
class ZFileReadMsg : public ZFileMsg {
    Z_MESSAGE_AS(ZFileReadMsg, ZMessage, ZFileMsg)
public:
    std::uint64_t m_Position = 0;
    std::uint32_t m_Length = 0;

    Z_FIELDS(Z_FIELD(m_Position), Z_FIELD(m_Length))
};
Z_REGISTER(ZFileReadMsg)

class ZFileReadResponseMsg : public ZGenericResponseMsg {
    Z_MESSAGE_AS(ZFileReadResponseMsg, ZMessage, ZGenericResponseMsg)
public:
    ZString m_Data;            ///< base64; shorter than asked for at the file's end
    std::uint64_t m_Size = 0;  ///< of the whole file, in bytes

    Z_FIELDS(Z_FIELD(m_Data), Z_FIELD(m_Size))
};
Z_REGISTER(ZFileReadResponseMsg)

/// Request "transfer": carry a version's package to the accessory.
class TransferMsg : public ZMessage {
    Z_MESSAGE(TransferMsg, ZMessage)
public:
    ZString m_Version;
    ZString m_SerialNumber;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;

    Z_FIELDS(Z_FIELD(m_Version), Z_FIELD(m_SerialNumber), Z_FIELD(m_DeviceModel))
};
Z_REGISTER(TransferMsg)

/// Notification "newFile": a file in a watched folder is complete, or has gone.
class FolderUpdateMsg : public ZMessage {
    Z_MESSAGE(FolderUpdateMsg, ZMessage)
public:
    ZString m_Folder;
    ZString m_FileName;
    bool m_bGone = false;  ///< it was removed, or moved away

    Z_FIELDS(Z_FIELD(m_Folder), Z_FIELD(m_FileName), Z_FIELD(m_bGone))
};
Z_REGISTER(FolderUpdateMsg)

/// Notification "storagedeviceupdate" and answer of "getdevices": mount points.
class StorageDevicesMsg : public ZMessage {
    Z_MESSAGE(StorageDevicesMsg, ZMessage)
public:
    ZVector<ZString> m_AddedDevices;
    ZVector<ZString> m_Devices;  ///< all that are present now
    ZVector<ZString> m_RemovedDevices;

    Z_FIELDS(Z_FIELD(m_AddedDevices), Z_FIELD(m_Devices), Z_FIELD(m_RemovedDevices))
};
Z_REGISTER(StorageDevicesMsg)

class BatteryMsg : public ZMessage {
    Z_MESSAGE(BatteryMsg, ZMessage)
public:
    bool m_bPresent = false;
    std::int32_t m_PercentRemaining = 0;

    Z_FIELDS(Z_FIELD(m_bPresent), Z_FIELD(m_PercentRemaining))
};
Z_REGISTER(BatteryMsg)

class ZBatteryInfoRequestMsg : public ZMessage {
    Z_MESSAGE(ZBatteryInfoRequestMsg, ZMessage)
public:
    Z_NO_FIELDS()
};
Z_REGISTER(ZBatteryInfoRequestMsg)

// What graph tools keep about a drawing of the graph.

class ZAnchorPointToolsMetadata : public ZMessage {
    Z_MESSAGE(ZAnchorPointToolsMetadata, ZMessage)
public:
    ZEdgeAnchorType m_Type = ZEdgeAnchorType::ZUNDEFINED;
    ZEdgeAnchorPosition m_Position = ZEdgeAnchorPosition::ZUNDEFINED;

    Z_FIELDS(Z_FIELD(m_Type), Z_FIELD(m_Position))
};
Z_REGISTER(ZAnchorPointToolsMetadata)

class ZNodeToolsMetadata : public ZMessage {
    Z_MESSAGE(ZNodeToolsMetadata, ZMessage)
public:
    double m_X = 0;
    double m_Y = 0;

    Z_FIELDS(Z_FIELD(m_X), Z_FIELD(m_Y))
};
Z_REGISTER(ZNodeToolsMetadata)

class ZEdgeToolsMetadata : public ZMessage {
    Z_MESSAGE(ZEdgeToolsMetadata, ZMessage)
public:
    ZVector<std::shared_ptr<ZAnchorPointToolsMetadata>> m_Anchors;

    Z_FIELDS(Z_FIELD(m_Anchors))
};
Z_REGISTER(ZEdgeToolsMetadata)
