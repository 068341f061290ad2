#include "CmWatched.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "CmScopedLock.h"
#include "CmSystem.h"
#include "port/CmPort.h"

namespace UTIL_NS {

CmStd::atomic<DWORD> g_cmWatchOn{0};

unsigned CCmWatchedDistribution::BucketOf(uint64_t aUsec) {
    if (aUsec < 4) {
        return static_cast<unsigned>(aUsec);
    }
    const unsigned nPower = 63U - static_cast<unsigned>(__builtin_clzll(aUsec));
    const unsigned nBucket = (nPower - 1) * 4 + static_cast<unsigned>((aUsec >> (nPower - 2)) & 3);
    return nBucket < BUCKETS ? nBucket : BUCKETS - 1;
}

uint64_t CCmWatchedDistribution::EndOf(unsigned aBucket) {
    if (aBucket < 4) {
        return aBucket;
    }
    const unsigned nPower = aBucket / 4 + 1;
    return ((uint64_t{aBucket % 4} + 5) << (nPower - 2)) - 1;
}

void CCmWatchedDistribution::Add(long long aUsec) {
    const uint64_t ullUsec = aUsec > 0 ? static_cast<uint64_t>(aUsec) : 0;
    m_dwCounts[BucketOf(ullUsec)].Add(1);
    m_ullLongest.Raise(ullUsec);
}

void CCmWatchedDistribution::CopyTo(CCmWatchDistribution& aCopy) const {
    uint64_t ullCounts[BUCKETS];
    uint64_t ullAll = 0;
    for (unsigned i = 0; i < BUCKETS; ++i) {
        ullCounts[i] = m_dwCounts[i].Get();
        ullAll += ullCounts[i];
    }
    aCopy.m_ullCount = ullAll;
    aCopy.m_ullLongest = m_ullLongest.Get();
    const auto reach = [&](uint64_t aPerThousand) -> uint64_t {
        const uint64_t ullWanted = (ullAll * aPerThousand + 999) / 1000;
        uint64_t ullSeen = 0;
        for (unsigned i = 0; i < BUCKETS - 1; ++i) {
            ullSeen += ullCounts[i];
            if (ullSeen >= ullWanted) {
                return EndOf(i) < aCopy.m_ullLongest ? EndOf(i) : aCopy.m_ullLongest;
            }
        }
        return aCopy.m_ullLongest;
    };
    aCopy.m_ullMedian = reach(500);
    aCopy.m_ull99 = reach(990);
    aCopy.m_ull999 = reach(999);
}

void CCmWatchedDistribution::Clear() {
    for (CCmWatchedT<uint32_t>& count : m_dwCounts) {
        count.Set(0);
    }
    m_ullLongest.Set(0);
}

// Never destroyed: threads end while the process does.
class CCmWatchRegistry {
  public:
    static void Visit(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument) {
        CCmScopedLockT<CCmMutexThread> lock(Lock());
        for (CCmWatchedThread* p = s_pFirst; p != nullptr; p = p->m_pNext) {
            aVisit(*p, aArgument);
        }
    }
    static CCmWatchedThread* Make() {
        auto* const pThread = new (std::nothrow) CCmWatchedThread;
        if (pThread == nullptr) {
            return nullptr;
        }
        pThread->m_Tid = pthread_self();
        CmPortNameOfThisThread(pThread->m_szName, sizeof(pThread->m_szName));
        CCmScopedLockT<CCmMutexThread> lock(Lock());
        pThread->m_ullNumber = ++s_ullNumbers;
        *s_ppLast = pThread;
        s_ppLast = &pThread->m_pNext;
        return pThread;
    }

  private:
    static CCmMutexThread& Lock() {
        union CStorage {
            constexpr CStorage() : m_Mutex(CCmStaticInit()) {}
            ~CStorage() {}
            CCmMutexThread m_Mutex;
        };
        CM_CONSTANT_INIT static CStorage s_storage;
        return s_storage.m_Mutex;
    }

    static CCmWatchedThread* s_pFirst;
    static CCmWatchedThread** s_ppLast;
    static uint64_t s_ullNumbers;
};

CCmWatchedThread* CCmWatchRegistry::s_pFirst = nullptr;
CCmWatchedThread** CCmWatchRegistry::s_ppLast = &CCmWatchRegistry::s_pFirst;
uint64_t CCmWatchRegistry::s_ullNumbers = 0;

namespace {

thread_local CCmWatchedThread* t_pThread = nullptr;

}  // namespace

CCmWatchedThread* CmWatchedThread() {
    return t_pThread;
}

CCmWatchedThread* CmEnsureWatchedThread() {
    if (t_pThread == nullptr && CmWatchIsOn()) {
        t_pThread = CCmWatchRegistry::Make();
    }
    return t_pThread;
}

void CmVisitWatchedThreads(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument) {
    CCmWatchRegistry::Visit(aVisit, aArgument);
}

void CmClassText(const void* aTable, char* aText, size_t aSize) {
    const char* const pszName = CmPortClassName(aTable);
    if (pszName == nullptr) {
        std::snprintf(aText, aSize, "%p", const_cast<void*>(aTable));
    } else {
        CmPortReadableClassName(pszName, aText, aSize);
    }
}

}  // namespace UTIL_NS
