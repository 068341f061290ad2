#include "CmMessageBlock.h"
