// Strict numbers, booleans, durations and sizes, against from_chars, strtoll and plain models.
#include <cerrno>
#include <charconv>
#include <limits>

#include "../Fuzz.h"
#include "CmStrict.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

template <class Integer>
void CompareWithFromChars(const std::string& aText, int aBase) {
    Integer ours = 1;
    Integer theirs = 1;
    const char* pEnd = aText.data() + aText.size();
    const auto result = std::from_chars(aText.data(), pEnd, theirs, aBase);
    const bool bWhole = result.ptr == pEnd && result.ec != std::errc::invalid_argument;
    const CCmParsed parsed = CmParseNumber(aText, ours, std::numeric_limits<Integer>::min(),
                                           std::numeric_limits<Integer>::max(), aBase);
    Require((bWhole && result.ec == std::errc()) == static_cast<bool>(parsed), "good numbers");
    Require((bWhole && result.ec == std::errc::result_out_of_range) ==
                (parsed.m_Result == CM_ERROR_FAILURE),
            "numbers out of range");
    Require(!parsed || ours == theirs, "the number");
    Require(parsed || ours == 1, "nothing is stored");
    Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
}

// strtoll takes blanks and a plus in front, too.
void CompareWithStrtoll(const std::string& aText) {
    int64_t llOurs = 0;
    if (CmParseNumber(aText, llOurs)) {
        errno = 0;
        char* pEnd = nullptr;
        Require(strtoll(aText.c_str(), &pEnd, 10) == llOurs && errno == 0, "as strtoll");
        Require(pEnd == aText.c_str() + aText.size(), "all of it");
    }
}

struct Unit {
    const char* name;
    long long factor;
};
constexpr Unit DURATIONS[] = {{"us", 1},         {"ms", 1000},      {"s", 1000000},
                              {"min", 60000000}, {"h", 3600000000}, {"d", 86400000000}};
constexpr Unit SIZES[] = {{"", 1},
                          {"B", 1},
                          {"kB", 1000},
                          {"MB", 1000000},
                          {"GB", 1000000000},
                          {"TB", 1000000000000},
                          {"KiB", 1LL << 10},
                          {"MiB", 1LL << 20},
                          {"GiB", 1LL << 30},
                          {"TiB", 1LL << 40}};

size_t Digits(const std::string& aText, size_t aAt) {
    const size_t nEnd = aText.find_first_not_of("0123456789", aAt);
    return (nEnd == std::string::npos ? aText.size() : nEnd) - aAt;
}

// Numbers of few digits, so that nothing overflows: up to 8 before the point, and 7 after it.
// The range begins at 0, so that "-0s" is good and "-1s" is not.
void CompareDurations(const std::string& aWhole) {
    CCmTimeValue tvOurs(-7);
    const CCmParsed parsed = CmParseDuration(aWhole, tvOurs);
    Require(parsed || tvOurs == CCmTimeValue(-7), "nothing is stored");
    Require(parsed.m_nAt <= aWhole.size(), "the place lies in the text");
    const bool bNegative = aWhole[0] == '-';
    const std::string sText = aWhole.substr(bNegative ? 1 : 0);
    const size_t nWhole = Digits(sText, 0);
    const bool bPoint = sText[nWhole] == '.';
    const size_t nFraction = bPoint ? Digits(sText, nWhole + 1) : 0;
    const std::string sUnit = sText.substr(nWhole + (bPoint ? 1 : 0) + nFraction);
    if (nWhole > 8 || nFraction > 7) {
        return;
    }
    bool bGood = false;
    long long llUsec = 0;
    for (const Unit& unit : DURATIONS) {
        if (sUnit == unit.name && nWhole > 0 && (!bPoint || nFraction > 0)) {
            long long llScale = 1;
            for (size_t i = 0; i < nFraction; ++i) {
                llScale *= 10;
            }
            const long long llFraction =
                nFraction == 0 ? 0 : std::stoll(sText.substr(nWhole + 1, nFraction));
            bGood = llFraction * unit.factor % llScale == 0;
            llUsec = llFraction * unit.factor / llScale +
                     std::stoll(sText.substr(0, nWhole)) * unit.factor;
        }
    }
    bGood = bGood && (!bNegative || llUsec == 0);
    Require(bGood == static_cast<bool>(parsed), "good durations");
    Require(!bGood || tvOurs == CCmTimeValue(llUsec / 1000000, llUsec % 1000000), "the duration");
}

void CompareSizes(const std::string& aText) {
    uint64_t ullOurs = 7;
    const CCmParsed parsed = CmParseSize(aText, ullOurs);
    Require(parsed || ullOurs == 7, "nothing is stored");
    Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
    const size_t nDigits = Digits(aText, 0);
    if (nDigits > 6) {
        return;
    }
    bool bGood = false;
    for (const Unit& unit : SIZES) {
        if (nDigits > 0 && aText.substr(nDigits) == unit.name) {
            bGood = true;
            Require(!parsed || ullOurs == std::stoull(aText) * static_cast<uint64_t>(unit.factor),
                    "the size");
        }
    }
    Require(bGood == static_cast<bool>(parsed), "good sizes");
}

void CompareBools(const std::string& aText) {
    std::string sLower;
    for (const char ch : aText) {
        sLower += 'A' <= ch && ch <= 'Z' ? static_cast<char>(ch + 32) : ch;
    }
    const bool bYes = sLower == "true" || sLower == "yes" || sLower == "on" || sLower == "1";
    const bool bNo = sLower == "false" || sLower == "no" || sLower == "off" || sLower == "0";
    bool bValue = !bYes;
    Require(static_cast<bool>(CmParseBool(aText, bValue)) == (bYes || bNo), "good booleans");
    Require(!(bYes || bNo) || bValue == bYes, "the boolean");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const int nBase = 2 + static_cast<int>(input.Byte() % 35);
    const std::string sText = input.Rest();
    for (const int nOneOf : {10, nBase}) {
        CompareWithFromChars<int64_t>(sText, nOneOf);
        CompareWithFromChars<uint64_t>(sText, nOneOf);
        CompareWithFromChars<int16_t>(sText, nOneOf);
        CompareWithFromChars<uint8_t>(sText, nOneOf);
    }
    CompareWithStrtoll(sText);
    CompareDurations(sText);
    CompareSizes(sText);
    CompareBools(sText);
    return 0;
}
