// The framework classes that the node creates by name, registered with the library too, so that it is self-sufficient
// whatever else the graph has loaded.

#include "NodeBase/ZNode.h"
#include "NodeComm/ZNodeCommLocal.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"

namespace {

template <typename Class>
struct Entry {
    const ZShared::ZClassRegistration registration{Class::kClassName, Class::kBaseClassName,
                                                   ZShared::MakeCreator<Class>()};
};

template <typename... Classes>
struct Entries : Entry<Classes>... {};

const Entries<ZCommStream, ZCommStreamObject, ZLogParams, ZTraceLogParams, ZAuditLogParams, ZMessageLogParams,
              ZReportParams, ZCoreConfigParams, ZCommsParams, ZFileLocationParams, ZNodeComm, ZNodeCommLocal,
              ZJSONCommStream, ZAnchorPointToolsMetadata, ZNodeToolsMetadata, ZEdgeToolsMetadata, ZNode,
              ZDeviceCompatibilityMsg, ZDevicePropertiesMsg, ZFileOpenMsg, ZFileCloseMsg, ZFileReadMsg,
              ZFileReadResponseMsg, ZFileWriteMsg, ZSystemUpdateInProgressRequestMsg, BatteryMsg,
              ZBatteryInfoRequestMsg, ZShutdownMsg, ZVersionInfoMsg>
    g_frameworkClasses;

}  // namespace
