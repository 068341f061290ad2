#include "schedule/Scheduler.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "CmSystem.h"
#include "schedule/Atomic.h"
#include "schedule/Fibers.h"

extern "C" char __executable_start;  // the linker's

namespace kelto_test {

bool g_bScheduled = false;

namespace {

using namespace UTIL_NS;

enum class EStep : uint8_t {
    START,
    LOAD,
    STORE,
    EXCHANGE,
    LOCK,
    TRY_LOCK,
    UNLOCK,
    WAIT,
    SIGNAL,
    BROADCAST,
    SEM_WAIT,
    SEM_POST,
    CREATE,
    JOIN,
    CANCEL,
    SLEEP,
    STATIC,
    UNTIL,
    CHOOSE,
    CALL,
    YIELD,
};
const char* const STEP_NAMES[] = {
    "starts", "load",   "store",     "exchange",   "lock",     "trylock", "unlock",
    "wait",   "signal", "broadcast", "sem_wait",   "sem_post", "create",  "join",
    "cancel", "sleep",  "static",    "wait until", "choose",   "call",    "yield",
};

constexpr long long NSEC_PER_SEC = 1000000000;
// The start of a schedule, in each clock.
constexpr long long REAL_START = 1700000000 * NSEC_PER_SEC;
constexpr long long MONOTONIC_START = 5000 * NSEC_PER_SEC;
constexpr long long NEVER = INT64_MAX;
// What a look at the monotonic clock takes.
constexpr long long LOOK_NSEC = 20 * 1000;

// What threads do with one place, in this schedule.
struct CObject {
    const void* m_pPlace = nullptr;
    unsigned m_nSchedule = 0;
    unsigned m_nNumber = 0;
    CExploration::CPlace* m_pLearnt = nullptr;
    uint64_t m_ullLastWrite = 0;
    uint64_t m_ullReads = 0;
    int m_nOwner = -1;  // of a mutex or a static variable
    int m_nHeld = 0;    // how many times its owner has it
    bool m_bRecursive = false;
    bool m_bDestroyed = false;
    unsigned m_nCount = 0;    // of a semaphore
    unsigned m_nWaiters = 0;  // of a condition: a bit a thread
};

struct CThread {
    enum EState { FREE, LIVE, ENDED };

