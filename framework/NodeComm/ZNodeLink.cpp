#include "NodeComm/ZNodeLink.h"

Z_IMPLEMENT(ZNodeLink)
