// A host in two files: runs events and a timer on a worker and prints what it saw.
#include "host.h"

#include <cstdio>

int main() {
    const long lSum = SumOnWorker(1000);
    const bool bTimer = TimerFires();
    std::printf("sum %ld timer %d %s\n", lSum, bTimer ? 1 : 0, Describe().c_str());
    return lSum == 499500 && bTimer ? 0 : 1;
}
