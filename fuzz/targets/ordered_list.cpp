// The ordered list of timers against a model, driven by an operation string.
#include "../Fuzz.h"
#include "support/TimerModels.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sError = kelto_test::RunOrderedListModel(aData, aSize);
    kelto_fuzz::Require(sError.empty(), sError.c_str());
    return 0;
}
