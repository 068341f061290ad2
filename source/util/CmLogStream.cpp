#include "CmLogStream.h"
