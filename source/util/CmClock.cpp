#include "CmClock.h"
