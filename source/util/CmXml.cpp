#include "CmXml.h"
