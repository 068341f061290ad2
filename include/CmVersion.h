/// The version of the library. docs/compatibility.md says what its numbers promise.
/// \file
#ifndef CM_VERSION_H
#define CM_VERSION_H

#include "CmBase.h"

/// The version that a host is compiled with: the number that rises when hosts have to be compiled
/// again. The build description takes all three from here.
#define CM_UTIL_VERSION_MAJOR 1
/// The number that rises when something is added.
#define CM_UTIL_VERSION_MINOR 0
/// The number that rises when something is mended.
#define CM_UTIL_VERSION_PATCH 0

/// The text of x as it is written.
#define CM_UTIL_VERSION_TEXT_(x) #x
/// The text of the number that x stands for.
#define CM_UTIL_VERSION_TEXT(x) CM_UTIL_VERSION_TEXT_(x)
/// The version that a host is compiled with as text: "1.0.0".
#define CM_UTIL_VERSION_STRING                  \
    CM_UTIL_VERSION_TEXT(CM_UTIL_VERSION_MAJOR) \
    "." CM_UTIL_VERSION_TEXT(CM_UTIL_VERSION_MINOR) "." CM_UTIL_VERSION_TEXT(CM_UTIL_VERSION_PATCH)

extern "C" {

/// CM_UTIL_VERSION_STRING of the library that the process runs with, which may be a later one than
/// it was compiled with. Any thread; never null; lives as long as the library.
CM_UTIL_EXPORT const char* CmUtilVersion();

}  // extern "C"

#endif  // CM_VERSION_H
