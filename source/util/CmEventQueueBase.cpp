#include "CmEventQueueBase.h"