    CFiber m_Fiber;
    EState m_State = FREE;
    EStep m_Step = EStep::START;
    CObject* m_pObject = nullptr;  // what the step is on
    CObject* m_pMutex = nullptr;   // of a wait
    long long m_llDeadline = NEVER;
    bool m_bTimedOut = false;
    bool m_bMayBeCancelled = false;  // in the step that blocks
    bool m_bCancelled = false;       // asked to end
    bool m_bActsOnCancel = false;    // was woken by that
    bool m_bDetached = false;
    bool m_bBackFromWait = false;  // has yet to take the mutex again
    int m_nJoined = -1;            // the thread that it waits for
    void* (*m_pfnStart)(void*) = nullptr;
    void* m_pArgument = nullptr;
    const std::function<bool()>* m_pCondition = nullptr;
    uint64_t m_ullHash = 0;
    std::vector<std::pair<void (*)(void*), void*>> m_AtEnd;  // destructors of thread-local objects
    int m_anFaults[static_cast<int>(EFault::COUNT)] = {};
    char m_chSelf = 0;    // a place: its start and end
    char m_chCancel = 0;  // a place: whether it is cancelled
};

uint64_t Mix(uint64_t aLeft, uint64_t aRight) {
    uint64_t ull = (aLeft ^ (aRight + 0x9E3779B97F4A7C15u + (aLeft << 6) + (aLeft >> 2)));
    ull = (ull ^ (ull >> 30)) * 0xBF58476D1CE4E5B9u;
    ull = (ull ^ (ull >> 27)) * 0x94D049BB133111EBu;
    return ull ^ (ull >> 31);
}

uint64_t NumberOf(const void* aPointer) {
    return reinterpret_cast<uintptr_t>(aPointer);
}

CThread s_Threads[THREADS_AT_MOST];
CContext s_Explorer;
CExploration* s_pExploration = nullptr;
const CSettings* s_pSettings = nullptr;
const std::function<void()>* s_pScenario = nullptr;
std::function<void()>* s_pAllSleep = nullptr;
int s_nCurrent = -1;
unsigned s_nSteps = 0;
uint64_t s_ullTrace = 0;
long long s_llNow = 0;
bool s_bTells = false;
bool s_bChecks = false;  // WhenAllSleep's function runs
unsigned s_nSchedule = 0;
size_t s_nTold = 0;
char s_chClock = 0;    // a place
char s_chThreads = 0;  // a place: which numbers are given
int s_nSpurious = 0;

constexpr size_t OBJECTS = 1 << 13;
CObject s_Objects[OBJECTS];
unsigned s_nObjects = 0;
std::vector<CObject*> s_Used;

CThread& Current() {
    return s_Threads[s_nCurrent];
}

void Tell(const char* aFormat, ...) __attribute__((format(printf, 1, 2)));
void Tell(const char* aFormat, ...) {
    char* const pszSteps = s_pExploration->m_szSteps;
    constexpr size_t SIZE = sizeof(s_pExploration->m_szSteps);
    if (s_nTold + 1 >= SIZE) {
        return;
    }
    va_list arguments;
    va_start(arguments, aFormat);
    const int nLength = std::vsnprintf(pszSteps + s_nTold, SIZE - s_nTold, aFormat, arguments);
    va_end(arguments);
    s_nTold = std::min(SIZE - 1, s_nTold + static_cast<size_t>(std::max(nLength, 0)));
}

void NoteFailure(const char* aWhat) {
    char* const pszFailure = s_pExploration->m_szFailure;
    constexpr int SIZE = sizeof(s_pExploration->m_szFailure);
    if (pszFailure[0] != '\0') {
        return;
    }
    int nAt = std::snprintf(pszFailure, SIZE, "%s\n", aWhat);
    for (int i = 0; i < THREADS_AT_MOST && nAt < SIZE; ++i) {
        const CThread& thread = s_Threads[i];
        if (thread.m_State == CThread::LIVE) {
            nAt += std::snprintf(pszFailure + nAt, static_cast<size_t>(SIZE - nAt),
                                 "  thread %d %s %s #%u\n", i,
                                 i == s_nCurrent ? "runs, after" : "is before",
                                 STEP_NAMES[static_cast<int>(thread.m_Step)],
                                 thread.m_pObject != nullptr ? thread.m_pObject->m_nNumber : 0);
        }
    }
}

[[noreturn]] void FailNow(const char* aWhat) {
    NoteFailure(aWhat);
    // Back to whoever started the schedule; the threads are left as they are.
    g_bScheduled = false;
    CContext nowhere;
    SwitchContext(nowhere, s_Explorer);
    std::abort();
}

CObject& ObjectOf(const void* aPlace) {
    const uint64_t ullHash = NumberOf(aPlace) * 0x9E3779B97F4A7C15u;
    for (size_t i = (ullHash >> 40) % OBJECTS;; i = (i + 1) % OBJECTS) {
        CObject& object = s_Objects[i];
        if (object.m_nSchedule != s_nSchedule) {
            if (++s_nObjects > OBJECTS / 4 * 3) {
                FailNow("too many places");
            }
            object = CObject();
            object.m_pPlace = aPlace;
            object.m_nSchedule = s_nSchedule;
            object.m_nNumber = s_nObjects;
            object.m_pLearnt = &s_pExploration->PlaceOf(aPlace);
            s_Used.push_back(&object);
            return object;
        }
        if (object.m_pPlace == aPlace) {
            return object;
        }
    }
}

// The current thread has done something at aObject: it comes after the last write there and, if it
// writes itself, after all that has been read since.
void Touch(CObject& aObject, bool aWrites, uint64_t aWhat = 0) {
    CThread& thread = Current();
    uint64_t ullHash = Mix(thread.m_ullHash, aObject.m_ullLastWrite);
    ullHash = Mix(ullHash, NumberOf(aObject.m_pPlace) + aWhat);
    if (aWrites) {
        ullHash = Mix(ullHash, aObject.m_ullReads + 1);
        aObject.m_ullLastWrite = ullHash;
        aObject.m_ullReads = 0;
    } else {
        aObject.m_ullReads += ullHash;
    }
    thread.m_ullHash = ullHash;
    s_ullTrace += Mix(ullHash, static_cast<uint64_t>(s_nCurrent));
    s_pExploration->NoteAccess(*aObject.m_pLearnt, s_nCurrent, aWrites);
}
void Touch(const void* aPlace, bool aWrites, uint64_t aWhat = 0) {
    Touch(ObjectOf(aPlace), aWrites, aWhat);
}

bool HasToEnd(const CThread& aThread) {
    return aThread.m_bCancelled && aThread.m_bMayBeCancelled;
}

bool MayLock(const CObject& aMutex, int aThread) {
    return aMutex.m_nOwner < 0 || (aMutex.m_bRecursive && aMutex.m_nOwner == aThread);
}

// Whether the thread can do its step now.
bool IsEnabled(int aThread) {
    const CThread& thread = s_Threads[aThread];
    if (thread.m_State != CThread::LIVE) {
        return false;
    }
    switch (thread.m_Step) {
        case EStep::LOCK:
        case EStep::STATIC:
            return MayLock(*thread.m_pObject, aThread);
        case EStep::WAIT:
            return thread.m_bBackFromWait && MayLock(*thread.m_pMutex, aThread);
        case EStep::SEM_WAIT:
            return thread.m_pObject->m_nCount > 0 || HasToEnd(thread);
        case EStep::JOIN:
            return s_Threads[thread.m_nJoined].m_State == CThread::ENDED || HasToEnd(thread);
        case EStep::SLEEP:
            return thread.m_bTimedOut || HasToEnd(thread);
        case EStep::UNTIL: {
            g_bScheduled = false;
            const bool bHolds = (*thread.m_pCondition)();
            g_bScheduled = true;
            return bHolds;
        }
        default:
            return true;
    }
}

// Whether its step could end by itself: the time is over.
bool MayTimeOut(int aThread) {
    const CThread& thread = s_Threads[aThread];
    return thread.m_State == CThread::LIVE && thread.m_llDeadline != NEVER && !thread.m_bTimedOut &&
           ((thread.m_Step == EStep::SLEEP && !HasToEnd(thread)) ||
            (thread.m_Step == EStep::WAIT && !thread.m_bBackFromWait &&
             MayLock(*thread.m_pMutex, aThread)));
}

bool MayWakeUp(int aThread) {
    const CThread& thread = s_Threads[aThread];
    return thread.m_State == CThread::LIVE && thread.m_Step == EStep::WAIT &&
           !thread.m_bBackFromWait && MayLock(*thread.m_pMutex, aThread);
}

// A change before a step is of use only if another thread touches the same; for what touches
// several things it is always offered.
bool IsShared(const CThread& aThread) {
    switch (aThread.m_Step) {
        case EStep::LOAD:
        case EStep::STORE:
        case EStep::EXCHANGE:
        case EStep::LOCK:
        case EStep::TRY_LOCK:
        case EStep::UNLOCK:
        case EStep::STATIC:
        case EStep::SEM_POST:
            return aThread.m_pObject->m_pLearnt->IsOffered();
        case EStep::CALL:
            return aThread.m_pObject->m_pLearnt->IsOffered() ||
                   s_pExploration->PlaceOf(&aThread.m_chCancel).IsOffered();
        default:
            return true;
    }
}

void EndWait(CThread& aThread) {
    if (aThread.m_Step == EStep::WAIT) {
        aThread.m_pObject->m_nWaiters &= ~(1u << (&aThread - s_Threads));
        aThread.m_bBackFromWait = true;
    }
}

// For a choice beyond the threads: ends the wait of one, by its time or woken by nobody.
void EndWaitAs(int aValue) {
    const int nThread = aValue % BY_TIMEOUT;
    CThread& thread = s_Threads[nThread];
    EndWait(thread);
    const int nBefore = s_nCurrent;
    s_nCurrent = nThread;
    if (aValue < BY_NOBODY) {
        thread.m_bTimedOut = true;
        s_llNow = std::max(s_llNow, thread.m_llDeadline);
        Touch(&s_chClock, true);
    } else {
        ++s_nSpurious;
    }
    if (s_bTells) {
        Tell("        thread %d %s\n", nThread,
             aValue < BY_NOBODY ? "has waited long enough" : "is woken by nobody");
    }
    Touch(*thread.m_pObject, true, static_cast<uint64_t>(aValue));
    s_nCurrent = nBefore;
}

// Lets the scenario look at them, which is no part of the schedule.
void TellThatAllSleep() {
    if (*s_pAllSleep != nullptr) {
        s_bChecks = true;
        g_bScheduled = false;
        (*s_pAllSleep)();
        g_bScheduled = true;
        s_bChecks = false;
    }
}

// The thread that goes on; -1: all have ended.
int PickThread() {
    if (++s_nSteps > static_cast<unsigned>(s_pSettings->m_nSteps)) {
        FailNow("it goes on for ever");
    }
    const bool bGoesOn = s_nCurrent >= 0 && IsEnabled(s_nCurrent);
    bool bLives = false;
    CCandidates candidates;
    if (bGoesOn) {
        candidates.Add(s_nCurrent, 0);
    }
    const bool bYields = bGoesOn && Current().m_Step == EStep::YIELD;
    const bool bOffers =
        !bGoesOn || bYields || (s_pExploration->HasBudget(1) && IsShared(Current()));
    if (bOffers) {
        int nEarliest = -1;
        for (int i = 1; i <= THREADS_AT_MOST; ++i) {
            const int nThread = (s_nCurrent + i + THREADS_AT_MOST) % THREADS_AT_MOST;
            bLives = bLives || s_Threads[nThread].m_State == CThread::LIVE;
            if (nThread != s_nCurrent && IsEnabled(nThread)) {
                candidates.Add(nThread, bGoesOn && !bYields ? 1 : 0);
            }
            if (MayTimeOut(nThread) && (nEarliest < 0 || s_Threads[nThread].m_llDeadline <
                                                             s_Threads[nEarliest].m_llDeadline)) {
                nEarliest = nThread;
            }
        }
        const bool bAllSleep = candidates.m_nCount == 0;
        if (bAllSleep && nEarliest >= 0) {
            TellThatAllSleep();
            candidates.Add(nEarliest + BY_TIMEOUT, 0);
        }
        if (s_pExploration->HasBudget(1)) {
            for (int i = 0; i < THREADS_AT_MOST; ++i) {
                if (MayTimeOut(i) && !(bAllSleep && i == nEarliest)) {
                    candidates.Add(i + BY_TIMEOUT, 1);
                }
            }
            for (int i = 0; i < THREADS_AT_MOST && s_nSpurious < s_pSettings->m_nSpuriousWakeUps;
                 ++i) {
                if (MayWakeUp(i)) {
                    candidates.Add(i + BY_NOBODY, 1);
                }
            }
        }
    }
    if (candidates.m_nCount == 0) {
        if (bLives) {
            FailNow("all threads wait for each other");
        }
        return -1;
    }
    int nValue = candidates.m_abyValues[0];
    if (candidates.m_nCount > 1) {
        const uint64_t ullState =
            Mix(s_ullTrace, bGoesOn ? static_cast<uint64_t>(s_nCurrent + 2) : 0);
        nValue = s_pExploration->Pick(s_nSteps, ullState, candidates);
    }
    if (nValue >= BY_TIMEOUT) {
        EndWaitAs(nValue);
    }
    return nValue % BY_TIMEOUT;
}

// One line about the step that the current thread is about to do, with the frames that led there.
void TellStep() {
    const CThread& thread = Current();
    Tell("%5u  thread %d  %-10s #%-3u", s_nSteps, s_nCurrent,
         STEP_NAMES[static_cast<int>(thread.m_Step)],
         thread.m_pObject != nullptr ? thread.m_pObject->m_nNumber : 0);
    g_bScheduled = false;
    void* apFrames[16];
    const int nFrames = backtrace(apFrames, 16);
    for (int i = 2; i < nFrames; ++i) {
        // The call, not where it returns to; from the start of the program.
        Tell(" @%zx", NumberOf(apFrames[i]) - NumberOf(&__executable_start) - 1);
    }
    Tell("\n");
    g_bScheduled = true;
}

// Goes on with whoever is picked; returns when that is the current thread.
void GoOn() {
    const int nBefore = s_nCurrent;
    const int nNext = PickThread();
    if (nNext == nBefore) {
        return;
    }
    s_nCurrent = nNext;
    CContext& from = s_Threads[nBefore].m_Fiber.Context();
    if (nNext < 0) {
        g_bScheduled = false;
        SwitchContext(from, s_Explorer);
    } else {
        SwitchContext(from, s_Threads[nNext].m_Fiber.Context());
    }
}

// Before a step of the current thread: returns when it is its turn and the step can be done.
void Step(EStep aStep, CObject* aObject) {
    CThread& thread = Current();
    if (s_bChecks) {
        FailNow("a check for sleeping threads must not touch the library");
    }
    thread.m_Step = aStep;
    thread.m_pObject = aObject;
    GoOn();
    if (aObject != nullptr && IsFreed(aObject->m_pPlace)) {
        FailNow("what has been freed is used");
    }
    if (s_bTells) {
        TellStep();
    }
}

bool MayBeCancelledNow() {
    int nState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
    pthread_setcancelstate(nState, nullptr);
    return nState == PTHREAD_CANCEL_ENABLE;
}

[[noreturn]] void ActOnCancel() {
    CThread& thread = Current();
    if (s_bTells) {
        Tell("        thread %d is cancelled here\n", s_nCurrent);
    }
    thread.m_bActsOnCancel = false;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    thread.m_Fiber.Unwind();
}

// At a cancellation point, after its step.
void CheckCancel() {
    CThread& thread = Current();
    if (!MayBeCancelledNow()) {
        return;
    }
    Touch(&thread.m_chCancel, false);
    if (thread.m_bCancelled) {
        ActOnCancel();
    }
}

// Whether the call is the one that was to fail.
bool Fails(EFault aFault) {
    int& nLeft = Current().m_anFaults[static_cast<int>(aFault)];
    return nLeft > 0 && --nLeft == 0;
}

bool IsScheduled() {
    return g_bScheduled;
}

CObject& MutexOf(pthread_mutex_t* aMutex) {
    CObject& object = ObjectOf(aMutex);
    // One that is initialised statically says itself what it is.
    object.m_bRecursive = (aMutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
    if (object.m_bDestroyed) {
        FailNow("a destroyed mutex is used");
    }
    return object;
}

void Take(CObject& aMutex) {
    aMutex.m_nOwner = s_nCurrent;
    ++aMutex.m_nHeld;
    Touch(aMutex, true);
}

void GiveBack(CObject& aMutex) {
    if (--aMutex.m_nHeld == 0) {
        aMutex.m_nOwner = -1;
    }
    Touch(aMutex, true);
}

int MutexInit(pthread_mutex_t* aMutex, const pthread_mutexattr_t* aAttributes) {
    if (IsScheduled()) {
        CObject& object = ObjectOf(aMutex);
        if (object.m_nOwner >= 0) {
            FailNow("a held mutex is made again");
        }
        object.m_bDestroyed = false;
    }
    return pthread_mutex_init(aMutex, aAttributes);
}

int MutexDestroy(pthread_mutex_t* aMutex) {
    if (IsScheduled()) {
        CObject& object = MutexOf(aMutex);
        Touch(object, true);
        if (object.m_nOwner >= 0) {
            FailNow("a held mutex is destroyed");
        }
        object.m_bDestroyed = true;
    }
    return pthread_mutex_destroy(aMutex);
}

int MutexLock(pthread_mutex_t* aMutex) {
    if (!IsScheduled()) {
        return pthread_mutex_lock(aMutex);
    }
    CObject& object = MutexOf(aMutex);
    Step(EStep::LOCK, &object);
    if (object.m_bDestroyed) {
        FailNow("a destroyed mutex is locked");
    }
    if (Fails(EFault::LOCK)) {
        return EINVAL;
    }
    Take(object);
    return pthread_mutex_lock(aMutex);
}

int MutexTryLock(pthread_mutex_t* aMutex) {
    if (!IsScheduled()) {
        return pthread_mutex_trylock(aMutex);
    }
    CObject& object = MutexOf(aMutex);
    Step(EStep::TRY_LOCK, &object);
    if (!MayLock(object, s_nCurrent)) {
        Touch(object, false);
        return EBUSY;
    }
    Take(object);
    return pthread_mutex_trylock(aMutex);
}

int MutexUnlock(pthread_mutex_t* aMutex) {
    if (!IsScheduled()) {
        return pthread_mutex_unlock(aMutex);
    }
    CObject& object = MutexOf(aMutex);
    Step(EStep::UNLOCK, &object);
    if (object.m_nOwner != s_nCurrent) {
        FailNow("a mutex is unlocked by a thread that does not hold it");
    }
    const int rv = pthread_mutex_unlock(aMutex);
    GiveBack(object);
    return rv;
}

CObject& ConditionOf(pthread_cond_t* aCondition) {
    CObject& object = ObjectOf(aCondition);
    if (object.m_bDestroyed) {
        FailNow("a destroyed condition is used");
    }
    return object;
}

int ConditionInit(pthread_cond_t* aCondition, const pthread_condattr_t* aAttributes) {
    if (IsScheduled()) {
        ObjectOf(aCondition).m_bDestroyed = false;
    }
    return pthread_cond_init(aCondition, aAttributes);
}

int ConditionDestroy(pthread_cond_t* aCondition) {
    if (IsScheduled()) {
        CObject& object = ConditionOf(aCondition);
        Touch(object, true);
        if (object.m_nWaiters != 0) {
            FailNow("a condition is destroyed while a thread waits");
        }
        object.m_bDestroyed = true;
    }
    return pthread_cond_destroy(aCondition);
}

void WakeOne(CObject& aCondition, int aThread) {
    aCondition.m_nWaiters &= ~(1u << aThread);
    s_Threads[aThread].m_bBackFromWait = true;
}

// Not a step that others may come before; its choice is told from theirs by a number of its own.
int ChooseOf(int aCount) {
    if (aCount <= 1) {
        return 0;
    }
    CCandidates candidates;
    candidates.m_bThreads = false;
    for (int i = 0; i < aCount; ++i) {
        candidates.Add(i, 0);
    }
    const uint64_t ullState = Mix(s_ullTrace, static_cast<uint64_t>(s_nCurrent) + 100);
    const int nChosen = s_pExploration->Pick(++s_nSteps, ullState, candidates);
    Touch(&Current().m_chSelf, true, static_cast<uint64_t>(nChosen) + 1);
    if (s_bTells) {
        Tell("%5u  thread %d  %d of 0 to %d\n", s_nSteps, s_nCurrent, nChosen, aCount - 1);
    }
    return nChosen;
}

int ConditionSignal(pthread_cond_t* aCondition) {
    if (!IsScheduled()) {
        return pthread_cond_signal(aCondition);
    }
    CObject& object = ConditionOf(aCondition);
    Step(EStep::SIGNAL, &object);
    if (object.m_bDestroyed) {
        FailNow("a destroyed condition is signalled");
    }
    if (Fails(EFault::SIGNAL)) {
        return EINVAL;
    }
    if (object.m_nWaiters != 0) {
        const unsigned nWaiters = object.m_nWaiters;
        int nWaiter = ChooseOf(__builtin_popcount(nWaiters));
        for (int i = 0; i < THREADS_AT_MOST; ++i) {
            if ((nWaiters & (1u << i)) != 0 && nWaiter-- == 0) {
                WakeOne(object, i);
            }
        }
    }
    Touch(object, true);
    return 0;
}

int ConditionBroadcast(pthread_cond_t* aCondition) {
    if (!IsScheduled()) {
        return pthread_cond_broadcast(aCondition);
    }
    CObject& object = ConditionOf(aCondition);
    Step(EStep::BROADCAST, &object);
    if (Fails(EFault::SIGNAL)) {
        return EINVAL;
    }
    for (int i = 0; i < THREADS_AT_MOST; ++i) {
        if ((object.m_nWaiters & (1u << i)) != 0) {
            WakeOne(object, i);
        }
    }
    Touch(object, true);
    return 0;
}

int Wait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex, long long aDeadline) {
    CThread& thread = Current();
    CObject& condition = ConditionOf(aCondition);
    CObject& mutex = MutexOf(aMutex);
    Step(EStep::CALL, &condition);
    CheckCancel();
    if (Fails(EFault::WAIT)) {
        return EINVAL;
    }
    if (mutex.m_nOwner != s_nCurrent || mutex.m_nHeld != 1) {
        FailNow("a wait with a mutex that is not held once");
    }
    if (aDeadline <= s_llNow) {
        return ETIMEDOUT;
    }
    pthread_mutex_unlock(aMutex);
    GiveBack(mutex);
    condition.m_nWaiters |= 1u << s_nCurrent;
    Touch(condition, true);
    thread.m_pMutex = &mutex;
    thread.m_llDeadline = aDeadline;
    thread.m_bTimedOut = false;
    thread.m_bBackFromWait = false;
    thread.m_bActsOnCancel = false;
    thread.m_bMayBeCancelled = MayBeCancelledNow();
    Step(EStep::WAIT, &condition);
    thread.m_bMayBeCancelled = false;
    thread.m_llDeadline = NEVER;
    Take(mutex);
    Touch(condition, true);
    pthread_mutex_lock(aMutex);
    if (thread.m_bActsOnCancel) {
        ActOnCancel();
    }
    return thread.m_bTimedOut ? ETIMEDOUT : 0;
}

int ConditionWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    return IsScheduled() ? Wait(aCondition, aMutex, NEVER) : pthread_cond_wait(aCondition, aMutex);
}

long long NsecOf(const timespec& aTime) {
    return aTime.tv_sec >= INT64_MAX / NSEC_PER_SEC ? NEVER - MONOTONIC_START
                                                    : aTime.tv_sec * NSEC_PER_SEC + aTime.tv_nsec;
}

int ConditionTimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                       const timespec* aDeadline) {
    if (!IsScheduled()) {
        return pthread_cond_timedwait(aCondition, aMutex, aDeadline);
    }
    return Wait(aCondition, aMutex, NsecOf(*aDeadline) - REAL_START);
}

int ConditionClockWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                       const timespec* aDeadline) {
    if (!IsScheduled()) {
        return pthread_cond_clockwait(aCondition, aMutex, CLOCK_MONOTONIC, aDeadline);
    }
    return Wait(aCondition, aMutex, NsecOf(*aDeadline) - MONOTONIC_START);
}

// The semaphore itself is not used, only its place; its count is kept there all the same, for one
// that is made before the schedule.
int SemaphoreInit(CmPlatformSemaphore* aSemaphore, int aShared, unsigned aCount) {
    const int rv = sem_init(aSemaphore, aShared, aCount);
    if (IsScheduled() && rv == 0) {
        ObjectOf(aSemaphore).m_nCount = aCount;
    }
    return rv;
}

int SemaphoreWait(CmPlatformSemaphore* aSemaphore) {
    if (!IsScheduled()) {
        return sem_wait(aSemaphore);
    }
    CThread& thread = Current();
    CObject& object = ObjectOf(aSemaphore);
    thread.m_bMayBeCancelled = MayBeCancelledNow();
    Step(EStep::SEM_WAIT, &object);
    thread.m_bMayBeCancelled = false;
    CheckCancel();
    if (Fails(EFault::WAIT)) {
        errno = EINVAL;
        return -1;
    }
    --object.m_nCount;
    Touch(object, true);
    return sem_wait(aSemaphore);
}

