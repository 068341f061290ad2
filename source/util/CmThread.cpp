#include "CmThread.h"
