// The flight recorder: the last records of each thread, in a file that is mapped, so that they
// outlive the process; internal.
//
// A record is a few stores into the thread's own ring: no lock, no system call. docs/
// flight-format.md describes the file, CmFlightFormat.h lays it out. Without a file the rings are
// in memory, for those who search them (FindPost).
#ifndef CM_FLIGHT_H
#define CM_FLIGHT_H

#include <cstddef>
#include <cstdint>

#include "CmBase.h"
#include "CmFlightFormat.h"

namespace UTIL_NS {

struct CCmFlightOptions {
    bool m_bFile = true;        // keep a file; false: in memory only
    bool m_bLines = true;       // trace lines go to the file, those that are filtered too
    uint32_t m_dwUnits = 2048;  // of a thread's ring; made a power of two within limits
    uint32_t m_dwThreads = 64;  // slots, likewise within limits
    const char* m_pszDirectory =
        nullptr;  // for files; null or empty: the user's own (CmFlight.cpp)
};

// A thread's ring. Its thread alone records; all times are wall microseconds.
class CCmFlightRing {
  public:
    // An event ran. aTable: address of its class's table; aPending: left in the queue.
    void Event(long long aStartUsec, long long aLengthUsec, const void* aTable, const void* aEvent,
               DWORD aPending);
    // The thread posts aEvent; to be called before the queue has it. aCoarseUsec may be early.
    void Post(long long aCoarseUsec, const void* aTable, const void* aEvent, const void* aQueue);
    void Timer(long long aStartUsec, long long aLengthUsec, long long aLateUsec,
               const void* aHandlerTable);
    // A synchronous send of this thread is over.
    void Send(long long aStartUsec, long long aLengthUsec, const void* aTable, const void* aQueue);
    // A queue has more pending than ever. Its caller leaves out marks that are close to the last.
    void HighWater(long long aUsec, DWORD aPending, const void* aQueue);
    // The wall clock was set, by aByUsec to aUsec.
    void Step(long long aUsec, long long aByUsec);
    // A trace line; cut to CM_FLIGHT_MOST_TEXT.
    void Line(long long aUsec, DWORD aLevel, bool aIsFiltered, const char* aText, size_t aLength);
    // What runs from now on; null: nothing.
    void Current(const void* aTable, long long aStartUsec);

    // Stores the figures in the slot; not those of a thread that has none yet, as it is no worker.
    // One thread at a time, any.
    void Figures(const CCmFlightFigures& aFigures, long long aWallUsec);
    // The youngest Post of aEvent not later than aNotAfterUsec that is still there. Any thread,
    // while the ring's thread goes on.
    bool FindPost(const void* aEvent, long long aNotAfterUsec, long long& aUsec) const;
    // Whether an event with this address began before aBeforeUsec and ended after aAfterUsec, as
    // far as its record is still there.
    bool HasRun(const void* aEvent, long long aAfterUsec, long long aBeforeUsec) const;

  private:
    friend class CCmFlight;

    static constexpr size_t KNOWN_TABLES = 64;
    static size_t PlaceOf(const void* aTable) {
        const uintptr_t nTable = reinterpret_cast<uintptr_t>(aTable);
        return (nTable >> 4 ^ nTable >> 10) % KNOWN_TABLES;
    }

    void EnsureClass(const void* aTable) {
        if (CM_UNLIKELY(m_pKnown[PlaceOf(aTable)] != aTable)) {
            EnterClass(aTable);
        }
    }
    void EnterClass(const void* aTable);
    void Put(uint64_t aHead, uint64_t aFirst, uint64_t aSecond, uint64_t aThird);
    void PutText(const char* aText, size_t aLength);

    // Reads unit aNumber, which the ring's thread may be about to overwrite: false then.
    bool Read(uint64_t aNumber, CCmFlightUnit& aUnit) const;
    // FindPost with the number of the unit; aTable, aQueue: null for any.
    bool Find(const void* aEvent, const void* aTable, const void* aQueue, long long aNotAfterUsec,
              long long& aUsec, uint64_t& aNumber) const;
    // The name in the last THREAD before unit aNumber; empty when it has been overwritten.
    void FindName(uint64_t aNumber, char (&aName)[CM_FLIGHT_NAME_SIZE]) const;

    CCmFlightSlot* m_pSlot = nullptr;
    CCmFlightUnit* m_pUnits = nullptr;
    uint64_t m_ullMask = 0;  // units - 1
    // The slot's, which lies in a file that others can write to.
    uint64_t m_ullWritten = 0;
    // The tables that this thread knows to be in the class table, by PlaceOf.
    const void* m_pKnown[KNOWN_TABLES] = {};
};

class CCmFlight {
  public:
    // Makes the rings and, if asked, a file for them, removes old files and begins to take trace
    // lines. CM_OK; CM_ERROR_FAILURE: there is no file, as one line says, but there are rings;
    // CM_ERROR_OUT_OF_MEMORY: there is nothing; CM_ERROR_ALREADY_INITIALIZED: it is open. Sizes
    // other than those of an earlier Open count only when no thread is attached.
    static CmResult Open(const CCmFlightOptions& aOptions);
    // Ends the file, as the program's exit does. The rings stay valid: what their threads still
    // record reaches nobody.
    static void Close();
    static bool IsOpen();
    // The file's path; empty when there is none. False, and empty: it does not fit.
    static bool CopyPath(char* aPath, size_t aSize);

