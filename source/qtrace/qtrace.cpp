#include "qtrace.h"

unsigned long _getTraceLevel() {
    return 0;
}

void YRKTRACERAWA(unsigned long /*aLevel*/, const char* /*aModule*/, char* /*aPrefix*/,
                  const char* /*aText*/) {}
