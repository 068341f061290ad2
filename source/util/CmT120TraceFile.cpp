#include "CmT120TraceFile.h"
