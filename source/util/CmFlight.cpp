#include "CmFlight.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "CmAtomic.h"
#include "CmFlightFile.h"
#include "CmNsec.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceGuard.h"
#include "CmTraceLine.h"
#include "CmTraceTap.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr long long USEC_PER_SEC = 1000 * 1000;
constexpr long long NSEC_PER_USEC = 1000;

// What a slot says of its thread is a copy of this: nobody relies on what is in the file.
struct COwner {
    CCmFlightSlot::EState m_eState = CCmFlightSlot::FREE;
    uint32_t m_dwNumber = 0;
    pthread_t m_Thread = pthread_t();
    uint64_t m_ullStart = 0;
    uint64_t m_ullEnd = 0;
    uint64_t m_ullFirst = 0;
    uint64_t m_ullOrder = 0;  // of those that have ended, the least did first
    char m_szName[CM_FLIGHT_NAME_SIZE] = {};
    // Of the one before, for who has found a post of it in the ring.
    uint64_t m_ullFirstBefore = 0;
    char m_szNameBefore[CM_FLIGHT_NAME_SIZE] = {};
};

struct CThisThread {
    CCmFlightRing* m_pRing;
    bool m_bIsBusy;    // in here: lines that are traced meanwhile are not taken
    bool m_bHasEnded;  // its ring was given back: its lines get it none again
    // When it found no slot last: of s_dwVacancies, and of the Open; 0: never.
    uint32_t m_dwRefusedAt;
    uint32_t m_dwRefusedIn;
};
thread_local CThisThread t_this = {};

// Grows with all that may give a slot to a thread that found none. Such a thread asks once each.
CmStd::atomic<uint32_t> s_dwVacancies{1};

// Of all files, at the same places; entered without a lock. The compilers' atomic functions, as for
// what is mapped.
CCmFlightClass s_classes[CM_FLIGHT_CLASS_COUNT];

// Where the file or the memory for it is; null before the first Open. Relaxed: who has a ring came
// by it under the lock, under which this is written.
CmStd::atomic<unsigned char*> s_pBegin{nullptr};

CCmFlightHeader* Header() {
    return reinterpret_cast<CCmFlightHeader*>(s_pBegin.load(std::memory_order_relaxed));
}

CCmFlightClass* ClassesOfFile() {
    return reinterpret_cast<CCmFlightClass*>(s_pBegin.load(std::memory_order_relaxed) +
                                             CM_FLIGHT_HEADER_SIZE);
}

uint64_t WallUsec() {
    timeval now = {};
    g_cmClock.gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec * USEC_PER_SEC + now.tv_usec);
}

// Other processes read what these store while it is stored: in this order.
template <class WordType>
void Release(WordType& aWord, WordType aValue) {
    __atomic_store_n(&aWord, aValue, __ATOMIC_RELEASE);
}

void ReleaseWords(void* aWords, const void* aSource, size_t aSize) {
    for (size_t i = 0; i < aSize / sizeof(uint64_t); ++i) {
        uint64_t ullWord = 0;
        std::memcpy(&ullWord, static_cast<const char*>(aSource) + i * sizeof(ullWord),
                    sizeof(ullWord));
        Release(static_cast<uint64_t*>(aWords)[i], ullWord);
    }
}

uint64_t NumberOf(pthread_t aThread) {
    static_assert(sizeof(aThread) <= sizeof(uint64_t));
    uint64_t ullNumber = 0;
    std::memcpy(&ullNumber, &aThread, sizeof(aThread));
    return ullNumber;
}

void CopyName(char (&aCopy)[CM_FLIGHT_NAME_SIZE], const char* aName) {
    std::memset(aCopy, 0, sizeof(aCopy));
    std::strncpy(aCopy, aName, sizeof(aCopy) - 1);
}

// The executable's file name; what is not ASCII as "_".
void CopyProcessName(char (&aCopy)[CM_FLIGHT_NAME_SIZE]) {
    uint16_t wUnits[CM_PORT_NAME_UNITS];
    const size_t nUnits = CmPortExecutableName(wUnits);
    CopyName(aCopy, nUnits == 0 ? "process" : "");
    for (size_t i = 0; i < nUnits && i < sizeof(aCopy) - 1; ++i) {
        aCopy[i] = wUnits[i] < 0x80 ? static_cast<char>(wUnits[i]) : '_';
    }
}

uint32_t Within(uint32_t aNumber, uint32_t aLeast, uint32_t aMost) {
    return aNumber < aLeast ? aLeast : aNumber > aMost ? aMost : aNumber;
}

uint32_t PowerOfTwo(uint32_t aNumber) {
    uint32_t dwPower = CM_FLIGHT_LEAST_UNITS;
    while (dwPower < aNumber) {
        dwPower *= 2;
    }
    return dwPower;
}

// Has the system map the pages now rather than when records come to them. What is there stays: the
// caller alone writes there. aBegin, aSize: multiples of a word.
void TouchPages(void* aBegin, uint64_t aSize) {
    constexpr uint64_t LEAST_PAGE = 4096;
    const auto touch = [&](uint64_t aOffset) {
        uint64_t& ullWord = static_cast<uint64_t*>(aBegin)[aOffset / sizeof(uint64_t)];
        Release(ullWord, __atomic_load_n(&ullWord, __ATOMIC_RELAXED));
    };
    for (uint64_t i = 0; i < aSize; i += LEAST_PAGE) {
        touch(i);
    }
    touch(aSize - sizeof(uint64_t));
}

