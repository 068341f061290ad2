#include "CmAddress.h"
