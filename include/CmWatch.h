/// What the workers of a host do, while it runs: how much each has run, how long events wait, what
/// took longest, and what a slow event was. Off unless it is asked for.
///
///     CCmWatch::Start();                             // or [Watch] Enable=1 in the profile
///     CCmWorkerFigures figures[32];
///     size_t nWorkers = 0;
///     CCmWatch::Read(figures, 32, nWorkers);         // from any thread; stops nobody
///
/// docs/watch.md tells what each figure means, what the watch writes and what it costs.
/// \file
#ifndef CM_WATCH_H
#define CM_WATCH_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "CmBase.h"
#include "CmWatchFigures.h"

namespace UTIL_NS {

/// How the watch is to be. Each of the set functions can be left out. In brackets: the key of the
/// section [Watch] in the profile that says the same.
class CCmWatchOptions {
  public:
    /// The longest directory, with its terminator.
    static constexpr size_t DIRECTORY_SIZE = 1024;

    /// Whether a file keeps what the threads did last, also when the process is killed [Record];
    /// yes by default. Where no file can be made, the watch goes on without one.
    CCmWatchOptions& Record(bool aRecord) {
        m_bRecord = aRecord;
        return *this;
    }
    /// How many units of 32 bytes are kept of each thread [Records]: a power of two, 256 to 65536;
    /// 2048 by default. This and Threads stay as an earlier start had them while a thread lives of
    /// which that kept records.
    CCmWatchOptions& Records(DWORD aRecords) {
        Require(aRecords >= 256 && aRecords <= 65536 && (aRecords & (aRecords - 1)) == 0);
        m_dwRecords = aRecords;
        return *this;
    }
    /// Of how many threads records are kept [Threads]: 4 to 1024; 64 by default. A thread beyond
    /// them has figures, but no records.
    CCmWatchOptions& Threads(DWORD aThreads) {
        Require(aThreads >= 4 && aThreads <= 1024);
        m_dwThreads = aThreads;
        return *this;
    }
    /// Whether a recorder's file has trace lines, too, those of filtered levels included [Lines];
    /// yes by default.
    CCmWatchOptions& Lines(bool aLines) {
        m_bLines = aLines;
        return *this;
    }
    /// A synchronous send that has blocked for this many milliseconds is reported once [LongSend];
    /// 1000 by default, 0: never.
    CCmWatchOptions& LongSend(DWORD aMsec) {
        m_dwLongSendMsec = aMsec;
        return *this;
    }
    /// Where the file is made [Directory]; null or empty: the user's own runtime directory.
    CCmWatchOptions& Directory(const char* aDirectory) {
        const size_t nLength = aDirectory != nullptr ? std::strlen(aDirectory) : 0;
        Require(nLength < sizeof(m_szDirectory));
        std::memset(m_szDirectory, 0, sizeof(m_szDirectory));
        if (nLength < sizeof(m_szDirectory) && nLength > 0) {
            std::memcpy(m_szDirectory, aDirectory, nLength);
        }
        return *this;
    }

    /// CM_OK; CM_ERROR_INVALID_ARG: one of the above is out of its range, so that the watch would
    /// not start.
    CmResult Result() const { return m_Result; }
    /// As given to Record.
    bool HasRecord() const { return m_bRecord; }
    /// As given to Records.
    DWORD GetRecords() const { return m_dwRecords; }
    /// As given to Threads.
    DWORD GetThreads() const { return m_dwThreads; }
    /// As given to Lines.
    bool HasLines() const { return m_bLines; }
    /// As given to LongSend.
    DWORD GetLongSend() const { return m_dwLongSendMsec; }
    /// As given to Directory; never null.
    const char* GetDirectory() const { return m_szDirectory; }

  private:
    void Require(bool aIsInRange) {
        if (!aIsInRange) {
            m_Result = CM_ERROR_INVALID_ARG;
        }
    }

    char m_szDirectory[DIRECTORY_SIZE] = {};
    CmResult m_Result = CM_OK;
    DWORD m_dwRecords = 2048;
    DWORD m_dwThreads = 64;
    DWORD m_dwLongSendMsec = 1000;
    bool m_bRecord = true;
    bool m_bLines = true;
    [[maybe_unused]] uint64_t m_ullReserved[8] = {};  // for later versions
};

/// The watch of this process. Any thread; nothing throws.
class CM_UTIL_EXPORT CCmWatch {
  public:
    /// Turns it on, with all figures at 0. CM_OK; CM_ERROR_INVALID_ARG: that of the options;
    /// CM_ERROR_ALREADY_INITIALIZED: it is on; CM_ERROR_OUT_OF_MEMORY.
    static CmResult Start(const CCmWatchOptions& aOptions = CCmWatchOptions());
    /// Turns it off; the figures keep their last values, and Read still gives them. CM_OK, also
    /// when it was off.
    static CmResult Stop();
    /// Whether it is on.
    static bool IsOn();
    /// Copies the figures of up to aRoom workers to aFigures, in the order in which they began, and
    /// sets aCount to the number of all workers, which may be more. No event, timer or post waits
    /// for it, but the first one of a thread or a queue. aFigures may be null when aRoom is 0.
    /// CM_OK; CM_ERROR_INVALID_ARG.
    static CmResult Read(CCmWorkerFigures* aFigures, size_t aRoom, size_t& aCount);
    /// Copies the path of the recording to aPath, which has room for aSize bytes with the
    /// terminator: of the file that keeps what the threads did last. Empty: there is none, because
    /// the watch is off, was not asked for one or could make none, as a trace line says. CM_OK;
    /// CM_ERROR_INVALID_ARG: null, or the path does not fit; the text is empty then.
    static CmResult GetRecording(char* aPath, size_t aSize);
};

}  // namespace UTIL_NS

#endif  // CM_WATCH_H