// ---- Classes

void StoreClass(CCmFlightClass& aPlace, const CCmFlightClass& aClass) {
    Release(aPlace.m_ullTable, __atomic_load_n(&aClass.m_ullTable, __ATOMIC_RELAXED));
    Release(aPlace.m_dwState, uint32_t{CCmFlightClass::BEING_WRITTEN});
    ReleaseWords(aPlace.m_szName, aClass.m_szName, sizeof(aClass.m_szName));
    Release(aPlace.m_dwState, uint32_t{CCmFlightClass::COMPLETE});
}

// Of an entry that this thread has made its own by entering the table.
void NameClass(size_t aPlace, const void* aTable) {
    CCmFlightClass& entry = s_classes[aPlace];
    const char* const pszName = CmPortClassName(aTable);
    std::strncpy(entry.m_szName, pszName != nullptr ? pszName : "", sizeof(entry.m_szName) - 1);
    Release(entry.m_dwState, uint32_t{CCmFlightClass::COMPLETE});
    StoreClass(ClassesOfFile()[aPlace], entry);
}

size_t PlaceOfClass(uint64_t aTable) {
    return (aTable >> 4 ^ aTable >> 13) % CM_FLIGHT_CLASS_COUNT;
}

// Whether the table is in the list, or has been put there.
bool EnsureClassListed(const void* aTable) {
    const uint64_t ullTable = CmFlightAddress(aTable);
    const size_t nFirst = PlaceOfClass(ullTable);
    for (size_t i = 0; i < CM_FLIGHT_CLASS_COUNT; ++i) {
        const size_t nPlace = (nFirst + i) % CM_FLIGHT_CLASS_COUNT;
        uint64_t ullThere = __atomic_load_n(&s_classes[nPlace].m_ullTable, __ATOMIC_RELAXED);
        if (ullThere == 0 &&
            __atomic_compare_exchange_n(&s_classes[nPlace].m_ullTable, &ullThere, ullTable, false,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
            NameClass(nPlace, aTable);
            return true;
        }
        if (ullThere == ullTable) {
            return true;
        }
    }
    return false;
}

// Those that a file before this one, or the memory, was told of.
void CopyClasses() {
    for (size_t i = 0; i < CM_FLIGHT_CLASS_COUNT; ++i) {
        if (__atomic_load_n(&s_classes[i].m_dwState, __ATOMIC_ACQUIRE) ==
            CCmFlightClass::COMPLETE) {
            StoreClass(ClassesOfFile()[i], s_classes[i]);
        }
    }
}

// ---- Lines

// Keeps errno, as there may be no other guard: a host calls the facility itself.
void TakeLine(unsigned long aLevel, bool aIsFiltered, const char* aText, size_t aLength) {
    CCmTraceGuard guard;
    if (t_this.m_bIsBusy || t_this.m_bHasEnded) {
        return;
    }
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread(nullptr);
    if (pRing != nullptr) {
        pRing->Line(static_cast<long long>(WallUsec()), static_cast<DWORD>(aLevel), aIsFiltered,
                    aText, aLength);
    }
}

// ---- Files

void SayWhyThereIsNone(const CCmFlightFile& aFile) {
    if (aFile.m_pszCall != nullptr) {
        CM_WARNING_TRACE("CCmFlight::Open, no file, " << aFile.m_pszCall
                                                      << "() failed! err=" << aFile.m_nError
                                                      << " path=" << aFile.m_szPath);
    } else {
        CM_WARNING_TRACE("CCmFlight::Open, no file, not a directory of this user alone. path="
                         << aFile.m_szPath);
    }
}

// ---- What all share

// Guards the state below.
CM_CONSTANT_INIT CCmEternalLockT<CCmMutexThread> s_Lock;

// Holds the lock. The thread is not cancelled, and what it traces is not taken. Bus errors reach
// it, as the file may be cut at any time: in here, and for as long as it has a ring.
class CM_SCOPED_CAPABILITY CHold {
  public:
    CHold() CM_ACQUIRE(s_Lock.m_Lock)
        : m_Lock(s_Lock.m_Lock), m_bBlocksBusErrors(CmPortUnblockBusErrors()) {}
    ~CHold() CM_RELEASE() {
        if (m_bBlocksBusErrors && t_this.m_pRing == nullptr) {
            CmPortBlockBusErrors();
        }
    }
    CHold(const CHold&) = delete;
    CHold& operator=(const CHold&) = delete;

  private:
    struct CBusy {
        CBusy() { t_this.m_bIsBusy = true; }
        ~CBusy() { t_this.m_bIsBusy = false; }
        CBusy(const CBusy&) = delete;
        CBusy& operator=(const CBusy&) = delete;
    };

    CCmTraceGuard m_Guard;
    CBusy m_Busy;
    CCmScopedLockT<CCmMutexThread> m_Lock;
    const bool m_bBlocksBusErrors;
};

}  // namespace

// Never destroyed: threads record while the program exits.
struct CCmFlight::CState {
    bool EnsureHandlers() CM_REQUIRES(s_Lock.m_Lock);
    bool EnsureRings(uint32_t aUnits, uint32_t aSlots) CM_REQUIRES(s_Lock.m_Lock);
    void EndRings() CM_REQUIRES(s_Lock.m_Lock);
    bool MapFile(const char* aDirectory, const char* aProcess, uint64_t aStartUsec)
        CM_REQUIRES(s_Lock.m_Lock);
    void LeaveFile() CM_REQUIRES(s_Lock.m_Lock);
    void BeginSlots() CM_REQUIRES(s_Lock.m_Lock);
    void FillHeader(const char* aProcess, uint64_t aStartUsec) CM_REQUIRES(s_Lock.m_Lock);

