// What the rings of a recorder's file say, as records of all threads in the order of their times.
#ifndef CM_FLIGHT_RECORDS_H
#define CM_FLIGHT_RECORDS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "CmFlightReader.h"

namespace UTIL_NS {

enum class ECmRecord : uint8_t {
    BEGIN,  // of a thread
    POST,
    EVENT,
    TIMER,
    SEND,
    RUNNING,  // an event or timer that had not ended
    HIGH_WATER,
    STEP,
    LINE,
    END,  // of a thread
    COUNT
};

// As --kind takes it and lines have it.
const char* CmRecordName(ECmRecord aKind);
// False: there is none of that name.
bool CmRecordOf(const std::string& aName, ECmRecord* aKind);

constexpr uint32_t CM_NO_RECORD = UINT32_MAX;
constexpr uint32_t CM_NO_THREAD = UINT32_MAX;

// What does not belong to a kind is 0.
struct CCmFlightRecord {
    ECmRecord kind = ECmRecord::EVENT;
    uint8_t level = 0;
    uint8_t flags = 0;  // of a line, as in the file
    bool isShown = true;
    uint32_t thread = 0;           // index of CCmFlightRecords::threads
    uint32_t text = 0;             // of a line, index of CCmFlightRecords::texts
    uint32_t post = CM_NO_RECORD;  // of an event: the post that led to it, which stands before it
    int64_t usec = 0;              // when, or when it began
    int64_t length = 0;            // how long it took; of a step by how much, negative: set back
    int64_t late = 0;
    uint64_t pending = 0;
    uint64_t table = 0;
    uint64_t object = 0;  // the event
    uint64_t queue = 0;
};

struct CCmFlightThread {
    uint32_t number = 0;  // 0: not known any more
    uint64_t thread = 0;  // as pthread_self gives it
    std::string name;
    int64_t beginUsec = 0;  // 0: not known any more
    int64_t endUsec = 0;    // 0: not before the recording's end
    uint64_t count = 0;     // of its records
};

struct CCmFlightRecords {
    std::vector<CCmFlightThread> threads;
    std::vector<CCmFlightRecord> records;  // by time, at one time by kind
    std::vector<std::string> texts;
    std::unordered_map<uint64_t, uint32_t>
        queues;              // which thread runs what a queue has, where known
    int64_t lastUsec = 0;    // when the recording ends
    bool isLimited = false;  // the oldest records are left out
    std::string error;       // empty, or what could not be read, in one line
};

CCmFlightRecords CmReadRecords(CCmFlightReader& aReader);

// Which records are asked for. All but times have several values; none: any.
struct CCmFlightFilter {
    std::vector<std::string> threads;  // names, or numbers
    std::vector<ECmRecord> kinds;
    int64_t fromUsec = 0;  // what ended before, or began after toUsec, is left out
    int64_t toUsec = INT64_MAX;
};

// Sets isShown of the records.
void CmFilterRecords(const CCmFlightFilter& aFilter, CCmFlightRecords* aRecords);

// When a record ended.
int64_t CmEndOf(const CCmFlightRecord& aRecord);

// What the threads are called, as they are: the name, with the number where the name is not given
// or not the only one of its kind.
std::vector<std::string> CmThreadLabels(const CCmFlightRecords& aRecords);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_RECORDS_H
