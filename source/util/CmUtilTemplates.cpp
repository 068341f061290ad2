#include "CmUtilTemplates.h"

#include <exception>

#include "CmCancel.h"
#include "CmScopedLock.h"
#include "CmSingletonMutex.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

CCmReferenceControlT<CCmMutexThread>::~CCmReferenceControlT() = default;

void CCmReferenceControlT<CCmMutexThread>::OnReferenceDestory() {
    delete this;
}

CCmReferenceControlT<CCmMutexNullSingleThread>::~CCmReferenceControlT() = default;

uint32_t CCmReferenceControlT<CCmMutexNullSingleThread>::AddReference() {
    m_Guard.EnsureSingleThread();
    return static_cast<uint32_t>(++m_lCount);
}

uint32_t CCmReferenceControlT<CCmMutexNullSingleThread>::ReleaseReference() {
    m_Guard.EnsureSingleThread();
    const uint32_t dwCount = static_cast<uint32_t>(--m_lCount);
    if (dwCount == 0) {
        OnReferenceDestory();
    }
    return dwCount;
}

uint32_t CCmReferenceControlT<CCmMutexNullSingleThread>::GetReference() {
    m_Guard.EnsureSingleThread();
    return static_cast<uint32_t>(m_lCount);
}

void CCmReferenceControlT<CCmMutexNullSingleThread>::OnReferenceDestory() {
    delete this;
}

void CmCreateSingleton(void (*aCreate)()) {
    CCmDisableCancel disableCancel;
    void* pMutex = nullptr;
    GetSingletonMutex(&pMutex);
    CCmScopedLockT<CCmMutexThreadRecursive> lock(*static_cast<CCmMutexThreadRecursive*>(pMutex));
    try {
        aCreate();
    } catch (const std::exception&) {
        // Nothing was created, which Instance reports.
    }
}

void CmTraceSingletonEnd(void* aInstance, void* aThis) {
    CM_INFO_TRACE("CCmSingletonT::~CCmSingletonT() instance = " << aInstance << " this=" << aThis);
}

}  // namespace UTIL_NS