    uint32_t FindSlot() const CM_REQUIRES(s_Lock.m_Lock);
    CCmFlightRing* TakeSlot(const char* aName) CM_REQUIRES(s_Lock.m_Lock);
    void CountRefusal() CM_REQUIRES(s_Lock.m_Lock);
    void Rename(CCmFlightRing& aRing, const char* aName) CM_REQUIRES(s_Lock.m_Lock);
    void PutThread(CCmFlightRing& aRing, uint64_t aUsec) CM_REQUIRES(s_Lock.m_Lock);
    void EndThread(CCmFlightRing& aRing, uint64_t aUsec) CM_REQUIRES(s_Lock.m_Lock);
    void StoreOwner(const CCmFlightRing& aRing) CM_REQUIRES(s_Lock.m_Lock);
    COwner& OwnerOf(const CCmFlightRing& aRing) const CM_REQUIRES(s_Lock.m_Lock) {
        return m_pOwners[&aRing - m_pRings];
    }
    static const CCmFlightRing* Search(const void* aEvent, const void* aTable, const void* aQueue,
                                       long long aNotAfterUsec, long long& aUsec,
                                       uint64_t& aNumber) CM_NO_THREAD_SAFETY_ANALYSIS;
    void CopyNameAt(const CCmFlightRing& aRing, uint64_t aNumber,
                    char (&aName)[CM_FLIGHT_NAME_SIZE]) const CM_REQUIRES(s_Lock.m_Lock);
    uint64_t Size() const CM_REQUIRES(s_Lock.m_Lock) {
        return CmFlightFileSize(m_dwSlots, m_dwUnits);
    }

    struct CAtExit {
        ~CAtExit() { MarkEnd(); }
    };
    static void MarkEnd();
    static void BeforeFork() CM_NO_THREAD_SAFETY_ANALYSIS;
    static void AfterForkInParent() CM_NO_THREAD_SAFETY_ANALYSIS;
    static void AfterForkInChild() CM_NO_THREAD_SAFETY_ANALYSIS;
    static void AtThreadEnd(void* aRing);

    bool m_bHasKey;
    bool m_bHasForkHandlers;
    pthread_key_t m_Key;  // a thread's ring, with the lowest bit set once it is about to go

    bool m_bIsOpen;
    uint32_t m_dwOpens;
    bool m_bIsLossSaid;
    CCmFlightFile m_File;

    uint32_t m_dwUnits;
    uint32_t m_dwSlots;  // 0: there are no rings
    CCmFlightRing* m_pRings;
    COwner* m_pOwners;
    uint32_t m_dwLive;    // threads
    uint32_t m_dwCame;    // all of them so far
    uint64_t m_ullEnded;  // of these

    static CState s_State;
};

CM_CONSTANT_INIT CCmFlight::CState CCmFlight::CState::s_State CM_GUARDED_BY(s_Lock.m_Lock) = {};

// ---- Making and ending it

bool CCmFlight::CState::EnsureHandlers() {
    if (!m_bHasKey) {
        m_bHasKey = g_cmSystem.pthread_key_create(&m_Key, &AtThreadEnd) == 0;
    }
    if (!m_bHasForkHandlers) {
        m_bHasForkHandlers =
            g_cmSystem.pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild) == 0;
    }
    return m_bHasKey && m_bHasForkHandlers;
}

// The memory of earlier rings stays as long as a thread has one of them.
bool CCmFlight::CState::EnsureRings(uint32_t aUnits, uint32_t aSlots) {
    if (m_dwSlots != 0 && (m_dwLive != 0 || (aUnits == m_dwUnits && aSlots == m_dwSlots))) {
        return true;
    }
    EndRings();
    const uint64_t ullSize = CmFlightFileSize(aSlots, aUnits);
    CCmFlightRing* const pRings = new (std::nothrow) CCmFlightRing[aSlots];
    COwner* const pOwners = new (std::nothrow) COwner[aSlots];
    void* pBegin = MAP_FAILED;
    if (pRings != nullptr && pOwners != nullptr) {
        pBegin = g_cmSystem.mmap(nullptr, ullSize, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANON | MAP_NORESERVE, -1, 0);
    }
    if (pBegin == MAP_FAILED) {
        delete[] pRings;
        delete[] pOwners;
        return false;
    }
    s_pBegin.store(static_cast<unsigned char*>(pBegin), std::memory_order_relaxed);
    m_pRings = pRings;
    m_pOwners = pOwners;
    m_dwUnits = aUnits;
    m_dwSlots = aSlots;
    for (uint32_t i = 0; i < aSlots; ++i) {
        unsigned char* const pSlot = static_cast<unsigned char*>(pBegin) + CM_FLIGHT_SLOTS_OFFSET +
                                     i * CmFlightSlotSize(aUnits);
        pRings[i].m_pSlot = reinterpret_cast<CCmFlightSlot*>(pSlot);
        pRings[i].m_pUnits = reinterpret_cast<CCmFlightUnit*>(pSlot + sizeof(CCmFlightSlot));
        pRings[i].m_ullMask = aUnits - 1;
    }
    return true;
}

