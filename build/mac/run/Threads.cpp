// Threads, their attributes, cancellation and thread-specific values.
#include "Thread.h"

#include <errno.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>

#include "Numbers.h"
#include "Supply.h"
#include "ThreadLocals.h"

namespace kelto_mac {

namespace {

constexpr long THREAD_SIGNATURE = 0x54485244;
constexpr long ATTRIBUTES_SIGNATURE = 0x54484441;
constexpr int POLICY_OTHER = 1;
constexpr int POLICY_ROUND_ROBIN = 2;
constexpr int POLICY_FIFO = 4;
constexpr int PRIORITY_MIN = 15;
constexpr int PRIORITY_USUAL = 31;
constexpr int PRIORITY_MAX = 47;
constexpr int ROUNDS = 4;  // of the destructors of thread-specific values

constexpr Pair DETACH_STATES[] = {{1, PTHREAD_CREATE_JOINABLE}, {2, PTHREAD_CREATE_DETACHED}};
constexpr Pair CANCEL_STATES[] = {{1, PTHREAD_CANCEL_ENABLE}, {0, PTHREAD_CANCEL_DISABLE}};
void* const TARGET_CANCELED = reinterpret_cast<void*>(1);

pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER;

class Locked {
  public:
    Locked() { pthread_mutex_lock(&s_lock); }
    ~Locked() { pthread_mutex_unlock(&s_lock); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
};

// Those that have not been joined, or have not ended detached; under the lock.
std::set<const Thread*>& Alive() {
    static auto* const s_pAlive = new std::set<const Thread*>;
    return *s_pAlive;
}

__thread Thread* s_pCurrent = nullptr;

struct Key {
    unsigned long generation = 0;  // odd: in use
    void (*destructor)(void*) = nullptr;
};
Key s_keys[KEYS_MAX];

Thread* NewThread() {
    auto* const pThread = static_cast<Thread*>(calloc(1, sizeof(Thread)));
    if (pThread != nullptr) {
        pThread->signature = THREAD_SIGNATURE;
        pThread->policy = POLICY_OTHER;
        pThread->priority = PRIORITY_USUAL;
        const Locked locked;
        Alive().insert(pThread);
    }
    return pThread;
}

// Under the lock.
void DeleteThread(Thread* aThread) {
    Alive().erase(aThread);
    free(aThread);
}

bool DestroyValuesOnce(Thread& aThread) {
    bool bAny = false;
    for (size_t i = 0; i < KEYS_MAX; ++i) {
        void* const pValue = aThread.values[i].value;
        aThread.values[i].value = nullptr;
        if (pValue != nullptr && aThread.values[i].generation == s_keys[i].generation &&
            s_keys[i].destructor != nullptr) {
            s_keys[i].destructor(pValue);
            bAny = true;
        }
    }
    return bAny;
}

// Its destructor is the end of the thread, however that comes.
struct End {
    Thread* m_pThread = nullptr;
    ~End() {
        if (m_pThread == nullptr) {
            return;
        }
        if (!m_pThread->returned && !m_pThread->cleaned && m_pThread->routine != nullptr &&
            m_pThread->handlers != nullptr) {
            Refuse(
                "a thread with clean-up handlers was cancelled in a call that the loader does "
                "not know as a cancellation point");
        }
        DestroyThreadLocals();
        for (int i = 0; i < ROUNDS && DestroyValuesOnce(*m_pThread); ++i) {
        }
        FreeThreadLocals();
        const Locked locked;
        m_pThread->ended = true;
        if (m_pThread->detached) {
            DeleteThread(m_pThread);
        }
    }
};
thread_local End s_end;

void Adopt(Thread* aThread) {
    s_pCurrent = aThread;
    s_end.m_pThread = aThread;
    aThread->id = static_cast<pid_t>(syscall(SYS_gettid));
}

void* Start(void* aThread) {
    auto* const pThread = static_cast<Thread*>(aThread);
    Adopt(pThread);
    void* const pResult = pThread->routine(pThread->argument);
    pThread->returned = true;
    return pResult;
}

// ---- Attributes: this system's after the signature, where they just fit.

struct Attributes {
    long signature;
    pthread_attr_t host;
};
static_assert(sizeof(Attributes) <= 64, "the target's size");

int AttrInit(Attributes* aAttributes) {
    aAttributes->signature = ATTRIBUTES_SIGNATURE;
    return ErrorToTarget(pthread_attr_init(&aAttributes->host));
}

bool IsMade(const Attributes* aAttributes) {
    return aAttributes->signature == ATTRIBUTES_SIGNATURE;
}

int AttrDestroy(Attributes* aAttributes) {
    if (!IsMade(aAttributes)) {
        return ErrorToTarget(EINVAL);
    }
    aAttributes->signature = 0;
    return ErrorToTarget(pthread_attr_destroy(&aAttributes->host));
}

int AttrSetDetachState(Attributes* aAttributes, int aState) {
    return !IsMade(aAttributes) ? ErrorToTarget(EINVAL)
                                : ErrorToTarget(pthread_attr_setdetachstate(
                                      &aAttributes->host, ToHost(DETACH_STATES, aState)));
}

int AttrGetDetachState(const Attributes* aAttributes, int* aState) {
    int nState = 0;
    const int nError = pthread_attr_getdetachstate(&aAttributes->host, &nState);
    *aState = ToTarget(DETACH_STATES, nState);
    return ErrorToTarget(nError);
}

int AttrSetStackSize(Attributes* aAttributes, size_t aSize) {
    return ErrorToTarget(
        !IsMade(aAttributes) ? EINVAL : pthread_attr_setstacksize(&aAttributes->host, aSize));
}

// ---- Threads

int Create(Thread** aThread, const Attributes* aAttributes, void* (*aRoutine)(void*),
           void* aArgument) {
    if (aAttributes != nullptr && !IsMade(aAttributes)) {
        return ErrorToTarget(EINVAL);
    }
    Thread* const pThread = NewThread();
    if (pThread == nullptr) {
        return ErrorToTarget(EAGAIN);
    }
    pThread->routine = aRoutine;
    pThread->argument = aArgument;
    int nState = PTHREAD_CREATE_JOINABLE;
    if (aAttributes != nullptr) {
        pthread_attr_getdetachstate(&aAttributes->host, &nState);
    }
    pThread->detached = nState == PTHREAD_CREATE_DETACHED;
    *aThread = pThread;  // a detached one may be gone when the call returns
    pthread_t host;
    const int nError = pthread_create(&host, aAttributes == nullptr ? nullptr : &aAttributes->host,
                                      &Start, pThread);
    const Locked locked;
    if (nError != 0) {
        DeleteThread(pThread);
    } else if (Alive().count(pThread) != 0) {
        pThread->host = host;
    }
    return ErrorToTarget(nError);
}

// Waits for a record that has just been made; false: there is none such.
bool Find(Thread* aThread, pthread_t& aHost) {
    for (;;) {
        {
            const Locked locked;
            if (Alive().count(aThread) == 0) {
                return false;
            }
            aHost = aThread == s_pCurrent ? pthread_self() : aThread->host;
        }
        if (aHost != 0) {
            return true;
        }
        sched_yield();
    }
}

int Join(Thread* aThread, void** aResult) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    {
        const Locked locked;
        if (aThread->detached || aThread->joining) {
            return ErrorToTarget(EINVAL);
        }
        if (aThread == s_pCurrent) {
            return ErrorToTarget(EDEADLK);
        }
        aThread->joining = true;
    }
    void* pResult = nullptr;
    const int nError = Cancellable([&] { return pthread_join(host, &pResult); });
    const Locked locked;
    if (nError != 0) {
        aThread->joining = false;
        return ErrorToTarget(nError);
    }
    if (aResult != nullptr) {
        *aResult = aThread->returned ? pResult : TARGET_CANCELED;
    }
    DeleteThread(aThread);
    return 0;
}

int Detach(Thread* aThread) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    const Locked locked;
    if (aThread->detached || aThread->joining) {
        return ErrorToTarget(EINVAL);
    }
    aThread->detached = true;
    const int nError = pthread_detach(host);
    if (aThread->ended) {
        DeleteThread(aThread);
    }
    return ErrorToTarget(nError);
}

int Cancel(Thread* aThread) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    const Locked locked;
    return ErrorToTarget(aThread->ended ? ESRCH : pthread_cancel(host));
}

