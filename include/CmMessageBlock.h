#ifndef CM_MESSAGE_BLOCK_H
#define CM_MESSAGE_BLOCK_H

#include "CmBase.h"

#endif  // CM_MESSAGE_BLOCK_H