void CCmFlight::CState::EndRings() {
    if (m_dwSlots == 0) {
        return;
    }
    munmap(s_pBegin.load(std::memory_order_relaxed), Size());
    delete[] m_pRings;
    delete[] m_pOwners;
    m_dwSlots = 0;
}

// Puts a file in the place of the memory. It is mapped elsewhere first: a call that fails at a
// fixed address may have unmapped what was there, in which threads record.
bool CCmFlight::CState::MapFile(const char* aDirectory, const char* aProcess, uint64_t aStartUsec) {
    if (!CmFlightMakeFile(aDirectory, aProcess, static_cast<long long>(aStartUsec), Size(),
                          m_File)) {
        return false;
    }
    void* const pBegin = s_pBegin.load(std::memory_order_relaxed);
    const auto map = [this](void* aAddress, int aFlags) CM_REQUIRES(s_Lock.m_Lock) {
        return g_cmSystem.mmap(aAddress, Size(), PROT_READ | PROT_WRITE, MAP_SHARED | aFlags,
                               m_File.m_nFile, 0);
    };
    void* const pTrial = map(nullptr, 0);
    if (pTrial != MAP_FAILED) {
        munmap(pTrial, Size());
        if (map(pBegin, MAP_FIXED) == pBegin) {
            CmPortGuardMapping(pBegin, Size());
            return true;
        }
    }
    m_File.m_pszCall = "mmap";
    m_File.m_nError = errno;
    if (pTrial != MAP_FAILED) {
        CmPortReplaceMapping(pBegin, Size());
    }
    CmFlightRemoveFile(m_File);
    return false;
}

void CCmFlight::CState::FillHeader(const char* aProcess, uint64_t aStartUsec) {
    CCmFlightHeader& header = *Header();
    header.m_dwVersion = CM_FLIGHT_VERSION;
    header.m_dwHeaderSize = CM_FLIGHT_HEADER_SIZE;
    header.m_ullFileSize = Size();
    header.m_dwClassSize = sizeof(CCmFlightClass);
    header.m_dwClassCount = CM_FLIGHT_CLASS_COUNT;
    header.m_ullSlotsOffset = CM_FLIGHT_SLOTS_OFFSET;
    header.m_dwSlotSize = static_cast<uint32_t>(CmFlightSlotSize(m_dwUnits));
    header.m_dwSlotCount = m_dwSlots;
    header.m_dwRingOffset = sizeof(CCmFlightSlot);
    header.m_dwUnitSize = sizeof(CCmFlightUnit);
    header.m_dwUnitCount = m_dwUnits;
    header.m_dwProcessId = static_cast<uint32_t>(getpid());
    CopyName(header.m_szProcess, aProcess);
    header.m_ullStartWall = aStartUsec;
    header.m_ullStartMonotonic = static_cast<uint64_t>(CmMonotonicNsec() / NSEC_PER_USEC);
    header.m_ullEndWall = 0;
    ReleaseWords(header.m_achMagic, CM_FLIGHT_MAGIC, sizeof(CM_FLIGHT_MAGIC));
}

// What was recorded before is not in this file.
void CCmFlight::CState::BeginSlots() {
    for (uint32_t i = 0; i < m_dwSlots; ++i) {
        COwner& owner = m_pOwners[i];
        owner.m_ullFirst = __atomic_load_n(&m_pRings[i].m_ullWritten, __ATOMIC_RELAXED);
        owner.m_ullFirstBefore = owner.m_ullFirst;
        owner.m_eState =
            owner.m_eState == CCmFlightSlot::ENDED ? CCmFlightSlot::FREE : owner.m_eState;
        StoreOwner(m_pRings[i]);
        Release(m_pRings[i].m_pSlot->m_ullWritten, owner.m_ullFirst);
    }
}

// A process that ends in order does so whether or not it has closed the recorder.
void CCmFlight::CState::MarkEnd() {
    CHold hold;
    if (s_State.m_bIsOpen) {
        Release(Header()->m_ullEndWall, WallUsec());
    }
}

CmResult CCmFlight::Open(const CCmFlightOptions& aOptions) {
    // Before the lock is taken, as the platform may take locks of its own for it.
    char szProcess[CM_FLIGHT_NAME_SIZE];
    CopyProcessName(szProcess);
    CCmFlightFile file;
    bool bHasFile = false;
    {
        CHold hold;
        CState& state = CState::s_State;
        if (state.m_bIsOpen) {
            return CM_ERROR_ALREADY_INITIALIZED;
        }
        const uint32_t dwUnits =
            PowerOfTwo(Within(aOptions.m_dwUnits, CM_FLIGHT_LEAST_UNITS, CM_FLIGHT_MOST_UNITS));
        const uint32_t dwSlots =
            Within(aOptions.m_dwThreads, CM_FLIGHT_LEAST_SLOTS, CM_FLIGHT_MOST_SLOTS);
        if (!state.EnsureHandlers() || !state.EnsureRings(dwUnits, dwSlots)) {
            return CM_ERROR_OUT_OF_MEMORY;
        }
        const uint64_t ullStart = WallUsec();
        state.m_bIsLossSaid = false;
        state.m_File = CCmFlightFile();
        bHasFile = aOptions.m_bFile && state.MapFile(aOptions.m_pszDirectory, szProcess, ullStart);
        file = state.m_File;
        state.BeginSlots();
        CopyClasses();
        state.FillHeader(szProcess, ullStart);
        state.m_bIsOpen = true;
        ++state.m_dwOpens;
        s_dwVacancies.fetch_add(1, std::memory_order_relaxed);
        static const CState::CAtExit s_atExit;
    }
    // Nobody would read them in memory, where they would only push out records of posts.
    if (bHasFile && aOptions.m_bLines) {
        g_cmTraceTap.store(&TakeLine, std::memory_order_relaxed);
    }
    if (bHasFile || !aOptions.m_bFile) {
        return CM_OK;
    }
    SayWhyThereIsNone(file);
    return CM_ERROR_FAILURE;
}

