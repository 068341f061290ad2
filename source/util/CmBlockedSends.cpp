#include "CmBlockedSends.h"

#include <cstdio>
#include <cstring>

#include "CmNsec.h"
#include "CmScopedLock.h"
#include "CmTraceGuard.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr long long NSEC_PER_MSEC = 1000 * 1000;

// The longest name of a thread, on any platform, and its terminator.
constexpr size_t NAME_SIZE = CCmBlockedSend::CLong::NAME_SIZE;
constexpr char ARROW[] = " -> ";
// What stands for the names that have no room.
constexpr char REST[] = " -> ...";

CmStd::atomic<uint64_t> s_ullThreads{0};
thread_local uint64_t t_ullThread = 0;

CM_CONSTANT_INIT CCmEternalLockT<CCmMutexThread> s_lock;
CM_CONSTANT_INIT CCmBlockedSend* s_pFirst CM_GUARDED_BY(s_lock.m_Lock) = nullptr;

// Appends to a text; false, and REST is appended, when there is no room for it and for REST.
bool Append(char (&aNames)[CCmBlockedSend::NAMES_SIZE], size_t& aLength, const char* aText) {
    const size_t nText = std::strlen(aText);
    const bool bFits = aLength + nText + sizeof(REST) <= sizeof(aNames);
    const char* const pszText = bFits ? aText : REST;
    const size_t nLength = bFits ? nText : sizeof(REST) - 1;
    std::memcpy(aNames + aLength, pszText, nLength + 1);
    aLength += nLength;
    return bFits;
}

void NameOf(pthread_t aThread, char (&aName)[NAME_SIZE]) {
    CmPortNameOfThread(aThread, aName, sizeof(aName));
    if (aName[0] == '\0') {
        std::snprintf(aName, sizeof(aName), "thread %#lx", (unsigned long)aThread);
    }
}

}  // namespace

