// The layout of a flight recorder's file, version 1; internal. docs/flight-format.md tells it in
// words.
//
// Plain structs of fixed width, little endian, for the library, which writes them, and for programs
// that read such files without it. A reader trusts nothing of what it finds: it compares magic,
// version and sizes with those here before it goes by an offset.
//
//   CCmFlightHeader                      padded to CM_FLIGHT_HEADER_SIZE
//   CCmFlightClass [m_dwClassCount]
//   m_dwSlotCount times, m_dwSlotSize bytes each:
//     CCmFlightSlot
//     CCmFlightUnit [m_dwUnitCount]      the ring
//
// All times are microseconds: wall times since 1970 (UTC), monotonic ones since some moment before
// the start of the process.
#ifndef CM_FLIGHT_FORMAT_H
#define CM_FLIGHT_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace UTIL_NS {

constexpr char CM_FLIGHT_MAGIC[8] = {'K', 'E', 'L', 'T', 'O', 'F', 'L', 'T'};
constexpr uint32_t CM_FLIGHT_VERSION = 1;

constexpr uint32_t CM_FLIGHT_HEADER_SIZE = 4096;  // bytes
constexpr uint32_t CM_FLIGHT_CLASS_COUNT = 512;
constexpr uint32_t CM_FLIGHT_LEAST_SLOTS = 4;
constexpr uint32_t CM_FLIGHT_MOST_SLOTS = 1024;
constexpr uint32_t CM_FLIGHT_LEAST_UNITS = 256;  // of a ring; always a power of two
constexpr uint32_t CM_FLIGHT_MOST_UNITS = 65536;
constexpr size_t CM_FLIGHT_NAME_SIZE = 64;         // bytes, the terminator included
constexpr size_t CM_FLIGHT_CLASS_NAME_SIZE = 240;  // likewise

// The end of a file's name, which is NAME.PID.STARTUSEC.flight.
constexpr char CM_FLIGHT_SUFFIX[] = ".flight";

struct CCmFlightHeader {
    char m_achMagic[8];  // CM_FLIGHT_MAGIC, written last: a file without it is not complete
    uint32_t m_dwVersion;
    uint32_t m_dwHeaderSize;  // the offset of the class table
    uint64_t m_ullFileSize;
    uint32_t m_dwClassSize;  // sizeof(CCmFlightClass)
    uint32_t m_dwClassCount;
    uint64_t m_ullSlotsOffset;
    uint32_t m_dwSlotSize;  // from one slot to the next: m_dwRingOffset and the ring
    uint32_t m_dwSlotCount;
    uint32_t m_dwRingOffset;  // of the ring in its slot: sizeof(CCmFlightSlot)
    uint32_t m_dwUnitSize;    // sizeof(CCmFlightUnit)
    uint32_t m_dwUnitCount;   // units of a ring, a power of two
    uint32_t m_dwProcessId;
    char m_szProcess[CM_FLIGHT_NAME_SIZE];
    uint64_t m_ullStartWall;  // when the recorder was opened, by both clocks
    uint64_t m_ullStartMonotonic;
    uint64_t m_ullTickWall;  // when figures were last written, by both clocks; 0: never
    uint64_t m_ullTickMonotonic;
    uint64_t m_ullEndWall;      // when it was closed, or the program exited; 0: not yet, or killed
    uint64_t m_ullLostClasses;  // times that the class table had no place for a class
    uint64_t m_ullUnslottedCount;  // threads that found no slot free
};
static_assert(sizeof(CCmFlightHeader) == 184);
static_assert(sizeof(CCmFlightHeader) <= CM_FLIGHT_HEADER_SIZE);
static_assert(offsetof(CCmFlightHeader, m_ullFileSize) == 16);
static_assert(offsetof(CCmFlightHeader, m_ullSlotsOffset) == 32);
static_assert(offsetof(CCmFlightHeader, m_szProcess) == 64);
static_assert(offsetof(CCmFlightHeader, m_ullStartWall) == 128);

// A class of which records tell. Entries are found by their address of a table, not by their place.
struct CCmFlightClass {
    enum EState : uint32_t { FREE = 0, BEING_WRITTEN = 1, COMPLETE = 2 };

    uint64_t m_ullTable;  // as in the records
    uint32_t m_dwState;   // of EState; the name counts when it is COMPLETE
    uint32_t m_dwReserved;
    // As the compiler writes it (mangled), cut to the room; empty when the class has none: a host
    // built without type information.
    char m_szName[CM_FLIGHT_CLASS_NAME_SIZE];
};
static_assert(sizeof(CCmFlightClass) == 256);
static_assert(offsetof(CCmFlightClass, m_szName) == 16);

