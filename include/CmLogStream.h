/// The bridge to the separate trace library: level functions, log streams, the second facility.
///
/// The trace library supplies two functions with C linkage, _getTraceLevel (the threshold) and
/// YRKTRACERAWA (takes one piece of text). A text is delivered when its level is at least the
/// threshold: whole when it has at most 2047 characters, otherwise in pieces of 2047. What
/// YRKTRACERAWA throws ends the delivery of that text and goes no further. Nothing here changes
/// errno, and no thread is cancelled in the middle of a delivery.
/// \file
#ifndef CM_LOG_STREAM_H
#define CM_LOG_STREAM_H

#include <locale>
#include <sstream>
#include <string>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmT120Trace.h"

namespace UTIL_NS {

/// A level function: delivers the text that printf would build from aFormat, up to a NUL in it, cut
/// to 131071 characters, at level 2 whatever the function's name. 0 when aModule or aFormat is
/// null, else 1. Any thread.
CM_UTIL_EXPORT int ccu_trace_debug(const char* aModule, const char* aFormat, ...)
    __attribute__((format(printf, 2, 3)));
/// The same as ccu_trace_debug.
CM_UTIL_EXPORT int ccu_trace_info(const char* aModule, const char* aFormat, ...)
    __attribute__((format(printf, 2, 3)));
/// The same as ccu_trace_debug.
CM_UTIL_EXPORT int ccu_trace_warn(const char* aModule, const char* aFormat, ...)
    __attribute__((format(printf, 2, 3)));
/// The same as ccu_trace_debug.
CM_UTIL_EXPORT int ccu_trace_error(const char* aModule, const char* aFormat, ...)
    __attribute__((format(printf, 2, 3)));

namespace ccu {

/// Collects one text and delivers it. One thread at a time.
class CM_UTIL_EXPORT YrktraStreamA {
  public:
    /// aLevel: of the text when it is delivered.
    explicit YrktraStreamA(unsigned long aLevel);
    /// Frees nothing: flusha does.
    ~YrktraStreamA() = default;
    YrktraStreamA(const YrktraStreamA&) = delete;
    YrktraStreamA& operator=(const YrktraStreamA&) = delete;

    /// Appends; nothing for null. When memory runs out the text so far is gone.
    void writestringa(const char* aText);
    /// Delivers what was written, if anything, and frees it. After an exception of the trace
    /// library the text is neither freed nor delivered again.
    void flusha(const char* aModule);

  private:
    unsigned long m_ulLevel;
    unsigned long m_ulLength;  // bytes held, the terminator included
    unsigned long m_ulChunkSize;
    char* m_pchBuffer;
};

/// Log streams; there is one for char.
template <typename CharType>
class logstream;

/// An output string stream whose destructor delivers what was inserted, up to the first NUL and in
/// whatever state the stream is:
///
///     ccu::logstream<char>(2, "net") << "connected, fd=" << fd;
///
/// One thread at a time.
template <>
class CM_UTIL_EXPORT logstream<char> : public std::basic_ostringstream<char> {
  public:
    /// aModule: not copied; must outlive the stream.
    logstream(unsigned long aLevel, const char* aModule);
    /// Delivers. Nothing is thrown, whatever the stream has been told to throw.
    ~logstream() override;

  private:
    unsigned long m_ulLevel;
    const char* m_pszModule;
};

}  // namespace ccu

/// The "C" locale. It does not end with the program.
extern CM_UTIL_EXPORT const std::locale ccuLoc;
/// The character conversion facet of ccuLoc.
extern CM_UTIL_EXPORT const std::codecvt<wchar_t, char, std::mbstate_t>& ccuCvter;

/// A second facility with switches of its own and other defaults (CCmTraceLevel::m_bDefault2). As
/// CCmT120Trace in all else.
class CM_UTIL_EXPORT CCmT120Trace2 : public CCmT120Trace {
  public:
    /// The second facility of the process, created and loaded like CCmT120Trace::instance.
    static CCmT120Trace2* instance();
    /// The arguments are those of CCmT120Trace.
    CCmT120Trace2(const char* aName, CCmT120TraceMapEntry* aLevelTable, const char* aFileName,
                  unsigned char aSingleFile);
    /// Releases the bundle; the trace file stays with the file manager.
    ~CCmT120Trace2() override;

    /// Also remembers the path of a trace file that is named after the process as the log path.
    unsigned char load(void* aFile) override;

    /// The log path with the first "##**FILE_NAME_TAG**##" in it replaced by aName; empty when it
    /// has none; aName is left as it is. The library's own log paths have none: a host that wants a
    /// name here sets m_sLogPath in a derived class.
    std::string GetLogFilePathAndName(std::string& aName);

  protected:
    /// The log path. Not to be changed while another thread is in load or GetLogFilePathAndName.
    std::string m_sLogPath;

  private:
    CM_UTIL_HIDDEN static CmStd::atomic<CCmT120Trace2*> t120_trace;
};

/// Points to the identity below once get_leading_id has built it; null before. Never released.
extern CM_UTIL_EXPORT CmStd::atomic<const char*> g_LeadingId;

}  // namespace UTIL_NS

/// Identifies the process and the machine: "process.machine." with setting "MachineID" of section
/// [Trace] or else the host name as the machine, at most 1023 characters. Built once, on first
/// use. Any thread.
extern "C" CM_UTIL_EXPORT const char* get_leading_id();

#endif  // CM_LOG_STREAM_H
