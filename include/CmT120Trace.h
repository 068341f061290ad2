/// CCmT120Trace: the trace facility, and the formatter that composes trace lines.
///
/// Every line that finds no external sink (CmTrace.h) comes here. The facility filters it by level
/// and passes levels 0, 10, 20 and 25 to the four level functions of CmLogStream.h, which deliver
/// to the trace library. Its switches are read from section [Trace] of the main configuration
/// file (CmConfig.h); P is the process name:
///   Enable               FALSE silences everything; any value but TRUE counts as FALSE
///   P.<level name>       TRUE or FALSE for one level
///   P.Module             module names of up to 32 characters, separated by ","
///   P.<module>.<level>   the level for one module, for enable_trace_print alone
///   P                    size limit of every trace file in bytes; below 1025 means 20 MiB
///   FlushPerLines        lines per flush of every trace file; below 1 means 1
/// Switches change only when the configuration is read: on load, and by refresh_trace_config.
/// \file
#ifndef CM_T120_TRACE_H
#define CM_T120_TRACE_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <set>

#include "CmBase.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

/// Trace levels are numbered from 0 to 27.
constexpr unsigned long CM_TRACE_LEVEL_COUNT = 28;

/// One level of a facility's table; its index in the table is its number.
struct CCmT120TraceMapEntry {
    unsigned long m_ulLevel;
    const char* m_pszName;
    std::atomic<unsigned char> m_bEnabled;  ///< rewritten by read_config, read without a lock
    unsigned char m_bDefault;               ///< what holds when the configuration says nothing
};

/// The facility. Any thread may trace; a text that is filtered out takes no lock and allocates
/// nothing. Nothing here fails towards its caller, throws, changes errno or lets a thread be
/// cancelled in the middle.
class CM_UTIL_EXPORT CCmT120Trace {
  public:
    /// The form of the level functions: the text is built from aFormat as printf does.
    typedef int (*LevelFunction)(const char* aModule, const char* aFormat, ...);

    /// Manipulator of Text_Formator: 0 turns hexadecimal output of the next integer on, 1 turns
    /// it off, any other value changes nothing.
    enum Ordix : int { ORDIX_HEX = 0, ORDIX_DEC = 1 };

    /// Builds one text in a buffer of the caller's. Never allocates and never fails: what does
    /// not fit is dropped. The last 96 bytes of the buffer are never written and stay zero, so
    /// the text is always terminated and a caller may append a suffix; a buffer of 96 bytes or
    /// fewer takes nothing. One thread at a time.
    class CM_UTIL_EXPORT Text_Formator {
      public:
        /// aBuffer: of aSize bytes, zero-filled here; must outlive the formatter, which does not
        /// own it. A null buffer takes nothing.
        Text_Formator(char* aBuffer, unsigned long aSize);
        virtual ~Text_Formator();
        Text_Formator(const Text_Formator&) = delete;
        Text_Formator& operator=(const Text_Formator&) = delete;

        /// Starts afresh on the same buffer: position 0, hex flag off, all bytes zero.
        void reset();

        operator char*() { return m_pBuffer; }
        /// Bytes written so far.
        unsigned long tell() const { return m_ulPosition; }

        void set_hex_flag(unsigned char aFlag) { m_bHex = aFlag; }
        unsigned char get_hex_flag() const { return m_bHex; }

        /// A character prints as its number. Integers honour the hex flag and clear it.
        Text_Formator& operator<<(char aValue);
        Text_Formator& operator<<(unsigned char aValue);
        Text_Formator& operator<<(short aValue);
        Text_Formator& operator<<(unsigned short aValue);
        Text_Formator& operator<<(int aValue);
        Text_Formator& operator<<(unsigned int aValue);
        Text_Formator& operator<<(long aValue);
        Text_Formator& operator<<(unsigned long aValue);
        Text_Formator& operator<<(unsigned long long aValue);
        /// Always decimal, by xtoa_yrk (so 0 prints as -0); leaves the hex flag as it is. On macOS
        /// an int64_t is a long long and prints so, on Linux it is a long.
        Text_Formator& operator<<(long long aValue);
        /// "%f"; leaves the hex flag as it is.
        Text_Formator& operator<<(float aValue);
        Text_Formator& operator<<(double aValue);
        /// Null appends nothing.
        Text_Formator& operator<<(char const* aText);
        Text_Formator& operator<<(CCmString const& aText);
        /// "0x" and the address in hexadecimal; clears the hex flag.
        Text_Formator& operator<<(void* aPointer);
        Text_Formator& operator<<(const void* aPointer);
        Text_Formator& operator<<(std::nullptr_t);
        Text_Formator& operator<<(Ordix aOrdix);

      private:
        void advance(const char* aText, unsigned long aLength);
        void append_number(unsigned long aMagnitude, bool aNegative);

