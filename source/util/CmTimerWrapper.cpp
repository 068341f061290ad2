#include "CmTimerWrapper.h"
