#ifndef HOST_H
#define HOST_H

#include <kelto_util.h>

long SumOnWorker(int aCount);
bool TimerFires();
UTIL_NS::CCmString Describe();

#endif  // HOST_H
