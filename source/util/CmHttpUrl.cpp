#include "CmHttpUrl.h"
