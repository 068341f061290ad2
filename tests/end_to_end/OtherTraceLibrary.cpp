// A host's own trace library in place of qtrace: prints each call.
#include <cstdio>
#include <cstring>

#if !defined(FUNCTION_VISIBILITY)
#define FUNCTION_VISIBILITY "default"
#endif

extern "C" {

__attribute__((visibility(FUNCTION_VISIBILITY))) unsigned long _getTraceLevel();
__attribute__((visibility(FUNCTION_VISIBILITY))) void YRKTRACERAWA(unsigned long aLevel,
                                                                   const char* aModule,
                                                                   char* aPrefix,
                                                                   const char* aText);

unsigned long _getTraceLevel() {
    return 1;
}

void YRKTRACERAWA(unsigned long aLevel, const char* aModule, char* aPrefix, const char* aText) {
    if (aPrefix != nullptr) {
        std::printf("%lu %s piece %zu\n", aLevel, aModule, std::strlen(aText));
    } else {
        std::printf("%lu %s %s\n", aLevel, aModule, aText);
    }
}

}  // extern "C"
