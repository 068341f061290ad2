#include "CmWatch.h"

#include "CmScopedLock.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

CCmMutexThread s_switch{CCmStaticInit()};  // held while the watch is turned on or off
DWORD s_dwStarts = 0;

}  // namespace

CmResult CCmWatch::Start(const CCmWatchOptions& aOptions) {
    if (CM_FAILED(aOptions.Result())) {
        return aOptions.Result();
    }
    CCmScopedLockT<CCmMutexThread> lock(s_switch);
    if (CmWatchIsOn()) {
        return CM_ERROR_ALREADY_INITIALIZED;
    }
    if (++s_dwStarts == 0) {
        ++s_dwStarts;
    }
    g_cmWatchOn.store(s_dwStarts, std::memory_order_release);
    return CM_OK;
}

CmResult CCmWatch::Stop() {
    CCmScopedLockT<CCmMutexThread> lock(s_switch);
    g_cmWatchOn.store(0, std::memory_order_relaxed);
    return CM_OK;
}

bool CCmWatch::IsOn() {
    return CmWatchIsOn();
}

CmResult CCmWatch::Read(CCmWorkerFigures* aFigures, size_t aRoom, size_t& aCount) {
    aCount = 0;
    return aFigures != nullptr || aRoom == 0 ? CM_OK : CM_ERROR_INVALID_ARG;
}

}  // namespace UTIL_NS
