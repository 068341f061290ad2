// Compiled without run-time type information, as some hosts are.
#include <chrono>
#include <thread>

#include "CmEventQueueBase.h"

namespace kelto_test {

UTIL_NS::ICmEvent* NamelessEvent(long aMsec);

namespace {

class CNamelessEvent final : public UTIL_NS::ICmEvent {
  public:
    explicit CNamelessEvent(long aMsec) : m_lMsec(aMsec) {}
    UTIL_NS::CmResult OnEventFire() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_lMsec));
        return UTIL_NS::CM_OK;
    }

  private:
    const long m_lMsec;
};

}  // namespace

UTIL_NS::ICmEvent* NamelessEvent(long aMsec) {
    return new CNamelessEvent(aMsec);
}

}  // namespace kelto_test
