// Mutexes, conditions and reader-writer locks: this system's own, inside of the target's
// objects after their 8-byte signatures where they fit. A signature tells what an object is, and
// a statically initialised one becomes this system's when it is first used.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>

#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

constexpr long MUTEX_STATIC_FIRST = 0x32AAABA1;  // error checking, recursive, first fit
constexpr long MUTEX_STATIC_ERRORCHECK = 0x32AAABA1;
constexpr long MUTEX_STATIC_RECURSIVE = 0x32AAABA2;
constexpr long MUTEX_STATIC_NORMAL = 0x32AAABA7;
constexpr long MUTEX_MADE = 0x4D555458;
constexpr long MUTEX_ATTRIBUTES = 0x4D545841;
constexpr long CONDITION_STATIC = 0x3CB0B1BB;
constexpr long CONDITION_MADE = 0x434F4E44;
constexpr long RWLOCK_STATIC = 0x2DA8B3B4;
constexpr long RWLOCK_MADE = 0x52574C4B;

constexpr Pair MUTEX_TYPES[] = {
    {0, PTHREAD_MUTEX_NORMAL}, {1, PTHREAD_MUTEX_ERRORCHECK}, {2, PTHREAD_MUTEX_RECURSIVE}};

struct MutexAttributes {
    long signature;
    int type;  // the target's number
    int reserved;
};
struct Mutex {
    std::atomic<long> signature;
    pthread_mutex_t host;
};
struct Condition {
    std::atomic<long> signature;
    pthread_cond_t* host;
};
struct ReadWriteLock {
    std::atomic<long> signature;
    pthread_rwlock_t host;
};
static_assert(sizeof(MutexAttributes) == 16, "the target's size");
static_assert(sizeof(Mutex) <= 64, "the target's size");
static_assert(sizeof(Condition) <= 48, "the target's size");
static_assert(sizeof(ReadWriteLock) <= 200, "the target's size");

constexpr int INVALID = EINVAL;  // the same number on both

// While a statically initialised object is made into this system's.
pthread_mutex_t s_making = PTHREAD_MUTEX_INITIALIZER;

// ---- Mutexes

int MutexAttrInit(MutexAttributes* aAttributes) {
    *aAttributes = {MUTEX_ATTRIBUTES, 0, 0};
    return 0;
}

int MutexAttrDestroy(MutexAttributes* aAttributes) {
    if (aAttributes->signature != MUTEX_ATTRIBUTES) {
        return INVALID;
    }
    aAttributes->signature = 0;
    return 0;
}

int MutexAttrSetType(MutexAttributes* aAttributes, int aType) {
    if (aAttributes->signature != MUTEX_ATTRIBUTES || ToHost(MUTEX_TYPES, aType) == -1) {
        return INVALID;
    }
    aAttributes->type = aType;
    return 0;
}

int MakeMutex(Mutex& aMutex, int aType) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, ToHost(MUTEX_TYPES, aType));
    const int nError = pthread_mutex_init(&aMutex.host, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (nError == 0) {
        aMutex.signature = MUTEX_MADE;
    }
    return ErrorToTarget(nError);
}

int MutexInit(Mutex* aMutex, const MutexAttributes* aAttributes) {
    if (aAttributes != nullptr && aAttributes->signature != MUTEX_ATTRIBUTES) {
        return INVALID;
    }
    return MakeMutex(*aMutex, aAttributes == nullptr ? 0 : aAttributes->type);
}

bool IsStatic(const Mutex& aMutex) {
    const long nSignature = aMutex.signature;
    return nSignature >= MUTEX_STATIC_FIRST && nSignature <= MUTEX_STATIC_NORMAL;
}

// False: it is no mutex.
bool Ready(Mutex& aMutex) {
    if (aMutex.signature == MUTEX_MADE) {
        return true;
    }
    pthread_mutex_lock(&s_making);
    if (IsStatic(aMutex)) {
        const long nSignature = aMutex.signature;
        MakeMutex(aMutex, nSignature == MUTEX_STATIC_RECURSIVE    ? 2
                          : nSignature == MUTEX_STATIC_ERRORCHECK ? 1
                                                                  : 0);
    }
    const bool bReady = aMutex.signature == MUTEX_MADE;
    pthread_mutex_unlock(&s_making);
    return bReady;
}

