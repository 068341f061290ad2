// How the two trace facilities come into being; internal.
#ifndef CM_TRACE_FACILITY_H
#define CM_TRACE_FACILITY_H

#include <atomic>
#include <new>

#include "CmScopedLock.h"
#include "CmT120Trace.h"
#include "CmTraceGuard.h"

namespace UTIL_NS {

// The place of one facility. Static storage, so that creating it cannot fail, and never
// destroyed, so that lines may be written while the program ends.
template <class Facility>
class CCmFacilityHolderT {
  public:
    // Creates the facility and publishes it in aInstance once it is loaded. A release there,
    // matched by the acquire of whoever reads it, orders loading before use.
    Facility* Create(std::atomic<Facility*>& aInstance, CCmT120TraceMapEntry* aLevelTable) {
        CCmTraceGuard guard;
        CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Creation.m_Lock);
        if (Facility* pLoaded = aInstance.load(std::memory_order_acquire)) {
            return pLoaded;
        }
        // Loading asked for the facility itself.
        if (m_pLoading != nullptr) {
            return m_pLoading;
        }
        m_pLoading = new (m_achStorage) Facility("Log", aLevelTable, nullptr, 0);
        m_pLoading->load(nullptr);
        aInstance.store(m_pLoading, std::memory_order_release);
        return m_pLoading;
    }

  private:
    CCmEternalLockT<CCmMutexThreadRecursive> m_Creation;
    Facility* m_pLoading = nullptr;
    alignas(Facility) char m_achStorage[sizeof(Facility)] = {};
};

}  // namespace UTIL_NS

#endif  // CM_TRACE_FACILITY_H
