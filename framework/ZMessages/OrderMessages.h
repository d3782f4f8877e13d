#pragma once

#include "ZMessages/Messages.h"

// Orders: what people had this device do, or were refused.

/// Order "scan": look at this package file now, or at all that is on this drive.
class ZScanMsg : public ZMessage {
    Z_MESSAGE(ZScanMsg, ZMessage)
public:
    ZString m_Path;  ///< as this device sees it: below a drive or the updates folder, or a drive's mount point

    Z_FIELDS(Z_FIELD(m_Path))
};
Z_REGISTER(ZScanMsg)
