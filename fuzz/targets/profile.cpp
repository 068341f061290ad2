// The profile reader, from a stream and from a file, against the model.
#include <memory>

#include "../Fuzz.h"
#include "CmConfig.h"
#include "support/ProfileModel.h"

using kelto_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("profile");
    kelto_fuzz::Input input(aData, aSize);
    const std::string sSection = std::string(input.Line().c_str());
    const std::string sKey = std::string(input.Line().c_str());
    const std::string sContent = input.Rest();
    file.SetContent(sContent);
    const std::string sExpected =
        kelto_test::ModelFind(kelto_test::ModelRecords(sContent), sSection, sKey);

    char szValue[4096];
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fopen(file.path().c_str(), "rt"), fclose);
    const int nFound = UTIL_NS::read_init_file(pFile.get(), sSection.c_str(), sKey.c_str(), szValue,
                                               sizeof(szValue));
    Require(sExpected == (nFound == 1 ? szValue : "(none)"), "the stream reads as the model");
    const int nLength = UTIL_NS::get_string_from_profile(
        sSection.c_str(), sKey.c_str(), "(none)", szValue, sizeof(szValue), file.path().c_str());
    Require(sExpected == szValue, "the file reads as the model");
    Require(nLength == static_cast<int>(sExpected.size()), "the length is returned");

    // A buffer that may be too small gets a prefix, terminated.
    const size_t nSmall = 1 + aSize % 16;
    const std::unique_ptr<char[]> pSmall(new char[nSmall]);
    UTIL_NS::get_string_from_profile(sSection.c_str(), sKey.c_str(), "(none)", pSmall.get(),
                                     static_cast<int>(nSmall), file.path().c_str());
    Require(sExpected.substr(0, nSmall - 1) == pSmall.get(), "a small buffer gets a prefix");
    return 0;
}
