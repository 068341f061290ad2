#include "CmTimerQueueCalendar.h"
