// Values out of a text that holds simple XML. The first line is the tag.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "../Fuzz.h"
#include "CmXml.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

bool FindExpected(const std::string& aXml, const std::string& aTag, std::string& aValue) {
    const size_t nOpen = aXml.find("<" + aTag + ">");
    if (nOpen == std::string::npos) {
        return false;
    }
    size_t nStart = nOpen + aTag.size() + 2;
    while (nStart < aXml.size() && strchr(" \t\r\n", aXml[nStart]) != nullptr) {
        ++nStart;
    }
    const size_t nEnd = aXml.find("</" + aTag + ">", nStart);
    if (nEnd == std::string::npos) {
        return false;
    }
    aValue = aXml.substr(nStart, nEnd - nStart);
    aValue.erase(aValue.find_last_not_of(" \t\r\n") + 1);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const std::string sTag = std::string(input.Line().c_str());
    std::string sXml = std::string(input.Rest().c_str());
    std::string sExpected;
    const bool bFound = FindExpected(sXml, sTag, sExpected);

    const int nMax = static_cast<int>(aSize % 40);
    const std::unique_ptr<char[]> pOut(new char[static_cast<size_t>(nMax) + 1]);
    char szDefault[] = "default";
    const bool bFits = bFound && sExpected.size() <= static_cast<size_t>(nMax);
    char* pResult = get_string_from_XML(&sXml[0], sTag.c_str(), nMax, pOut.get(), szDefault);
    Require(pResult == (bFits ? pOut.get() : szDefault), "found as expected");
    Require(!bFits || sExpected == pOut.get(), "the value");
    pResult = xml_get_string(&sXml[0], sTag.c_str(), static_cast<unsigned short>(nMax), pOut.get(),
                             szDefault);
    Require(pResult == (bFits ? pOut.get() : szDefault), "the same by the other name");

    char* pEnd = nullptr;
    const long lValue = strtol(sExpected.c_str(), &pEnd, 10);
    const bool bNumber = bFound && sExpected.size() <= 64 && pEnd != sExpected.c_str();
    const auto expected = static_cast<int32_t>(bNumber ? lValue : 77);
    Require(get_int32_from_XML(&sXml[0], sTag.c_str(), 77) == expected, "int32");
    Require(static_cast<int32_t>(xml_get_int32(&sXml[0], sTag.c_str(), 77)) == expected,
            "int32 by the other name");
    Require(xml_get_uint16(&sXml[0], sTag.c_str(), 77) == static_cast<uint16_t>(expected),
            "uint16");
    Require(xml_get_int16(&sXml[0], sTag.c_str(), 77) == static_cast<uint16_t>(expected), "int16");
    get_uint32_from_XML(&sXml[0], sTag.c_str(), 77);
    xml_get_uint32(&sXml[0], sTag.c_str(), 77);
    get_double_from_XML(&sXml[0], sTag.c_str(), 1.5);
    return 0;
}
