#ifndef CM_TIMER_WRAPPER_H
#define CM_TIMER_WRAPPER_H

#include "CmBase.h"

#endif  // CM_TIMER_WRAPPER_H
