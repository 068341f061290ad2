// The figures of a process's workers as a table for a terminal of any width, and as JSON.
#ifndef CM_TOP_TABLE_H
#define CM_TOP_TABLE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace UTIL_NS {

// A distribution; microseconds, all but the longest rounded up to the end of their bucket.
struct CCmTopLengths {
    uint64_t count = 0;
    uint64_t median = 0;
    uint64_t percent99 = 0;
    uint64_t permille999 = 0;
    uint64_t longest = 0;
};

struct CCmTopWorker {
    std::string name;
    uint32_t number = 0;  // of its thread among those of the process, never used again
    uint64_t thread = 0;  // as pthread_self gives it
    bool isEnded = false;
    int64_t usec = 0;  // when its figures were taken
    uint64_t posted = 0;
    uint64_t run = 0;
    uint64_t refused = 0;
    uint64_t unfired = 0;
    uint64_t pending = 0;
    uint64_t mostPending = 0;
    uint64_t eventsUsec = 0;
    uint64_t timersUsec = 0;
    uint64_t asleepUsec = 0;
    uint64_t timers = 0;
    uint64_t sends = 0;
    CCmTopLengths running;
    CCmTopLengths waiting;
    CCmTopLengths late;
    CCmTopLengths blocked;
    std::string longestClass;  // of the event that ran longest, as its source has it
    std::string currentClass;  // of what runs now, empty when nothing does
    int64_t currentUsec = 0;   // since when, by the wall clock
    // Since the reading before, where there is one.
    bool isRated = false;
    double eventsPerSec = 0;
    double timersPerSec = 0;
    double busy = 0;  // share of the time, 0 to 1
};

enum class ECmTopState { LIVE, ENDED, KILLED };

struct CCmTopReading {
    std::string process;
    uint64_t pid = 0;
    std::string path;
    int64_t startUsec = 0;
    int64_t usec = 0;  // when it was made, or when the process ended
    ECmTopState state = ECmTopState::LIVE;
    std::vector<CCmTopWorker> workers;
};

// Fills in the rates of aNow where a worker is in both.
void CmRateWorkers(const CCmTopReading& aBefore, CCmTopReading* aNow);

// A column that a table may be ordered by.
struct CCmTopOrder {
    size_t column = 0;
    bool isReversed = false;
};

// False: there is no column of that name; aNames tells which there are.
bool CmTopColumnOf(std::string_view aName, size_t* aColumn);
std::string CmTopColumnNames();
// The column that a key orders by. False: none.
bool CmTopColumnOfKey(char aKey, size_t* aColumn);
// Which key orders by which column, and what each means, a line each.
std::string CmTopColumnHelp();

// At most aRows lines of at most aColumns columns: a line on the process, the columns' headings,
// and a line for each worker. Columns that do not fit are left out, those that matter least first.
// With aMark the heading of the column that it is ordered by stands in reverse.
std::string CmTopTable(const CCmTopReading& aReading, const CCmTopOrder& aOrder, size_t aColumns,
                       size_t aRows, bool aMark);

// One line, without its end.
std::string CmTopJson(const CCmTopReading& aReading, const CCmTopOrder& aOrder);

}  // namespace UTIL_NS

#endif  // CM_TOP_TABLE_H
