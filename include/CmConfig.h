#ifndef CM_CONFIG_H
#define CM_CONFIG_H

#include "CmBase.h"

#endif  // CM_CONFIG_H
