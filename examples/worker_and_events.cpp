// A worker thread: post events to it, send one and wait for its result, stop it in order.
// Prints the sum that the worker added up.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

namespace {

// Adds a number on the worker's thread; the queue owns it once it is posted.
class AddEvent : public ICmEvent {
  public:
    AddEvent(long* aSum, long aNumber) : m_pSum(aSum), m_lNumber(aNumber) {}

    CmResult OnEventFire() override {
        *m_pSum += m_lNumber;
        return CM_OK;
    }

  private:
    long* m_pSum;
    long m_lNumber;
};

// Copies the sum; by the time it runs, everything posted before it has run.
class ReadEvent : public ICmEvent {
  public:
    ReadEvent(const long* aSum, long* aCopy) : m_pSum(aSum), m_pCopy(aCopy) {}

    CmResult OnEventFire() override {
        *m_pCopy = *m_pSum;
        return CM_OK;
    }

  private:
    const long* m_pSum;
    long* m_pCopy;
};

}  // namespace

int main() {
    constexpr int MY_THREAD_TYPE = 1;
    ACmThread* pWorker = nullptr;
    if (CM_FAILED(CreateUserTaskThread(&pWorker, TF_JOINABLE, false, MY_THREAD_TYPE))) {
        return EXIT_FAILURE;
    }

    long lSum = 0;  // touched by the worker only, until it has been joined
    for (long lNumber = 1; lNumber <= 100; ++lNumber) {
        pWorker->GetEventQueue()->PostEvent(new AddEvent(&lSum, lNumber),
                                            ICmEventQueue::EPRIORITY_NORMAL);
    }
    long lSeen = 0;
    const CmResult rv = pWorker->GetEventQueue()->SendEvent(new ReadEvent(&lSum, &lSeen));
    std::printf("the worker added up %ld\n", lSeen);

    pWorker->Stop(nullptr);   // events posted before still run
    pWorker->Join();          // wait for the thread
    pWorker->Destory(CM_OK);  // free the object
    return CM_SUCCEEDED(rv) && lSeen == 5050 ? EXIT_SUCCESS : EXIT_FAILURE;
}