uint64_t CmNumberOfThisThread() {
    if (t_ullThread == 0) {
        t_ullThread = s_ullThreads.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return t_ullThread;
}

CM_CONSTANT_INIT CmStd::atomic<bool> CCmBlockedSend::s_bIsOn{false};

void CCmBlockedSend::SwitchOn(bool aIsOn) {
    s_bIsOn.store(aIsOn, std::memory_order_seq_cst);
}

// The order of all sequentially consistent accesses: if this thread finds the switch off, its
// number was stored before the switch was turned, and Enter, which comes after that, reads it. If
// not, it updates the waits that were entered before, with the lock held.
void CCmAwaitedThread::BindToCurrentThread() {
    const uint64_t ullThread = CmNumberOfThisThread();
    m_ullThread.store(ullThread, std::memory_order_seq_cst);
    if (CM_LIKELY(!CCmBlockedSend::s_bIsOn.load(std::memory_order_seq_cst))) {
        return;
    }
    CCmScopedLockT<CCmMutexThread> lock(s_lock.m_Lock);
    for (CCmBlockedSend* pSend = s_pFirst; pSend != nullptr; pSend = pSend->m_pNext) {
        // One that is over may have been for another object at this address.
        if (pSend->m_pAwaited == this && pSend->m_pfnGoesOn(pSend->m_pObject)) {
            pSend->m_ullAwaited = ullThread;
        }
    }
}

void CCmBlockedSend::Hold() CM_NO_THREAD_SAFETY_ANALYSIS {
    s_lock.m_Lock.Lock();
}

void CCmBlockedSend::Release() CM_NO_THREAD_SAFETY_ANALYSIS {
    s_lock.m_Lock.UnLock();
}

// The stacks of the others are still there, until another thread is made.
void CCmBlockedSend::ForgetOtherThreads() CM_NO_THREAD_SAFETY_ANALYSIS {
    CCmBlockedSend** ppLink = &s_pFirst;
    for (CCmBlockedSend* pSend = s_pFirst; pSend != nullptr; pSend = pSend->m_pNext) {
        if (pSend->m_ullThread == CmNumberOfThisThread()) {
            *ppLink = pSend;
            pSend->m_ppLink = ppLink;
            ppLink = &pSend->m_pNext;
        }
    }
    *ppLink = nullptr;
}

bool CCmBlockedSend::Link(const CCmAwaitedThread* aAwaited, uint64_t aNumber, GoesOn aGoesOn,
                          const void* aObject, char (&aNames)[NAMES_SIZE]) {
    m_Tid = pthread_self();
    m_ullThread = CmNumberOfThisThread();
    m_pAwaited = aAwaited;
    m_pfnGoesOn = aGoesOn;
    m_pObject = aObject;
    m_llStartNsec = m_pTable != nullptr ? CmMonotonicNsec() : 0;
    CCmScopedLockT<CCmMutexThread> lock(s_lock.m_Lock);
    if (CM_FAILED(lock.result())) {
        return false;
    }
    m_ullAwaited =
        aAwaited != nullptr ? aAwaited->m_ullThread.load(std::memory_order_seq_cst) : aNumber;
    m_pNext = s_pFirst;
    m_ppLink = &s_pFirst;
    if (m_pNext != nullptr) {
        m_pNext->m_ppLink = &m_pNext;
    }
    s_pFirst = this;
    m_bIsEntered = true;
    if (CM_LIKELY(!HasClosedCircle_l(s_pFirst))) {
        return false;
    }
    WriteNames_l(aNames);
    return true;
}

void CCmBlockedSend::Unlink() {
    CCmScopedLockT<CCmMutexThread> lock(s_lock.m_Lock);
    m_bIsEntered = false;
    *m_ppLink = m_pNext;
    if (m_pNext != nullptr) {
        m_pNext->m_ppLink = m_ppLink;
    }
}

// What it tells of is alive while the lock is held: the thread, which is in the list, and the
// event, which has not ended.
bool CCmBlockedSend::TakeLong(long long aNowNsec, long long aLimitMsec, CLong& aLong) {
    CCmScopedLockT<CCmMutexThread> lock(s_lock.m_Lock);
    for (CCmBlockedSend* pSend = s_pFirst; pSend != nullptr; pSend = pSend->m_pNext) {
        const long long llMsec = (aNowNsec - pSend->m_llStartNsec) / NSEC_PER_MSEC;
        if (pSend->m_pTable == nullptr || pSend->m_bIsLong || llMsec < aLimitMsec ||
            !pSend->m_pfnGoesOn(pSend->m_pObject)) {
            continue;
        }
        pSend->m_bIsLong = true;
        NameOf(pSend->m_Tid, aLong.m_szThread);
        aLong.m_ullAwaited = pSend->m_ullAwaited;
        aLong.m_llMsec = llMsec;
        aLong.m_pTable = pSend->m_pTable;
        const char* const pszClass = CmPortClassName(pSend->m_pTable);
        std::snprintf(aLong.m_szClass, sizeof(aLong.m_szClass), "%s",
                      pszClass != nullptr ? pszClass : "");
        return true;
    }
    return false;
}

// Follows the waits backwards, from those that wait for this thread on: mostly there is none. A
// circle without this wait has been found before. On success m_pTowards leads along it.
bool CCmBlockedSend::HasClosedCircle_l(CCmBlockedSend* aFirst) {
    if (m_ullAwaited == 0 || !m_pfnGoesOn(m_pObject)) {
        return false;
    }
    for (CCmBlockedSend* pSend = aFirst; pSend != nullptr; pSend = pSend->m_pNext) {
        pSend->m_pTowards = nullptr;
    }
    m_pNextFound = nullptr;
    CCmBlockedSend* pLastFound = this;
    for (CCmBlockedSend* pTo = this; pTo != nullptr; pTo = pTo->m_pNextFound) {
        if (pTo->m_ullThread == m_ullAwaited) {
            m_pTowards = pTo;
            return true;
        }
        for (CCmBlockedSend* pSend = aFirst; pSend != nullptr; pSend = pSend->m_pNext) {
            if (pSend->m_ullAwaited == pTo->m_ullThread && pSend != this &&
                pSend->m_pTowards == nullptr && pSend->m_pfnGoesOn(pSend->m_pObject)) {
                pSend->m_pTowards = pTo;
                pSend->m_pNextFound = nullptr;
                pLastFound->m_pNextFound = pSend;
                pLastFound = pSend;
            }
        }
    }
    return false;
}

// The threads of the list are alive: none leaves it while the lock is held.
void CCmBlockedSend::WriteNames_l(char (&aNames)[NAMES_SIZE]) const {
    char szName[NAME_SIZE];
    NameOf(m_Tid, szName);
    size_t nLength = 0;
    Append(aNames, nLength, szName);
    const CCmBlockedSend* pSend = this;
    do {
        pSend = pSend->m_pTowards;
        char szStep[sizeof(ARROW) + NAME_SIZE];
        NameOf(pSend->m_Tid, szName);
        std::snprintf(szStep, sizeof(szStep), "%s%s", ARROW, szName);
        if (!Append(aNames, nLength, szStep)) {
            return;
        }
    } while (pSend != this);
}

}  // namespace UTIL_NS
