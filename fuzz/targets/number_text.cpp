// Numbers to text, in buffers that may be too small.
#include <memory>

#include "../Fuzz.h"
#include "CmEncoding.h"

using kelto_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const int nSize = static_cast<int>(input.Byte() % 26);
    const auto llValue = input.Bits<int64_t>() >> (input.Byte() % 64);
    std::string sExpected = std::to_string(llValue);
    if (llValue == 0) {
        sExpected = "-0";
    }
    const std::unique_ptr<char[]> pText(new char[static_cast<size_t>(nSize)]);
    const UTIL_NS::CmResult rv =
        UTIL_NS::xtoa_yrk(static_cast<long long>(llValue), pText.get(), nSize);
    const bool bFits = nSize >= 3 && sExpected.size() < static_cast<size_t>(nSize);
    Require(rv == (bFits ? UTIL_NS::CM_OK : UTIL_NS::CM_ERROR_FAILURE), "result");
    Require(!bFits || sExpected == pText.get(), "text");
    return 0;
}
