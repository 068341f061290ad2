// How the two trace facilities work and come into being; internal.
#ifndef CM_TRACE_FACILITY_H
#define CM_TRACE_FACILITY_H

#include <new>
#include <utility>

#include "CmAtomic.h"
#include "CmPrivateState.h"
#include "CmScopedLock.h"
#include "CmT120Trace.h"
#include "CmTraceGuard.h"
#include "CmTraceTap.h"

namespace UTIL_NS {

// What a facility keeps beside its stated fields, and its steps.
class CM_UTIL_HIDDEN CCmT120Trace::CTraceState {
  public:
    // load, which also stores the path of a file that is named after the process in aLogPath
    // unless that is null.
    static void Load(CCmT120Trace& aFacility, void* aFile, CCmString* aLogPath);
    static void OpenBundle(CCmT120Trace& aFacility);
    // The level function that a text of the level goes to, null when it is dropped.
    static LevelFunction PassingFunction(const CCmT120Trace& aFacility, unsigned long aLevel);
    static bool IsLevelOn(const CCmT120Trace& aFacility, unsigned long aLevel);
    // To the function, unless it is null, and to those who take lines.
    static void PassToBoth(LevelFunction aFunction, CmTraceTap aTap, unsigned long aLevel,
                           char* aText);

    uint32_t m_dwReading = 0;  // of the configuration, the one in force; guarded by m_Mutex

  private:
    typedef CmStd::atomic<LevelFunction> CCmT120Trace::*FunctionField;
    // By level; null for one without a function.
    struct CFunctionFields {
        FunctionField m_Fields[CM_TRACE_LEVEL_COUNT];
    };

    static constexpr FunctionField FieldOf(CCmTraceLevel::EFunction aFunction);
    static constexpr CFunctionFields MakeFunctionFields();
    static void* OpenFile(CCmT120Trace& aFacility, void* aFile, unsigned long aSizeLimit,
                          CCmString* aLogPath);
    static bool BuildFilePath(const CCmT120Trace& aFacility, char* aPath, size_t aSize,
                              CCmString* aLogPath);

    static const CFunctionFields s_functionFields;
};

// A facility's table of levels, in static storage and ready before any static object.
struct CCmTraceLevelTable {
    CCmT120TraceMapEntry m_Entries[CM_TRACE_LEVEL_COUNT];
};

// The row of a level in CM_TRACE_LEVELS, or one that is off for a number without a use.
constexpr CCmTraceLevel CmTraceLevelRow(unsigned long aLevel) {
    for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
        if (level.m_ulLevel == aLevel) {
            return level;
        }
    }
    return {aLevel, CM_TRACE_LEVEL_UNUSED,       0,
            0,      CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE};
}

constexpr CCmT120TraceMapEntry CmTraceLevelEntry(const CCmTraceLevel& aRow,
                                                 unsigned char CCmTraceLevel::*aDefault) {
    return {aRow.m_ulLevel, aRow.m_pszName, {aRow.*aDefault}, aRow.*aDefault};
}

template <size_t... LEVELS>
constexpr CCmTraceLevelTable CmMakeTraceLevelTable(unsigned char CCmTraceLevel::*aDefault,
                                                   std::index_sequence<LEVELS...>) {
    return {{CmTraceLevelEntry(CmTraceLevelRow(LEVELS), aDefault)...}};
}

// aDefault: the column of CM_TRACE_LEVELS that holds the facility's defaults.
constexpr CCmTraceLevelTable CmMakeTraceLevelTable(unsigned char CCmTraceLevel::*aDefault) {
    return CmMakeTraceLevelTable(aDefault, std::make_index_sequence<CM_TRACE_LEVEL_COUNT>());
}

// The place of one facility. Static storage, so that creating it cannot fail, and never
// destroyed, so that lines may be written while the program exits.
template <class Facility>
class CCmFacilityHolderT {
  public:
    // Creates the facility, loads it and publishes it in aInstance. The release pairs with the
    // acquire of whoever reads aInstance: who finds the facility finds it loaded.
    //
    // Loading reads the configuration, whose file may keep its reader waiting (a named pipe, a
    // network disk). So no lock is held meanwhile, and no thread waits for another one that loads:
    // it loads the facility as well. The record that is opened first and the switches that are read
    // last count.
    Facility* Create(CmStd::atomic<Facility*>& aInstance, CCmT120TraceMapEntry* aLevelTable) {
        CCmTraceGuard guard;
        Facility* const pFacility = Construct(aLevelTable);
        // Loading may trace, and so come here again: it gets the facility that is being loaded.
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
            m_pFacility = new (m_abyStorage) Facility("Log", aLevelTable, nullptr, 0);
        }
        return m_pFacility;
    }

    CCmEternalLockT<CCmMutexThreadRecursive> m_Creation;
    Facility* m_pFacility CM_GUARDED_BY(m_Creation.m_Lock) = nullptr;
    alignas(Facility) unsigned char m_abyStorage[sizeof(Facility)] = {};
};

}  // namespace UTIL_NS

#endif  // CM_TRACE_FACILITY_H
