#include "CmWatch.h"

#include <utility>

#include "CmBlockedSends.h"
#include "CmCancel.h"
#include "CmConfig.h"
#include "CmEventQueueSteps.h"
#include "CmFlight.h"
#include "CmNsec.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
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
bool s_bIsStarting = false;
bool s_bHasForkHandlers = false;
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

// A fork waits until nobody has one of these locks. The child has none of the threads that are
// watched, nor that of the watch: there it is off.
void BeforeFork() CM_NO_THREAD_SAFETY_ANALYSIS {
    s_switch.m_Mutex.Lock();
    CmHoldWatched();
    CCmBlockedSend::Hold();
}

void AfterForkInParent() CM_NO_THREAD_SAFETY_ANALYSIS {
    CCmBlockedSend::Release();
    CmReleaseWatched();
    s_switch.m_Mutex.UnLock();
}

void AfterForkInChild() CM_NO_THREAD_SAFETY_ANALYSIS {
    g_cmWatchOn.store(0, std::memory_order_relaxed);
    s_bIsStarting = false;
    s_pThread = nullptr;
    CCmBlockedSend::SwitchOn(false);
    CCmBlockedSend::ForgetOtherThreads();
    CmForgetOtherThreads();
    AfterForkInParent();
}

// False when the watch is on or about to be.
bool BeginStart() {
    CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
    const bool bBegins = !CmWatchIsOn() && !s_bIsStarting;
    s_bIsStarting = s_bIsStarting || bBegins;
    return bBegins;
}

// The number of the start; 0 when it is not to be.
DWORD EndStart(bool aTurnsOn) {
    CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
    s_bIsStarting = false;
    if (!aTurnsOn) {
        return 0;
    }
    // After those of the recorder, so that these locks are taken before its own.
    if (!s_bHasForkHandlers) {
        s_bHasForkHandlers =
            g_cmSystem.pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild) == 0;
    }
    CCmEventQueueSteps::LearnTableOfSends();
    ++s_dwStarts;
    CmSetWatchStart(s_dwStarts);
    g_cmWatchOn.store(s_dwStarts, std::memory_order_relaxed);
    CCmBlockedSend::SwitchOn(true);
    return s_dwStarts;
}

// For Stop; false when that has come by already.
bool KeepThread(CCmWatchThread* aThread, DWORD aStart) {
    CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
    if (g_cmWatchOn.load(std::memory_order_relaxed) != aStart) {
        return false;
    }
    s_pThread = aThread;
    return true;
}

}  // namespace

CmResult CCmWatch::Start(const CCmWatchOptions& aOptions) {
    if (CM_FAILED(aOptions.Result())) {
        return aOptions.Result();
    }
    const CCmDisableCancel disableCancel;
    if (!BeginStart()) {
        return CM_ERROR_ALREADY_INITIALIZED;
    }
    // Without the lock, as the thread below: who gets one of their lines may turn to the watch.
    const bool bHasMemory = CCmFlight::Open(FlightOptionsOf(aOptions)) != CM_ERROR_OUT_OF_MEMORY;
    const DWORD dwStart = EndStart(bHasMemory);
    if (!bHasMemory) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    CCmWatchThread* const pThread = CCmWatchThread::Start(aOptions.GetLongSend());
    if (pThread != nullptr && !KeepThread(pThread, dwStart)) {
        pThread->End();
    }
    return CM_OK;
}

CmResult CCmWatch::Stop() {
    const CCmDisableCancel disableCancel;
    CCmWatchThread* pThread = nullptr;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_switch.m_Mutex);
        if (CmWatchIsOn()) {
            g_cmWatchOn.store(0, std::memory_order_relaxed);
            CCmBlockedSend::SwitchOn(false);
            CmSetWatchEnd();
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