int MutexDestroy(Mutex* aMutex) {
    if (IsStatic(*aMutex)) {
        aMutex->signature = 0;
        return 0;
    }
    if (aMutex->signature != MUTEX_MADE) {
        return INVALID;
    }
    const int nError = pthread_mutex_destroy(&aMutex->host);
    if (nError == 0) {
        aMutex->signature = 0;
    }
    return ErrorToTarget(nError);
}

int MutexLock(Mutex* aMutex) {
    return Ready(*aMutex) ? ErrorToTarget(pthread_mutex_lock(&aMutex->host)) : INVALID;
}

int MutexTryLock(Mutex* aMutex) {
    return Ready(*aMutex) ? ErrorToTarget(pthread_mutex_trylock(&aMutex->host)) : INVALID;
}

int MutexUnlock(Mutex* aMutex) {
    return Ready(*aMutex) ? ErrorToTarget(pthread_mutex_unlock(&aMutex->host)) : INVALID;
}

// ---- Conditions

int CondInit(Condition* aCondition, const void*) {
    aCondition->host = static_cast<pthread_cond_t*>(malloc(sizeof(pthread_cond_t)));
    if (aCondition->host == nullptr) {
        return ErrorToTarget(ENOMEM);
    }
    pthread_cond_init(aCondition->host, nullptr);
    aCondition->signature = CONDITION_MADE;
    return 0;
}

bool Ready(Condition& aCondition) {
    if (aCondition.signature == CONDITION_MADE) {
        return true;
    }
    pthread_mutex_lock(&s_making);
    if (aCondition.signature == CONDITION_STATIC) {
        CondInit(&aCondition, nullptr);
    }
    const bool bReady = aCondition.signature == CONDITION_MADE;
    pthread_mutex_unlock(&s_making);
    return bReady;
}

int CondDestroy(Condition* aCondition) {
    if (aCondition->signature == CONDITION_STATIC) {
        aCondition->signature = 0;
        return 0;
    }
    if (aCondition->signature != CONDITION_MADE) {
        return INVALID;
    }
    pthread_cond_destroy(aCondition->host);
    free(aCondition->host);
    aCondition->signature = 0;
    return 0;
}

int CondSignal(Condition* aCondition) {
    return Ready(*aCondition) ? ErrorToTarget(pthread_cond_signal(aCondition->host)) : INVALID;
}

int CondBroadcast(Condition* aCondition) {
    return Ready(*aCondition) ? ErrorToTarget(pthread_cond_broadcast(aCondition->host)) : INVALID;
}

int CondWait(Condition* aCondition, Mutex* aMutex) {
    if (!Ready(*aCondition) || !Ready(*aMutex)) {
        return INVALID;
    }
    return ErrorToTarget(
        Cancellable([&] { return pthread_cond_wait(aCondition->host, &aMutex->host); }));
}

int CondTimedWait(Condition* aCondition, Mutex* aMutex, const timespec* aUntil) {
    if (!Ready(*aCondition) || !Ready(*aMutex)) {
        return INVALID;
    }
    return ErrorToTarget(Cancellable(
        [&] { return pthread_cond_timedwait(aCondition->host, &aMutex->host, aUntil); }));
}

