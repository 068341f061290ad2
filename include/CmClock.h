#ifndef CM_CLOCK_H
#define CM_CLOCK_H

#include "CmBase.h"

#endif  // CM_CLOCK_H
