// The unit CmWatched as it is, and what makes its registry forget: what it keeps of threads lives
// as long as the process, which runs many schedules here.
#include "CmWatched.cpp"  // NOLINT(bugprone-suspicious-include)

#include <vector>

#include "CmEventQueueSteps.h"
#include "schedule/Schedule.h"
#include "schedule/Watched.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

// The registry without threads and queues.
bool s_bIsKept = false;
alignas(CRegistryStorage) char s_achKept[sizeof(CRegistryStorage)];

}  // namespace

CWatch::CWatch() {
    CCmEventQueueSteps::LearnTableOfSends();
    SCHEDULE_EXPECT(s_registry.m_Registry.EnsureKey());
    if (!s_bIsKept) {
        std::memcpy(s_achKept, static_cast<const void*>(&s_registry), sizeof(s_registry));
        s_bIsKept = true;
    }
}

CWatch::~CWatch() {
    Stop();
    std::vector<CCmWatchedThread*> threads;
    CmForEachWatchedThread([&](CCmWatchedThread& aThread) { threads.push_back(&aThread); });
    for (CCmWatchedThread* const pThread : threads) {
        delete pThread;
    }
    std::memcpy(static_cast<void*>(&s_registry), s_achKept, sizeof(s_registry));
}

// As CCmWatch does it.
void CWatch::Start() {
    CmSetWatchStart(++m_dwStarts);
    g_cmWatchOn.store(m_dwStarts, std::memory_order_relaxed);
}

void CWatch::Stop() {
    if (CmWatchIsOn()) {
        g_cmWatchOn.store(0, std::memory_order_relaxed);
        CmSetWatchEnd();
    }
}

}  // namespace kelto_test
