/// CCmT120Trace: the trace facility, and the formatter that composes trace lines.
///
/// Every line that finds no external sink (CmTrace.h) comes here. The facility filters it by level
/// and passes the levels that have one (CM_TRACE_LEVELS) to their level function of CmLogStream.h,
/// which delivers to the trace library. Its switches are read from section [Trace] of the main
/// configuration file (CmConfig.h); P is the process name:
///
///     Enable            FALSE silences everything; any value but TRUE counts as FALSE
///     P.LEVEL           TRUE or FALSE for the level of that name
///     P.Module          module names of up to 32 characters, separated by ","
///     P.MODULE.LEVEL    the level for one module, for enable_trace_print alone
///     P                 size limit of every trace file in bytes; below 1025 means 20 MiB
///     FlushPerLines     lines per flush of every trace file; below 1 means 1
///
/// Switches change only when the configuration is read: on load, and by refresh_trace_config.
/// \file
#ifndef CM_T120_TRACE_H
#define CM_T120_TRACE_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <set>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmConditionVariable.h"
#include "CmPrivateRoom.h"

namespace UTIL_NS {

/// Trace levels are numbered from 0 to 27.
constexpr unsigned long CM_TRACE_LEVEL_COUNT = 28;

/// What a trace level is.
struct CCmTraceLevel {
    /// Whether modules have a switch of their own at the level, and what that is for a module that
    /// the configuration lists without one.
    enum EModules : unsigned char {
        MODULES_NONE,  ///< no switch
        MODULES_OFF,   ///< a switch, off
        MODULES_ON     ///< a switch, on
    };
    /// The level function of CmLogStream.h that texts of the level are passed to.
    enum EFunction : unsigned char {
        FUNCTION_NONE,   ///< none: the text is dropped
        FUNCTION_DEBUG,  ///< ccu_trace_debug
        FUNCTION_INFO,   ///< ccu_trace_info
        FUNCTION_WARN,   ///< ccu_trace_warn
        FUNCTION_ERROR   ///< ccu_trace_error
    };