// Memory takes the file's place, if there is one, for the threads that still record. As long as it
// cannot, what is mapped is looked after. Closing gives the lock back, which a forked child has,
// too.
void CCmFlight::CState::LeaveFile() {
    const bool bIsReplaced = CmPortReplaceMapping(s_pBegin.load(std::memory_order_relaxed), Size());
    if (m_File.m_nFile < 0) {
        return;
    }
    if (bIsReplaced) {
        CmPortUnguardMapping();
    }
    g_cmSystem.close(m_File.m_nFile);
    m_File.m_nFile = -1;
}

void CCmFlight::Close() {
    g_cmTraceTap.store(nullptr, std::memory_order_relaxed);
    CHold hold;
    CState& state = CState::s_State;
    if (!state.m_bIsOpen) {
        return;
    }
    state.m_bIsOpen = false;
    Release(Header()->m_ullEndWall, WallUsec());
    state.LeaveFile();
}

bool CCmFlight::IsOpen() {
    CHold hold;
    return CState::s_State.m_bIsOpen;
}

bool CCmFlight::CopyPath(char* aPath, size_t aSize) {
    CHold hold;
    const CCmFlightFile& file = CState::s_State.m_File;
    const int nLength = std::snprintf(aPath, aSize, "%s", file.m_nFile >= 0 ? file.m_szPath : "");
    const bool bFits = nLength >= 0 && static_cast<size_t>(nLength) < aSize;
    if (!bFits && aSize > 0) {
        aPath[0] = '\0';
    }
    return bFits;
}

void CCmFlight::Tick(long long aWallUsec, long long aMonotonicUsec) {
    char szPath[CCmFlightFile::PATH_SIZE] = {};
    {
        CHold hold;
        CState& state = CState::s_State;
        if (!state.m_bIsOpen) {
            return;
        }
        Release(Header()->m_ullTickMonotonic, static_cast<uint64_t>(aMonotonicUsec));
        Release(Header()->m_ullTickWall, static_cast<uint64_t>(aWallUsec));
        if (state.m_File.m_nFile < 0 || state.m_bIsLossSaid || !CmPortIsMappingLost()) {
            return;
        }
        state.m_bIsLossSaid = true;
        std::memcpy(szPath, state.m_File.m_szPath, sizeof(szPath));
    }
    CM_WARNING_TRACE(
        "CCmFlight::Tick, the file was cut or its disk failed, records go nowhere. path="
        << szPath);
}

// ---- Threads

CCmFlightRing* CCmFlight::RingOfThisThread() {
    return t_this.m_pRing;
}

