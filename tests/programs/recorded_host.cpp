// A host that is recorded, for real_test.py. It works in a way that can be told again, says
// "ready", and then waits: for the end of its input, or to be killed.
//
//   recorded_host [hang]    with hang, its worker is in an event that does not end
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include <kelto_util.h>

using namespace UTIL_NS;

namespace {

void Wait(int aMsec) {
    std::this_thread::sleep_for(std::chrono::milliseconds(aMsec));
}

}  // namespace

namespace media {

class CPacket : public ICmEvent {
  public:
    CmResult OnEventFire() override {
        Wait(1);
        return CM_OK;
    }
};

class CSlow : public ICmEvent {
  public:
    CmResult OnEventFire() override {
        Wait(300);
        return CM_OK;
    }
};

class CHang : public ICmEvent {
  public:
    CmResult OnEventFire() override {
        std::puts("ready");
        std::fflush(stdout);
        while (true) {
            Wait(1000);
        }
    }
};

class CQuestion : public ICmEvent {
  public:
    CmResult OnEventFire() override {
        Wait(2);
        return CM_OK;
    }
};

}  // namespace media

namespace {

bool Post(CCmWorker& aWorker, ICmEvent* aEvent) {
    return CM_SUCCEEDED(CmQueueOfT(aWorker)->PostEvent(aEvent, ICmEventQueue::EPRIORITY_NORMAL));
}

// The worker "net" posts to the worker "worker 1", and asks it something.
bool Work(CCmWorker& aNet, CCmWorker& aWorker) {
    bool bGood = true;
    const auto done = CmCall(aNet, [&] {
        bGood = Post(aWorker, new media::CSlow);
        for (int i = 0; i < 20; ++i) {
            bGood = Post(aWorker, new media::CPacket) && bGood;
        }
        bGood = CM_SUCCEEDED(CmQueueOfT(aWorker)->SendEvent(new media::CQuestion)) && bGood;
        return true;
    });
    std::atomic<bool> bFired{false};
    CCmTimerHandle timer =
        CmPostDelayed(aWorker, std::chrono::milliseconds(1), [&] { bFired = true; });
    while (!bFired) {
        Wait(1);
    }
    // The timer's record is written when it is over, before the next event.
    return done && bGood && CmCall(aWorker, [] { return true; });
}

}  // namespace

int main(int argc, char** argv) {
    if (CM_FAILED(CCmWatch::Start())) {
        return 1;
    }
    CCmWorker net(CCmWorkerOptions().Name("net"));
    CCmWorker worker(CCmWorkerOptions().Name("worker 1"));
    if (!Work(net, worker)) {
        return 1;
    }
    if (argc > 1 && std::strcmp(argv[1], "hang") == 0) {
        if (!Post(worker, new media::CHang)) {
            return 1;
        }
    } else {
        std::puts("ready");
        std::fflush(stdout);
    }
    char ch = 0;
    while (read(STDIN_FILENO, &ch, 1) > 0) {
    }
    return CM_SUCCEEDED(CCmWatch::Stop()) ? 0 : 1;
}