constexpr uint64_t CM_FLIGHT_SLOTS_OFFSET =
    CM_FLIGHT_HEADER_SIZE + uint64_t{CM_FLIGHT_CLASS_COUNT} * sizeof(CCmFlightClass);

// Microseconds of something that happens often. Those of three of them are the upper bound of the
// bucket that they fall into; the longest is exact. All 0 when nothing is counted.
struct CCmFlightSpread {
    uint64_t m_ullCount;
    uint64_t m_ullMedian;
    uint64_t m_ull99;   // 99 of 100 take no longer
    uint64_t m_ull999;  // 999 of 1000
    uint64_t m_ullLongest;
};
static_assert(sizeof(CCmFlightSpread) == 40);

// What a thread has done so far, with the queues that it consumes.
struct CCmFlightFigures {
    uint64_t m_ullPosted;
    uint64_t m_ullRun;
    uint64_t m_ullRefused;
    uint64_t m_ullUnfired;
    uint64_t m_ullPending;
    uint64_t m_ullMostPending;
    uint64_t m_ullAsleepUsec;
    uint64_t m_ullEventsUsec;    // in events
    uint64_t m_ullTimersUsec;    // in timer handlers
    uint64_t m_ullTimers;        // fired
    uint64_t m_ullSends;         // synchronous ones that it made
    uint64_t m_ullLongestTable;  // class of the event that ran longest; 0: none
    CCmFlightSpread m_RunTime;
    CCmFlightSpread m_WaitingTime;  // of some events, not of all
    CCmFlightSpread m_TimerLateness;
    CCmFlightSpread m_BlockedSends;
};
static_assert(sizeof(CCmFlightFigures) == 256);
static_assert(offsetof(CCmFlightFigures, m_RunTime) == 96);

// 32 bytes of a ring. By kind, which is the uppermost byte of the first word, with a time in the
// other seven:
//
//               m_ullHead's time   m_ullWords[0]      [1]                [2]
//   NOTHING     all four words are 0: never written, or lost
//   EVENT       start              length, pending    table              event
//   POST        of a coarse clock  table              event              queue
//   TIMER       start              length             how late           handler's table
//   SEND        start              length             table              queue
//   HIGH_WATER  when               pending            queue              0
//   STEP        after the step     by how much        0                  0
//   LINE        when               CmFlightLine       first 16 bytes of the text
//   TEXT        number             24 bytes of text
//   THREAD      when it came       thread's number    pthread_self       name's length
//   END         when it ended      thread's number    0                  0
//
// A STEP is a two's complement, negative when the clock was set back. The number of a TEXT is 1 for
// the first after its LINE or THREAD.
//
// An EVENT, TIMER or SEND is written when it is over, so a ring is not in the order of their
// starts. A THREAD's name is in the TEXT units after it.
struct CCmFlightUnit {
    enum EKind : uint8_t {
        NOTHING = 0,
        EVENT = 1,
        POST = 2,
        TIMER = 3,
        SEND = 4,
        HIGH_WATER = 5,
        STEP = 6,
        LINE = 7,
        TEXT = 8,
        THREAD = 9,
        END = 10,
    };

    uint64_t m_ullHead;
    uint64_t m_ullWords[3];
};
static_assert(sizeof(CCmFlightUnit) == 32);

constexpr unsigned CM_FLIGHT_KIND_SHIFT = 56;
constexpr uint64_t CM_FLIGHT_TIME_MASK = (uint64_t{1} << CM_FLIGHT_KIND_SHIFT) - 1;

constexpr uint64_t CmFlightHead(CCmFlightUnit::EKind aKind, uint64_t aUsec) {
    return static_cast<uint64_t>(aKind) << CM_FLIGHT_KIND_SHIFT | (aUsec & CM_FLIGHT_TIME_MASK);
}
constexpr unsigned CmFlightKind(uint64_t aHead) {
    return static_cast<unsigned>(aHead >> CM_FLIGHT_KIND_SHIFT);
}
constexpr uint64_t CmFlightTime(uint64_t aHead) {
    return aHead & CM_FLIGHT_TIME_MASK;
}

