#include <cstdio>
#include <cstring>

#include "CmEncoding.h"
#include "CmT120Trace.h"

namespace UTIL_NS {

namespace {

constexpr unsigned long RESERVED_TAIL = 96;  // bytes at the end of a buffer, never written
constexpr unsigned long NUMBER_SIZE = 65;    // bytes: any integer, sign and terminator
constexpr unsigned long DOUBLE_SIZE = 512;   // bytes: "%f" of the largest double is 317

// "00" to "99".
constexpr char DIGIT_PAIRS[] =
    "00010203040506070809"
    "10111213141516171819"
    "20212223242526272829"
    "30313233343536373839"
    "40414243444546474849"
    "50515253545556575859"
    "60616263646566676869"
    "70717273747576777879"
    "80818283848586878889"
    "90919293949596979899";

template <typename T>
unsigned long Magnitude(T aValue) {
    return aValue < 0 ? 0UL - static_cast<unsigned long>(aValue)
                      : static_cast<unsigned long>(aValue);
}

// Writes backward from aEnd, returns the first digit.
char* FormatHex(unsigned long aValue, char* aEnd) {
    do {
        *--aEnd = "0123456789abcdef"[aValue & 0xF];
        aValue >>= 4;
    } while (aValue != 0);
    return aEnd;
}

// Two digits per division.
char* FormatDecimal(unsigned long aValue, char* aEnd) {
    while (aValue >= 100) {
        aEnd -= 2;
        std::memcpy(aEnd, &DIGIT_PAIRS[aValue % 100 * 2], 2);
        aValue /= 100;
    }
    if (aValue >= 10) {
        aEnd -= 2;
        std::memcpy(aEnd, &DIGIT_PAIRS[aValue * 2], 2);
    } else {
        *--aEnd = static_cast<char>('0' + aValue);
    }
    return aEnd;
}

}  // namespace

CCmT120Trace::Text_Formator::Text_Formator(char* aBuffer, unsigned long aSize)
    : m_pBuffer(aBuffer), m_ulSize(aBuffer != nullptr ? aSize : 0), m_ulPosition(0), m_bHex(0) {
    reset();
}

CCmT120Trace::Text_Formator::~Text_Formator() = default;

void CCmT120Trace::Text_Formator::reset() {
    m_ulPosition = 0;
    m_bHex = 0;
    if (m_ulSize != 0) {
        std::memset(m_pBuffer, 0, m_ulSize);
    }
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(char aValue) {
    return *this << static_cast<int>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(unsigned char aValue) {
    return *this << static_cast<int>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(short aValue) {
    return *this << static_cast<int>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(unsigned short aValue) {
    return *this << static_cast<int>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(int aValue) {
    if (m_bHex) {
        append_number(static_cast<unsigned int>(aValue), false);
    } else {
        append_number(Magnitude(aValue), aValue < 0);
    }
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(unsigned int aValue) {
    append_number(aValue, false);
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(long aValue) {
    if (m_bHex) {
        append_number(static_cast<unsigned long>(aValue), false);
    } else {
        append_number(Magnitude(aValue), aValue < 0);
    }
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(unsigned long aValue) {
    append_number(aValue, false);
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(long long aValue) {
    char achNumber[NUMBER_SIZE];
    xtoa_yrk<long long>(aValue, achNumber, sizeof(achNumber));
    return *this << achNumber;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(float aValue) {
    return *this << static_cast<double>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(double aValue) {
    char achNumber[DOUBLE_SIZE];
    const int nLength = std::snprintf(achNumber, sizeof(achNumber), "%f", aValue);
    if (nLength > 0) {
        advance(achNumber, static_cast<unsigned long>(nLength));
    }
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(char const* aText) {
    if (aText != nullptr) {
        advance(aText, std::strlen(aText));
    }
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(CCmString const& aText) {
    advance(aText.data(), aText.size());
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(void* aPointer) {
    advance("0x", 2);
    m_bHex = 1;
    append_number(reinterpret_cast<unsigned long>(aPointer), false);
    return *this;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(Ordix aOrdix) {
    if (aOrdix == ORDIX_HEX) {
        m_bHex = 1;
    } else if (aOrdix == ORDIX_DEC) {
        m_bHex = 0;
    }
    return *this;
}

void CCmT120Trace::Text_Formator::advance(const char* aText, unsigned long aLength) {
    if (m_ulSize <= RESERVED_TAIL || m_ulPosition >= m_ulSize - RESERVED_TAIL) {
        return;
    }
    const unsigned long ulRoom = m_ulSize - RESERVED_TAIL - m_ulPosition;
    const unsigned long ulCount = aLength < ulRoom ? aLength : ulRoom;
    std::memcpy(m_pBuffer + m_ulPosition, aText, ulCount);
    m_ulPosition += ulCount;
}

void CCmT120Trace::Text_Formator::append_number(unsigned long aMagnitude, bool aNegative) {
    char achNumber[NUMBER_SIZE];
    char* pEnd = achNumber + sizeof(achNumber);
    char* pText = m_bHex ? FormatHex(aMagnitude, pEnd) : FormatDecimal(aMagnitude, pEnd);
    if (aNegative) {
        *--pText = '-';
    }
    m_bHex = 0;
    advance(pText, static_cast<unsigned long>(pEnd - pText));
}

}  // namespace UTIL_NS
