#ifndef CM_LOG_STREAM_H
#define CM_LOG_STREAM_H

#include "CmBase.h"

#endif  // CM_LOG_STREAM_H
