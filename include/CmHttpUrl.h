#ifndef CM_HTTP_URL_H
#define CM_HTTP_URL_H

#include "CmBase.h"

#endif  // CM_HTTP_URL_H
