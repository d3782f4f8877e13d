// Here the lines Z_REGISTER of these headers take effect.
#define Z_REGISTER_HERE

#include "ZMessages/Messages.h"
#include "ZMessages/OperationMessages.h"
#include "ZMessages/OrderMessages.h"
#include "ZMessages/PeerMessages.h"
#include "ZMessages/TrialMessages.h"
#include "ZMessages/TrustMessages.h"
