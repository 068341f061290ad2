#include "FlightFile.h"

#include <algorithm>
#include <cstring>

#include "CmFlightFormat.h"

using namespace UTIL_NS;

namespace kelto_fuzz {

namespace {

constexpr uint32_t CLASSES = 4;
constexpr uint32_t SLOTS = 2;
constexpr uint32_t UNITS = 16;
constexpr uint64_t START = UINT64_C(1795339800000000);

struct CRing {
    CCmFlightSlot slot;
    CCmFlightUnit units[UNITS];
};

struct CSmallFile {
    CCmFlightHeader header;
    CCmFlightClass classes[CLASSES];
    CRing rings[SLOTS];
};

// Small numbers, which meet each other, for most first bytes; any for the last one.
uint64_t Word(Input& aInput) {
    const unsigned uByte = aInput.Byte();
    return uByte < 0xFF ? uByte : aInput.Bits<uint64_t>();
}

uint64_t Time(Input& aInput) {
    const unsigned uByte = aInput.Byte();
    return uByte < 0xFF ? START + 100 * uint64_t{uByte} : aInput.Bits<uint64_t>();
}

template <size_t SIZE>
void TakeName(Input& aInput, char (&aName)[SIZE]) {
    const std::string sName = aInput.Line();
    std::memcpy(aName, sName.data(), std::min(sName.size(), SIZE));
}

void AddUnit(Input& aInput, CRing& aRing, unsigned aKind) {
    CCmFlightUnit& unit = aRing.units[aRing.slot.m_ullWritten++ % UNITS];
    unit.m_ullHead = uint64_t{aKind} << CM_FLIGHT_KIND_SHIFT;
    unit.m_ullHead |=
        (aKind == CCmFlightUnit::TEXT ? Word(aInput) : Time(aInput)) & CM_FLIGHT_TIME_MASK;
    for (uint64_t& ullWord : unit.m_ullWords) {
        ullWord = Word(aInput);
    }
}

void SetFigures(Input& aInput, CCmFlightSlot& aSlot) {
    uint64_t ullWords[sizeof(CCmFlightFigures) / sizeof(uint64_t)];
    for (uint64_t& ullWord : ullWords) {
        ullWord = Word(aInput);
    }
    std::memcpy(&aSlot.m_Figures, ullWords, sizeof(ullWords));
    aSlot.m_ullFiguresCount = Word(aInput);
    aSlot.m_ullFiguresWall = Time(aInput);
    aSlot.m_ullCurrentTable = Word(aInput);
    aSlot.m_ullCurrentStart = Time(aInput);
}

void SetSlot(Input& aInput, CRing& aRing) {
    aRing.slot.m_dwState = aInput.Byte() % 4;
    aRing.slot.m_dwNumber = aInput.Byte();
    aRing.slot.m_ullFirst = Word(aInput);
    aRing.slot.m_ullStart = Time(aInput);
    aRing.slot.m_ullEnd = Time(aInput);
    TakeName(aInput, aRing.slot.m_szName);
}

CSmallFile WholeFile() {
    CSmallFile file = {};
    std::memcpy(file.header.m_achMagic, CM_FLIGHT_MAGIC, sizeof(CM_FLIGHT_MAGIC));
    file.header.m_dwVersion = CM_FLIGHT_VERSION;
    file.header.m_dwHeaderSize = sizeof(CCmFlightHeader);
    file.header.m_ullFileSize = sizeof(file);
    file.header.m_dwClassSize = sizeof(CCmFlightClass);
    file.header.m_dwClassCount = CLASSES;
    file.header.m_ullSlotsOffset = offsetof(CSmallFile, rings);
    file.header.m_dwSlotSize = sizeof(CRing);
    file.header.m_dwSlotCount = SLOTS;
    file.header.m_dwRingOffset = sizeof(CCmFlightSlot);
    file.header.m_dwUnitSize = sizeof(CCmFlightUnit);
    file.header.m_dwUnitCount = UNITS;
    file.header.m_dwProcessId = 4711;
    file.header.m_ullStartWall = START;
    file.header.m_ullTickWall = START + 1000000;
    for (uint32_t i = 0; i < CLASSES; ++i) {
        file.classes[i].m_ullTable = i + 1;
        file.classes[i].m_dwState = CCmFlightClass::COMPLETE;
    }
    for (uint32_t i = 0; i < SLOTS; ++i) {
        file.rings[i].slot.m_dwState = CCmFlightSlot::LIVE;
        file.rings[i].slot.m_dwNumber = i + 1;
        file.rings[i].slot.m_ullStart = START;
        file.rings[i].slot.m_ullFiguresWall = START;
    }
    return file;
}

// The characters of a text in JSON, which begins with its quotation mark.
size_t JsonTextLength(std::string_view aText) {
    for (size_t i = 1; i < aText.size(); ++i) {
        if (aText[i] == '"') {
            return i + 1;
        }
        if (aText[i] != '\\') {
            continue;
        }
        ++i;
        const size_t nFigures = i < aText.size() && aText[i] == 'u' ? 4 : 0;
        if (i >= aText.size() || std::strchr("\"\\/bfnrtu", aText[i]) == nullptr ||
            aText.substr(i + 1, nFigures).find_first_not_of("0123456789abcdef") !=
                std::string_view::npos) {
            return 0;
        }
        i += nFigures;
    }
    return 0;
}

void SkipSpace(std::string_view& aText) {
    aText.remove_prefix(std::min(aText.find_first_not_of(" \n"), aText.size()));
}

bool Take(std::string_view& aText, std::string_view aWord) {
    SkipSpace(aText);
    if (aText.substr(0, aWord.size()) != aWord) {
        return false;
    }
    aText.remove_prefix(aWord.size());
    return true;
}

bool TakeJson(std::string_view& aText, unsigned aDepth);

bool TakeJsonText(std::string_view& aText) {
    SkipSpace(aText);
    const size_t nLength = !aText.empty() && aText[0] == '"' ? JsonTextLength(aText) : 0;
    aText.remove_prefix(nLength);
    return nLength > 0;
}

bool TakeMembers(std::string_view& aText, unsigned aDepth, bool aIsNamed, std::string_view aEnd) {
    if (Take(aText, aEnd)) {
        return true;
    }
    do {
        if (aIsNamed && !(TakeJsonText(aText) && Take(aText, ":"))) {
            return false;
        }
        if (!TakeJson(aText, aDepth + 1)) {
            return false;
        }
    } while (Take(aText, ","));
    return Take(aText, aEnd);
}

bool TakeNumber(std::string_view& aText) {
    Take(aText, "-");
    const size_t nLength = std::min(aText.find_first_not_of("0123456789"), aText.size());
    if (nLength == 0 || (nLength > 1 && aText[0] == '0')) {
        return false;
    }
    aText.remove_prefix(nLength);
    if (!aText.empty() && aText[0] == '.') {
        const size_t nPoint = std::min(aText.find_first_not_of("0123456789", 1), aText.size());
        aText.remove_prefix(nPoint);
        return nPoint > 1;
    }
    return true;
}

bool TakeJson(std::string_view& aText, unsigned aDepth) {
    if (aDepth > 10) {
        return false;
    }
    if (Take(aText, "{")) {
        return TakeMembers(aText, aDepth, true, "}");
    }
    if (Take(aText, "[")) {
        return TakeMembers(aText, aDepth, false, "]");
    }
    return Take(aText, "true") || Take(aText, "false") || Take(aText, "null") ||
           TakeJsonText(aText) || TakeNumber(aText);
}

// The length of the UTF-8 character in front, 0 when there is none; control characters are none.
size_t CharacterLength(std::string_view aText) {
    const auto byFirst = static_cast<unsigned char>(aText[0]);
    const size_t nLength = byFirst < 0x80   ? 1
                           : byFirst < 0xC2 ? 0
                           : byFirst < 0xE0 ? 2
                           : byFirst < 0xF0 ? 3
                           : byFirst < 0xF5 ? 4
                                            : 0;
    if (nLength == 0 || nLength > aText.size() || byFirst < 0x20 || byFirst == 0x7F ||
        (byFirst == 0xC2 && static_cast<unsigned char>(aText[1]) < 0xA0)) {
        return 0;
    }
    for (size_t i = 1; i < nLength; ++i) {
        if ((static_cast<unsigned char>(aText[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return nLength;
}

}  // namespace

std::string FlightFile(Input& aInput) {
    const unsigned uMode = aInput.Byte();
    if (uMode == 0) {
        return aInput.Rest();
    }
    CSmallFile file = WholeFile();
    TakeName(aInput, file.header.m_szProcess);
    for (uint32_t i = 0; i < uMode % (CLASSES + 1); ++i) {
        TakeName(aInput, file.classes[i].m_szName);
    }
    size_t nLength = sizeof(file);
    while (!aInput.AtEnd()) {
        const unsigned uWhat = aInput.Byte();
        CRing& ring = file.rings[uWhat >> 7];
        switch (uWhat & 0x1F) {
            case 16:
                SetFigures(aInput, ring.slot);
                break;
            case 17:
                SetSlot(aInput, ring);
                break;
            case 18:
                ring.slot.m_ullWritten = Word(aInput);
                break;
            case 19:  // any byte
            {
                const size_t nAt = aInput.Bits<uint16_t>() % sizeof(file);
                reinterpret_cast<unsigned char*>(&file)[nAt] =
                    static_cast<unsigned char>(aInput.Byte());
                break;
            }
            case 20:
                nLength = aInput.Bits<uint16_t>() % (sizeof(file) + 1);
                break;
            default:
                AddUnit(aInput, ring, uWhat & 0x0F);
                break;
        }
    }
    return std::string(reinterpret_cast<const char*>(&file), nLength);
}

bool IsPrintable(std::string_view aText) {
    while (!aText.empty()) {
        const size_t nLength = aText[0] == '\n' ? 1 : CharacterLength(aText);
        if (nLength == 0) {
            return false;
        }
        aText.remove_prefix(nLength);
    }
    return true;
}

bool IsJson(std::string_view aText) {
    if (!TakeJson(aText, 0)) {
        return false;
    }
    SkipSpace(aText);
    return aText.empty();
}

}  // namespace kelto_fuzz
