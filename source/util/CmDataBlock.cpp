#include "CmDataBlock.h"
