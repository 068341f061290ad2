// The watch in scenarios: switched on and off as its host does it, without its thread and recorder.
#ifndef TESTS_SCHEDULE_WATCHED_H
#define TESTS_SCHEDULE_WATCHED_H

#include "CmBase.h"

namespace kelto_test {

// One at a time. At its end, on a thread that has not been watched, all those that were have ended;
// what the watch has kept of them goes with it.
class CWatch {
  public:
    CWatch();
    ~CWatch();
    CWatch(const CWatch&) = delete;
    CWatch& operator=(const CWatch&) = delete;

    void Start();
    void Stop();

  private:
    UTIL_NS::DWORD m_dwStarts = 0;
};

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_WATCHED_H
