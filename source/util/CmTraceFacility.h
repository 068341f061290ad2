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
    //
    // Loading reads the configuration, for which one may have to wait. No lock is held meanwhile:
    // a thread that comes then loads the facility too.
    Facility* Create(std::atomic<Facility*>& aInstance, CCmT120TraceMapEntry* aLevelTable) {
        CCmTraceGuard guard;
        Facility* const pFacility = Construct(aLevelTable);
        // Whether it is loading that asks for the facility.
        static thread_local bool t_bLoads = false;
        if (!t_bLoads) {
            t_bLoads = true;
            pFacility->load(nullptr);
            t_bLoads = false;
            aInstance.store(pFacility, std::memory_order_release);
        }
        return pFacility;
    }

  private:
    Facility* Construct(CCmT120TraceMapEntry* aLevelTable) {
        CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Creation.m_Lock);
        if (m_pFacility == nullptr) {
            m_pFacility = new (m_achStorage) Facility("Log", aLevelTable, nullptr, 0);
        }
        return m_pFacility;
    }

    CCmEternalLockT<CCmMutexThreadRecursive> m_Creation;
    Facility* m_pFacility CM_GUARDED_BY(m_Creation.m_Lock) = nullptr;
    alignas(Facility) char m_achStorage[sizeof(Facility)] = {};
};

}  // namespace UTIL_NS

#endif  // CM_TRACE_FACILITY_H
