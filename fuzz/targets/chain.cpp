// Message block chains against a flat model, driven by an operation string.
#include "../Fuzz.h"
#include "support/ChainModel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sError = kelto_test::RunChainModel(aData, aSize);
    kelto_fuzz::Require(sError.empty(), sError.c_str());
    return 0;
}
