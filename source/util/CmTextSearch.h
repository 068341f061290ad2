// Finds a text within another in linear time and constant memory; internal.
//
// The two-way method: the pattern is cut at a critical place; what is right of it is compared
// forwards and what is left of it backwards, and a mismatch moves the pattern on by what either
// side allows. A pattern that repeats itself keeps what is already known to match.
#ifndef CM_TEXT_SEARCH_H
#define CM_TEXT_SEARCH_H

#include <algorithm>
#include <cstddef>

namespace UTIL_NS {

constexpr size_t CM_NOT_FOUND = static_cast<size_t>(-1);

// Text: a function of a place that gives the character there, in the order of the search and as it
// is to be compared.
template <class Text>
class CCmTextSearchT {
  public:
    // aLength: at least 1. The pattern stays readable while the search is used.
    CCmTextSearchT(const Text& aPattern, size_t aLength) : m_Pattern(aPattern), m_nLength(aLength) {
        const CSuffix less = MaximalSuffix(false);
        const CSuffix greater = MaximalSuffix(true);
        const CSuffix& suffix = less.m_nStart > greater.m_nStart ? less : greater;
        m_nCut = suffix.m_nStart;
        m_nPeriod = suffix.m_nPeriod;
        m_bRepeats = RepeatsLeftOfCut();
        if (!m_bRepeats) {
            m_nPeriod = std::max(m_nCut, m_nLength - m_nCut) + 1;
        }
    }

    // The first place in aText, which has aLength characters, at aStart or later; else
    // CM_NOT_FOUND.
    size_t Find(const Text& aText, size_t aLength, size_t aStart) const {
        size_t nKnown = 0;  // characters from the pattern's start that match
        size_t nAt = aStart;
        while (nAt <= aLength && aLength - nAt >= m_nLength) {
            size_t i = std::max(m_nCut, nKnown);
            while (i < m_nLength && m_Pattern(i) == aText(nAt + i)) {
                ++i;
            }
            if (i < m_nLength) {
                nAt += i - m_nCut + 1;
                nKnown = 0;
                continue;
            }
            i = m_nCut;
            while (i > nKnown && m_Pattern(i - 1) == aText(nAt + i - 1)) {
                --i;
            }
            if (i <= nKnown) {
                return nAt;
            }
            nAt += m_nPeriod;
            nKnown = m_bRepeats ? m_nLength - m_nPeriod : 0;
        }
        return CM_NOT_FOUND;
    }

  private:
    struct CSuffix {
        size_t m_nStart;
        size_t m_nPeriod;
    };

    // The greatest suffix in the order of the characters, or in the opposite order, and its period.
    CSuffix MaximalSuffix(bool aOpposite) const {
        size_t nStart = 0;
        size_t nNext = 1;  // the suffix that is compared with it
        size_t nSame = 0;  // characters in which the two agree
        size_t nPeriod = 1;
        while (nNext + nSame < m_nLength) {
            const auto chHere = m_Pattern(nStart + nSame);
            const auto chNext = m_Pattern(nNext + nSame);
            if (chHere == chNext) {
                if (++nSame == nPeriod) {
                    nNext += nPeriod;
                    nSame = 0;
                }
            } else if ((chNext < chHere) != aOpposite) {
                nNext += nSame + 1;
                nSame = 0;
                nPeriod = nNext - nStart;
            } else {
                nStart = nNext;
                ++nNext;
                nSame = 0;
                nPeriod = 1;
            }
        }
        return {nStart, nPeriod};
    }

    bool RepeatsLeftOfCut() const {
        if (m_nCut + m_nPeriod > m_nLength) {
            return false;
        }
        for (size_t i = 0; i < m_nCut; ++i) {
            if (m_Pattern(i) != m_Pattern(i + m_nPeriod)) {
                return false;
            }
        }
        return true;
    }

    const Text m_Pattern;
    const size_t m_nLength;
    size_t m_nCut;
    size_t m_nPeriod;
    bool m_bRepeats;
};

}  // namespace UTIL_NS

#endif  // CM_TEXT_SEARCH_H
