// The calendar of timers against a model, driven by an operation string.
#include "../Fuzz.h"
#include "support/TimerModels.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    int nClamped = 0;
    const std::string sError = kelto_test::RunCalendarModel(aData, aSize, nClamped);
    kelto_fuzz::Require(sError.empty(), sError.c_str());
    return 0;
}
