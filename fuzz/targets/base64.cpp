// The codec on strings: round trip, and arbitrary text.
#include "../Fuzz.h"
#include "CmBase64.h"
#include "CmEncoding.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    CCmString strText;
    CCmString strBytes;
    CM_Base64Encode(aData, aSize, strText);
    Require(strText.size() == CmBase64EncodedLength(aSize), "length of the text");
    CM_Base64Decode(strText.c_str(), strBytes);
    Require(strBytes == std::string(reinterpret_cast<const char*>(aData), aSize), "round trip");

    const std::string sRaw = std::string(kelto_fuzz::Input(aData, aSize).Rest().c_str());
    CM_Base64Decode(sRaw.c_str(), strBytes);
    const size_t nBlanks = sRaw.find_first_not_of(" \t");
    size_t nDigits = 0;
    while (nBlanks != std::string::npos && nBlanks + nDigits < sRaw.size() &&
           pr2six[static_cast<unsigned char>(sRaw[nBlanks + nDigits])] < CM_BASE64_INVALID) {
        ++nDigits;
    }
    Require(nDigits % 4 == 1 || strBytes.size() == nDigits * 3 / 4, "length of the bytes");
    Require(nDigits % 4 != 1 || strBytes.size() - nDigits / 4 * 3 - 1 <= 1,
            "length with a digit left over");
    strText = sRaw;
    CM_Base64Decode(strText.c_str(), strText);
    Require(strText == strBytes, "in place");
    return 0;
}