int SemaphorePost(CmPlatformSemaphore* aSemaphore) {
    if (!IsScheduled()) {
        return sem_post(aSemaphore);
    }
    CObject& object = ObjectOf(aSemaphore);
    Step(EStep::SEM_POST, &object);
    if (Fails(EFault::SIGNAL)) {
        errno = EINVAL;
        return -1;
    }
    ++object.m_nCount;
    Touch(object, true);
    return sem_post(aSemaphore);
}

int FindThread(pthread_t aThread) {
    for (int i = 0; i < THREADS_AT_MOST; ++i) {
        if (pthread_equal(s_Threads[i].m_Fiber.Id(), aThread) != 0 &&
            s_Threads[i].m_State != CThread::FREE) {
            return i;
        }
    }
    return -1;
}

void RunThread(CFiber& aFiber);

void StartThread(int aThread, void* (*aStart)(void*), void* aArgument, bool aDetached) {
    CThread& thread = s_Threads[aThread];
    thread.m_State = CThread::LIVE;
    thread.m_Step = EStep::START;
    thread.m_pObject = &ObjectOf(&thread.m_chSelf);
    thread.m_pMutex = nullptr;
    thread.m_llDeadline = NEVER;
    thread.m_bTimedOut = false;
    thread.m_bMayBeCancelled = false;
    thread.m_bCancelled = false;
    thread.m_bActsOnCancel = false;
    thread.m_bBackFromWait = false;
    thread.m_bDetached = aDetached;
    thread.m_pfnStart = aStart;
    thread.m_pArgument = aArgument;
    thread.m_ullHash = Mix(thread.m_ullHash, static_cast<uint64_t>(aThread) + 1);
    std::fill(std::begin(thread.m_anFaults), std::end(thread.m_anFaults), 0);
}

