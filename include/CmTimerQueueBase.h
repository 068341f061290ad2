#ifndef CM_TIMER_QUEUE_BASE_H
#define CM_TIMER_QUEUE_BASE_H

#include "CmBase.h"

#endif  // CM_TIMER_QUEUE_BASE_H
