// The model of threads, locks, conditions, semaphores and time: one thread runs at a time, and at
// each step the exploration decides which one.
#ifndef TESTS_SCHEDULE_SCHEDULER_H
#define TESTS_SCHEDULE_SCHEDULER_H

#include <pthread.h>
#include <time.h>

#include <functional>

#include "schedule/Exploration.h"
#include "schedule/Memory.h"
#include "schedule/Schedule.h"

namespace kelto_test {

// Makes the threads, once in a process and in its children.
void MakeThreads();

// Its functions are in the table of system calls while it lives.
class CScheduledCalls {
  public:
    CScheduledCalls();
    ~CScheduledCalls();
    CScheduledCalls(const CScheduledCalls&) = delete;
    CScheduledCalls& operator=(const CScheduledCalls&) = delete;
};

// Runs aScenario once, as aExploration decides. False: something was wrong, and is written there;
// nothing else must be run in this process. aTells: the steps are written there as well.
bool RunSchedule(CExploration& aExploration, const std::function<void()>& aScenario,
                 const CSettings& aSettings, bool aTells, EMemory aMemory);
unsigned StepsOfSchedule();
// What ends the process ends the schedule that runs, and fails it.
void CatchFailures();

// For what stands in the place of functions of the C and C++ libraries; on a thread of a schedule.

// True: the caller is to make the local static variable, and to give it back.
bool TakeStatic(unsigned char* aGuard);
void GiveBackStatic(unsigned char* aGuard, bool aIsMade);
void RunAtThreadEnd(void (*aFunction)(void*), void* aObject);
void DetachThread(pthread_t aThread);
void TestCancel();
int CoreOfThread();
void YieldThread();
int ReadClock(clockid_t aClock, timespec* aNow);
bool AllocationFails();

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_SCHEDULER_H