int CreateThread(pthread_t* aId, const pthread_attr_t* aAttributes, void* (*aStart)(void*),
                 void* aArgument) {
    if (!IsScheduled()) {
        return pthread_create(aId, aAttributes, aStart, aArgument);
    }
    Step(EStep::CREATE, &ObjectOf(&s_chThreads));
    if (Fails(EFault::CREATE)) {
        return EAGAIN;
    }
    int nState = PTHREAD_CREATE_JOINABLE;
    if (aAttributes != nullptr) {
        pthread_attr_getdetachstate(aAttributes, &nState);
    }
    int nThread = 0;
    while (nThread < THREADS_AT_MOST && s_Threads[nThread].m_State != CThread::FREE) {
        ++nThread;
    }
    if (nThread == THREADS_AT_MOST) {
        FailNow("too many threads");
    }
    Touch(&s_chThreads, true);
    CThread& thread = s_Threads[nThread];
    StartThread(nThread, aStart, aArgument, nState == PTHREAD_CREATE_DETACHED);
    Touch(&thread.m_chSelf, true);
    *aId = thread.m_Fiber.Id();
    return 0;
}

int JoinThread(pthread_t aId, void** aResult) {
    if (!IsScheduled()) {
        return pthread_join(aId, aResult);
    }
    CThread& thread = Current();
    const int nJoined = FindThread(aId);
    if (nJoined < 0 || s_Threads[nJoined].m_bDetached) {
        FailNow("a thread is joined that is not there");
    }
    CObject& object = ObjectOf(&s_Threads[nJoined].m_chSelf);
    Step(EStep::CALL, &object);
    CheckCancel();
    thread.m_nJoined = nJoined;
    thread.m_bMayBeCancelled = MayBeCancelledNow();
    Step(EStep::JOIN, &object);
    thread.m_bMayBeCancelled = false;
    if (s_Threads[nJoined].m_State != CThread::ENDED) {
        CheckCancel();
        FailNow("a thread is joined twice");
    }
    Touch(object, true);
    Touch(&s_chThreads, true);
    s_Threads[nJoined].m_State = CThread::FREE;
    if (aResult != nullptr) {
        *aResult = nullptr;
    }
    return 0;
}

