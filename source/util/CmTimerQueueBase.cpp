#include "CmTimerQueueBase.h"
