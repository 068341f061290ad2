/// Trace files: records of trace lines, their manager and the module filter.
///
/// A trace file begins with a header of 32 bytes: the write position in decimal, left-justified in
/// 31 characters, and a newline. Lines stand up to that position, and after it the marker
/// "************************* Current Trace Point *************************" with two newlines,
/// which the next line overwrites:
///
///     0        32                             position
///     +--------+--------+--------+----...----+--------+----------------
///     | header | line\n | line\n |           | marker | older lines ...
///     +--------+--------+--------+----...----+--------+----------------
///
/// A new file has no header, so its first line starts at 0 and loses 32 bytes to the header. Only a
/// shared record rolls over at its size limit; the file of any other grows without end.
///
/// A line is "[MM/DD/YYYY HH:MM:SS.mmm pid=P tid=T] [tag] module:text" in local time; without a tag
/// "[tag] " is missing, without a module only the text follows. T is the low 32 bits of the
/// thread's handle, as a signed number.
///
/// Nothing here throws, changes errno, raises a signal or reports a failure of tracing: a line that
/// cannot be written is lost, and those that are on disk stay. No thread is cancelled here. A
/// process that keeps the lock of a shared file holds up who writes to that file, and nobody else.
/// \file
#ifndef CM_T120_TRACE_FILE_H
#define CM_T120_TRACE_FILE_H

#include <fcntl.h>
#include <regex.h>

#include <cstdio>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmConditionVariable.h"
#include "CmPrivateRoom.h"

namespace UTIL_NS {

/// The record of one trace file. A record opens no file by itself: without attach its lines are
/// formatted and discarded. Any thread may use it, but not while it is being destroyed.
class CM_UTIL_EXPORT CCmT120TraceFile {
  public:
    /// aName: copied, may be null. aSizeLimit: bytes, 0 for none. aShared: 0 collects lines and
    /// writes them at each flush; 1 writes each line at once under a lock of the whole file, so
    /// that processes may share it.
    CCmT120TraceFile(const char* aName, unsigned long aSizeLimit, unsigned char aShared,
                     unsigned char aIgnored);
    /// Flushes, and closes the attached file.
    ~CCmT120TraceFile();
    CCmT120TraceFile(const CCmT120TraceFile&) = delete;
    CCmT120TraceFile& operator=(const CCmT120TraceFile&) = delete;

    /// Opens aPath (null: the record's name) for reading and writing, creates it if missing and
    /// keeps what it holds; lines go there until the record ends. CM_ERROR_INVALID_ARG without
    /// any name, CM_ERROR_ALREADY_INITIALIZED when a file is attached, CM_ERROR_FAILURE when it
    /// cannot be opened, memory ran out or the program has ended. A file that is no trace file is
    /// overwritten from the position on that a number at its start names, else from its start.
    /// A host must not open and close an attached file by other means: closing any descriptor of a
    /// file takes the process's locks off it.
    CmResult attach(const char* aPath = nullptr);

    /// aTag and aModule may be null. Lines whose module matches a filter are left out. A
    /// line that does not fit what is left of the line buffer is cut and keeps its line end, and
    /// those after it are lost until the next flush; a null aText reads "(null)". On a shared
    /// record the same as write_shared.
    void write(const char* aTag, const char* aModule, const char* aText);
    /// Cuts nothing; a null aText is no line. Waits for the file's lock. Once a position reached
    /// the size limit, the next line goes to the top of the file again.
    void write_shared(const char* aTag, const char* aModule, const char* aText);
    /// Writes the collected lines. A position at the size limit cuts the file off there, and the
    /// lines are appended all the same.
    void flush_buffer();

    /// Flushes. aFlushCount: lines per flush, taken to be within 1 and 1048575; without memory for
    /// so many, write loses every line until another count is set. A line that waits for the file's
    /// lock is written under the new limit. Returns 1.
    unsigned char refresh_settings(unsigned long aSizeLimit, int aFlushCount);

    /// 1 when the record has a name and aName is the same, else 0.
    unsigned char is_same_file(const char* aName) const;

  private:
    friend class CCmT120TraceFileMgr;
    struct CRecordState;

