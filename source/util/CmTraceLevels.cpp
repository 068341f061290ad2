#include "CmTraceLevels.h"

#include <new>

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

// The record for the lines of the library in the file at aPath. Not that of a host, which would
// have the path as its name: the host may close it, or have attached another file.
CCmT120TraceFile* OpenRecord(const char* aPath, unsigned long aSizeLimit) {
    try {
        const CCmString strName = CCmString("CmTraceToFile:") + aPath;
        return static_cast<CCmT120TraceFile*>(
            T120_Open_Trace_Dev(strName.c_str(), aSizeLimit, 1, 0));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

CmResult CmTraceToFile(const char* aPath, unsigned long aSizeLimit) {
    if (aPath == nullptr) {
        set_util_external_trace_sink(nullptr);
        return CM_OK;
    }
    CCmT120TraceFile* const pFile = OpenRecord(aPath, aSizeLimit);
    if (pFile == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rv = pFile->attach(aPath);
    if (CM_FAILED(rv) && rv != CM_ERROR_ALREADY_INITIALIZED) {
        T120_Close_Trace_Dev(pFile);
        return rv;
    }
    pFile->refresh_settings(aSizeLimit, 1);  // of a record that an earlier call has made
    s_pTraceFile.store(pFile, std::memory_order_release);
    set_util_external_trace_sink(&WriteToFile);
    return CM_OK;
}

}  // namespace UTIL_NS
