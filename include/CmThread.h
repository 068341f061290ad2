#ifndef CM_THREAD_H
#define CM_THREAD_H

#include "CmBase.h"

#endif  // CM_THREAD_H