    CmStd::atomic<CCmT120TraceFile*> m_pNext;  // in the manager's list
    unsigned char m_bWrapped;  // 1 once a flush found the file at its size limit; read by nobody
    FILE* m_pStream;           // owns the descriptor; null until attach
    char* m_pszName;
    unsigned long m_ulSizeLimit;
    int m_nFlushCount;
    const unsigned char m_bShared;
    struct flock m_LockRequest;
    struct flock m_UnlockRequest;
    char* m_pchLines;  // m_nFlushCount * 2048 + 1 bytes; null when memory ran out
    unsigned long m_ulBufferedBytes;
    int m_nBufferedLines;
    int m_nValidity;    // 20050704 while the record lives
    int m_nDescriptor;  // 0 until attach
    CCmPrivateRoomT<CRecordState, 192> m_Private;
};

/// The records of the process, by file name.
class CM_UTIL_EXPORT CCmT120TraceFileMgr {
  public:
    /// A manager without records.
    constexpr CCmT120TraceFileMgr() = default;
    /// Waits 200 ms for threads that still write, then ends every record: no thread may use one any
    /// more. The records of g_trace_mgr, which ends with the program, are flushed, closed and left
    /// where they are: a line that comes then is dropped. A manager with static storage opens no
    /// more records after that.
    ~CCmT120TraceFileMgr();
    CCmT120TraceFileMgr(const CCmT120TraceFileMgr&) = delete;
    CCmT120TraceFileMgr& operator=(const CCmT120TraceFileMgr&) = delete;

    /// The record of that name, created when there is none; without a name always a new one. Null
    /// when memory ran out. The manager owns it.
    void* open(const char* aName, unsigned long aSizeLimit, unsigned char aShared,
               unsigned char aIgnored);
    /// Ends a record of this manager; anything else is left alone. No thread may be writing to it.
    /// Waits for a thread that is in refresh_settings of a manager.
    void close(void* aRecord);
    /// Writes a line to aRecord, which is of this manager, as its write does; null is ignored.
    void write(void* aRecord, const char* aTag, const char* aModule, const char* aText);
    /// Sets both for every record, as its refresh_settings does. The mutex of the manager is not
    /// held: records may be opened meanwhile.
    void refresh_settings(unsigned long aSizeLimit, int aFlushCount);

    /// Reads the filters from home + "conf/keltoexp.filter": up to 100 lines, each an extended
    /// regular expression with its line end as part of it. So only a last line without a line end
    /// matches the name of a module. Keeps the filters when the file cannot be read or is empty, or
    /// is a pipe that somebody still writes to; one line that does not compile leaves no filter at
    /// all. For hosts; nothing in the library calls it.
    static void init_reg_filter();

  private:
    struct CManagerState;

    CmStd::atomic<CCmT120TraceFile*> m_pHeader{nullptr};  // newest first
    uint32_t m_dwCount = 0;  // of all records ever created; read by nobody
    // In a union, which leaves it to the destructor whether the mutex ends: that of the manager of
    // the process outlives it, for the threads that still trace.
    union {
        CCmMutexThreadRecursive m_Mutex{CCmStaticInit()};
    };
    CCmPrivateRoomT<CManagerState, 80> m_Private{};
};

/// The one manager of the process.
extern CM_UTIL_EXPORT CCmT120TraceFileMgr g_trace_mgr;

/// The largest number of module filters.
constexpr int CM_TRACE_FILTER_COUNT = 100;
/// The compiled module filters, one after the other. Only init_reg_filter changes them.
extern CM_UTIL_EXPORT regex_t re[CM_TRACE_FILTER_COUNT];
/// Twice the number of module filters, since both reading and compiling a line count.
extern CM_UTIL_EXPORT CmStd::atomic<int> regex_cnt;

/// 0 when a filter matches aText, -1 when none does, there is none, or aText is null.
CM_UTIL_EXPORT int regex_match(const char* aText);

/// CCmT120TraceFileMgr::open of g_trace_mgr.
CM_UTIL_EXPORT void* T120_Open_Trace_Dev(const char* aName, unsigned long aSizeLimit,
                                         unsigned char aShared, unsigned char aIgnored);
/// CCmT120TraceFileMgr::close of g_trace_mgr.
CM_UTIL_EXPORT void T120_Close_Trace_Dev(void* aRecord);
/// CCmT120TraceFileMgr::write of g_trace_mgr. aRecord: null, or as T120_Open_Trace_Dev returned it.
CM_UTIL_EXPORT void T120_Write_Trace_Dev(void* aRecord, const char* aTag, const char* aModule,
                                         const char* aText);
/// CCmT120TraceFileMgr::refresh_settings of g_trace_mgr.
CM_UTIL_EXPORT void T120_Refresh_Settings(unsigned long aSizeLimit, int aFlushCount);

}  // namespace UTIL_NS

#endif  // CM_T120_TRACE_FILE_H
