// Captures the trace lines that the library writes.
#ifndef TESTS_SUPPORT_TRACE_SINK_H
#define TESTS_SUPPORT_TRACE_SINK_H

#include <string>
#include <vector>

#include "CmTrace.h"

namespace kelto_test {

struct TraceLine {
    unsigned long level;
    std::string text;
    unsigned int length;
};

// Installs itself as the external sink and restores the previous one at its end. One at a time;
// lines may come from any thread.
class ScopedTraceSink {
  public:
    ScopedTraceSink();
    ~ScopedTraceSink();
    ScopedTraceSink(const ScopedTraceSink&) = delete;
    ScopedTraceSink& operator=(const ScopedTraceSink&) = delete;

    // Copies of the lines so far.
    std::vector<TraceLine> lines() const;
    // How many lines contain aText.
    size_t count(const std::string& aText) const;
    void clear();

  private:
    UTIL_NS::UtilTraceSink m_pfnPrevious;
};

// aText with every address ("0x" and hexadecimal digits) replaced by "0x#".
std::string MaskAddresses(const std::string& aText);

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_TRACE_SINK_H
