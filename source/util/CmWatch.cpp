#include "CmWatch.h"

#include <utility>

#include "CmBlockedSends.h"
#include "CmConfig.h"
#include "CmEventQueueSteps.h"
#include "CmFlight.h"
#include "CmNsec.h"
#include "CmScopedLock.h"
#include "CmThreadAnnotations.h"
#include "CmTimeValue.h"
#include "CmWatchThread.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

// Held while the watch is turned on or off. Never destroyed: the end of the process may come while
// a thread does that.
union CSwitch {
    constexpr CSwitch() : m_Mutex(CCmStaticInit()) {}
    ~CSwitch() {}

    CCmMutexThread m_Mutex;
};
CM_CONSTANT_INIT CSwitch s_switch;
DWORD s_dwStarts = 0;
CCmWatchThread* s_pThread = nullptr;

// Relaxed: nothing is handed over with it.
CmStd::atomic<bool> s_bProfileIsRead{false};

constexpr char SECTION[] = "Watch";

DWORD NumberOf(const char* aKey, DWORD aDefault) {
    char szValue[32] = "";
    return get_string_param(SECTION, aKey, szValue, sizeof(szValue)) > 0
               ? get_uint32_param(SECTION, aKey)
               : aDefault;
}

// 1 or TRUE.
bool FlagOf(const char* aKey, bool aDefault) {
    return NumberOf(aKey, aDefault ? 1 : 0) != 0 || get_bool_param(SECTION, aKey, 0) != 0;
}

// A value that is out of its range leaves the default.
template <class SetType>
void Take(CCmWatchOptions& aOptions, SetType aSet) {
    CCmWatchOptions taken = aOptions;
    aSet(taken);
    if (CM_SUCCEEDED(taken.Result())) {
        aOptions = taken;
    }
}

CCmWatchOptions OptionsOfProfile() {
    CCmWatchOptions options;
    options.Record(FlagOf("Record", true));
    options.Lines(FlagOf("Lines", true));
    options.LongSend(NumberOf("LongSend", options.GetLongSend()));
    Take(options,
         [](CCmWatchOptions& aTaken) { aTaken.Records(NumberOf("Records", aTaken.GetRecords())); });
    Take(options,
         [](CCmWatchOptions& aTaken) { aTaken.Threads(NumberOf("Threads", aTaken.GetThreads())); });
    char szDirectory[CCmWatchOptions::DIRECTORY_SIZE] = "";
    get_string_param(SECTION, "Directory", szDirectory, sizeof(szDirectory));
    Take(options, [&](CCmWatchOptions& aTaken) { aTaken.Directory(szDirectory); });
    return options;
}

CCmFlightOptions FlightOptionsOf(const CCmWatchOptions& aOptions) {
    CCmFlightOptions options;
    options.m_bFile = aOptions.HasRecord();
    options.m_bLines = aOptions.HasLines();
    options.m_dwUnits = aOptions.GetRecords();
    options.m_dwThreads = aOptions.GetThreads();
    options.m_pszDirectory = aOptions.GetDirectory();
    return options;
}

}  // namespace

CmResult CCmWatch::Start(const CCmWatchOptions& aOptions) {
    if (CM_FAILED(aOptions.Result())) {
        return aOptions.Result();
    }
    CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
    if (CmWatchIsOn()) {
        return CM_ERROR_ALREADY_INITIALIZED;
    }
    if (CCmFlight::Open(FlightOptionsOf(aOptions)) == CM_ERROR_OUT_OF_MEMORY) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    CCmEventQueueSteps::LearnTableOfSends();
    ++s_dwStarts;
    CmSetWatchStart(s_dwStarts);
    g_cmWatchOn.store(s_dwStarts, std::memory_order_relaxed);
    CCmBlockedSend::SwitchOn(true);
    s_pThread = CCmWatchThread::Start(aOptions.GetLongSend());
    return CM_OK;
}

CmResult CCmWatch::Stop() {
    CCmWatchThread* pThread = nullptr;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
        if (CmWatchIsOn()) {
            g_cmWatchOn.store(0, std::memory_order_relaxed);
            CCmBlockedSend::SwitchOn(false);
            std::swap(pThread, s_pThread);
            CCmWatchRounds::StoreFigures(CmNsecOf(CCmTimeValue::GetTimeOfDay()));
            CCmFlight::Close();
        }
    }
    // Without the lock: one of its lines may be on its way to somebody who asks for it.
    if (pThread != nullptr) {
        pThread->End();
    }
    return CM_OK;
}

bool CCmWatch::IsOn() {
    return CmWatchIsOn();
}

CmResult CCmWatch::Read(CCmWorkerFigures* aFigures, size_t aRoom, size_t& aCount) {
    aCount = 0;
    if (aFigures == nullptr && aRoom != 0) {
        return CM_ERROR_INVALID_ARG;
    }
    aCount = CmReadWorkers(aFigures, aRoom);
    return CM_OK;
}

CmResult CCmWatch::GetRecording(char* aPath, size_t aSize) {
    return aPath != nullptr && aSize > 0 && CCmFlight::CopyPath(aPath, aSize)
               ? CM_OK
               : CM_ERROR_INVALID_ARG;
}

void CmWatchAsProfileSays() {
    if (CM_LIKELY(s_bProfileIsRead.load(std::memory_order_relaxed)) ||
        s_bProfileIsRead.exchange(true, std::memory_order_relaxed)) {
        return;
    }
    if (FlagOf("Enable", false)) {
        CCmWatch::Start(OptionsOfProfile());
    }
}

}  // namespace UTIL_NS
