#include "CmPort.h"
