#include "CmT120Trace.h"