CCmFlightRing* CCmFlight::AttachThisThread(const char* aName) {
    if (t_this.m_pRing != nullptr && aName == nullptr) {
        return t_this.m_pRing;
    }
    if (t_this.m_pRing == nullptr &&
        t_this.m_dwRefusedAt == s_dwVacancies.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    char szName[CM_FLIGHT_NAME_SIZE];
    if (aName == nullptr) {
        CmPortNameOfThisThread(szName, sizeof(szName));
    } else {
        CopyName(szName, aName);
    }
    CHold hold;
    if (t_this.m_pRing != nullptr) {
        CState::s_State.Rename(*t_this.m_pRing, szName);
        // Somebody who detaches it counts on it from now on; the thread may be about to end.
        g_cmSystem.pthread_setspecific(CState::s_State.m_Key, t_this.m_pRing);
    } else {
        t_this.m_pRing = CState::s_State.TakeSlot(szName);
        t_this.m_bHasEnded = false;
    }
    return t_this.m_pRing;
}

void CCmFlight::Detach(CCmFlightRing* aRing) {
    if (aRing == nullptr || aRing != t_this.m_pRing) {
        return;
    }
    CHold hold;
    CState& state = CState::s_State;
    const uint64_t ullNow = WallUsec();
    aRing->Put(CmFlightHead(CCmFlightUnit::END, ullNow), state.OwnerOf(*aRing).m_dwNumber, 0, 0);
    state.EndThread(*aRing, ullNow);
    g_cmSystem.pthread_setspecific(state.m_Key, nullptr);
    t_this.m_pRing = nullptr;
    t_this.m_bHasEnded = true;
}

// The first time round it only asks to be called again: other destructors may record.
void CCmFlight::CState::AtThreadEnd(void* aRing) {
    const uintptr_t nRing = reinterpret_cast<uintptr_t>(aRing);
    if ((nRing & 1) == 0) {
        CHold hold;
        g_cmSystem.pthread_setspecific(s_State.m_Key, reinterpret_cast<void*>(nRing | 1));
    } else {
        Detach(reinterpret_cast<CCmFlightRing*>(nRing & ~uintptr_t{1}));
    }
}

// One that nobody had, or of those that have ended the one that did first; m_dwSlots: none.
uint32_t CCmFlight::CState::FindSlot() const {
    uint32_t dwFound = m_dwSlots;
    for (uint32_t i = 0; i < m_dwSlots; ++i) {
        if (m_pOwners[i].m_eState == CCmFlightSlot::FREE) {
            return i;
        }
        if (m_pOwners[i].m_eState == CCmFlightSlot::ENDED &&
            (dwFound == m_dwSlots || m_pOwners[i].m_ullOrder < m_pOwners[dwFound].m_ullOrder)) {
            dwFound = i;
        }
    }
    return dwFound;
}

CCmFlightRing* CCmFlight::CState::TakeSlot(const char* aName) {
    if (!m_bIsOpen) {
        t_this.m_dwRefusedAt = s_dwVacancies.load(std::memory_order_relaxed);
        return nullptr;
    }
    const uint32_t dwSlot = FindSlot();
    if (dwSlot == m_dwSlots) {
        CountRefusal();
        return nullptr;
    }
    CCmFlightRing& ring = m_pRings[dwSlot];
    if (g_cmSystem.pthread_setspecific(m_Key, &ring) != 0) {
        return nullptr;  // its end would not be seen
    }
    const uint64_t ullNow = WallUsec();
    COwner& owner = m_pOwners[dwSlot];
    owner.m_ullFirstBefore = owner.m_ullFirst;
    std::memcpy(owner.m_szNameBefore, owner.m_szName, sizeof(owner.m_szNameBefore));
    owner.m_eState = CCmFlightSlot::LIVE;
    owner.m_dwNumber = ++m_dwCame;
    owner.m_Thread = pthread_self();
    owner.m_ullStart = ullNow;
    owner.m_ullEnd = 0;
    owner.m_ullFirst = ring.m_ullWritten;
    CopyName(owner.m_szName, aName);
    ++m_dwLive;
    TouchPages(ring.m_pSlot, CmFlightSlotSize(m_dwUnits));
    const CCmFlightFigures none = {};
    ring.Figures(none, 0);
    ring.Current(nullptr, 0);
    StoreOwner(ring);
    PutThread(ring, ullNow);
    return &ring;
}

// A thread counts once.
void CCmFlight::CState::CountRefusal() {
    t_this.m_dwRefusedAt = s_dwVacancies.load(std::memory_order_relaxed);
    if (t_this.m_dwRefusedIn != m_dwOpens) {
        t_this.m_dwRefusedIn = m_dwOpens;
        __atomic_fetch_add(&Header()->m_ullUnslottedCount, 1, __ATOMIC_RELAXED);
    }
}

void CCmFlight::CState::Rename(CCmFlightRing& aRing, const char* aName) {
    COwner& owner = OwnerOf(aRing);
    if (std::strcmp(owner.m_szName, aName) != 0) {
        CopyName(owner.m_szName, aName);
        StoreOwner(aRing);
        PutThread(aRing, WallUsec());
    }
}

// On the ring's thread.
void CCmFlight::CState::PutThread(CCmFlightRing& aRing, uint64_t aUsec) {
    const COwner& owner = OwnerOf(aRing);
    const size_t nLength = std::strlen(owner.m_szName);
    aRing.Put(CmFlightHead(CCmFlightUnit::THREAD, aUsec), owner.m_dwNumber,
              NumberOf(owner.m_Thread), nLength);
    aRing.PutText(owner.m_szName, nLength);
}

void CCmFlight::CState::EndThread(CCmFlightRing& aRing, uint64_t aUsec) {
    COwner& owner = OwnerOf(aRing);
    owner.m_eState = CCmFlightSlot::ENDED;
    owner.m_ullEnd = aUsec;
    owner.m_ullOrder = ++m_ullEnded;
    --m_dwLive;
    s_dwVacancies.fetch_add(1, std::memory_order_relaxed);
    StoreOwner(aRing);
}

void CCmFlight::CState::StoreOwner(const CCmFlightRing& aRing) {
    const COwner& owner = OwnerOf(aRing);
    CCmFlightSlot& slot = *aRing.m_pSlot;
    Release(slot.m_dwState, uint32_t{CCmFlightSlot::FREE});
    Release(slot.m_dwNumber, owner.m_dwNumber);
    Release(slot.m_ullThread, NumberOf(owner.m_Thread));
    Release(slot.m_ullStart, owner.m_ullStart);
    Release(slot.m_ullEnd, owner.m_ullEnd);
    Release(slot.m_ullFirst, owner.m_ullFirst);
    ReleaseWords(slot.m_szName, owner.m_szName, sizeof(owner.m_szName));
    Release(slot.m_dwState, uint32_t{owner.m_eState});
}

// ---- Forks

void CCmFlight::CState::BeforeFork() {
    t_this.m_bIsBusy = true;
    s_Lock.m_Lock.Lock();
}

void CCmFlight::CState::AfterForkInParent() {
    s_Lock.m_Lock.UnLock();
    t_this.m_bIsBusy = false;
}

// The file is the parent's. The child has one thread, which may go on to use its ring.
void CCmFlight::CState::AfterForkInChild() {
    CState& state = s_State;
    g_cmTraceTap.store(nullptr, std::memory_order_relaxed);
    state.m_bIsOpen = false;
    if (state.m_dwSlots != 0) {
        state.LeaveFile();
    }
    state.m_dwLive = 0;
    for (uint32_t i = 0; i < state.m_dwSlots; ++i) {
        if (&state.m_pRings[i] == t_this.m_pRing) {
            state.m_dwLive = 1;
        } else {
            state.m_pOwners[i].m_eState = CCmFlightSlot::FREE;
        }
    }
    s_Lock.m_Lock.UnLock();
    t_this.m_bIsBusy = false;
}

// ---- Rings

void CCmFlightRing::EnterClass(const void* aTable) {
    if (aTable == nullptr) {
        return;
    }
    if (!EnsureClassListed(aTable)) {
        __atomic_fetch_add(&Header()->m_ullLostClasses, 1, __ATOMIC_RELAXED);
    }
    m_pKnown[PlaceOf(aTable)] = aTable;
}

void CCmFlightRing::Line(long long aUsec, DWORD aLevel, bool aIsFiltered, const char* aText,
                         size_t aLength) {
    const bool bIsCut = aLength > CM_FLIGHT_MOST_TEXT;
    const size_t nLength = bIsCut ? CM_FLIGHT_MOST_TEXT : aLength;
    const uint64_t ullFlags =
        (aIsFiltered ? CM_FLIGHT_LINE_FILTERED : 0) | (bIsCut ? CM_FLIGHT_LINE_CUT : 0);
    uint64_t ullText[2] = {};
    const size_t nHere = nLength < sizeof(ullText) ? nLength : sizeof(ullText);
    std::memcpy(ullText, aText, nHere);
    Put(CmFlightHead(CCmFlightUnit::LINE, static_cast<uint64_t>(aUsec)),
        CmFlightLine(aLevel, ullFlags, nLength), ullText[0], ullText[1]);
    PutText(aText + nHere, nLength - nHere);
}

void CCmFlightRing::PutText(const char* aText, size_t aLength) {
    uint64_t ullNumber = 0;
    for (size_t nDone = 0; nDone < aLength; nDone += CM_FLIGHT_UNIT_TEXT) {
        uint64_t ullText[3] = {};
        const size_t nRest = aLength - nDone;
        std::memcpy(ullText, aText + nDone, nRest < sizeof(ullText) ? nRest : sizeof(ullText));
        Put(CmFlightHead(CCmFlightUnit::TEXT, ++ullNumber), ullText[0], ullText[1], ullText[2]);
    }
}

void CCmFlightRing::Figures(const CCmFlightFigures& aFigures, long long aWallUsec) {
    static constexpr CCmFlightFigures NONE = {};
    if (aWallUsec != 0 && __atomic_load_n(&m_pSlot->m_ullFiguresWall, __ATOMIC_RELAXED) == 0 &&
        std::memcmp(&aFigures, &NONE, sizeof(NONE)) == 0) {
        return;
    }
    const uint64_t ullCount = __atomic_load_n(&m_pSlot->m_ullFiguresCount, __ATOMIC_RELAXED) | 1;
    Release(m_pSlot->m_ullFiguresCount, ullCount);
    Release(m_pSlot->m_ullFiguresWall, static_cast<uint64_t>(aWallUsec));
    ReleaseWords(&m_pSlot->m_Figures, &aFigures, sizeof(aFigures));
    Release(m_pSlot->m_ullFiguresCount, ullCount + 1);
}

bool CCmFlightRing::Read(uint64_t aNumber, CCmFlightUnit& aUnit) const {
    const CCmFlightUnit& unit = m_pUnits[aNumber & m_ullMask];
    aUnit.m_ullHead = __atomic_load_n(&unit.m_ullHead, __ATOMIC_ACQUIRE);
    for (int i = 0; i < 3; ++i) {
        aUnit.m_ullWords[i] = __atomic_load_n(&unit.m_ullWords[i], __ATOMIC_ACQUIRE);
    }
    // The unit after the last one may be being written.
    return __atomic_load_n(&m_ullWritten, __ATOMIC_ACQUIRE) - aNumber <= m_ullMask;
}

bool CCmFlightRing::FindPost(const void* aEvent, long long aNotAfterUsec, long long& aUsec) const {
    uint64_t ullNumber = 0;
    return Find(aEvent, nullptr, nullptr, aNotAfterUsec, aUsec, ullNumber);
}

bool CCmFlightRing::HasRun(const void* aEvent, long long aAfterUsec, long long aBeforeUsec) const {
    CCmFlightUnit unit;
    uint64_t ullNumber = __atomic_load_n(&m_ullWritten, __ATOMIC_ACQUIRE);
    while (ullNumber-- > 0 && Read(ullNumber, unit)) {
        if (CmFlightKind(unit.m_ullHead) != CCmFlightUnit::EVENT ||
            unit.m_ullWords[2] != CmFlightAddress(aEvent)) {
            continue;
        }
        const auto llStart = static_cast<long long>(CmFlightTime(unit.m_ullHead));
        const auto llLength = static_cast<long long>(CmFlightRunLength(unit.m_ullWords[0]));
        if (llStart < aBeforeUsec && llStart + llLength > aAfterUsec) {
            return true;
        }
    }
    return false;
}

bool CCmFlightRing::Find(const void* aEvent, const void* aTable, const void* aQueue,
                         long long aNotAfterUsec, long long& aUsec, uint64_t& aNumber) const {
    CCmFlightUnit unit;
    uint64_t ullNumber = __atomic_load_n(&m_ullWritten, __ATOMIC_ACQUIRE);
    while (ullNumber-- > 0 && Read(ullNumber, unit)) {
        const long long llUsec = static_cast<long long>(CmFlightTime(unit.m_ullHead));
        if (CmFlightKind(unit.m_ullHead) == CCmFlightUnit::POST &&
            unit.m_ullWords[1] == CmFlightAddress(aEvent) && llUsec <= aNotAfterUsec &&
            (aTable == nullptr || unit.m_ullWords[0] == CmFlightAddress(aTable)) &&
            (aQueue == nullptr || unit.m_ullWords[2] == CmFlightAddress(aQueue))) {
            aUsec = llUsec;
            aNumber = ullNumber;
            return true;
        }
    }
    return false;
}

void CCmFlightRing::FindName(uint64_t aNumber, char (&aName)[CM_FLIGHT_NAME_SIZE]) const {
    std::memset(aName, 0, sizeof(aName));
    CCmFlightUnit unit;
    while (aNumber-- > 0 && Read(aNumber, unit)) {
        if (CmFlightKind(unit.m_ullHead) != CCmFlightUnit::THREAD) {
            continue;
        }
        constexpr size_t UNITS =
            (CM_FLIGHT_NAME_SIZE + CM_FLIGHT_UNIT_TEXT - 1) / CM_FLIGHT_UNIT_TEXT;
        char achText[UNITS * CM_FLIGHT_UNIT_TEXT] = {};
        for (size_t i = 0; i < UNITS && Read(aNumber + 1 + i, unit) &&
                           unit.m_ullHead == CmFlightHead(CCmFlightUnit::TEXT, i + 1);
             ++i) {
            std::memcpy(achText + i * CM_FLIGHT_UNIT_TEXT, unit.m_ullWords,
                        sizeof(unit.m_ullWords));
        }
        std::memcpy(aName, achText, sizeof(aName) - 1);
        return;
    }
}

bool CCmFlight::CopyClassName(const void* aTable, char (&aName)[CM_FLIGHT_CLASS_NAME_SIZE]) {
    const uint64_t ullTable = CmFlightAddress(aTable);
    for (size_t i = 0; i < CM_FLIGHT_CLASS_COUNT; ++i) {
        const CCmFlightClass& entry =
            s_classes[(PlaceOfClass(ullTable) + i) % CM_FLIGHT_CLASS_COUNT];
        const uint64_t ullThere = __atomic_load_n(&entry.m_ullTable, __ATOMIC_RELAXED);
        if (ullThere == ullTable &&
            __atomic_load_n(&entry.m_dwState, __ATOMIC_ACQUIRE) == CCmFlightClass::COMPLETE) {
            std::memcpy(aName, entry.m_szName, sizeof(aName));
            return true;
        }
        if (ullThere == ullTable || ullThere == 0) {
            return false;
        }
    }
    return false;
}

// Without the lock for a thread that has a ring: then all of them stay.
const CCmFlightRing* CCmFlight::CState::Search(const void* aEvent, const void* aTable,
                                               const void* aQueue, long long aNotAfterUsec,
                                               long long& aUsec, uint64_t& aNumber) {
    const CCmFlightRing* pFound = nullptr;
    for (uint32_t i = 0; i < s_State.m_dwSlots; ++i) {
        const CCmFlightRing& ring = s_State.m_pRings[i];
        long long llUsec = 0;
        uint64_t ullNumber = 0;
        if (ring.Find(aEvent, aTable, aQueue, aNotAfterUsec, llUsec, ullNumber) &&
            (pFound == nullptr || llUsec > aUsec)) {
            pFound = &ring;
            aNumber = ullNumber;
            aUsec = llUsec;
        }
    }
    return pFound;
}

// Of the thread whose ring it was when unit aNumber was written; empty when it is not known.
void CCmFlight::CState::CopyNameAt(const CCmFlightRing& aRing, uint64_t aNumber,
                                   char (&aName)[CM_FLIGHT_NAME_SIZE]) const {
    const COwner& owner = OwnerOf(aRing);
    if (aNumber >= owner.m_ullFirst) {
        std::memcpy(aName, owner.m_szName, sizeof(aName));
    } else if (aNumber >= owner.m_ullFirstBefore) {
        std::memcpy(aName, owner.m_szNameBefore, sizeof(aName));
    } else {
        aRing.FindName(aNumber, aName);
    }
}

bool CCmFlight::FindPost(const void* aEvent, const void* aTable, const void* aQueue,
                         long long aNotAfterUsec, long long& aUsec,
                         char (&aPoster)[CM_FLIGHT_NAME_SIZE]) {
    const bool bHasRing = t_this.m_pRing != nullptr;
    const CCmFlightRing* pFound = nullptr;
    uint64_t ullNumber = 0;
    if (bHasRing) {
        pFound = CState::Search(aEvent, aTable, aQueue, aNotAfterUsec, aUsec, ullNumber);
    }
    CHold hold;
    if (!bHasRing) {
        pFound = CState::Search(aEvent, aTable, aQueue, aNotAfterUsec, aUsec, ullNumber);
    }
    if (pFound == nullptr) {
        return false;
    }
    char szName[CM_FLIGHT_NAME_SIZE];
    CState::s_State.CopyNameAt(*pFound, ullNumber, szName);
    if (szName[0] != '\0') {
        std::memcpy(aPoster, szName, sizeof(aPoster));
    }
    return true;
}

}  // namespace UTIL_NS
