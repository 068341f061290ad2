// Makes a chosen system call or allocation fail on its n-th call.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <errno.h>

#include <atomic>
#include <cstddef>

#include "CmSystem.h"

// The number of an error as text, to stand in the literal of an expected line; which number it is
// differs between systems.
#define ERRNO_TEXT(aError) ERRNO_TEXT_OF(aError)
#define ERRNO_TEXT_OF(aNumber) #aNumber

namespace kelto_test {

enum class Failing { ONCE, FROM_THERE_ON };

// How a fault counts: calls are numbered from 1; the aNth fails, alone or with all that follow.
class FaultPlan {
  public:
    FaultPlan(unsigned long aNth, Failing aFailing) : m_ulNth(aNth), m_failing(aFailing) {}
    bool HitsNow() {
        const unsigned long ulCall = ++m_ulCalls;
        return m_failing == Failing::ONCE ? ulCall == m_ulNth : ulCall >= m_ulNth;
    }
    unsigned long calls() const { return m_ulCalls; }

  private:
    const unsigned long m_ulNth;
    const Failing m_failing;
    std::atomic<unsigned long> m_ulCalls{0};
};

// Replaces one entry of a table of system calls while it lives:
//   ScopedEntry<decltype(g_cmSystem.sysconf)> entry(g_cmSystem.sysconf, &MySysconf);
// To be constructed before and destroyed after the threads that call it.
template <typename Function>
class ScopedEntry {
  public:
    ScopedEntry(Function& aEntry, Function aReplacement) : m_entry(aEntry), m_saved(aEntry) {
        m_entry = aReplacement;
    }
    ~ScopedEntry() { m_entry = m_saved; }
    ScopedEntry(const ScopedEntry&) = delete;
    ScopedEntry& operator=(const ScopedEntry&) = delete;

    Function original() const { return m_saved; }

  private:
    Function& m_entry;
    const Function m_saved;
};

// One failing entry, named by its address in the table so that the replacement can find its plan:
//   FailingCall<&CCmSystemTable::sem_post> fault(EINVAL);             // the first call, once
//   FailingCall<&CCmSystemTable::nanosleep> fault(EINTR, -1, 2);      // the second call
// aError: what errno is set to. aResult: what the failing call returns; give the error number
// itself for the calls that return it (pthread_...). aEffect: whether the failing call is made.
enum class Effect { NONE, ALL_THE_SAME };

inline UTIL_NS::CCmSystemTable& TableOf(UTIL_NS::CCmSystemTable*) {
    return UTIL_NS::g_cmSystem;
}
inline UTIL_NS::CCmClockTable& TableOf(UTIL_NS::CCmClockTable*) {
    return UTIL_NS::g_cmClock;
}

template <auto Member>
class FailingCall;

template <typename Table, typename Result, typename... Args, Result (*Table::*Member)(Args...)>
class FailingCall<Member> {
  public:
    explicit FailingCall(int aError, Result aResult = static_cast<Result>(-1),
                         unsigned long aNth = 1, Failing aFailing = Failing::ONCE,
                         Effect aEffect = Effect::NONE)
        : m_plan(aNth, aFailing),
          m_nError(aError),
          m_result(aResult),
          m_effect(aEffect),
          m_saved(Entry()) {
        s_pCurrent = this;
        Entry() = &Call;
    }
    ~FailingCall() {
        Entry() = m_saved;
        s_pCurrent = nullptr;
    }
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    unsigned long calls() const { return m_plan.calls(); }
    FaultPlan& plan() { return m_plan; }

  private:
    static Result (*&Entry())(Args...) { return TableOf(static_cast<Table*>(nullptr)).*Member; }

    static Result Call(Args... aArgs) {
        FailingCall* pThis = s_pCurrent;
        if (pThis->m_plan.HitsNow()) {
            if (pThis->m_effect == Effect::ALL_THE_SAME) {
                pThis->m_saved(aArgs...);
            }
            errno = pThis->m_nError;
            return pThis->m_result;
        }
        return pThis->m_saved(aArgs...);
    }

    inline static FailingCall* s_pCurrent = nullptr;

    FaultPlan m_plan;
    const int m_nError;
    const Result m_result;
    const Effect m_effect;
    Result (*const m_saved)(Args...);
};

enum class AllocationsOf { THIS_THREAD, ALL_THREADS };

// Makes the aNth allocation (operator new, in every form) fail while it lives: the throwing forms
// throw std::bad_alloc, the others return null. One at a time.
class ScopedAllocationFault {
  public:
    explicit ScopedAllocationFault(unsigned long aNth, Failing aFailing = Failing::ONCE,
                                   AllocationsOf aThreads = AllocationsOf::THIS_THREAD);
    // Two allocations of this thread fail: the aNth, and the aAfterwards-th after it.
    ScopedAllocationFault(unsigned long aNth, unsigned long aAfterwards);
    ~ScopedAllocationFault();
    ScopedAllocationFault(const ScopedAllocationFault&) = delete;
    ScopedAllocationFault& operator=(const ScopedAllocationFault&) = delete;

    // Whether an allocation has failed so far, of two the second one.
    bool hit() const;
};

// From here on no allocation fails, although a fault lives: for an operation that has to be undone.
void LiftAllocationFault();

// While it lives, memory that the calling thread allocates holds this byte, so that a test may look
// at what the library leaves unwritten. One at a time.
class ScopedAllocationFill {
  public:
    explicit ScopedAllocationFill(unsigned char aByte);
    ~ScopedAllocationFill();
    ScopedAllocationFill(const ScopedAllocationFill&) = delete;
    ScopedAllocationFill& operator=(const ScopedAllocationFill&) = delete;
};

// Allocations minus releases through operator new and delete since the program started.
long LiveAllocations();
// Allocations made by the calling thread since it started.
unsigned long AllocationsOfThisThread();

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_FAULTS_H
