#include "CmXml.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "CmAscii.h"

namespace UTIL_NS {

namespace {

constexpr size_t NUMBER_MAX = 64;   // characters of an integer
constexpr size_t DOUBLE_MAX = 256;  // characters of a double

// Finds aOpening + aTag + ">"; aAfter is set to what follows it.
const char* FindTag(const char* aText, const char* aOpening, const char* aTag,
                    const char*& aAfter) {
    const size_t nOpening = std::strlen(aOpening);
    const size_t nTag = std::strlen(aTag);
    for (const char* p = std::strstr(aText, aOpening); p != nullptr;
         p = std::strstr(p + 1, aOpening)) {
        const char* const pName = p + nOpening;
        if (std::strncmp(pName, aTag, nTag) == 0 && pName[nTag] == '>') {
            aAfter = pName + nTag + 1;
            return p;
        }
    }
    return nullptr;
}

// The element's value, without blanks at its ends; false when there is none.
bool FindValue(const char* aXml, const char* aTag, std::string_view& aValue) {
    const char* pValue = nullptr;
    const char* pAfter = nullptr;
    if (aXml == nullptr || aTag == nullptr || FindTag(aXml, "<", aTag, pValue) == nullptr) {
        return false;
    }
    const char* pEnd = FindTag(pValue, "</", aTag, pAfter);
    if (pEnd == nullptr) {
        return false;
    }
    aValue = CmTrimmed(std::string_view(pValue, static_cast<size_t>(pEnd - pValue)));
    return true;
}

bool CopyValue(const char* aXml, const char* aTag, size_t aMax, char* aOut) {
    std::string_view value;
    if (aOut == nullptr || !FindValue(aXml, aTag, value) || value.size() > aMax) {
        return false;
    }
    std::memmove(aOut, value.data(), value.size());
    aOut[value.size()] = '\0';
    return true;
}

// The value of an integer element as aParse (strtol, strtoul) reads it, or aDefault.
template <class Number>
Number ReadNumber(const char* aXml, const char* aTag, Number aDefault,
                  Number (*aParse)(const char*, char**, int)) {
    char szValue[NUMBER_MAX + 1];
    if (!CopyValue(aXml, aTag, NUMBER_MAX, szValue)) {
        return aDefault;
    }
    char* pEnd = szValue;
    const Number value = aParse(szValue, &pEnd, 10);
    return pEnd == szValue ? aDefault : value;
}

long ReadLong(const char* aXml, const char* aTag, unsigned long aDefault) {
    return ReadNumber(aXml, aTag, static_cast<long>(aDefault), std::strtol);
}

unsigned long ReadUnsignedLong(const char* aXml, const char* aTag, unsigned long aDefault) {
    return ReadNumber(aXml, aTag, aDefault, std::strtoul);
}

}  // namespace

char* get_string_from_XML(char* aXml, const char* aTag, int aMax, char* aOut, char* aDefault) {
    const bool bRead = aMax >= 0 && CopyValue(aXml, aTag, static_cast<size_t>(aMax), aOut);
    return bRead ? aOut : aDefault;
}

char* xml_get_string(char* aXml, const char* aTag, unsigned short aMax, char* aOut,
                     char* aDefault) {
    return CopyValue(aXml, aTag, aMax, aOut) ? aOut : aDefault;
}

uint32_t get_uint32_from_XML(char* aXml, const char* aTag, unsigned long aDefault) {
    return static_cast<uint32_t>(ReadUnsignedLong(aXml, aTag, aDefault));
}

int32_t get_int32_from_XML(char* aXml, const char* aTag, unsigned long aDefault) {
    return static_cast<int32_t>(ReadLong(aXml, aTag, aDefault));
}

unsigned long xml_get_uint32(char* aXml, const char* aTag, unsigned long aDefault) {
    return ReadUnsignedLong(aXml, aTag, aDefault);
}

unsigned long xml_get_int32(char* aXml, const char* aTag, unsigned long aDefault) {
    return static_cast<unsigned long>(ReadLong(aXml, aTag, aDefault));
}

unsigned short xml_get_uint16(char* aXml, const char* aTag, unsigned short aDefault) {
    return static_cast<unsigned short>(ReadLong(aXml, aTag, aDefault));
}

unsigned short xml_get_int16(char* aXml, const char* aTag, unsigned short aDefault) {
    return xml_get_uint16(aXml, aTag, aDefault);
}

double get_double_from_XML(char* aXml, const char* aTag, double aDefault) {
    char szValue[DOUBLE_MAX + 1];
    float fValue = 0;
    const bool bRead =
        CopyValue(aXml, aTag, DOUBLE_MAX, szValue) && std::sscanf(szValue, "%f", &fValue) == 1;
    return bRead ? static_cast<double>(fValue) : aDefault;
}

}  // namespace UTIL_NS
