// What a scenario of the controlled scheduler is written with; see README.md.
#ifndef TESTS_SCHEDULE_SCHEDULE_H
#define TESTS_SCHEDULE_SCHEDULE_H

#include <functional>
#include <string>
#include <utility>

#include "CmEventQueueBase.h"

namespace kelto_test {

struct CSettings {
    // Preemptions of a schedule: changes to another thread where the one that ran could have gone
    // on, and waits that time out, or are woken by nobody, while another thread could have run.
    int m_nPreemptions = 2;
    // Waits that nobody wakes, of a schedule.
    int m_nSpuriousWakeUps = 0;
    // The schedules of a bounded run, and those of a full one, which tries a preemption more.
    unsigned long m_ulSchedules = 20000;
    unsigned long m_ulAllSchedules = 2000000;
    // All threads find themselves on one core; otherwise each on its own.
    bool m_bOneCore = true;
    // Each schedule in a process of its own, for what a process makes once: nothing is made before
    // the first one, and what a schedule leaves is no leak. Some thousand schedules a second.
    bool m_bFreshProcess = false;
    // Neither leaves out steps that nobody else sees nor stops at states that are known.
    bool m_bReduces = true;
    // Steps of a schedule; one that takes more is taken to go on for ever.
    int m_nSteps = 20000;
};

// Runs aScenario in every schedule, each time from the start on a thread of the scheduler, and
// fails the test on the first schedule in which something is wrong. Not to be called in aScenario.
void Explore(const std::function<void()>& aScenario, const CSettings& aSettings = {});

// For tests of the scheduler itself: what goes wrong first, or an empty text.
std::string FirstFailure(const std::function<void()>& aScenario, const CSettings& aSettings = {});

// The following is for scenarios.

// Something is wrong in this schedule: it ends here.
[[noreturn]] void Fail(const std::string& aWhat);
#define SCHEDULE_EXPECT(aCondition)                                                 \
    do {                                                                            \
        if (!(aCondition)) {                                                        \
            kelto_test::Fail(std::string(__FILE__ ":") + std::to_string(__LINE__) + \
                             ": " #aCondition);                                     \
        }                                                                           \
    } while (false)

// A number from 0 to aCount - 1; every one is tried.
int Choose(int aCount);
// Sleeps until aCondition holds; it reads and must not write, nor touch the library.
void WaitUntil(const std::function<bool()>& aCondition);
// Runs aBody on a thread of its own. To be joined.
class CThreadOf {
  public:
    explicit CThreadOf(std::function<void()> aBody);
    ~CThreadOf() { Join(); }
    CThreadOf(const CThreadOf&) = delete;
    CThreadOf& operator=(const CThreadOf&) = delete;

    void Join();
    // Cancels it.
    void Cancel();
    pthread_t Id() const { return m_Id; }

  private:
    std::function<void()> m_Body;
    pthread_t m_Id = pthread_t();
    bool m_bJoined = false;
};
// The number of the calling thread: 0 runs the scenario, the others are numbered as they start; the
// number of one that has ended and was joined is given again.
int ThreadNumber();
// Whether that thread waits on a condition, and nobody has woken it.
bool Sleeps(int aThread);
// Called whenever all threads are asleep and the clock goes on, which it does only then, or when
// the schedule ends a wait early. For what must not be so, such as a sleeping consumer with events.
void WhenAllSleep(std::function<void()> aCheck);
// The virtual time, in nanoseconds from the start of the schedule. Waits and sleeps that end move
// it on, and so does, a little, each look at the monotonic clock.
long long NowNsec();

// What can be made to fail on the calling thread.
enum class EFault { ALLOCATION, WAIT, SIGNAL, LOCK, CREATE, COUNT };
// The aNth call from now on fails, once; 0: none.
void FailCall(EFault aFault, int aNth);

// An event whose end is judged: it fires at most once, ends once, on the thread on which it fired,
// and before the schedule does. aWork runs when it fires, aAtEnd when it ends.
class CWatchedEvent : public UTIL_NS::ICmEvent {
  public:
    typedef std::function<UTIL_NS::CmResult()> Work;

    explicit CWatchedEvent(int aId, Work aWork = nullptr, std::function<void()> aAtEnd = nullptr);

    UTIL_NS::CmResult OnEventFire() override;
    void OnDestorySelf() override;

  private:
    const int m_nId;
    const Work m_Work;
    std::function<void()> m_AtEnd;
};

// What has become of the event with the number aId (0 to 31).
struct CFate {
    int m_nMade = 0;
    int m_nFired = 0;
    int m_nEnded = 0;
    int m_nFiredOn = -1;  // the number of the thread
    int m_nEndedOn = -1;
    int m_nFiredAs = -1;  // 0: fired as the first of all
};
const CFate& FateOf(int aId);

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_SCHEDULE_H