int CancelThread(pthread_t aId) {
    if (!IsScheduled()) {
        return pthread_cancel(aId);
    }
    const int nThread = FindThread(aId);
    CObject* pObject = nThread < 0 ? nullptr : &ObjectOf(&s_Threads[nThread].m_chCancel);
    Step(EStep::CANCEL, pObject);
    const int nNow = FindThread(aId);
    if (nNow < 0) {
        return ESRCH;
    }
    CThread& thread = s_Threads[nNow];
    Touch(&thread.m_chCancel, true);
    thread.m_bCancelled = true;
    if (thread.m_State == CThread::LIVE && thread.m_Step == EStep::WAIT &&
        !thread.m_bBackFromWait && thread.m_bMayBeCancelled) {
        Touch(*thread.m_pObject, true);
        EndWait(thread);
        thread.m_bActsOnCancel = true;
    }
    return 0;
}

int Sleep(const timespec* aTime, timespec* aLeft) {
    if (!IsScheduled()) {
        return nanosleep(aTime, aLeft);
    }
    CThread& thread = Current();
    CObject& object = ObjectOf(&thread.m_chCancel);
    Step(EStep::CALL, &object);
    CheckCancel();
    thread.m_llDeadline = s_llNow + NsecOf(*aTime);
    thread.m_bTimedOut = false;
    thread.m_bMayBeCancelled = MayBeCancelledNow();
    Step(EStep::SLEEP, &object);
    thread.m_bMayBeCancelled = false;
    thread.m_llDeadline = NEVER;
    if (!thread.m_bTimedOut) {
        CheckCancel();
    }
    Touch(object, true);
    return 0;
}

long long ReadClock() {
    Touch(&s_chClock, false);
    return s_llNow;
}

int TimeOfDay(timeval* aNow, void* /*aUnused*/) {
    if (!IsScheduled()) {
        return gettimeofday(aNow, nullptr);
    }
    const long long llNow = REAL_START + ReadClock();
    aNow->tv_sec = llNow / NSEC_PER_SEC;
    aNow->tv_usec = llNow % NSEC_PER_SEC / 1000;
    return 0;
}

clock_t Times(tms* aTimes) {
    return IsScheduled() ? ReadClock() / (NSEC_PER_SEC / sysconf(_SC_CLK_TCK)) : times(aTimes);
}

void BeforeCall() {
    if (IsScheduled()) {
        Step(EStep::CALL, &ObjectOf(&Current().m_chCancel));
        CheckCancel();
    }
}

CCmSystemTable s_Saved;

// The calls that are cancellation points and do nothing else that a schedule is about.
int OpenFile(const char* aPath, int aFlags, mode_t aMode) {
    BeforeCall();
    return s_Saved.open(aPath, aFlags, aMode);
}
ssize_t ReadFile(int aFile, void* aBuffer, size_t aSize) {
    BeforeCall();
    return s_Saved.read(aFile, aBuffer, aSize);
}
int CloseFile(int aFile) {
    BeforeCall();
    return s_Saved.close(aFile);
}
int PollFiles(struct pollfd* aFiles, nfds_t aCount, int aTimeout) {
    BeforeCall();
    return s_Saved.poll(aFiles, aCount, aTimeout);
}
int LockFile(int aFile, int aCommand, void* aLock) {
    BeforeCall();
    return s_Saved.fcntl(aFile, aCommand, aLock);
}
ssize_t ReadAt(int aFile, void* aBuffer, size_t aSize, off_t aOffset) {
    BeforeCall();
    return s_Saved.pread(aFile, aBuffer, aSize, aOffset);
}
ssize_t WriteAt(int aFile, const void* aBuffer, size_t aSize, off_t aOffset) {
    BeforeCall();
    return s_Saved.pwrite(aFile, aBuffer, aSize, aOffset);
}

// The destructors of thread-specific values. A key is made once, and known from then on.
void (*s_apfnKeys[PTHREAD_KEYS_MAX])(void*);

int MakeKey(pthread_key_t* aKey, void (*aDestructor)(void*)) {
    const int nError = s_Saved.pthread_key_create(aKey, aDestructor);
    if (nError == 0) {
        s_apfnKeys[*aKey] = aDestructor;
    }
    return nError;
}
// Not in the system's thread, which outlives the one of the schedule.
int SetSpecific(pthread_key_t aKey, const void* aValue) {
    if (!IsScheduled()) {
        return s_Saved.pthread_setspecific(aKey, aValue);
    }
    if (aValue != nullptr && s_apfnKeys[aKey] != nullptr) {
        RunAtThreadEnd(s_apfnKeys[aKey], const_cast<void*>(aValue));
    }
    return 0;
}

