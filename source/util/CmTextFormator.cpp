#include <cstdio>
#include <cstring>

#include "CmEncoding.h"
#include "CmT120Trace.h"

namespace UTIL_NS {

namespace {

constexpr unsigned long RESERVED_TAIL = 96;  // bytes at the end of a buffer, never written
constexpr unsigned long NUMBER_SIZE = 65;    // bytes: any integer, sign and terminator
constexpr unsigned long DOUBLE_SIZE = 512;   // bytes: "%f" of the largest double is 317

template <typename T>
unsigned long Magnitude(T aValue) {
    return aValue < 0 ? 0UL - static_cast<unsigned long>(aValue)
                      : static_cast<unsigned long>(aValue);
}

// All texts of two digits: "00" to "99" or "ff".
template <unsigned Base>
struct CDigitPairs {
    char m_achPairs[Base * Base][2];
};

template <unsigned Base>
constexpr CDigitPairs<Base> MakeDigitPairs() {
    constexpr char DIGITS[] = "0123456789abcdef";
    CDigitPairs<Base> pairs = {};
    for (unsigned i = 0; i < Base * Base; ++i) {
        pairs.m_achPairs[i][0] = DIGITS[i / Base];
        pairs.m_achPairs[i][1] = DIGITS[i % Base];
    }
    return pairs;
}

template <unsigned Base>
constexpr CDigitPairs<Base> DIGIT_PAIRS = MakeDigitPairs<Base>();

template <unsigned Base>
size_t CountDigits(unsigned long aValue) {
    size_t nDigits = 1;
    for (; aValue >= Base * Base * Base * Base; aValue /= Base * Base * Base * Base) {
        nDigits += 4;
    }
    return nDigits + (aValue >= Base) + (aValue >= Base * Base) + (aValue >= Base * Base * Base);
}

// Two digits per division; returns how many there are.
template <unsigned Base>
size_t FormatDigits(unsigned long aValue, char* aText) {
    const size_t nDigits = CountDigits<Base>(aValue);
    char* pEnd = aText + nDigits;
    for (; aValue >= Base; aValue /= Base * Base) {
        pEnd -= 2;
        std::memcpy(pEnd, DIGIT_PAIRS<Base>.m_achPairs[aValue % (Base * Base)], 2);
    }
    if (pEnd != aText) {
        *aText = DIGIT_PAIRS<Base>.m_achPairs[aValue][1];
    }
    return nDigits;
}

size_t FormatNumber(unsigned long aMagnitude, bool aNegative, bool aHex, char* aText) {
    if (aHex) {
        return FormatDigits<16>(aMagnitude, aText);
    }
    *aText = '-';
    const size_t nSign = aNegative ? 1 : 0;
    return nSign + FormatDigits<10>(aMagnitude, aText + nSign);
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
    // A char is signed on some processors only; the number is the same on all.
    return *this << static_cast<int>(static_cast<signed char>(aValue));
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

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(unsigned long long aValue) {
    return *this << static_cast<unsigned long>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(long long aValue) {
    char szNumber[NUMBER_SIZE];
    xtoa_yrk<long long>(aValue, szNumber, sizeof(szNumber));
    return *this << szNumber;
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(float aValue) {
    return *this << static_cast<double>(aValue);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(double aValue) {
    char szNumber[DOUBLE_SIZE];
    const int nLength = std::snprintf(szNumber, sizeof(szNumber), "%f", aValue);
    if (nLength > 0) {
        advance(szNumber, static_cast<unsigned long>(nLength));
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
    return *this << static_cast<const void*>(aPointer);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(std::nullptr_t) {
    return *this << static_cast<const void*>(nullptr);
}

CCmT120Trace::Text_Formator& CCmT120Trace::Text_Formator::operator<<(const void* aPointer) {
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
    if (m_ulPosition + RESERVED_TAIL >= m_ulSize) {
        return;
    }
    const unsigned long ulRoom = m_ulSize - RESERVED_TAIL - m_ulPosition;
    const unsigned long ulCount = aLength < ulRoom ? aLength : ulRoom;
    std::memcpy(m_pBuffer + m_ulPosition, aText, ulCount);
    m_ulPosition += ulCount;
}

// A number goes straight into the buffer unless it might not fit: a text made of small stores is
// slow to copy while these are still on their way to the cache.
void CCmT120Trace::Text_Formator::append_number(unsigned long aMagnitude, bool aNegative) {
    const bool bHex = m_bHex != 0;
    m_bHex = 0;
    if (m_ulPosition + NUMBER_SIZE + RESERVED_TAIL <= m_ulSize) {
        m_ulPosition += FormatNumber(aMagnitude, aNegative, bHex, m_pBuffer + m_ulPosition);
        return;
    }
    char achNumber[NUMBER_SIZE];
    advance(achNumber, FormatNumber(aMagnitude, aNegative, bHex, achNumber));
}

}  // namespace UTIL_NS
