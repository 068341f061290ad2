#include "CmTrace.h"

#include "CmTraceGuard.h"
#include "CmTraceLine.h"
#include "CmTraceTap.h"

namespace UTIL_NS {

CM_CONSTANT_INIT CmStd::atomic<UtilTraceSink> g_util_trace_sink{nullptr};

namespace {

// Relaxed: the sink is installed before the threads that trace are started, which orders what it
// needs.
UtilTraceSink InstalledSink() {
    return g_util_trace_sink.load(std::memory_order_relaxed);
}

// The facility takes text that is not const and leaves it as it is.
char* TextForFacility(const char* aText) {
    return const_cast<char*>(aText);
}

// Apart, as hardly anybody takes lines. The facility does the same for those that it gets.
__attribute__((noinline)) void HandOverToBoth(UtilTraceSink aSink, CmTraceTap aTap,
                                              unsigned long aLevel, const char* aText,
                                              unsigned int aLength) {
    aSink(aLevel, aText, aLength);
    if (aText != nullptr) {
        aTap(aLevel, false, aText, aLength);
    }
}

void HandOver(UtilTraceSink aSink, unsigned long aLevel, const char* aText, unsigned int aLength) {
    const CmTraceTap pfnTap = CmInstalledTraceTap();
    if (CM_UNLIKELY(pfnTap != nullptr)) {
        HandOverToBoth(aSink, pfnTap, aLevel, aText, aLength);
    } else {
        aSink(aLevel, aText, aLength);
    }
}

}  // namespace

bool CmTraceIsWanted(unsigned long aLevel) {
    return InstalledSink() != nullptr || CCmT120Trace::is_wanted(aLevel);
}

void Assert_Log(char* /*aFile*/, char* /*aExpression*/, int /*aLine*/) {}

void CmAssertFailed(const char* aFile, int aLine, const char* aExpression) {
    CM_ERROR_TRACE(aFile << ":" << aLine << " Assert failed: " << aExpression);
}

}  // namespace UTIL_NS

void set_util_external_trace_sink(UTIL_NS::UtilTraceSink aSink) {
    UTIL_NS::g_util_trace_sink.store(aSink, std::memory_order_relaxed);
}

void util_adapter_trace(unsigned long aLevel, const char* aText, unsigned int aLength) {
    if (!UTIL_NS::CmTraceIsWanted(aLevel)) {
        return;  // before the guard, which costs more than all the rest of a line that is dropped
    }
    UTIL_NS::CCmTraceGuard guard;
    if (UTIL_NS::UtilTraceSink pfnSink = UTIL_NS::InstalledSink()) {
        UTIL_NS::HandOver(pfnSink, aLevel, aText, aLength);
    } else {
        UTIL_NS::CCmT120Trace::instance()->trace_string(aLevel, UTIL_NS::TextForFacility(aText));
    }
}

void util_adapter_trace_ex(unsigned long aLevel, const char* aModule, const char* aText,
                           unsigned int aLength) {
    if (!UTIL_NS::CmTraceIsWanted(aLevel)) {
        return;  // before the guard, which costs more than all the rest of a line that is dropped
    }
    UTIL_NS::CCmTraceGuard guard;
    if (UTIL_NS::UtilTraceSink pfnSink = UTIL_NS::InstalledSink()) {
        UTIL_NS::HandOver(pfnSink, aLevel, aText, aLength);
    } else {
        UTIL_NS::CCmT120Trace::instance()->trace_string(aLevel, aModule,
                                                        UTIL_NS::TextForFacility(aText));
    }
}