// The first word of an EVENT: 40 bits of length in microseconds over 24 of pending events. What is
// greater is recorded as the greatest.
constexpr unsigned CM_FLIGHT_PENDING_BITS = 24;
constexpr uint64_t CM_FLIGHT_MOST_PENDING = (uint64_t{1} << CM_FLIGHT_PENDING_BITS) - 1;
constexpr uint64_t CM_FLIGHT_MOST_LENGTH = (uint64_t{1} << (64 - CM_FLIGHT_PENDING_BITS)) - 1;
constexpr uint64_t CmFlightRun(uint64_t aLengthUsec, uint64_t aPending) {
    return (aLengthUsec < CM_FLIGHT_MOST_LENGTH ? aLengthUsec : CM_FLIGHT_MOST_LENGTH)
               << CM_FLIGHT_PENDING_BITS |
           (aPending < CM_FLIGHT_MOST_PENDING ? aPending : CM_FLIGHT_MOST_PENDING);
}
constexpr uint64_t CmFlightRunLength(uint64_t aRun) {
    return aRun >> CM_FLIGHT_PENDING_BITS;
}
constexpr uint64_t CmFlightRunPending(uint64_t aRun) {
    return aRun & CM_FLIGHT_MOST_PENDING;
}

// The first word of a LINE: level in 8 bits, flags in 8, length of the text in 16, from the lowest
// bit on.
constexpr uint64_t CM_FLIGHT_LINE_FILTERED = 1;  // written nowhere but here
constexpr uint64_t CM_FLIGHT_LINE_CUT = 2;       // it was longer
constexpr size_t CM_FLIGHT_MOST_TEXT = 480;      // bytes of a line
constexpr uint64_t CmFlightLine(uint64_t aLevel, uint64_t aFlags, size_t aLength) {
    return (aLevel < 0xFF ? aLevel : 0xFF) | aFlags << 8 | uint64_t{aLength} << 16;
}
constexpr unsigned CmFlightLineLevel(uint64_t aLine) {
    return aLine & 0xFF;
}
constexpr unsigned CmFlightLineFlags(uint64_t aLine) {
    return aLine >> 8 & 0xFF;
}
constexpr size_t CmFlightLineLength(uint64_t aLine) {
    return aLine >> 16 & 0xFFFF;
}
constexpr size_t CM_FLIGHT_LINE_TEXT = 16;  // bytes of text in a LINE
constexpr size_t CM_FLIGHT_UNIT_TEXT = 24;  // in a TEXT

// A thread's place. A ring goes on when another thread gets the place of one that has ended: the
// units before m_ullFirst are of earlier threads, which their THREAD units name.
struct CCmFlightSlot {
    enum EState : uint32_t { FREE = 0, LIVE = 1, ENDED = 2 };

    // Of the thread; written under a lock, m_dwState last.
    uint32_t m_dwState;    // of EState; what follows counts unless FREE
    uint32_t m_dwNumber;   // of the threads of the process in the order in which they came, from 1
    uint64_t m_ullThread;  // pthread_self
    uint64_t m_ullStart;   // when it came
    uint64_t m_ullEnd;     // when it ended; 0 while LIVE
    uint64_t m_ullFirst;   // how many units the ring had when it came
    char m_szName[CM_FLIGHT_NAME_SIZE];
    uint64_t m_ullReserved1[3];

    // Written every 250 ms. m_ullFiguresCount is odd meanwhile; who reads the figures of a live
    // process reads it before and after, and again unless it was even and the same.
    uint64_t m_ullFiguresCount;
    uint64_t m_ullFiguresWall;  // when they were taken; 0: never, then all are 0
    CCmFlightFigures m_Figures;
    uint64_t m_ullReserved2[14];

    // Written by the thread itself.
    uint64_t m_ullCurrentTable;  // class of what runs now; 0: nothing
    uint64_t m_ullCurrentStart;  // when that began
    // Units so far. Unit n is at n % m_dwUnitCount. In a ring of a process that was killed, what is
    // at m_ullWritten % m_dwUnitCount may be half written, and is left out; of a live process,
    // m_ullWritten is read before and after, and what the second one says may be overwritten is
    // left out.
    uint64_t m_ullWritten;
    uint64_t m_ullReserved3[61];
};
static_assert(sizeof(CCmFlightSlot) == 1024);
static_assert(offsetof(CCmFlightSlot, m_szName) == 40);
static_assert(offsetof(CCmFlightSlot, m_ullFiguresCount) == 128);
static_assert(offsetof(CCmFlightSlot, m_Figures) == 144);
static_assert(offsetof(CCmFlightSlot, m_ullCurrentTable) == 512);
static_assert(offsetof(CCmFlightSlot, m_ullWritten) == 528);

constexpr uint64_t CmFlightSlotSize(uint32_t aUnits) {
    return sizeof(CCmFlightSlot) + uint64_t{aUnits} * sizeof(CCmFlightUnit);
}
constexpr uint64_t CmFlightFileSize(uint32_t aSlots, uint32_t aUnits) {
    return CM_FLIGHT_SLOTS_OFFSET + aSlots * CmFlightSlotSize(aUnits);
}

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_FORMAT_H
