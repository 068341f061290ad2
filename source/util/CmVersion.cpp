#include "CmVersion.h"

const char* CmUtilVersion() {
    return CM_UTIL_VERSION_STRING;
}
