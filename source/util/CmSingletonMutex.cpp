#include "CmSingletonMutex.h"

void GetSingletonMutex(void** aMutex) {
    if (aMutex != nullptr) {
        *aMutex = &UTIL_NS::g_SingletonMutex;
    }
}
