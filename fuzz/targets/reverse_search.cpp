// The backward search. The first line is what is looked for.
#include <algorithm>

#include "../Fuzz.h"
#include "CmEncoding.h"

namespace {

std::string Lower(std::string aText) {
    std::transform(aText.begin(), aText.end(), aText.begin(),
                   [](char ch) { return 'A' <= ch && ch <= 'Z' ? char(ch | 0x20) : ch; });
    return aText;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const std::string sSub = std::string(input.Line().c_str());
    std::string sText = std::string(input.Rest().c_str());
    const char* pFound = CM_strcaserstr(&sText[0], sSub.c_str());
    const size_t nExpected = Lower(sText).rfind(Lower(sSub));
    const bool bExpected = !sSub.empty() && !sText.empty() && nExpected != std::string::npos;
    kelto_fuzz::Require(pFound == (bExpected ? &sText[nExpected] : nullptr), "the last place");
    return 0;
}