    // The ring of the calling thread, made on the first call and valid until the thread ends; null
    // when the recorder was never open, has no slot free, or the process was forked. aName: null
    // for the system's name of the thread; another name than before is taken over.
    static CCmFlightRing* AttachThisThread(const char* aName);
    // The ring of the calling thread, null when it has none.
    static CCmFlightRing* RingOfThisThread();
    // To be called by the ring's thread, as its last use of the ring; null is ignored. A thread
    // that ends without it is detached when its thread-specific data is destroyed, after others.
    static void Detach(CCmFlightRing* aRing);

    // The youngest post of aEvent, whose class has aTable, in all rings, as in
    // CCmFlightRing::FindPost, and the name of the thread that posted; aPoster stays as it is when
    // that has been overwritten.
    static bool FindPost(const void* aEvent, const void* aTable, const void* aQueue,
                         long long aNotAfterUsec, long long& aUsec,
                         char (&aPoster)[CM_FLIGHT_NAME_SIZE]);

    // The name that was copied when a record first told of the class with this table, whose module
    // may be gone by now: empty for a class without type information. False when none has.
    static bool CopyClassName(const void* aTable, char (&aName)[CM_FLIGHT_CLASS_NAME_SIZE]);

    // Every 250 ms: stores the times in the file's header, and says once, by a line, when somebody
    // has cut the file, since when there is none.
    static void Tick(long long aWallUsec, long long aMonotonicUsec);

  private:
    struct CState;
};

// Single writer; the words are released one by one, so that Read, which acquires them, sees in
// m_ullWritten what the thread may have overwritten. On x86-64 that is a plain store.
inline void CCmFlightRing::Put(uint64_t aHead, uint64_t aFirst, uint64_t aSecond, uint64_t aThird) {
    const uint64_t ullWritten = __atomic_load_n(&m_ullWritten, __ATOMIC_RELAXED);
    CCmFlightUnit& unit = m_pUnits[ullWritten & m_ullMask];
    __atomic_store_n(&unit.m_ullHead, aHead, __ATOMIC_RELEASE);
    __atomic_store_n(&unit.m_ullWords[0], aFirst, __ATOMIC_RELEASE);
    __atomic_store_n(&unit.m_ullWords[1], aSecond, __ATOMIC_RELEASE);
    __atomic_store_n(&unit.m_ullWords[2], aThird, __ATOMIC_RELEASE);
    __atomic_store_n(&m_ullWritten, ullWritten + 1, __ATOMIC_RELEASE);
    __atomic_store_n(&m_pSlot->m_ullWritten, ullWritten + 1, __ATOMIC_RELEASE);
}

// A length is negative when the clock was set back meanwhile.
inline uint64_t CmFlightLength(long long aUsec) {
    return aUsec < 0 ? 0 : static_cast<uint64_t>(aUsec);
}

inline uint64_t CmFlightAddress(const void* aObject) {
    return reinterpret_cast<uintptr_t>(aObject);
}

inline void CCmFlightRing::Event(long long aStartUsec, long long aLengthUsec, const void* aTable,
                                 const void* aEvent, DWORD aPending) {
    EnsureClass(aTable);
    Put(CmFlightHead(CCmFlightUnit::EVENT, static_cast<uint64_t>(aStartUsec)),
        CmFlightRun(CmFlightLength(aLengthUsec), aPending), CmFlightAddress(aTable),
        CmFlightAddress(aEvent));
}

inline void CCmFlightRing::Post(long long aCoarseUsec, const void* aTable, const void* aEvent,
                                const void* aQueue) {
    EnsureClass(aTable);
    Put(CmFlightHead(CCmFlightUnit::POST, static_cast<uint64_t>(aCoarseUsec)),
        CmFlightAddress(aTable), CmFlightAddress(aEvent), CmFlightAddress(aQueue));
}

inline void CCmFlightRing::Timer(long long aStartUsec, long long aLengthUsec, long long aLateUsec,
                                 const void* aHandlerTable) {
    EnsureClass(aHandlerTable);
    Put(CmFlightHead(CCmFlightUnit::TIMER, static_cast<uint64_t>(aStartUsec)),
        CmFlightLength(aLengthUsec), CmFlightLength(aLateUsec), CmFlightAddress(aHandlerTable));
}

inline void CCmFlightRing::Send(long long aStartUsec, long long aLengthUsec, const void* aTable,
                                const void* aQueue) {
    EnsureClass(aTable);
    Put(CmFlightHead(CCmFlightUnit::SEND, static_cast<uint64_t>(aStartUsec)),
        CmFlightLength(aLengthUsec), CmFlightAddress(aTable), CmFlightAddress(aQueue));
}

inline void CCmFlightRing::HighWater(long long aUsec, DWORD aPending, const void* aQueue) {
    Put(CmFlightHead(CCmFlightUnit::HIGH_WATER, static_cast<uint64_t>(aUsec)), aPending,
        CmFlightAddress(aQueue), 0);
}

inline void CCmFlightRing::Step(long long aUsec, long long aByUsec) {
    Put(CmFlightHead(CCmFlightUnit::STEP, static_cast<uint64_t>(aUsec)),
        static_cast<uint64_t>(aByUsec), 0, 0);
}

// The class is released after its start: who acquires it finds that start or a later one.
inline void CCmFlightRing::Current(const void* aTable, long long aStartUsec) {
    if (aTable != nullptr) {
        EnsureClass(aTable);
    }
    __atomic_store_n(&m_pSlot->m_ullCurrentStart, static_cast<uint64_t>(aStartUsec),
                     __ATOMIC_RELAXED);
    __atomic_store_n(&m_pSlot->m_ullCurrentTable, CmFlightAddress(aTable), __ATOMIC_RELEASE);
}

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_H
