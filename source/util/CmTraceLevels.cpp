#include "CmTraceLevels.h"

#include "CmAtomic.h"
#include "CmT120TraceFile.h"

namespace UTIL_NS {

namespace {

CM_CONSTANT_INIT CmStd::atomic<CCmT120TraceFile*> s_pTraceFile{nullptr};

void WriteToFile(unsigned long aLevel, const char* aText, unsigned int /*aLength*/) {
    // Pairs with the release of CmTraceToFile: the record is complete.
    CCmT120TraceFile* pFile = s_pTraceFile.load(std::memory_order_acquire);
    pFile->write_shared(CmTraceLevelName(aLevel), "util", aText);
}

}  // namespace

CmResult CmTraceToFile(const char* aPath, unsigned long aSizeLimit) {
    if (aPath == nullptr) {
        set_util_external_trace_sink(nullptr);
        return CM_OK;
    }
    auto* pFile = static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(aPath, aSizeLimit, 1, 0));
    if (pFile == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rv = pFile->attach();
    if (CM_FAILED(rv) && rv != CM_ERROR_ALREADY_INITIALIZED) {
        T120_Close_Trace_Dev(pFile);
        return rv;
    }
    s_pTraceFile.store(pFile, std::memory_order_release);
    set_util_external_trace_sink(&WriteToFile);
    return CM_OK;
}

}  // namespace UTIL_NS
