// A trace library that is not ours: prints every text that it is given.
#include <cstdio>

#define EXPORT __attribute__((visibility("default")))

extern "C" EXPORT unsigned long _getTraceLevel();
extern "C" EXPORT void YRKTRACERAWA(unsigned long aLevel, const char* aModule, char* aPrefix,
                                    const char* aText);

unsigned long _getTraceLevel() {
    return 0;
}

void YRKTRACERAWA(unsigned long aLevel, const char*, char*, const char* aText) {
    std::printf("other qtrace %lu %s\n", aLevel, aText);
}