int Kill(Thread* aThread, int aSignal) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    const Locked locked;
    return ErrorToTarget(
        aThread->ended ? ESRCH : pthread_kill(host, aSignal == 0 ? 0 : SignalToHost(aSignal)));
}

void Exit(void* aResult) {
    Thread& thread = *CurrentThread();
    RunCleanupHandlers(thread);
    thread.returned = true;
    pthread_exit(aResult);
}

int Equal(Thread* aOne, Thread* aOther) {
    return aOne == aOther;
}

int SetCancelState(int aState, int* aOld) {
    int nOld = 0;
    const int nError = pthread_setcancelstate(ToHost(CANCEL_STATES, aState), &nOld);
    if (nError == 0 && aOld != nullptr) {
        *aOld = ToTarget(CANCEL_STATES, nOld);
    }
    return ErrorToTarget(nError);
}

void TestCancel() {
    CancellationPoint point;
    pthread_testcancel();
    point.Pass();
}

unsigned MachThread(Thread* aThread) {
    while (aThread->id == 0) {
        sched_yield();
    }
    return static_cast<unsigned>(aThread->id);
}

// The number of the calling thread is asked for afresh: a forked child has another one.
int ThreadId(Thread* aThread, uint64_t* aId) {
    if (aThread == nullptr || aThread == s_pCurrent) {
        *aId = static_cast<uint64_t>(syscall(SYS_gettid));
        return 0;
    }
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    *aId = MachThread(aThread);
    return 0;
}

// A thread of the target has no name until it gets one, and names are longer there.
int SetName(const char* aName) {
    Thread& thread = *CurrentThread();
    const Locked locked;
    if (strlen(aName) >= sizeof(thread.name)) {
        return ErrorToTarget(ENAMETOOLONG);
    }
    strcpy(thread.name, aName);
    return 0;
}

