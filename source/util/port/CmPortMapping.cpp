// The part of CmPort.h that looks after a mapped file.
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

#include "CmAtomic.h"
#include "CmPort.h"
#include "CmSystem.h"

namespace UTIL_NS {

namespace {

// Read in a signal handler. The size is released after the begin, and is 0 while nothing is
// guarded.
CmStd::atomic<uintptr_t> s_nBegin{0};
CmStd::atomic<size_t> s_nSize{0};
enum EState : int { STATE_WHOLE, STATE_BEING_REPLACED, STATE_LOST };
CmStd::atomic<int> s_nState{STATE_WHOLE};

// Written before the handler is installed, which then stays the way to the one before it.
struct sigaction s_previous;
bool s_bIsInstalled = false;
// A handler before that was for one signal only has had it.
CmStd::atomic<bool> s_bIsUsed{false};

// Whatever the flags: both kinds are at the same place.
bool HadHandler() {
    return s_previous.sa_handler != SIG_DFL && s_previous.sa_handler != SIG_IGN;
}

bool IsGuarded(const void* aAddress) {
    const size_t nSize = s_nSize.load(std::memory_order_acquire);
    return reinterpret_cast<uintptr_t>(aAddress) - s_nBegin.load(std::memory_order_relaxed) < nSize;
}

// The handler before, or the system's action: what faulted faults again, and what a process sent is
// sent again and comes when the handler returns.
void PassOn(int aSignal, siginfo_t* aInfo, void* aContext) {
    const bool bIsForOne = (s_previous.sa_flags & static_cast<int>(SA_RESETHAND)) != 0;
    if (HadHandler() && !(bIsForOne && s_bIsUsed.exchange(true, std::memory_order_relaxed))) {
        if ((s_previous.sa_flags & SA_SIGINFO) != 0) {
            s_previous.sa_sigaction(aSignal, aInfo, aContext);
        } else {
            s_previous.sa_handler(aSignal);
        }
        return;
    }
    const bool bIsFault = aInfo->si_code > 0 && aInfo->si_code != SI_USER;
    if (s_previous.sa_handler == SIG_IGN && !bIsFault) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(aSignal, &action, nullptr);
    if (!bIsFault) {
        raise(aSignal);
    }
}

// True: the access may go on. Of threads that fault at the same time one replaces what is mapped,
// lest it takes from another what that one has written since.
bool Replace() {
    int nState = STATE_WHOLE;
    if (s_nState.compare_exchange_strong(nState, STATE_BEING_REPLACED, std::memory_order_relaxed)) {
        const bool bIsDone =
            CmPortReplaceMapping(reinterpret_cast<void*>(s_nBegin.load(std::memory_order_relaxed)),
                                 s_nSize.load(std::memory_order_relaxed));
        s_nState.store(bIsDone ? STATE_LOST : STATE_WHOLE, std::memory_order_relaxed);
        return bIsDone;
    }
    while (s_nState.load(std::memory_order_relaxed) == STATE_BEING_REPLACED) {
        sched_yield();
    }
    return true;
}

void OnBusError(int aSignal, siginfo_t* aInfo, void* aContext) {
    const int nError = errno;
    // Another code is that of a signal that was sent, with no address, or of broken memory.
    if (aInfo->si_code != BUS_ADRERR || !IsGuarded(aInfo->si_addr) || !Replace()) {
        PassOn(aSignal, aInfo, aContext);
    }
    errno = nError;
}

sigset_t BusErrors() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGBUS);
    return signals;
}

bool IsOurs(const struct sigaction& aAction) {
    return (aAction.sa_flags & SA_SIGINFO) != 0 && aAction.sa_sigaction == &OnBusError;
}

}  // namespace

bool CmPortReplaceMapping(void* aBegin, size_t aSize) {
    return g_cmSystem.mmap(aBegin, aSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANON | MAP_NORESERVE | MAP_FIXED, -1, 0) == aBegin;
}

void CmPortGuardMapping(void* aBegin, size_t aSize) {
    s_nState.store(STATE_WHOLE, std::memory_order_relaxed);
    s_nBegin.store(reinterpret_cast<uintptr_t>(aBegin), std::memory_order_relaxed);
    s_nSize.store(aSize, std::memory_order_release);
    // One that could not be taken back is installed still, and calls this one perhaps.
    if (s_bIsInstalled) {
        return;
    }
    sigaction(SIGBUS, nullptr, &s_previous);
    struct sigaction action = {};
    action.sa_sigaction = &OnBusError;
    action.sa_mask = s_previous.sa_mask;
    action.sa_flags = SA_SIGINFO | (HadHandler() ? s_previous.sa_flags & SA_ONSTACK : SA_ONSTACK) |
                      (s_previous.sa_flags & (SA_NODEFER | SA_RESTART));
    s_bIsUsed.store(false, std::memory_order_relaxed);
    sigaction(SIGBUS, &action, nullptr);
    s_bIsInstalled = true;
}

// Where somebody has installed a handler since then, this one stays, which that one may call.
void CmPortUnguardMapping() {
    s_nSize.store(0, std::memory_order_relaxed);
    struct sigaction action = {};
    if (s_bIsInstalled && sigaction(SIGBUS, nullptr, &action) == 0 && IsOurs(action)) {
        if (s_bIsUsed.load(std::memory_order_relaxed)) {
            s_previous = {};
        }
        sigaction(SIGBUS, &s_previous, nullptr);
        s_bIsInstalled = false;
    }
}

bool CmPortIsMappingLost() {
    return s_nState.load(std::memory_order_relaxed) == STATE_LOST;
}

bool CmPortUnblockBusErrors() {
    const sigset_t signals = BusErrors();
    sigset_t before;
    sigemptyset(&before);
    pthread_sigmask(SIG_UNBLOCK, &signals, &before);
    return sigismember(&before, SIGBUS) == 1;
}

void CmPortBlockBusErrors() {
    const sigset_t signals = BusErrors();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace UTIL_NS
