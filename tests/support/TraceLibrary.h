// A trace library in place of qtrace that records the calls it gets. An executable that has it
// among its sources binds to it rather than to qtrace.
#ifndef TESTS_SUPPORT_TRACE_LIBRARY_H
#define TESTS_SUPPORT_TRACE_LIBRARY_H

#include <cstddef>
#include <string>
#include <vector>

namespace kelto_test {

// One call of YRKTRACERAWA.
struct TraceCall {
    unsigned long level;
    std::string module;
    bool prefixed;    // the prefix was not null
    bool zeroPrefix;  // and all its 256 bytes were zero
    std::string text;
};

// Starts with threshold 0 and nothing recorded. One at a time; calls may come from any thread.
class ScopedTraceLibrary {
  public:
    ScopedTraceLibrary();
    ~ScopedTraceLibrary();
    ScopedTraceLibrary(const ScopedTraceLibrary&) = delete;
    ScopedTraceLibrary& operator=(const ScopedTraceLibrary&) = delete;

    std::vector<TraceCall> calls() const;
    // The texts of all calls, in order.
    std::vector<std::string> texts() const;
    // Where the text of the last call stood.
    char* lastText() const;
    // The allocations that its thread had made by then.
    unsigned long lastAllocations() const;
    // How often the threshold was asked for.
    unsigned long thresholdReads() const;

    void SetThreshold(unsigned long aLevel);
    // What the threshold is at each of the next questions; the last one stays.
    void SetThresholds(const std::vector<unsigned long>& aLevels);
    // Makes the aNth call from now on throw, once.
    void ThrowOnCall(unsigned long aNth);
    // Makes every call set errno.
    void SetErrno(int aError);
    // Makes every call a cancellation point.
    void TestCancel();
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_TRACE_LIBRARY_H