    unsigned long m_ulLevel;    ///< its number, below CM_TRACE_LEVEL_COUNT
    const char* m_pszName;      ///< as the configuration spells it
    unsigned char m_bDefault;   ///< CCmT120Trace: 1 when it is on unless the configuration says no
    unsigned char m_bDefault2;  ///< the same for CCmT120Trace2
    EModules m_eModules;        ///< the switches of modules
    EFunction m_eFunction;      ///< where its texts go
};

/// The levels, one row each; a number without a row has no use. The tables of both facilities, the
/// switches of modules, the level functions and CmTraceLevelName follow from these rows.
inline constexpr CCmTraceLevel CM_TRACE_LEVELS[] = {
    // clang-format off
    // number, name, on in CCmT120Trace, in CCmT120Trace2, switches of modules, level function
    {0,  "Error",     1, 0, CCmTraceLevel::MODULES_ON,   CCmTraceLevel::FUNCTION_ERROR},
    {1,  "Server",    1, 1, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {10, "Warning",   1, 0, CCmTraceLevel::MODULES_ON,   CCmTraceLevel::FUNCTION_WARN},
    {11, "Meeting",   1, 1, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {12, "Session",   1, 1, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {13, "User",      1, 1, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {14, "Statistic", 0, 1, CCmTraceLevel::MODULES_OFF,  CCmTraceLevel::FUNCTION_NONE},
    {20, "Info",      1, 1, CCmTraceLevel::MODULES_ON,   CCmTraceLevel::FUNCTION_INFO},
    {21, "State",     0, 1, CCmTraceLevel::MODULES_OFF,  CCmTraceLevel::FUNCTION_NONE},
    {22, "PDU",       0, 0, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {23, "Func",      0, 0, CCmTraceLevel::MODULES_OFF,  CCmTraceLevel::FUNCTION_NONE},
    {24, "Tick",      0, 0, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {25, "Detail",    0, 0, CCmTraceLevel::MODULES_OFF,  CCmTraceLevel::FUNCTION_DEBUG},
    {26, "WDMS",      0, 0, CCmTraceLevel::MODULES_NONE, CCmTraceLevel::FUNCTION_NONE},
    {27, "Debug",     0, 0, CCmTraceLevel::MODULES_OFF,  CCmTraceLevel::FUNCTION_NONE},
    // clang-format on
};

/// The name of a level without a row in CM_TRACE_LEVELS.
inline constexpr char CM_TRACE_LEVEL_UNUSED[] = "NA";

/// One level of a facility's table; its index in the table is its number.
struct CCmT120TraceMapEntry {
    unsigned long m_ulLevel;  ///< its number
    const char* m_pszName;    ///< as the configuration spells it; null: it has no switch
    CmStd::atomic<unsigned char> m_bEnabled;  ///< rewritten by read_config, read without a lock
    unsigned char m_bDefault;                 ///< what holds when the configuration says nothing
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
    enum Ordix : int {
        ORDIX_HEX = 0,  ///< hexadecimal
        ORDIX_DEC = 1   ///< decimal
    };

    /// Builds one text in a buffer of the caller's. Never allocates and never fails: what does
    /// not fit is dropped. The last 96 bytes of the buffer are never written and stay zero, so
    /// the text is always terminated and a caller may append a suffix; a buffer of 96 bytes or
    /// fewer takes nothing. One thread at a time.
    class CM_UTIL_EXPORT Text_Formator {
      public:
        /// aBuffer: of aSize bytes, zero-filled here; must outlive the formatter, which does not
        /// own it. A null buffer takes nothing.
        Text_Formator(char* aBuffer, unsigned long aSize);
        /// Leaves the buffer, and the text in it, to its owner.
        virtual ~Text_Formator();
        Text_Formator(const Text_Formator&) = delete;
        Text_Formator& operator=(const Text_Formator&) = delete;

        /// Starts afresh on the same buffer: position 0, hex flag off, all bytes zero.
        void reset();

        /// The buffer, which holds a terminated text.
        operator char*() { return m_pBuffer; }
        /// Bytes written so far.
        unsigned long tell() const { return m_ulPosition; }

        /// Turns hexadecimal output of the next integer on or, with 0, off.
        void set_hex_flag(unsigned char aFlag) { m_bHex = aFlag; }
        /// What was set last, unless an integer has cleared it.
        unsigned char get_hex_flag() const { return m_bHex; }

        /// As an int: a character prints as its number.
        Text_Formator& operator<<(char aValue);
        /// As an int.
        Text_Formator& operator<<(unsigned char aValue);
        /// As an int.
        Text_Formator& operator<<(short aValue);
        /// As an int.
        Text_Formator& operator<<(unsigned short aValue);
        /// Decimal or, with the hex flag, hexadecimal; clears the hex flag.
        Text_Formator& operator<<(int aValue);
        /// Decimal or, with the hex flag, hexadecimal; clears the hex flag.
        Text_Formator& operator<<(unsigned int aValue);
        /// Decimal or, with the hex flag, hexadecimal; clears the hex flag.
        Text_Formator& operator<<(long aValue);
        /// Decimal or, with the hex flag, hexadecimal; clears the hex flag.
        Text_Formator& operator<<(unsigned long aValue);
        /// As an unsigned long.
        Text_Formator& operator<<(unsigned long long aValue);
        /// Always decimal, by xtoa_yrk (so 0 prints as -0); leaves the hex flag as it is. On macOS
        /// an int64_t is a long long and prints so, on Linux it is a long.
        Text_Formator& operator<<(long long aValue);
        /// As a double.
        Text_Formator& operator<<(float aValue);
        /// "%f"; leaves the hex flag as it is.
        Text_Formator& operator<<(double aValue);
        /// The text; null appends nothing.
        Text_Formator& operator<<(char const* aText);
        /// The text, with any NUL in it.
        Text_Formator& operator<<(CCmString const& aText);
        /// "0x" and the address in hexadecimal; clears the hex flag.
        Text_Formator& operator<<(void* aPointer);
        /// As a void*.
        Text_Formator& operator<<(const void* aPointer);
        /// As a null void*: "0x0".
        Text_Formator& operator<<(std::nullptr_t);
        /// Turns hexadecimal output of the next integer on or off; appends nothing.
        Text_Formator& operator<<(Ordix aOrdix);

      private:
        CM_UTIL_HIDDEN void advance(const char* aText, unsigned long aLength);
        CM_UTIL_HIDDEN void append_number(unsigned long aMagnitude, bool aNegative);

        char* m_pBuffer;
        unsigned long m_ulSize;
        unsigned long m_ulPosition;
        unsigned char m_bHex;
    };

    /// The facility of the process, created and loaded on first use by whichever thread comes
    /// first (those that come meanwhile load it too), never destroyed and never null.
    static CCmT120Trace* instance();

    /// False when trace_string of instance() would drop every text of this level. True as long as
    /// that facility does not exist, and while the watch records lines (CmWatch.h). No lock.
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
    /// read_config, by its other name.
    void refersh_trace_config();

    /// trace_string with module "util.dll".
    void trace_string(unsigned long aLevel, char* aText);
    /// Passes aText, which is never taken as a format, to the level function that CM_TRACE_LEVELS
    /// names for the level. Drops it at a level without one, at a level that is switched off, and
    /// while tracing is disabled. aModule is not used; aText is not written to.
    void trace_string(unsigned long aLevel, const char* aModule, char* aText);

    /// 1 when the level is on and not switched off for the module (null: any), else 0.
    unsigned char enable_trace_print(unsigned long aLevel, const char* aModule);

    /// Does nothing.
    void log_string(char* aText);
    /// Does nothing.
    void Assert_Log(char* aFile, char* aExpression, int aLine);

    /// If there is a bundle, releases it and takes the level functions away: every text is
    /// dropped from then on.
    void Close();

    /// home + "/logs", in a static buffer that the next call after a change of the home directory
    /// rewrites.
    static const char* get_trace_dir();

    /// As get_process_name() of CmConfig.h, but "attrace" when there is no name.
    static const char* get_process_name();

  private:
    class CTraceState;
    friend class CCmT120Trace2;

    CM_UTIL_HIDDEN static CmStd::atomic<CCmT120Trace*> t120_trace;

    const char* m_pszName;  // read by nobody: for whoever looks at the process with a debugger
    const unsigned long m_ulLevelCount;
    CCmT120TraceMapEntry* const m_pLevelTable;
    const char* const m_pszFileName;
    const unsigned char m_bSingleFile;
    CmStd::atomic<unsigned char> m_bEnabled;
    CmStd::atomic<void*> m_hTraceFiles[3];  // only the first is ever opened
    int m_nDayOfMonth;                      // of the construction; read by nobody
    int m_nMonth;                           // 1 to 12; read by nobody
    const pid_t m_ProcessId;
    CCmMutexThreadRecursive m_Mutex;  // configuration and loading
    // "process.module.level name" of the switches that are off
    std::set<CCmString, std::less<>> m_DisabledKeys CM_GUARDED_BY(m_Mutex);
    void* m_hBundle CM_GUARDED_BY(m_Mutex);
    CmStd::atomic<LevelFunction> m_pfnDebug;
    CmStd::atomic<LevelFunction> m_pfnInfo;
    CmStd::atomic<LevelFunction> m_pfnWarn;
    CmStd::atomic<LevelFunction> m_pfnError;
    CCmPrivateRoomT<CTraceState, 128> m_Private;
};

/// Makes the trace facility read its settings anew.
CM_UTIL_EXPORT void refresh_trace_config();

}  // namespace UTIL_NS

#endif  // CM_T120_TRACE_H
