// Where results go: written whole, and never lost unnoticed.
#ifndef RTP_MONITOR_OUTPUT_H
#define RTP_MONITOR_OUTPUT_H

#include <string>
#include <string_view>

namespace rtp_monitor {

// One descriptor that is written to. One thread at a time.
class COutput {
  public:
    // aFile stays the caller's.
    explicit COutput(int aFile) : m_nFile(aFile) {}

    // False, as ever after, when not all of it could be written.
    bool Write(std::string_view aText);
    // A failure, also while there is nothing to write, once the reader has gone.
    void CheckReader();
    bool HasFailed() const { return m_nError != 0; }
    // The system's words for the failure.
    std::string error() const;
    int descriptor() const { return m_nFile; }

  private:
    bool WaitForRoom();

    const int m_nFile;
    int m_nError = 0;
};

// Makes a closed pipe a failure to write instead of the end of the process, and keeps the numbers
// of standard streams that are closed from those files that are opened later.
void PrepareOutput();

// Once aDescriptor is readable no output waits for a reader that takes nothing. aDescriptor stays
// the caller's, open until the process ends. Before any other thread runs.
void EndWaitsForReaders(int aDescriptor);

// "-" is standard input. False when one of them is not there.
bool IsSameFile(const std::string& aLeft, const std::string& aRight);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_OUTPUT_H
