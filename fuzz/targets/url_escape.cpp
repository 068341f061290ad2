// URL escaping within its bounds. The first byte is the size.
#include <cctype>
#include <memory>

#include "../Fuzz.h"
#include "CmEncoding.h"

using kelto_fuzz::Require;

namespace {

void Append(std::string& aText, unsigned char aByte) {
    static const char HEX[] = "0123456789abcdef";
    if (isdigit(aByte) != 0 || (aByte < 0x80 && isalpha(aByte) != 0)) {
        aText += static_cast<char>(aByte);
    } else if (aByte == ' ') {
        aText += '+';
    } else if (aByte < 0x10) {
        aText += '%';
        aText += HEX[aByte];
        aText += '\0';
    } else {
        aText += '%';
        aText += HEX[aByte / 16];
        aText += HEX[aByte % 16];
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const int nSize = static_cast<int>(input.Byte()) - 2;
    std::string sText = std::string(input.Rest().c_str());
    std::string sExpected;
    for (size_t i = 0; i < sText.size() && static_cast<int>(sExpected.size()) < nSize; ++i) {
        Append(sExpected, static_cast<unsigned char>(sText[i]));
    }
    // Nothing past the stated size may be touched.
    const std::unique_ptr<char[]> pOut(new char[static_cast<size_t>(nSize < 0 ? 0 : nSize) + 3]);
    Require(UTIL_NS::url_string_encode(&sText[0], pOut.get(), nSize) == pOut.get(), "result");
    Require(std::string(pOut.get(), sExpected.size()) == sExpected, "escaped text");
    Require(pOut[sExpected.size()] == '\0', "terminated");
    return 0;
}