int GetName(Thread* aThread, char* aName, size_t aSize) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    const Locked locked;
    snprintf(aName, aSize, "%s", aThread->name);
    return 0;
}

// ---- Scheduling: kept, and told again. Every thread may have any priority there, so this system,
// which would ask for a privilege, does not learn of it.

struct SchedulingParameter {
    int priority;
    char opaque[4];
};

bool IsPolicy(int aPolicy) {
    return aPolicy == POLICY_OTHER || aPolicy == POLICY_ROUND_ROBIN || aPolicy == POLICY_FIFO;
}

int SetScheduling(Thread* aThread, int aPolicy, const SchedulingParameter* aParameter) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    if (!IsPolicy(aPolicy)) {
        return ErrorToTarget(EINVAL);
    }
    const Locked locked;
    aThread->policy = aPolicy;
    aThread->priority = aParameter->priority;
    return 0;
}

int GetScheduling(Thread* aThread, int* aPolicy, SchedulingParameter* aParameter) {
    pthread_t host;
    if (!Find(aThread, host)) {
        return ErrorToTarget(ESRCH);
    }
    const Locked locked;
    *aPolicy = aThread->policy;
    *aParameter = {aThread->priority, {}};
    return 0;
}

int PriorityMin(int) {
    return PRIORITY_MIN;
}

int PriorityMax(int) {
    return PRIORITY_MAX;
}

// ---- Thread-specific values

int KeyCreate(unsigned long* aKey, void (*aDestructor)(void*)) {
    const Locked locked;
    for (size_t i = 0; i < KEYS_MAX; ++i) {
        if (s_keys[i].generation % 2 == 0) {
            ++s_keys[i].generation;
            s_keys[i].destructor = aDestructor;
            *aKey = i;
            return 0;
        }
    }
    return ErrorToTarget(EAGAIN);
}

bool IsKey(unsigned long aKey) {
    return aKey < KEYS_MAX && s_keys[aKey].generation % 2 != 0;
}

int KeyDelete(unsigned long aKey) {
    const Locked locked;
    if (!IsKey(aKey)) {
        return ErrorToTarget(EINVAL);
    }
    ++s_keys[aKey].generation;
    return 0;
}

void* GetSpecific(unsigned long aKey) {
    const Thread& thread = *CurrentThread();
    return IsKey(aKey) && thread.values[aKey].generation == s_keys[aKey].generation
               ? thread.values[aKey].value
               : nullptr;
}

int SetSpecific(unsigned long aKey, const void* aValue) {
    if (!IsKey(aKey)) {
        return ErrorToTarget(EINVAL);
    }
    CurrentThread()->values[aKey] = {s_keys[aKey].generation, const_cast<void*>(aValue)};
    return 0;
}

}  // namespace

Thread* CurrentThread() {
    if (s_pCurrent == nullptr) {  // the thread of main
        Thread* const pThread = NewThread();
        if (pThread == nullptr) {
            Refuse("no memory for a thread");
        }
        pThread->host = pthread_self();
        Adopt(pThread);
    }
    return s_pCurrent;
}

void RunCleanupHandlers(Thread& aThread) {
    aThread.cleaned = true;
    while (aThread.handlers != nullptr) {
        const CleanupHandler handler = *aThread.handlers;
        aThread.handlers = handler.next;
        handler.routine(handler.argument);
    }
}

void SupplyThreads() {
    Supply({
        {"_pthread_attr_init", Address(&AttrInit)},
        {"_pthread_attr_destroy", Address(&AttrDestroy)},
        {"_pthread_attr_setdetachstate", Address(&AttrSetDetachState)},
        {"_pthread_attr_setstacksize", Address(&AttrSetStackSize)},
        {"_pthread_attr_getdetachstate", Address(&AttrGetDetachState)},
        {"_pthread_create", Address(&Create)},
        {"_pthread_join", Address(&Join)},
        {"_pthread_detach", Address(&Detach)},
        {"_pthread_cancel", Address(&Cancel)},
        {"_pthread_kill", Address(&Kill)},
        {"_pthread_exit", Address(&Exit)},
        {"_pthread_self", Address(&CurrentThread)},
        {"_pthread_equal", Address(&Equal)},
        {"_pthread_setcancelstate", Address(&SetCancelState)},
        {"_pthread_testcancel", Address(&TestCancel)},
        {"_pthread_mach_thread_np", Address(&MachThread)},
        {"_pthread_setname_np", Address(&SetName)},
        {"_pthread_getname_np", Address(&GetName)},
        {"_pthread_setschedparam", Address(&SetScheduling)},
        {"_pthread_getschedparam", Address(&GetScheduling)},
        {"_sched_get_priority_min", Address(&PriorityMin)},
        {"_sched_get_priority_max", Address(&PriorityMax)},
        {"_pthread_threadid_np", Address(&ThreadId)},
        {"_pthread_key_create", Address(&KeyCreate)},
        {"_pthread_key_delete", Address(&KeyDelete)},
        {"_pthread_getspecific", Address(&GetSpecific)},
        {"_pthread_setspecific", Address(&SetSpecific)},
    });
}

}  // namespace kelto_mac
