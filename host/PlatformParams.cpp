#include "PlatformParams.h"

Z_IMPLEMENT(ZPlatformParams)
Z_IMPLEMENT(ZIdentityParams)
