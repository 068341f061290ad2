// The file that the trace library writes to.
#ifndef RTP_MONITOR_TRACE_FILE_H
#define RTP_MONITOR_TRACE_FILE_H

#include <cstdint>
#include <string>

namespace rtp_monitor {

class CTraceFile {
  public:
    // aPath: that the user chose; empty: the user's own place for such files, which is made. To be
    // called before the first trace line. False, with a sentence without its final stop in aError,
    // when it cannot be written to; then trace lines go nowhere.
    bool Choose(const std::string& aPath, std::string* aError);
    // One line, with its line end, about what is there now; empty when trace lines go nowhere.
    std::string ClosingLine() const;

  private:
    std::string m_sPath;
    bool m_bRegular = false;
    int64_t m_llSizeBefore = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_TRACE_FILE_H
