// The memory of schedules: freed blocks are not given again within one, so that what still uses
// them is seen, and what a schedule leaves allocated is a leak.
#ifndef TESTS_SCHEDULE_MEMORY_H
#define TESTS_SCHEDULE_MEMORY_H

// The sanitizers look after memory themselves; then a block lies elsewhere each time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KELTO_SANITIZED 1
#else
#define KELTO_SANITIZED 0
#endif

namespace kelto_test {

enum class EMemory {
    JUDGED,  // what is left is a leak
    LEFT,    // it is none, but the process ends with the schedule
    STAYS,   // it is used in later schedules
};

void BeginMemory(EMemory aMemory);
// What is wrong at the end; null: nothing.
const char* JudgeMemory();
bool IsFreed(const void* aPlace);

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_MEMORY_H
