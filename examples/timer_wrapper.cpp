// A periodic timer on a worker thread: it is scheduled, fires and is cancelled on that thread.
// Prints one line for each of three firings.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

namespace {

constexpr int FIRINGS = 3;

class Ticker : public CCmTimerWrapperIDSink {
  public:
    explicit Ticker(CCmEventThread* aDone) : m_pDone(aDone) {}

    CmResult Start() {
        return m_timer.Schedule(this, CCmTimeValue(0, 20000), 0);  // every 20 ms, without limit
    }

    void OnTimer(CCmTimerWrapperID* aId) override {
        std::printf("tick %d\n", ++m_nTicks);
        if (m_nTicks == FIRINGS) {
            aId->Cancel();
            m_pDone->Signal();
        }
    }

  private:
    CCmTimerWrapperID m_timer;
    CCmEventThread* m_pDone;
    int m_nTicks = 0;
};

// A timer belongs to the thread that schedules it, so an event carries the request there.
class StartEvent : public ICmEvent {
  public:
    explicit StartEvent(Ticker* aTicker) : m_pTicker(aTicker) {}
    CmResult OnEventFire() override { return m_pTicker->Start(); }

  private:
    Ticker* m_pTicker;
};

}  // namespace

int main() {
    constexpr int MY_THREAD_TYPE = 1;
    ACmThread* pWorker = nullptr;
    if (CM_FAILED(CreateUserTaskThread(&pWorker, TF_JOINABLE, true, MY_THREAD_TYPE))) {
        return EXIT_FAILURE;
    }
    CCmEventThread done(1);  // manual reset: stays signalled
    Ticker ticker(&done);
    CmResult rv = pWorker->GetEventQueue()->SendEvent(new StartEvent(&ticker));
    if (CM_SUCCEEDED(rv)) {
        CCmTimeValue tvLimit(10);
        rv = done.Wait(&tvLimit);
    }
    pWorker->Stop(nullptr);
    pWorker->Join();
    const bool bOk = CM_SUCCEEDED(rv);
    pWorker->Destory(rv);
    return bOk ? EXIT_SUCCESS : EXIT_FAILURE;
}
