// The configuration reader against the model, and its typed values against the parsers.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "../Fuzz.h"
#include "CmConfigReader.h"
#include "CmSystem.h"
#include "support/ProfileModel.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

// The file, in memory and long settled.
std::string g_sContent;

int Open(const char*, int, mode_t) {
    return 1000;
}
int Close(int) {
    return 0;
}
int Fstat(int, struct stat* aState) {
    *aState = {};
    aState->st_size = static_cast<off_t>(g_sContent.size());
    return 0;
}
ssize_t Pread(int, void* aBuffer, size_t aSize, off_t aPosition) {
    const size_t nAt = std::min(static_cast<size_t>(aPosition), g_sContent.size());
    const size_t nLength = std::min(aSize, g_sContent.size() - nAt);
    memcpy(aBuffer, g_sContent.data() + nAt, nLength);
    return static_cast<ssize_t>(nLength);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    g_cmSystem.open = Open;
    g_cmSystem.close = Close;
    g_cmSystem.fstat = Fstat;
    g_cmSystem.pread = Pread;
    kelto_fuzz::Input input(aData, aSize);
    const std::string sSection = std::string(input.Line().c_str());
    const std::string sKey = std::string(input.Line().c_str());
    g_sContent = input.Rest();
    const std::string sExpected =
        kelto_test::ModelFind(kelto_test::ModelRecords(g_sContent), sSection, sKey);

    CCmConfigReader config;
    Require(config.Read("file") == CM_OK, "it can be read");
    std::string_view text = "(none)";
    const bool bFound = config.GetText(sSection, sKey, text) == CM_OK;
    Require(text == sExpected, "reads as the model");
    int nNumber = 0;
    bool bValue = false;
    CCmTimeValue tvDuration;
    uint64_t ullBytes = 0;
    CCmIpAddress address;
    size_t nBad = 0;
    const auto count = [&](CmResult aResult, bool aGood) {
        Require(aResult == (!bFound ? CM_ERROR_NOT_FOUND
                            : aGood ? CM_OK
                                    : CM_ERROR_INVALID_ARG),
                "absent, good or bad");
        nBad += aResult == CM_ERROR_INVALID_ARG ? 1 : 0;
    };
    count(config.GetNumber(sSection, sKey, nNumber),
          static_cast<bool>(CmParseNumber(text, nNumber)));
    count(config.GetBool(sSection, sKey, bValue), static_cast<bool>(CmParseBool(text, bValue)));
    count(config.GetDuration(sSection, sKey, tvDuration),
          static_cast<bool>(CmParseDuration(text, tvDuration)));
    count(config.GetSize(sSection, sKey, ullBytes), static_cast<bool>(CmParseSize(text, ullBytes)));
    count(config.GetAddress(sSection, sKey, address),
          static_cast<bool>(CmParseIpAddress(text, address)));
    Require(config.problems().size() == nBad, "a sentence each");
    for (const CCmString& strSentence : config.problems()) {
        Require(std::all_of(strSentence.begin(), strSentence.end(),
                            [](char ch) { return static_cast<unsigned char>(ch) >= 0x20; }),
                "printable");
    }
    std::vector<CCmString> sentences;
    Require(config.ListUnasked("", sentences) == CM_OK, "lists");
    return 0;
}
