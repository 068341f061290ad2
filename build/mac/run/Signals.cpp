// Signals: their numbers, sets and actions.
#include <errno.h>
#include <signal.h>
#include <stdint.h>

#include <atomic>

#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

constexpr int TARGET_SIGNALS = 32;
constexpr Pair SIGNALS[] = {
    {1, SIGHUP},     {2, SIGINT},   {3, SIGQUIT},   {4, SIGILL},   {5, SIGTRAP},  {6, SIGABRT},
    {8, SIGFPE},     {9, SIGKILL},  {10, SIGBUS},   {11, SIGSEGV}, {12, SIGSYS},  {13, SIGPIPE},
    {14, SIGALRM},   {15, SIGTERM}, {16, SIGURG},   {17, SIGSTOP}, {18, SIGTSTP}, {19, SIGCONT},
    {20, SIGCHLD},   {21, SIGTTIN}, {22, SIGTTOU},  {23, SIGIO},   {24, SIGXCPU}, {25, SIGXFSZ},
    {26, SIGVTALRM}, {27, SIGPROF}, {28, SIGWINCH}, {30, SIGUSR1}, {31, SIGUSR2},
};
constexpr Pair ACTION_FLAGS[] = {
    {0x1, SA_ONSTACK},   {0x2, SA_RESTART},  {0x4, static_cast<int>(SA_RESETHAND)},
    {0x8, SA_NOCLDSTOP}, {0x10, SA_NODEFER}, {0x20, SA_NOCLDWAIT},
    {0x40, SA_SIGINFO},
};
constexpr Pair MASK_CHANGES[] = {{1, SIG_BLOCK}, {2, SIG_UNBLOCK}, {3, SIG_SETMASK}};

using Set = uint32_t;  // bit 0 is signal 1

struct TargetInfo {
    int signo;
    int error;
    int code;
    pid_t pid;
    uid_t uid;
    int status;
    void* addr;
    void* reserved[10];
};

struct Action {
    void* handler;
    Set mask;
    int flags;
};
static_assert(sizeof(Action) == 16, "the target's size");

// What the program has set, by the target's number; signal handlers read it.
std::atomic<void*> s_pHandlers[TARGET_SIGNALS];

void Deliver(int aSignal, siginfo_t* aInfo, void* aContext) {
    const int nError = errno;
    const int nSignal = SignalToTarget(aSignal);
    TargetInfo info = {};
    info.signo = nSignal;
    info.code = aInfo->si_code;
    info.pid = aInfo->si_pid;
    info.uid = aInfo->si_uid;
    info.addr = aInfo->si_addr;
    // A handler of one argument overlooks the others.
    reinterpret_cast<void (*)(int, TargetInfo*, void*)>(s_pHandlers[nSignal].load())(nSignal, &info,
                                                                                     aContext);
    errno = nError;
}

bool IsHandler(const void* aHandler) {
    return aHandler != reinterpret_cast<void*>(SIG_DFL) &&
           aHandler != reinterpret_cast<void*>(SIG_IGN);
}

sigset_t SetToHost(Set aSet) {
    sigset_t host;
    sigemptyset(&host);
    for (const Pair& pair : SIGNALS) {
        if ((aSet >> (pair.target - 1) & 1) != 0) {
            sigaddset(&host, pair.host);
        }
    }
    return host;
}

Set SetToTarget(const sigset_t& aSet) {
    Set target = 0;
    for (const Pair& pair : SIGNALS) {
        target |= sigismember(&aSet, pair.host) == 1 ? Set{1} << (pair.target - 1) : 0;
    }
    return target;
}

int SigAction(int aSignal, const Action* aAction, Action* aOld) {
    const int nSignal = SignalToHost(aSignal);
    if (nSignal == -1) {
        errno = EINVAL;
        return -1;
    }
    void* const pOld = s_pHandlers[aSignal];
    struct sigaction action = {};
    struct sigaction old = {};
    if (aAction != nullptr) {
        action.sa_flags = FlagsToHost(ACTION_FLAGS, aAction->flags);
        action.sa_mask = SetToHost(aAction->mask);
        if (IsHandler(aAction->handler)) {
            s_pHandlers[aSignal] = aAction->handler;
            action.sa_flags |= SA_SIGINFO;
            action.sa_sigaction = &Deliver;
        } else {
            action.sa_flags &= ~SA_SIGINFO;
            action.sa_handler = reinterpret_cast<void (*)(int)>(aAction->handler);
        }
    }
    if (sigaction(nSignal, aAction == nullptr ? nullptr : &action, &old) != 0) {
        return -1;
    }
    if (aOld != nullptr) {
        aOld->handler =
            old.sa_sigaction == &Deliver ? pOld : reinterpret_cast<void*>(old.sa_handler);
        aOld->mask = SetToTarget(old.sa_mask);
        aOld->flags = FlagsToTarget(ACTION_FLAGS, old.sa_flags);
    }
    return 0;
}

void* Signal(int aSignal, void* aHandler) {
    const Action action = {aHandler, 0, 0x2};  // SA_RESTART
    Action old;
    return SigAction(aSignal, &action, &old) == 0 ? old.handler : reinterpret_cast<void*>(SIG_ERR);
}

int ThreadMask(int aHow, const Set* aSet, Set* aOld) {
    const sigset_t set = SetToHost(aSet == nullptr ? 0 : *aSet);
    sigset_t old;
    const int nError =
        pthread_sigmask(ToHost(MASK_CHANGES, aHow), aSet == nullptr ? nullptr : &set, &old);
    if (nError == 0 && aOld != nullptr) {
        *aOld = SetToTarget(old);
    }
    return ErrorToTarget(nError);
}

int SigPending(Set* aSet) {
    sigset_t set;
    const int nResult = sigpending(&set);
    *aSet = SetToTarget(set);
    return nResult;
}

int SigWait(const Set* aSet, int* aSignal) {
    const sigset_t set = SetToHost(*aSet);
    int nSignal = 0;
    const int nError = Cancellable([&] { return sigwait(&set, &nSignal); });
    *aSignal = SignalToTarget(nSignal);
    return ErrorToTarget(nError);
}

int Raise(int aSignal) {
    return raise(SignalToHost(aSignal));
}

int Kill(pid_t aProcess, int aSignal) {
    return kill(aProcess, aSignal == 0 ? 0 : SignalToHost(aSignal));
}

}  // namespace

int SignalToTarget(int aHost) {
    return ToTarget(SIGNALS, aHost);
}

int SignalToHost(int aTarget) {
    return ToHost(SIGNALS, aTarget);
}

void SupplySignals() {
    Supply({
        {"_sigaction", Address(&SigAction)},
        {"_signal", Address(&Signal)},
        {"_pthread_sigmask", Address(&ThreadMask)},
        {"_sigpending", Address(&SigPending)},
        {"_sigwait", Address(&SigWait)},
        {"_kill", Address(&Kill)},
        {"_raise", Address(&Raise)},
    });
}

}  // namespace kelto_mac
