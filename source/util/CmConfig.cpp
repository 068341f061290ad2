#include "CmConfig.h"
