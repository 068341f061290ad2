// Trace lines: composed, delivered to the trace library, filtered out.

#include "CmTrace.h"

#include <cstdio>
#include <cstring>

#include "CmT120Trace.h"
#include "Row.h"
#include "qtrace.h"
#if KELTO_WITH_FMT
#include <fmt/format.h>
#endif
#if KELTO_WITH_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

long s_lDelivered = 0;

}  // namespace

// The trace library of this program: takes everything and drops it.
unsigned long _getTraceLevel() {
    return 0;
}

void YRKTRACERAWA(unsigned long, const char*, char*, const char* aText) {
    Touch(aText);
    ++s_lDelivered;
}

namespace {

constexpr char COMPOSE[] = "compose one line";
constexpr char DELIVER[] = "deliver one line";
constexpr char FILTER[] = "filter one line out";
constexpr char AREA[] = "tracing";
constexpr size_t LINE_SIZE = 2048;
constexpr char EXPECTED[] = "UTIL WARNING: CMyQueue::PostEvent, m_dwSize=1234 sec=-5 this=0x";
constexpr char TEXT[] = "UTIL WARNING: CMyQueue::PostEvent, m_dwSize=1234 sec=-5 this=0x7ffd1234";

const Row s_ours(AREA, COMPOSE, OURS, [](benchmark::State& aState) {
    unsigned long ulSize = 1234;
    Touch(&ulSize);
    for (auto _ : aState) {
        char achLine[LINE_SIZE];
        CCmT120Trace::Text_Formator formator(achLine, sizeof(achLine));
        formator << "UTIL WARNING: "
                 << "CMyQueue::PostEvent, m_dwSize=" << ulSize << " sec=" << -5
                 << " this=" << static_cast<void*>(&aState);
        Touch(achLine);
        Check(achLine[sizeof(EXPECTED) - 2] == 'x', COMPOSE);
    }
    CountItems(aState);
});

const Row s_zeros(AREA, COMPOSE, "floor: the zero fill alone", [](benchmark::State& aState) {
    for (auto _ : aState) {
        char achLine[LINE_SIZE];
        std::memset(achLine, 0, sizeof(achLine));
        Touch(achLine);
    }
    CountItems(aState);
});

const Row s_printf(AREA, COMPOSE, "snprintf", [](benchmark::State& aState) {
    unsigned long ulSize = 1234;
    Touch(&ulSize);
    for (auto _ : aState) {
        char achLine[LINE_SIZE];
        std::snprintf(achLine, sizeof(achLine), "UTIL WARNING: %s%lu sec=%d this=%p",
                      "CMyQueue::PostEvent, m_dwSize=", ulSize, -5, static_cast<void*>(&aState));
        Touch(achLine);
        Check(achLine[sizeof(EXPECTED) - 2] == 'x', COMPOSE);
    }
    CountItems(aState);
});

#if KELTO_WITH_FMT
const Row s_fmt(AREA, COMPOSE, "fmt", [](benchmark::State& aState) {
    unsigned long ulSize = 1234;
    Touch(&ulSize);
    for (auto _ : aState) {
        char achLine[LINE_SIZE];
        const auto result = fmt::format_to_n(
            achLine, sizeof(achLine) - 1, "UTIL WARNING: {}{} sec={} this={}",
            "CMyQueue::PostEvent, m_dwSize=", ulSize, -5, static_cast<void*>(&aState));
        *result.out = '\0';
        Touch(achLine);
        Check(achLine[sizeof(EXPECTED) - 2] == 'x', COMPOSE);
    }
    CountItems(aState);
});
#endif

// From the library's entry point through the facility and the level function.
const Row s_oursDelivered(AREA, DELIVER, OURS, [](benchmark::State& aState) {
    CCmT120Trace::instance();
    s_lDelivered = 0;
    for (auto _ : aState) {
        util_adapter_trace(CM_TRACE_LEVEL_WARNING, TEXT, sizeof(TEXT) - 1);
    }
    Check(s_lDelivered == aState.iterations(), DELIVER);
    CountItems(aState);
});

// Level 27 is off unless the configuration turns it on.
const Row s_oursFiltered(AREA, FILTER, OURS, [](benchmark::State& aState) {
    CCmT120Trace::instance();
    s_lDelivered = 0;
    for (auto _ : aState) {
        util_adapter_trace(27, TEXT, sizeof(TEXT) - 1);
    }
    Check(s_lDelivered == 0, FILTER);
    CountItems(aState);
});

#if KELTO_WITH_SPDLOG
const Row s_spdlogDelivered(AREA, DELIVER, "spdlog, null sink", [](benchmark::State& aState) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    Check(logger.should_log(spdlog::level::warn), DELIVER);
    for (auto _ : aState) {
        logger.log(spdlog::level::warn, "{}", TEXT);
    }
    CountItems(aState);
});

const Row s_spdlogFiltered(AREA, FILTER, "spdlog", [](benchmark::State& aState) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    Check(!logger.should_log(spdlog::level::debug), FILTER);
    for (auto _ : aState) {
        logger.log(spdlog::level::debug, "{}", TEXT);
    }
    CountItems(aState);
});
#endif

}  // namespace