void* RunScenario(void* /*aUnused*/) {
    (*s_pScenario)();
    return nullptr;
}

// The job of every thread: its start routine, and the end of the thread.
void RunThread(CFiber& aFiber) {
    const int nThread = s_nCurrent;
    CThread& thread = s_Threads[nThread];
    aFiber.ResetThreadLocals();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    Touch(*thread.m_pObject, true);
    if (s_bTells) {
        TellStep();
    }
    aFiber.Run([&thread] { thread.m_pfnStart(thread.m_pArgument); });
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    while (!thread.m_AtEnd.empty()) {
        const auto atEnd = thread.m_AtEnd.back();
        thread.m_AtEnd.pop_back();
        atEnd.first(atEnd.second);
    }
    Step(EStep::CALL, &ObjectOf(&thread.m_chSelf));
    Touch(&thread.m_chSelf, true);
    if (s_bTells) {
        Tell("        thread %d has ended\n", nThread);
    }
    thread.m_State = CThread::ENDED;
    if (thread.m_bDetached || nThread == 0) {
        Touch(&s_chThreads, true);
        thread.m_State = CThread::FREE;
    }
    GoOn();  // comes back here with the next job
}

CFate s_Fates[32];
int s_nFired = 0;

void JudgeEnd() {
    for (CObject* pObject : s_Used) {
        if (pObject->m_nOwner >= 0) {
            NoteFailure("a lock is held at the end");
        }
    }
    for (const CThread& thread : s_Threads) {
        if (thread.m_State == CThread::ENDED) {
            NoteFailure("a thread was never joined");
        }
    }
    for (size_t i = 0; i < std::size(s_Fates); ++i) {
        if (s_Fates[i].m_nMade != s_Fates[i].m_nEnded) {
            char szWhat[80];
            std::snprintf(szWhat, sizeof(szWhat), "event %zu was made %d times and ended %d times",
                          i, s_Fates[i].m_nMade, s_Fates[i].m_nEnded);
            NoteFailure(szWhat);
        }
    }
    if (const char* pszWhat = JudgeMemory()) {
        NoteFailure(pszWhat);
    }
}

[[noreturn]] void Terminated() {
    FailNow("std::terminate was called");
}

void Crashed(int aSignal) {
    char szWhat[64];
    std::snprintf(szWhat, sizeof(szWhat), "signal %d", aSignal);
    FailNow(szWhat);
}

// What ends the process ends the schedule.
void CatchCrashes() {
    static char s_achStack[1 << 16];
    stack_t stack = {};
    stack.ss_sp = s_achStack;
    stack.ss_size = sizeof(s_achStack);
    sigaltstack(&stack, nullptr);
    struct sigaction action = {};
    action.sa_handler = &Crashed;
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    for (const int nSignal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        sigaction(nSignal, &action, nullptr);
    }
    std::set_terminate(&Terminated);
}

}  // namespace

void BeforeAccess(const void* aVariable, EAccess aAccess) {
    CObject& object = ObjectOf(aVariable);
    Step(aAccess == EAccess::LOAD    ? EStep::LOAD
         : aAccess == EAccess::STORE ? EStep::STORE
                                     : EStep::EXCHANGE,
         &object);
    Touch(object, aAccess != EAccess::LOAD);
}

void Fail(const std::string& aWhat) {
    FailNow(aWhat.c_str());
}

int Choose(int aCount) {
    return ChooseOf(aCount);
}

void WaitUntil(const std::function<bool()>& aCondition) {
    CThread& thread = Current();
    thread.m_pCondition = &aCondition;
    Step(EStep::UNTIL, nullptr);
    thread.m_pCondition = nullptr;
}

CThreadOf::CThreadOf(std::function<void()> aBody) : m_Body(std::move(aBody)) {
    const auto run = [](void* aThis) -> void* {
        static_cast<CThreadOf*>(aThis)->m_Body();
        return nullptr;
    };
    g_cmSystem.pthread_create(&m_Id, nullptr, run, this);
}

void CThreadOf::Join() {
    if (!m_bJoined) {
        m_bJoined = true;
        g_cmSystem.pthread_join(m_Id, nullptr);
    }
}

void CThreadOf::Cancel() {
    g_cmSystem.pthread_cancel(m_Id);
}

int ThreadNumber() {
    return s_nCurrent;
}

bool Sleeps(int aThread) {
    const CThread& thread = s_Threads[aThread];
    return thread.m_State == CThread::LIVE && thread.m_Step == EStep::WAIT &&
           !thread.m_bBackFromWait;
}

void WhenAllSleep(std::function<void()> aCheck) {
    *s_pAllSleep = std::move(aCheck);
}

long long NowNsec() {
    return s_llNow;
}

void FailCall(EFault aFault, int aNth) {
    Current().m_anFaults[static_cast<int>(aFault)] = aNth;
}

bool AllocationFails() {
    return g_bScheduled && Fails(EFault::ALLOCATION);
}

CWatchedEvent::CWatchedEvent(int aId, Work aWork, std::function<void()> aAtEnd)
    : m_nId(aId), m_Work(std::move(aWork)), m_AtEnd(std::move(aAtEnd)) {
    ++s_Fates[aId].m_nMade;
}

CmResult CWatchedEvent::OnEventFire() {
    CFate& fate = s_Fates[m_nId];
    if (++fate.m_nFired > fate.m_nMade) {
        FailNow("an event is fired twice");
    }
    fate.m_nFiredOn = s_nCurrent;
    fate.m_nFiredAs = s_nFired++;
    return m_Work ? m_Work() : CM_OK;
}

void CWatchedEvent::OnDestorySelf() {
    CFate& fate = s_Fates[m_nId];
    if (++fate.m_nEnded > fate.m_nMade) {
        FailNow("an event is ended twice");
    }
    fate.m_nEndedOn = s_nCurrent;
    if (fate.m_nFired == fate.m_nMade && fate.m_nEndedOn != fate.m_nFiredOn) {
        FailNow("a fired event is ended on another thread");
    }
    const std::function<void()> atEnd = std::move(m_AtEnd);
    delete this;  // first: the thread may be cancelled in what follows
    if (atEnd) {
        atEnd();
    }
}

