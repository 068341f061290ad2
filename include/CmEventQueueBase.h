#ifndef CM_EVENT_QUEUE_BASE_H
#define CM_EVENT_QUEUE_BASE_H

#include "CmBase.h"

#endif  // CM_EVENT_QUEUE_BASE_H
