// The watch, on while a test needs it, and what it tells of one worker.
#ifndef TESTS_SUPPORT_WATCH_H
#define TESTS_SUPPORT_WATCH_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

#include "CmThread.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "support/Eventually.h"

namespace kelto_test {

// Takes aMsec to run; of a file that is compiled without run-time type information.
UTIL_NS::ICmEvent* NamelessEvent(long aMsec);

// Keeps no file.
class ScopedWatch {
  public:
    ScopedWatch() {
        EXPECT_EQ(UTIL_NS::CM_OK,
                  UTIL_NS::CCmWatch::Start(UTIL_NS::CCmWatchOptions().Record(false)));
    }
    ~ScopedWatch() { UTIL_NS::CCmWatch::Stop(); }
    ScopedWatch(const ScopedWatch&) = delete;
    ScopedWatch& operator=(const ScopedWatch&) = delete;
};

inline std::vector<UTIL_NS::CCmWorkerFigures> Rows() {
    size_t nCount = 0;
    UTIL_NS::CCmWatch::Read(nullptr, 0, nCount);
    std::vector<UTIL_NS::CCmWorkerFigures> rows(nCount + 8);
    UTIL_NS::CCmWatch::Read(rows.data(), rows.size(), nCount);
    EXPECT_LE(nCount, rows.size());
    rows.resize(nCount);
    return rows;
}

inline UTIL_NS::CCmWorkerFigures FiguresOf(pthread_t aThread) {
    for (const UTIL_NS::CCmWorkerFigures& row : Rows()) {
        if (row.m_ullThread == (uint64_t)aThread) {
            return row;
        }
    }
    return UTIL_NS::CCmWorkerFigures();
}
inline UTIL_NS::CCmWorkerFigures FiguresOf(UTIL_NS::ACmThread& aThread) {
    return FiguresOf(aThread.GetThreadId());
}
inline UTIL_NS::CCmWorkerFigures FiguresOf(UTIL_NS::CCmWorker& aWorker) {
    return FiguresOf(*aWorker.GetThread());
}

// Waits until nothing is pending and nothing runs: then what was posted is what became of it.
template <class Worker>
UTIL_NS::CCmWorkerFigures FiguresAtRest(Worker& aWorker) {
    UTIL_NS::CCmWorkerFigures figures;
    EXPECT_TRUE(Eventually([&] {
        figures = FiguresOf(aWorker);
        return figures.m_ullPending == 0 && figures.m_szCurrentClass[0] == '\0' &&
               figures.m_ullThread != 0 &&
               figures.m_ullPosted == figures.m_ullRun + figures.m_ullUnfired;
    })) << "posted "
        << figures.m_ullPosted << ", run " << figures.m_ullRun << ", unfired "
        << figures.m_ullUnfired << ", pending " << figures.m_ullPending << ", current "
        << figures.m_szCurrentClass;
    return figures;
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_WATCH_H
