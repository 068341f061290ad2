#ifndef CM_XML_H
#define CM_XML_H

#include "CmBase.h"

#endif  // CM_XML_H