        char* m_pBuffer;
        unsigned long m_ulSize;
        unsigned long m_ulPosition;
        unsigned char m_bHex;
    };

    /// The facility of the process, created and loaded on first use by whichever thread comes
    /// first (those that come meanwhile load it too), never destroyed and never null.
    static CCmT120Trace* instance();

    /// False when trace_string of instance() would drop every text of this level. True as long as
    /// that facility does not exist. No lock.
    static bool is_wanted(unsigned long aLevel);

    /// aLevelTable: CM_TRACE_LEVEL_COUNT entries. aFileName: a trace file's name in the trace
    /// directory, null to name it after the process; a single file is shared between processes,
    /// otherwise the process id is appended. Nothing given is owned or copied. Looks for the
    /// bundle "yrktrace.bundle" beside the library; the level functions are the library's own
    /// whether it is there or not.
    CCmT120Trace(const char* aName, CCmT120TraceMapEntry* aLevelTable, const char* aFileName,
                 unsigned char aSingleFile);
    /// Releases the bundle; the trace file stays with the file manager.
    virtual ~CCmT120Trace();
    CCmT120Trace(const CCmT120Trace&) = delete;
    CCmT120Trace& operator=(const CCmT120Trace&) = delete;

    /// Creates the trace directory, opens the record of the trace file and reads the
    /// configuration. aFile: null does nothing when a record is open already; otherwise the record
    /// to close, replaced by a new one if it was the facility's own. Returns 1. Until a record
    /// could be opened every text is dropped.
    virtual unsigned char load(void* aFile);

    /// Reads all switches anew. Nobody else waits for the file: no lock is held while it is read.
    /// Of two readings at once the one that began last holds.
    void read_config();
    void refersh_trace_config();

    /// Passes aText, which is never taken as a format, to the level function of levels 0 (error),
    /// 10 (warn), 20 (info) and 25 (debug). Drops it at any other level, at a level that is
    /// switched off, and while tracing is disabled. aModule is not used; aText is not written to.
    void trace_string(unsigned long aLevel, char* aText);
    void trace_string(unsigned long aLevel, const char* aModule, char* aText);

    /// 1 when the level is on and not switched off for the module (null: any), else 0.
    unsigned char enable_trace_print(unsigned long aLevel, const char* aModule);

    /// Both do nothing.
    void log_string(char* aText);
    void Assert_Log(char* aFile, char* aExpression, int aLine);

    /// If there is a bundle, releases it and takes the level functions away: every text is
    /// dropped from then on.
    void Close();

    /// home + "/logs", in a static buffer that the next call after a change of the home directory
    /// rewrites.
    static const char* get_trace_dir();

    /// As get_process_name() of CmConfig.h, but "attrace" when there is no name.
    static const char* get_process_name();

  protected:
    /// load, which also stores the path of a file that is named after the process in aLogPath
    /// unless that is null.
    unsigned char load_file(void* aFile, CCmString* aLogPath);

    CCmMutexThreadRecursive& mutex() { return m_Mutex; }

  private:
    LevelFunction passing_function(unsigned long aLevel) const;
    bool is_level_on(unsigned long aLevel) const;
    void open_bundle();
    bool build_file_path(char* aPath, size_t aSize, CCmString* aLogPath) const;
    CM_UTIL_HIDDEN void* open_file(void* aFile, unsigned long aSizeLimit, CCmString* aLogPath);

    static std::atomic<CCmT120Trace*> t120_trace;

    const char* m_pszName;
    const unsigned long m_ulLevelCount;
    CCmT120TraceMapEntry* const m_pLevelTable;
    const char* const m_pszFileName;
    const unsigned char m_bSingleFile;
    std::atomic<unsigned char> m_bEnabled;
    std::atomic<void*> m_hTraceFiles[3];  ///< only the first is ever opened
    int m_nDayOfMonth;
    int m_nMonth;  ///< 1 to 12
    const pid_t m_ProcessId;
    uint32_t m_dwReading CM_GUARDED_BY(m_Mutex);  ///< of the configuration, the one in force
    CCmMutexThreadRecursive m_Mutex;              ///< configuration and loading
    std::set<CCmString, std::less<>> m_DisabledKeys
        CM_GUARDED_BY(m_Mutex);  ///< "process.module.level name"
    void* m_hBundle CM_GUARDED_BY(m_Mutex);
    std::atomic<LevelFunction> m_pfnDebug;
    std::atomic<LevelFunction> m_pfnInfo;
    std::atomic<LevelFunction> m_pfnWarn;
    std::atomic<LevelFunction> m_pfnError;
};

/// Makes the trace facility read its settings anew.
CM_UTIL_EXPORT void refresh_trace_config();

}  // namespace UTIL_NS

#endif  // CM_T120_TRACE_H
