// Look-ups in the main configuration file: texts and every typed getter.
#include <algorithm>
#include <cstring>
#include <memory>

#include "../Fuzz.h"
#include "CmConfig.h"
#include "support/ProfileModel.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

constexpr size_t VALUE_MAX = 255;

const std::string NONE = "\n";  // no value can hold a line end

// What the file says, cut and without a ";" at its end; NONE also for an empty value.
std::string Expected(const std::string& aContent, const std::string& aKey) {
    std::string sValue = kelto_test::ModelFind(kelto_test::ModelRecords(aContent), "s", aKey, NONE)
                             .substr(0, VALUE_MAX);
    if (sValue.empty()) {
        return NONE;
    }
    if (sValue.back() == ';') {
        sValue.pop_back();
    }
    return sValue;
}

bool IsTrue(std::string aText) {
    std::transform(aText.begin(), aText.end(), aText.begin(),
                   [](char ch) { return 'a' <= ch && ch <= 'z' ? char(ch - 0x20) : ch; });
    return aText == "TRUE";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("conf/kelto.cfg");
    kelto_fuzz::Input input(aData, aSize);
    const std::string sContent = input.Rest();
    file.SetContent(sContent);
    const std::string sExpected = Expected(sContent, "k");
    const bool bFound = sExpected != NONE;

    char szValue[VALUE_MAX + 1];
    Require(get_string_param("s", "k", szValue, sizeof(szValue)) == (bFound ? 1 : 0), "found");
    Require(szValue == (bFound ? sExpected : ""), "the text");
    const std::unique_ptr<char[]> pSmall(new char[4]);
    get_string_param("s", "k", pSmall.get(), 4);
    Require(strnlen(pSmall.get(), 4) < 4, "a small buffer is terminated");

    const long lValue = bFound ? strtol(sExpected.c_str(), nullptr, 10) : 0;
    Require(get_int_param("s", "k") == static_cast<int>(lValue), "int");
    Require(get_uint16_param("s", "k") == static_cast<uint16_t>(lValue), "uint16");
    const unsigned long ulValue = bFound ? strtoul(sExpected.c_str(), nullptr, 10) : 0;
    Require(get_uint32_param("s", "k") == static_cast<uint32_t>(ulValue), "uint32");
    Require(get_bool_param("s", "k", 2) == (bFound ? IsTrue(sExpected) : 2), "bool");

    CCmConfigInitFile config;
    Require(config.GetStringParam("s", "k", NONE) == sExpected, "string of the object");
    config.GetIntParam("s", "k", 7);
    config.GetDwordParam("s", "k", 7);
    config.GetWordParam("s", "k", 7);
    config.GetBoolParam("s", "k", 1);
    get_int_from_profile("s", "k", 7, file.path().c_str());
    return 0;
}
