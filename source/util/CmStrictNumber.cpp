#include "CmStrict.h"

#include <algorithm>
#include <numeric>

#include "CmAscii.h"
#include "CmStrictResult.h"

namespace UTIL_NS {

namespace {

constexpr char A_DIGIT[] = "a digit";
constexpr char IN_RANGE[] = "a number within the range";
// So many decimal digits fit whatever they are.
constexpr size_t SAFE_DIGITS = 19;

constexpr unsigned NO_DIGIT = 255;
constexpr unsigned MAX_BASE = 36;

unsigned DigitOf(char aChar) {
    if (CmIsDigit(aChar)) {
        return static_cast<unsigned>(aChar - '0');
    }
    return CmIsLetter(aChar) ? static_cast<unsigned>(CmToLower(aChar) - 'a') + 10 : NO_DIGIT;
}

// The digits of a text from aAt on, up to the first other character; returns where that is.
// aFits: whether the number fits into 64 bits.
inline size_t TakeDigits(std::string_view aText, size_t aAt, uint64_t& aNumber, bool& aFits,
                         unsigned aBase) {
    size_t nAt = aAt;
    uint64_t ullNumber = 0;
    if (aBase == 10) {
        const size_t nSafe = std::min(aText.size(), aAt + SAFE_DIGITS);
        for (; nAt < nSafe; ++nAt) {
            const unsigned dwDigit = static_cast<unsigned char>(aText[nAt]) - unsigned{'0'};
            if (dwDigit > 9) {
                break;
            }
            ullNumber = ullNumber * 10 + dwDigit;
        }
    }
    bool bFits = true;
    for (; nAt < aText.size(); ++nAt) {
        const unsigned dwDigit = DigitOf(aText[nAt]);
        if (dwDigit >= aBase) {
            break;
        }
        bFits = bFits && !__builtin_mul_overflow(ullNumber, uint64_t{aBase}, &ullNumber) &&
                !__builtin_add_overflow(ullNumber, uint64_t{dwDigit}, &ullNumber);
    }
    aNumber = ullNumber;
    aFits = bFits;
    return nAt;
}

// All of a text from aAt on as one number.
inline CCmParsed AllDigits(std::string_view aText, size_t aAt, uint64_t& aNumber, bool& aFits,
                           int aBase) {
    if (aBase < 2 || aBase > static_cast<int>(MAX_BASE)) {
        return CmRefused(0, "a base from 2 to 36");
    }
    const size_t nEnd = TakeDigits(aText, aAt, aNumber, aFits, static_cast<unsigned>(aBase));
    return nEnd == aAt || nEnd != aText.size() ? CmRefused(nEnd, A_DIGIT) : CCmParsed();
}

struct CSizeUnit {
    std::string_view m_name;
    uint64_t m_ullBytes;
};
constexpr CSizeUnit SIZE_UNITS[] = {
    {"", 1},
    {"B", 1},
    {"kB", 1000},
    {"KiB", uint64_t{1} << 10},
    {"MB", 1000000},
    {"MiB", uint64_t{1} << 20},
    {"GB", 1000000000},
    {"GiB", uint64_t{1} << 30},
    {"TB", 1000000000000},
    {"TiB", uint64_t{1} << 40},
};

constexpr uint64_t SECOND = 1000000;  // microseconds

struct CDurationUnit {
    std::string_view m_name;
    uint64_t m_ullUsec;
};
constexpr CDurationUnit DURATION_UNITS[] = {
    {"us", 1},
    {"ms", 1000},
    {"s", SECOND},
    {"min", 60 * SECOND},
    {"h", 3600 * SECOND},
    {"d", 86400 * SECOND},
};
// A fraction of a day in whole microseconds has no more digits: a day is 2^13 * 3^3 * 5^8 of them.
constexpr size_t MAX_FRACTION = 13;

template <class Unit, size_t N>
const Unit* FindUnit(const Unit (&aUnits)[N], std::string_view aName) {
    const Unit* pUnit = std::find_if(std::begin(aUnits), std::end(aUnits),
                                     [aName](const Unit& unit) { return unit.m_name == aName; });
    return pUnit == std::end(aUnits) ? nullptr : pUnit;
}

// The microseconds that a fraction of aUnit is; false when they are not whole.
bool FractionOf(std::string_view aDigits, uint64_t aUnit, uint64_t& aUsec) {
    const size_t nLength = aDigits.find_last_not_of('0') + 1;  // 0 when there are only zeros
    uint64_t ullDigits = 0;
    uint64_t ullScale = 1;
    if (nLength > MAX_FRACTION) {
        return false;
    }
    for (const char ch : aDigits.substr(0, nLength)) {
        ullDigits = ullDigits * 10 + static_cast<uint64_t>(ch - '0');
        ullScale *= 10;
    }
    // digits * unit / scale, reduced first: no product exceeds 64 bits.
    const uint64_t ullCommon = std::gcd(aUnit, ullScale);
    if (ullDigits % (ullScale / ullCommon) != 0) {
        return false;
    }
    aUsec = ullDigits / (ullScale / ullCommon) * (aUnit / ullCommon);
    return true;
}

// aCount units and aUsec microseconds, which are less than a unit; false when that is too much.
bool MakeDuration(uint64_t aCount, uint64_t aUnit, uint64_t aUsec, bool aNegative,
                  CCmTimeValue& aDuration) {
    uint64_t ullSec = 0;
    uint64_t ullUsec = aUsec % SECOND;
    if (aUnit >= SECOND) {
        if (__builtin_mul_overflow(aCount, aUnit / SECOND, &ullSec)) {
            return false;
        }
    } else {
        ullSec = aCount / (SECOND / aUnit);
        ullUsec += aCount % (SECOND / aUnit) * aUnit;
    }
    if (__builtin_add_overflow(ullSec, aUsec / SECOND, &ullSec) || ullSec > INT64_MAX) {
        return false;
    }
    const long lSec = static_cast<long>(ullSec);
    const long lUsec = static_cast<long>(ullUsec);
    aDuration = aNegative ? CCmTimeValue(-lSec, -lUsec) : CCmTimeValue(lSec, lUsec);
    return true;
}

}  // namespace

CCmParsed CmParseUnsigned(std::string_view aText, uint64_t& aNumber, uint64_t aMin, uint64_t aMax,
                          int aBase) {
    uint64_t ullNumber = 0;
    bool bFits = false;
    const CCmParsed parsed = AllDigits(aText, 0, ullNumber, bFits, aBase);
    if (!parsed) {
        return parsed;
    }
    if (!bFits || ullNumber < aMin || ullNumber > aMax) {
        return CmOutOfRange(0, IN_RANGE);
    }
    aNumber = ullNumber;
    return CCmParsed();
}

CCmParsed CmParseSigned(std::string_view aText, int64_t& aNumber, int64_t aMin, int64_t aMax,
                        int aBase) {
    const bool bNegative = !aText.empty() && aText.front() == '-';
    uint64_t ullNumber = 0;
    bool bFits = false;
    const CCmParsed parsed = AllDigits(aText, bNegative ? 1 : 0, ullNumber, bFits, aBase);
    if (!parsed) {
        return parsed;
    }
    const uint64_t ullMost = static_cast<uint64_t>(INT64_MAX) + (bNegative ? 1 : 0);
    const auto llNumber = static_cast<int64_t>(bNegative ? uint64_t{0} - ullNumber : ullNumber);
    if (!bFits || ullNumber > ullMost || llNumber < aMin || llNumber > aMax) {
        return CmOutOfRange(0, IN_RANGE);
    }
    aNumber = llNumber;
    return CCmParsed();
}

CCmParsed CmParseBool(std::string_view aText, bool& aValue) {
    constexpr std::string_view YES[] = {"true", "yes", "on", "1"};
    constexpr std::string_view NO[] = {"false", "no", "off", "0"};
    const auto equals = [aText](std::string_view aWord) { return CmEqualsWord(aText, aWord); };
    const bool bYes = std::any_of(std::begin(YES), std::end(YES), equals);
    if (!bYes && std::none_of(std::begin(NO), std::end(NO), equals)) {
        return CmRefused(0, "true, yes, on, 1, false, no, off or 0");
    }
    aValue = bYes;
    return CCmParsed();
}

CCmParsed CmParseSize(std::string_view aText, uint64_t& aBytes, uint64_t aMin, uint64_t aMax) {
    uint64_t ullBytes = 0;
    bool bFits = false;
    const size_t nDigits = TakeDigits(aText, 0, ullBytes, bFits, 10);
    if (nDigits == 0) {
        return CmRefused(0, A_DIGIT);
    }
    const CSizeUnit* pUnit = FindUnit(SIZE_UNITS, aText.substr(nDigits));
    if (pUnit == nullptr) {
        return CmRefused(nDigits, "B, kB, KiB, MB, MiB, GB, GiB, TB, TiB or no unit");
    }
    if (!bFits || __builtin_mul_overflow(ullBytes, pUnit->m_ullBytes, &ullBytes) ||
        ullBytes < aMin || ullBytes > aMax) {
        return CmOutOfRange(0, "a size within the range");
    }
    aBytes = ullBytes;
    return CCmParsed();
}

CCmParsed CmParseDuration(std::string_view aText, CCmTimeValue& aDuration, const CCmTimeValue& aMin,
                          const CCmTimeValue& aMax) {
    const bool bNegative = !aText.empty() && aText.front() == '-';
    const size_t nStart = bNegative ? 1 : 0;
    uint64_t ullCount = 0;
    bool bFits = false;
    const size_t nDigits = TakeDigits(aText, nStart, ullCount, bFits, 10);
    if (nDigits == nStart) {
        return CmRefused(nStart, A_DIGIT);
    }
    const bool bFraction = nDigits < aText.size() && aText[nDigits] == '.';
    const size_t nFraction = bFraction ? nDigits + 1 : nDigits;
    size_t nUnit = nFraction;
    while (bFraction && nUnit < aText.size() && CmIsDigit(aText[nUnit])) {
        ++nUnit;
    }
    if (bFraction && nUnit == nFraction) {
        return CmRefused(nUnit, A_DIGIT);
    }
    const CDurationUnit* pUnit = FindUnit(DURATION_UNITS, aText.substr(nUnit));
    if (pUnit == nullptr) {
        return CmRefused(nUnit, "us, ms, s, min, h or d");
    }
    uint64_t ullUsec = 0;
    if (!FractionOf(aText.substr(nFraction, nUnit - nFraction), pUnit->m_ullUsec, ullUsec)) {
        return CmRefused(nFraction, "a whole number of microseconds");
    }
    CCmTimeValue tvDuration;
    if (!bFits || !MakeDuration(ullCount, pUnit->m_ullUsec, ullUsec, bNegative, tvDuration) ||
        tvDuration < aMin || tvDuration > aMax) {
        return CmOutOfRange(0, "a duration within the range");
    }
    aDuration = tvDuration;
    return CCmParsed();
}

}  // namespace UTIL_NS