// By the clock that stands still while the machine sleeps. An interval of zero has no end there.
int CondTimedWaitRelative(Condition* aCondition, Mutex* aMutex, const timespec* aInterval) {
    constexpr long NSEC_PER_SEC = 1000000000;
    if (aInterval->tv_sec == 0 && aInterval->tv_nsec == 0) {
        return CondWait(aCondition, aMutex);
    }
    if (!Ready(*aCondition) || !Ready(*aMutex) || aInterval->tv_sec < 0 || aInterval->tv_nsec < 0 ||
        aInterval->tv_nsec >= NSEC_PER_SEC) {
        return INVALID;
    }
    timespec tsUntil;
    clock_gettime(CLOCK_MONOTONIC, &tsUntil);
    tsUntil.tv_nsec += aInterval->tv_nsec;
    const long nCarry = tsUntil.tv_nsec / NSEC_PER_SEC;
    tsUntil.tv_nsec %= NSEC_PER_SEC;
    if (__builtin_add_overflow(tsUntil.tv_sec, aInterval->tv_sec + nCarry, &tsUntil.tv_sec)) {
        return CondWait(aCondition, aMutex);
    }
    return ErrorToTarget(Cancellable([&] {
        return pthread_cond_clockwait(aCondition->host, &aMutex->host, CLOCK_MONOTONIC, &tsUntil);
    }));
}

// ---- Reader-writer locks

int RwlockInit(ReadWriteLock* aLock, const void*) {
    const int nError = pthread_rwlock_init(&aLock->host, nullptr);
    aLock->signature = RWLOCK_MADE;
    return ErrorToTarget(nError);
}

bool Ready(ReadWriteLock& aLock) {
    if (aLock.signature == RWLOCK_MADE) {
        return true;
    }
    pthread_mutex_lock(&s_making);
    if (aLock.signature == RWLOCK_STATIC) {
        RwlockInit(&aLock, nullptr);
    }
    const bool bReady = aLock.signature == RWLOCK_MADE;
    pthread_mutex_unlock(&s_making);
    return bReady;
}

int RwlockRead(ReadWriteLock* aLock) {
    return Ready(*aLock) ? ErrorToTarget(pthread_rwlock_rdlock(&aLock->host)) : INVALID;
}

int RwlockWrite(ReadWriteLock* aLock) {
    return Ready(*aLock) ? ErrorToTarget(pthread_rwlock_wrlock(&aLock->host)) : INVALID;
}

int RwlockUnlock(ReadWriteLock* aLock) {
    return Ready(*aLock) ? ErrorToTarget(pthread_rwlock_unlock(&aLock->host)) : INVALID;
}

// Unnamed semaphores: the target declares them and has none.
int NoSemaphore() {
    errno = ENOSYS;
    return -1;
}

}  // namespace

void SupplyLocks() {
    Supply({
        {"_pthread_mutexattr_init", Address(&MutexAttrInit)},
        {"_pthread_mutexattr_destroy", Address(&MutexAttrDestroy)},
        {"_pthread_mutexattr_settype", Address(&MutexAttrSetType)},
        {"_pthread_mutex_init", Address(&MutexInit)},
        {"_pthread_mutex_destroy", Address(&MutexDestroy)},
        {"_pthread_mutex_lock", Address(&MutexLock)},
        {"_pthread_mutex_trylock", Address(&MutexTryLock)},
        {"_pthread_mutex_unlock", Address(&MutexUnlock)},
        {"_pthread_cond_init", Address(&CondInit)},
        {"_pthread_cond_destroy", Address(&CondDestroy)},
        {"_pthread_cond_signal", Address(&CondSignal)},
        {"_pthread_cond_broadcast", Address(&CondBroadcast)},
        {"_pthread_cond_wait", Address(&CondWait)},
        {"_pthread_cond_timedwait", Address(&CondTimedWait)},
        {"_pthread_cond_timedwait_relative_np", Address(&CondTimedWaitRelative)},
        {"_pthread_rwlock_rdlock", Address(&RwlockRead)},
        {"_pthread_rwlock_wrlock", Address(&RwlockWrite)},
        {"_pthread_rwlock_unlock", Address(&RwlockUnlock)},
        {"_sem_init", Address(&NoSemaphore)},
        {"_sem_destroy", Address(&NoSemaphore)},
        {"_sem_wait", Address(&NoSemaphore)},
        {"_sem_trywait", Address(&NoSemaphore)},
        {"_sem_post", Address(&NoSemaphore)},
    });
}

}  // namespace kelto_mac
