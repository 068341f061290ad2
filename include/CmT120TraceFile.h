#ifndef CM_T120_TRACE_FILE_H
#define CM_T120_TRACE_FILE_H

#include "CmBase.h"

#endif  // CM_T120_TRACE_FILE_H
