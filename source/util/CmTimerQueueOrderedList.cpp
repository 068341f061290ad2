#include "CmTimerQueueOrderedList.h"
