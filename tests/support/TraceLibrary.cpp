#include "support/TraceLibrary.h"

#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "qtrace.h"
#include "support/Faults.h"

namespace kelto_test {

namespace {

struct State {
    std::vector<TraceCall> calls;
    std::vector<unsigned long> thresholds{0};
    const char* lastText = nullptr;
    unsigned long lastAllocations = 0;
    unsigned long thresholdReads = 0;
    unsigned long throwIn = 0;
    int error = 0;
    bool testCancel = false;
};

// Never destroyed: lines may come while the program ends.
std::mutex& g_mutex = *new std::mutex;
State& g_state = *new State;

}  // namespace

ScopedTraceLibrary::ScopedTraceLibrary() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state = State();
}

ScopedTraceLibrary::~ScopedTraceLibrary() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state = State();
}

std::vector<TraceCall> ScopedTraceLibrary::calls() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.calls;
}

std::vector<std::string> ScopedTraceLibrary::texts() const {
    std::vector<std::string> texts;
    for (const TraceCall& call : calls()) {
        texts.push_back(call.text);
    }
    return texts;
}

char* ScopedTraceLibrary::lastText() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return const_cast<char*>(g_state.lastText);
}

unsigned long ScopedTraceLibrary::lastAllocations() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.lastAllocations;
}

unsigned long ScopedTraceLibrary::thresholdReads() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_state.thresholdReads;
}

void ScopedTraceLibrary::SetThreshold(unsigned long aLevel) {
    SetThresholds({aLevel});
}

void ScopedTraceLibrary::SetThresholds(const std::vector<unsigned long>& aLevels) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state.thresholds = aLevels;
}

void ScopedTraceLibrary::ThrowOnCall(unsigned long aNth) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state.throwIn = aNth;
}

void ScopedTraceLibrary::SetErrno(int aError) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state.error = aError;
}

void ScopedTraceLibrary::TestCancel() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_state.testCancel = true;
}

}  // namespace kelto_test

unsigned long _getTraceLevel() {
    using namespace kelto_test;
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_state.thresholdReads;
    const unsigned long ulLevel = g_state.thresholds.front();
    if (g_state.thresholds.size() > 1) {
        g_state.thresholds.erase(g_state.thresholds.begin());
    }
    if (g_state.error != 0) {
        errno = g_state.error;
    }
    return ulLevel;
}

void YRKTRACERAWA(unsigned long aLevel, const char* aModule, char* aPrefix, const char* aText) {
    using namespace kelto_test;
    const unsigned long ulAllocations = AllocationsOfThisThread();
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        const bool bZero = aPrefix != nullptr &&
                           std::all_of(aPrefix, aPrefix + 256, [](char c) { return c == '\0'; });
        g_state.calls.push_back(
            {aLevel, aModule != nullptr ? aModule : "(null)", aPrefix != nullptr, bZero, aText});
        g_state.lastText = aText;
        g_state.lastAllocations = ulAllocations;
        if (g_state.error != 0) {
            errno = g_state.error;
        }
        if (g_state.throwIn > 0 && --g_state.throwIn == 0) {
            throw std::runtime_error("trace library");
        }
    }
    if (g_state.testCancel) {
        pthread_testcancel();
    }
}