const CFate& FateOf(int aId) {
    return s_Fates[aId];
}

void MakeThreads() {
    for (CThread& thread : s_Threads) {
        thread.m_Fiber.Make(&RunThread);
        thread.m_AtEnd.reserve(8);
    }
    s_Used.reserve(OBJECTS);
}

CScheduledCalls::CScheduledCalls() {
    s_Saved = g_cmSystem;
    g_cmSystem.pthread_mutex_init = &MutexInit;
    g_cmSystem.pthread_mutex_destroy = &MutexDestroy;
    g_cmSystem.pthread_mutex_lock = &MutexLock;
    g_cmSystem.pthread_mutex_trylock = &MutexTryLock;
    g_cmSystem.pthread_mutex_unlock = &MutexUnlock;
    g_cmSystem.pthread_cond_init = &ConditionInit;
    g_cmSystem.pthread_cond_destroy = &ConditionDestroy;
    g_cmSystem.pthread_cond_signal = &ConditionSignal;
    g_cmSystem.pthread_cond_broadcast = &ConditionBroadcast;
    g_cmSystem.pthread_cond_wait = &ConditionWait;
    g_cmSystem.pthread_cond_timedwait = &ConditionTimedWait;
    g_cmSystem.pthread_cond_clockwait = &ConditionClockWait;
    g_cmSystem.pthread_create = &CreateThread;
    g_cmSystem.pthread_join = &JoinThread;
    g_cmSystem.pthread_cancel = &CancelThread;
    g_cmSystem.pthread_key_create = &MakeKey;
    g_cmSystem.pthread_setspecific = &SetSpecific;
    g_cmSystem.gettimeofday = &TimeOfDay;
    g_cmSystem.nanosleep = &Sleep;
    g_cmSystem.sem_init = &SemaphoreInit;
    g_cmSystem.sem_wait = &SemaphoreWait;
    g_cmSystem.sem_post = &SemaphorePost;
    g_cmSystem.open = &OpenFile;
    g_cmSystem.read = &ReadFile;
    g_cmSystem.close = &CloseFile;
    g_cmSystem.poll = &PollFiles;
    g_cmSystem.fcntl = &LockFile;
    g_cmSystem.pread = &ReadAt;
    g_cmSystem.pwrite = &WriteAt;
    g_cmClock.gettimeofday = &TimeOfDay;
    g_cmClock.coarse_gettimeofday = &TimeOfDay;
    g_cmClock.times = &Times;
}

CScheduledCalls::~CScheduledCalls() {
    g_cmSystem = s_Saved;
}

// Called by what stands in the place of functions of the C and C++ libraries.

void CatchFailures() {
    CatchCrashes();
}

bool TakeStatic(unsigned char* aGuard) {
    CObject& object = ObjectOf(aGuard);
    Step(EStep::STATIC, &object);
    if (*aGuard != 0) {
        Touch(object, false);
        return false;
    }
    Take(object);
    return true;
}

void GiveBackStatic(unsigned char* aGuard, bool aIsMade) {
    *aGuard = aIsMade ? 1 : 0;
    GiveBack(ObjectOf(aGuard));
}

void RunAtThreadEnd(void (*aFunction)(void*), void* aObject) {
    Current().m_AtEnd.emplace_back(aFunction, aObject);
}

void DetachThread(pthread_t aThread) {
    const int nThread = FindThread(aThread);
    if (nThread < 0 || s_Threads[nThread].m_bDetached) {
        FailNow("a thread is detached that cannot be");
    }
    CThread& thread = s_Threads[nThread];
    Touch(&s_chThreads, true);
    thread.m_bDetached = true;
    if (thread.m_State == CThread::ENDED) {
        thread.m_State = CThread::FREE;
    }
}

void TestCancel() {
    BeforeCall();
}

int CoreOfThread() {
    return s_pSettings->m_bOneCore ? 0 : s_nCurrent;
}

void YieldThread() {
    Step(EStep::YIELD, nullptr);
}

int ReadClock(clockid_t aClock, timespec* aNow) {
    const bool bMonotonic = aClock == CLOCK_MONOTONIC || aClock == CLOCK_MONOTONIC_COARSE;
    if (bMonotonic) {  // for those that look at it again and again until time has passed
        s_llNow += LOOK_NSEC;
        Touch(&s_chClock, true);
    }
    const long long llNow = ReadClock() + (bMonotonic ? MONOTONIC_START : REAL_START);
    *aNow = {static_cast<time_t>(llNow / NSEC_PER_SEC), static_cast<long>(llNow % NSEC_PER_SEC)};
    return 0;
}

unsigned StepsOfSchedule() {
    return s_nSteps;
}

bool RunSchedule(CExploration& aExploration, const std::function<void()>& aScenario,
                 const CSettings& aSettings, bool aTells, EMemory aMemory) {
    s_pExploration = &aExploration;
    s_pSettings = &aSettings;
    s_pScenario = &aScenario;
    std::function<void()> allSleep;
    s_pAllSleep = &allSleep;
    ++s_nSchedule;
    s_nObjects = 0;
    s_Used.clear();
    s_nSteps = 0;
    s_ullTrace = 0;
    s_llNow = 0;
    s_bTells = aTells;
    s_nSpurious = 0;
    s_nFired = 0;
    for (CFate& fate : s_Fates) {
        fate = CFate();
    }
    for (CThread& thread : s_Threads) {
        thread.m_State = CThread::FREE;
        thread.m_ullHash = 0;
        thread.m_AtEnd.clear();
    }
    aExploration.Begin();
    BeginMemory(aMemory);
    StartThread(0, &RunScenario, nullptr, false);
    s_nCurrent = 0;
    g_bScheduled = true;
    SwitchContext(s_Explorer, s_Threads[0].m_Fiber.Context());
    // Here also from FailNow.
    g_bScheduled = false;
    if (aExploration.m_szFailure[0] == '\0') {
        allSleep = nullptr;
        JudgeEnd();
    }
    s_nCurrent = -1;
    return aExploration.m_szFailure[0] == '\0';
}

}  // namespace kelto_test
