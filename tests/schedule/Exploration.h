// Which schedule is next: all with a bounded number of preemptions, random ones, or one by its
// number.
#ifndef TESTS_SCHEDULE_EXPLORATION_H
#define TESTS_SCHEDULE_EXPLORATION_H

#include <cstddef>
#include <cstdint>

namespace kelto_test {

constexpr int THREADS_AT_MOST = 8;

// A thread that may go on: its number, plus one of these.
constexpr int BY_TIMEOUT = 20;
constexpr int BY_NOBODY = 40;  // woken by nobody

// What may come next, the default first.
struct CCandidates {
    static constexpr int AT_MOST = 3 * THREADS_AT_MOST;

    void Add(int aValue, int aCost) {
        m_abyValues[m_nCount] = static_cast<uint8_t>(aValue);
        m_abyCosts[m_nCount++] = static_cast<uint8_t>(aCost);
    }

    bool m_bThreads = true;  // not what a scenario chooses from
    int m_nCount = 0;
    uint8_t m_abyValues[AT_MOST];
    uint8_t m_abyCosts[AT_MOST];  // in preemptions
};

// Lies in memory that processes share, so that it outlives the one in which a schedule fails; made
// of zeros.
class CExploration {
  public:
    enum EWay : int { ALL, RANDOM, REPLAY };

    // All schedules with at most aPreemptions, from the first one on.
    void StartAll(int aPreemptions, bool aReduces);
    // Walks for which aSeed stands: threads have priorities, which change at some random steps.
    void StartRandom(uint64_t aSeed);
    // The one that aNumber says; false: it says none.
    bool StartReplay(const char* aNumber);

    // A schedule is about to begin.
    void Begin();
    // What comes at aStep. aState tells what has happened so far, but for the order of steps that
    // do not touch the same.
    int Pick(unsigned aStep, uint64_t aState, const CCandidates& aCandidates);
    // It has ended after aSteps. False: there are no more.
    bool Next(unsigned aSteps);
    // What that said last.
    bool HasMore() const { return m_bHasMore; }

    // The number of the schedule that runs or ran last.
    size_t Number(char* aBuffer, size_t aSize) const;

    // A place that threads access: a change to another thread before an access is offered if two
    // of them access it and one writes. That is learnt over all schedules, and what has been learnt
    // counts from the next start on.
    struct CPlace {
        const void* m_pPlace;
        uint8_t m_byReaders;  // a bit a thread
        uint8_t m_byWriters;
        bool m_bOffered;

        bool IsShared() const {
            const unsigned nAll = m_byReaders | m_byWriters;
            return m_byWriters != 0 && (nAll & (nAll - 1)) != 0;
        }
        bool IsOffered() const { return m_bOffered; }
    };
    CPlace& PlaceOf(const void* aPlace);
    void NoteAccess(CPlace& aPlace, int aThread, bool aWrites) {
        uint8_t& byBits = aWrites ? aPlace.m_byWriters : aPlace.m_byReaders;
        const uint8_t byBit = static_cast<uint8_t>(1u << aThread);
        if ((byBits & byBit) == 0) {
            byBits = static_cast<uint8_t>(byBits | byBit);
            m_bLearnt = m_bLearnt || (!aPlace.m_bOffered && aPlace.IsShared());
        }
    }
    // A place has turned out to be shared, so that schedules were left out since the start.
    bool HasLearnt() const { return m_bLearnt; }

    bool HasBudget(int aCost) const { return m_nSpent + aCost <= m_nBudget; }

    unsigned long m_ulSchedules;
    unsigned long m_ulFailed;
    unsigned m_nLongest;
    unsigned long m_ulKnown;  // schedules that came to a state from which all had been tried
    char m_szFailure[4096];
    char m_szSteps[1 << 20];

  private:
    struct CNode {
        unsigned m_nStep;
        uint8_t m_byChosen;
        uint8_t m_bySpent;  // before it
        CCandidates m_Candidates;
    };
    struct CDeviation {
        unsigned m_nStep;
        int m_nValue;
    };
    struct CState {
        uint64_t m_ullState;
        uint8_t m_byBudget;  // plus 1
    };
    static constexpr size_t NODES = 1 << 15;
    static constexpr size_t STATES = 1 << 22;
    static constexpr size_t PLACES = 1 << 16;
    static constexpr size_t DEVIATIONS = 1 << 12;
    static constexpr int CHANGES = 3;

    void OfferWhatWasLearnt();
    bool Advance();
    bool IsKnown(uint64_t aState);
    int PickOfAll(unsigned aStep, uint64_t aState, const CCandidates& aCandidates);
    int PickAtRandom(unsigned aStep, const CCandidates& aCandidates);
    int PickAgain(unsigned aStep, const CCandidates& aCandidates) const;
    uint64_t Random();

    EWay m_Way;
    bool m_bReduces;
    bool m_bOffersAll;  // places are not learnt
    int m_nBudget;
    int m_nSpent;
    bool m_bLearnt;
    bool m_bHasMore;
    bool m_bKnown;  // nothing is tried from here on
    unsigned m_nDepth;
    unsigned m_nNodes;
    CNode m_Nodes[NODES];
    unsigned m_nDeviations;
    CDeviation m_Deviations[DEVIATIONS];
    uint64_t m_ullRandom;
    uint64_t m_ullSeed;
    int m_anPriorities[THREADS_AT_MOST];
    unsigned m_anChanges[CHANGES];
    unsigned m_nReplay;
    CDeviation m_Replay[DEVIATIONS];
    uint64_t m_ullRound;  // tells states of one round from those of another
    size_t m_nStates;
    size_t m_nPlaces;
    CState m_States[STATES];
    CPlace m_Places[PLACES];
};

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_EXPLORATION_H
