#include "host.h"

using namespace UTIL_NS;

namespace {

class CAdd : public ICmEvent {
  public:
    CAdd(long& aSum, int aValue) : m_lSum(aSum), m_nValue(aValue) {}
    CmResult OnEventFire() override {
        m_lSum += m_nValue;
        return CM_OK;
    }

  private:
    long& m_lSum;
    int m_nValue;
};

class CFlag final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void*) override { m_Event.Signal(); }
    CmResult Wait() {
        CCmTimeValue tvLimit(10, 0);
        return m_Event.Wait(&tvLimit);
    }

  private:
    CCmEventThread m_Event;
};

// Runs on the worker, since a timer queue belongs to its thread.
class CSchedule : public ICmEvent {
  public:
    CSchedule(ACmThread* aWorker, ICmTimerHandler* aHandler)
        : m_pWorker(aWorker), m_pHandler(aHandler) {}
    CmResult OnEventFire() override {
        return m_pWorker->GetTimerQueue()->ScheduleTimer(m_pHandler, nullptr, CCmTimeValue(0, 1000),
                                                         1);
    }

  private:
    ACmThread* m_pWorker;
    ICmTimerHandler* m_pHandler;
};

class CWorker {
  public:
    CWorker() { CreateUserTaskThread(&m_pThread, TF_JOINABLE, true, 1); }
    ~CWorker() { End(); }
    ACmThread* get() { return m_pThread; }
    ICmEventQueue* queue() { return m_pThread->GetEventQueue(); }
    void End() {
        if (m_pThread != nullptr) {
            m_pThread->Stop();
            m_pThread->Join();
            m_pThread->Destory(CM_OK);
            m_pThread = nullptr;
        }
    }

  private:
    ACmThread* m_pThread = nullptr;
};

}  // namespace

long SumOnWorker(int aCount) {
    long lSum = 0;
    CWorker worker;
    for (int i = 0; i < aCount; ++i) {
        worker.queue()->PostEvent(new CAdd(lSum, i), ICmEventQueue::EPRIORITY_NORMAL);
    }
    worker.End();
    return lSum;
}

bool TimerFires() {
    CFlag flag;
    CWorker worker;
    const CmResult rv = worker.queue()->SendEvent(new CSchedule(worker.get(), &flag));
    return CM_SUCCEEDED(rv) && CM_SUCCEEDED(flag.Wait());
}

CCmString Describe() {
    char buffer[256];
    CCmT120Trace::Text_Formator formator(buffer, sizeof(buffer));
    formator << "limit " << static_cast<long>(CCmTimeValue::s_tvMax.GetSec());
    return CCmString(static_cast<char*>(formator));
}
