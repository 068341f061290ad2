#ifndef CM_DATA_BLOCK_H
#define CM_DATA_BLOCK_H

#include "CmBase.h"

#endif  // CM_DATA_BLOCK_H
