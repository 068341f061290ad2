#include "schedule/Exploration.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "schedule/Memory.h"

namespace kelto_test {

void CExploration::OfferWhatWasLearnt() {
    m_bLearnt = false;
    for (CPlace& place : m_Places) {
        place.m_bOffered = m_Way != ALL || m_bOffersAll || place.IsShared();
    }
}

void CExploration::StartAll(int aPreemptions, bool aReduces) {
    m_Way = ALL;
    m_bReduces = aReduces;
    m_bOffersAll = !aReduces || KELTO_SANITIZED != 0;
    m_nBudget = aPreemptions;
    m_nNodes = 0;
    OfferWhatWasLearnt();
    ++m_ullRound;
    if (m_nStates > STATES / 4) {
        m_nStates = 0;
        std::memset(m_States, 0, sizeof(m_States));
    }
}

void CExploration::StartRandom(uint64_t aSeed) {
    m_Way = RANDOM;
    m_nBudget = 1 << 20;
    OfferWhatWasLearnt();
    m_ullSeed = aSeed;
}

bool CExploration::StartReplay(const char* aNumber) {
    m_Way = REPLAY;
    m_nBudget = 1 << 20;
    m_nReplay = 0;
    OfferWhatWasLearnt();
    const char* psz = aNumber;
    while (*psz != '\0' && m_nReplay < DEVIATIONS) {
        char* pszEnd = nullptr;
        CDeviation& deviation = m_Replay[m_nReplay++];
        deviation.m_nStep = static_cast<unsigned>(std::strtoul(psz, &pszEnd, 10));
        if (pszEnd == psz || *pszEnd != '.') {
            return std::strcmp(aNumber, "0") == 0 && --m_nReplay == 0;
        }
        psz = pszEnd + 1;
        deviation.m_nValue = static_cast<int>(std::strtoul(psz, &pszEnd, 10));
        if (pszEnd == psz || (*pszEnd != '-' && *pszEnd != '\0')) {
            return false;
        }
        psz = *pszEnd == '-' ? pszEnd + 1 : pszEnd;
    }
    return *psz == '\0';
}

void CExploration::Begin() {
    m_nSpent = 0;
    m_nDepth = 0;
    m_bKnown = false;
    m_nDeviations = 0;
    if (m_Way == RANDOM) {
        m_ullRandom = (m_ullSeed + 1) * 0x9E3779B97F4A7C15u;
        for (int i = 0; i < THREADS_AT_MOST; ++i) {
            m_anPriorities[i] = CHANGES + static_cast<int>(Random() >> 40);
        }
        const unsigned nSteps = m_nLongest < 64 ? 64 : m_nLongest;
        for (unsigned& nChange : m_anChanges) {
            nChange = static_cast<unsigned>(Random() % nSteps);
        }
    }
}

int CExploration::Pick(unsigned aStep, uint64_t aState, const CCandidates& aCandidates) {
    int nChosen = 0;
    switch (m_Way) {
        case ALL:
            nChosen = PickOfAll(aStep, aState, aCandidates);
            break;
        case RANDOM:
            nChosen = PickAtRandom(aStep, aCandidates);
            break;
        case REPLAY:
            nChosen = PickAgain(aStep, aCandidates);
            break;
    }
    m_nSpent += aCandidates.m_abyCosts[nChosen];
    const int nValue = aCandidates.m_abyValues[nChosen];
    if (nChosen != 0 && m_nDeviations < DEVIATIONS) {
        m_Deviations[m_nDeviations++] = {aStep, nValue};
    }
    return nValue;
}

// A state from which everything was tried before, with as many preemptions left, need not be
// followed again.
bool CExploration::IsKnown(uint64_t aState) {
    const auto byBudget = static_cast<uint8_t>(m_nBudget - m_nSpent + 1);
    const uint64_t ullState = aState ^ (m_ullRound * 0x9E3779B97F4A7C15u);
    for (size_t i = ullState % STATES;; i = (i + 1) % STATES) {
        CState& state = m_States[i];
        if (state.m_byBudget == 0) {
            if (m_nStates < STATES / 4 * 3) {
                ++m_nStates;
                state = {ullState, byBudget};
            }
            return false;
        }
        if (state.m_ullState == ullState) {
            if (state.m_byBudget >= byBudget) {
                return true;
            }
            state.m_byBudget = byBudget;
            return false;
        }
    }
}

int CExploration::PickOfAll(unsigned aStep, uint64_t aState, const CCandidates& aCandidates) {
    if (m_nDepth < m_nNodes) {
        const CNode& node = m_Nodes[m_nDepth++];
        if (node.m_nStep != aStep || node.m_Candidates.m_nCount != aCandidates.m_nCount ||
            std::memcmp(node.m_Candidates.m_abyValues, aCandidates.m_abyValues,
                        static_cast<size_t>(aCandidates.m_nCount)) != 0) {
            std::fprintf(stderr, "schedule: the scenario is not the same each time\n");
            std::abort();
        }
        return node.m_byChosen;
    }
    if (m_bKnown || m_nNodes == NODES) {
        return 0;
    }
    if (m_bReduces && IsKnown(aState)) {
        m_bKnown = true;
        ++m_ulKnown;
        return 0;
    }
    CNode& node = m_Nodes[m_nNodes++];
    m_nDepth = m_nNodes;
    node.m_nStep = aStep;
    node.m_byChosen = 0;
    node.m_bySpent = static_cast<uint8_t>(m_nSpent);
    node.m_Candidates = aCandidates;
    return 0;
}

int CExploration::PickAtRandom(unsigned aStep, const CCandidates& aCandidates) {
    if (!aCandidates.m_bThreads) {
        return static_cast<int>(Random() % static_cast<unsigned>(aCandidates.m_nCount));
    }
    // A wait that ends early, or by nobody, is rare.
    int nChosen = -1;
    for (int i = 0; i < aCandidates.m_nCount; ++i) {
        const int nValue = aCandidates.m_abyValues[i];
        if (nValue >= BY_TIMEOUT) {
            if (aCandidates.m_abyCosts[i] == 0 ? nChosen < 0 : Random() % 64 == 0) {
                nChosen = i;
            }
        } else if (nChosen < 0 || aCandidates.m_abyValues[nChosen] >= BY_TIMEOUT ||
                   m_anPriorities[nValue] > m_anPriorities[aCandidates.m_abyValues[nChosen]]) {
            nChosen = i;
        }
    }
    for (int i = 0; i < CHANGES; ++i) {
        if (m_anChanges[i] <= aStep) {
            m_anChanges[i] = ~0u;
            m_anPriorities[aCandidates.m_abyValues[nChosen] % BY_TIMEOUT] = i;
        }
    }
    return nChosen;
}

int CExploration::PickAgain(unsigned aStep, const CCandidates& aCandidates) const {
    for (unsigned i = 0; i < m_nReplay; ++i) {
        if (m_Replay[i].m_nStep == aStep) {
            for (int j = 0; j < aCandidates.m_nCount; ++j) {
                if (aCandidates.m_abyValues[j] == m_Replay[i].m_nValue) {
                    return j;
                }
            }
        }
    }
    return 0;
}

bool CExploration::Next(unsigned aSteps) {
    ++m_ulSchedules;
    if (aSteps > m_nLongest) {
        m_nLongest = aSteps;
    }
    m_bHasMore = Advance();
    return m_bHasMore;
}

bool CExploration::Advance() {
    if (m_Way == RANDOM) {
        ++m_ullSeed;
        return true;
    }
    if (m_Way == REPLAY) {
        return false;
    }
    while (m_nNodes > 0) {
        CNode& node = m_Nodes[m_nNodes - 1];
        while (++node.m_byChosen < node.m_Candidates.m_nCount) {
            if (node.m_bySpent + node.m_Candidates.m_abyCosts[node.m_byChosen] <= m_nBudget) {
                return true;
            }
        }
        --m_nNodes;
    }
    return false;
}

size_t CExploration::Number(char* aBuffer, size_t aSize) const {
    size_t nLength = static_cast<size_t>(std::snprintf(aBuffer, aSize, "0"));
    size_t nAt = 0;
    for (unsigned i = 0; i < m_nDeviations && nAt < aSize; ++i) {
        nAt += static_cast<size_t>(std::snprintf(aBuffer + nAt, aSize - nAt, "%s%u.%d",
                                                 i == 0 ? "" : "-", m_Deviations[i].m_nStep,
                                                 m_Deviations[i].m_nValue));
        nLength = nAt;
    }
    return nLength;
}

CExploration::CPlace& CExploration::PlaceOf(const void* aPlace) {
    const uint64_t ullHash = reinterpret_cast<uintptr_t>(aPlace) * 0x9E3779B97F4A7C15u;
    for (size_t i = (ullHash >> 32) % PLACES;; i = (i + 1) % PLACES) {
        CPlace& place = m_Places[i];
        if (place.m_pPlace == aPlace) {
            return place;
        }
        if (place.m_pPlace == nullptr) {
            if (m_nPlaces < PLACES / 4 * 3) {
                ++m_nPlaces;
                place.m_pPlace = aPlace;
                place.m_bOffered = m_Way != ALL || m_bOffersAll;
            }
            return place;  // all that find no room are one
        }
    }
}

uint64_t CExploration::Random() {
    m_ullRandom ^= m_ullRandom << 13;
    m_ullRandom ^= m_ullRandom >> 7;
    m_ullRandom ^= m_ullRandom << 17;
    return m_ullRandom * 0x2545F4914F6CDD1Du;
}

}  // namespace kelto_test
