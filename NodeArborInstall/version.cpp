#include "version.h"

const char* GetVersionTag() {
    return "3.044";
}
const char* GetVersionHash() {
    return "583f89732";
}
