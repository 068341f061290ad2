// replaceCaseMatch; the first two lines are what is replaced and by what.
#include "../Fuzz.h"
#include "CmHttpUrl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const std::string sFrom = input.Line();
    const std::string sTo = input.Line();
    const std::string sText = std::string(input.Rest().c_str());
    std::string sExpected;
    for (size_t i = 0; i < sText.size();) {
        if (!sFrom.empty() && sText.compare(i, sFrom.size(), sFrom) == 0) {
            sExpected += sTo;
            i += sFrom.size();
        } else {
            sExpected += sText[i++];
        }
    }
    UTIL_NS::CCmString strResult = "before ";
    UTIL_NS::replaceCaseMatch(sText.c_str(), sFrom, sTo, strResult);
    kelto_fuzz::Require(strResult == (sFrom == sTo ? sText : "before " + sExpected), "replaced");
    // The arguments may overlap.
    UTIL_NS::CCmString strSame = sText;
    UTIL_NS::replaceCaseMatch(strSame.c_str(), strSame, sTo, strSame);
    return 0;
}
