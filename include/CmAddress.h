#ifndef CM_ADDRESS_H
#define CM_ADDRESS_H

#include "CmBase.h"

#endif  // CM_ADDRESS_H
