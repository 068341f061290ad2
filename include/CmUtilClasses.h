/// Small classes that others build on: thread binding, the stop flag, the clean-up registry, the
/// cursor over memory, the probes of address families.
/// \file
#ifndef CM_UTIL_CLASSES_H
#define CM_UTIL_CLASSES_H

#include <pthread.h>

#include "CmAtomic.h"
#include "CmBase.h"

namespace UTIL_NS {

/// Remembers the thread that an object belongs to: the constructing one until it is rebound.
class CM_UTIL_EXPORT CCmEnsureSingleThread {
  public:
    /// The object belongs to the calling thread.
    CCmEnsureSingleThread();

    /// Where a check of the calling thread belongs; it does nothing.
    void EnsureSingleThread() const {}
    /// The object belongs to the calling thread from now on.
    void Reset2CurrentThreadId();
    /// The object belongs to that thread from now on.
    void Reset2ThreadId(pthread_t aThreadId);

  protected:
    pthread_t m_ThreadId;  ///< the thread; the library does not read it
};

/// Whether something is stopped; at first it is not. Meant to be written by its owning thread,
/// which nothing enforces.
class CM_UTIL_EXPORT CCmStopFlag : public CCmEnsureSingleThread {
  public:
    /// Not stopped; belongs to the calling thread.
    CCmStopFlag();

    /// It is not stopped from now on. Any thread.
    void SetStartFlag();
    /// It is stopped from now on. Any thread.
    void SetStopFlag();
    /// Any thread. The flag stands for itself: nothing that was written before it is ordered by it,
    /// and the value may be momentarily old.
    bool IsFlagStopped() const { return m_bStopFlag.load(std::memory_order_relaxed); }

  protected:
    CmStd::atomic<bool> m_bStopFlag;  ///< true: stopped
};

/// Base of objects that CleanupAll destroys. Such an object lives on the heap, registers itself
/// when constructed and is left to CleanupAll to destroy.
class CM_UTIL_EXPORT CCmCleanUpBase {
  public:
    CCmCleanUpBase(const CCmCleanUpBase&) = delete;
    CCmCleanUpBase& operator=(const CCmCleanUpBase&) = delete;
    /// Takes the object off the registry if it is still there.
    virtual ~CCmCleanUpBase();
    /// Deletes the object.
    virtual void CleanUp();

    /// Destroys the objects that are registered when it is called, the most recently registered
    /// first, in a time linear in their number. The singleton mutex is held throughout: a
    /// destructor may create or look up singletons, also its own, but must not wait for a thread
    /// that needs that mutex. What a destructor creates stays registered for a next call; one that
    /// is made from a destructor handles only that. An object of the call that others delete
    /// meanwhile leaves the registry. For the host to call at shutdown.
    static void CleanupAll();

  protected:
    /// Registers the object, under the singleton mutex.
    CCmCleanUpBase();

  private:
    friend struct CCmCleanUpWalk;  // internal

    CCmCleanUpBase* m_pNext;           // itself once CleanupAll has taken it off the registry
    static CCmCleanUpBase* s_pHeader;  // guarded by g_SingletonMutex
};

/// A cursor over memory of the caller's, which it neither owns nor copies. Reading and writing
/// advance independently, both up to the end of the memory: what is read need not have been
/// written through the cursor. One thread at a time.
///
/// Results of both: CM_OK; CM_ERROR_PARTIAL_DATA: fewer than aCount bytes were left, which were
/// copied; CM_ERROR_INVALID_ARG: aDst or aSrc is null; CM_ERROR_NOT_INITIALIZED: the cursor has no
/// memory. The pointers to counts may be null.
class CM_UTIL_EXPORT CCmDataBlockNoMalloc {
  public:
    /// The aLen bytes at aData; null: no memory.
    CCmDataBlockNoMalloc(const char* aData, unsigned int aLen);

    /// Copies up to aCount bytes out of the memory; stores how many they were through aBytesRead.
    CmResult Read(void* aDst, unsigned int aCount, unsigned int* aBytesRead);
    /// Copies up to aCount bytes into the memory; stores how many they were through aBytesWritten.
    CmResult Write(const void* aSrc, unsigned int aCount, unsigned int* aBytesWritten);

  private:
    [[maybe_unused]] const char* m_pBegin;  // the first byte; nobody reads it
    const char* m_pEnd;                     // one past the last byte
    const char* m_pCurrentRead;
    char* m_pCurrentWrite;
};

/// Whether IPv4 sockets can be opened: -1 until probed, then 1 or 0. Several threads may probe at
/// once; they find the same.
extern CM_UTIL_EXPORT int cm_ipv4_enabled;
/// The same for IPv6.
extern CM_UTIL_EXPORT int cm_ipv6_enabled;

/// Returns aFlag; when it is -1, sets it first, to 1 when a datagram socket of aFamily (AF_INET,
/// ...) can be opened and to 0 when not. Any thread.
CM_UTIL_EXPORT int ip_check(int& aFlag, int aFamily);
/// cm_ipv4_enabled, probed if need be. Any thread.
CM_UTIL_EXPORT int ipv4_enabled();
/// cm_ipv6_enabled, probed if need be. Any thread.
CM_UTIL_EXPORT int ipv6_enabled();

}  // namespace UTIL_NS

#endif  // CM_UTIL_CLASSES_H
