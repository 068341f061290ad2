#include "CmTopTable.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

constexpr double USEC_PER_SEC = 1e6;
constexpr size_t LEAST_NAME = 8;  // columns
constexpr size_t MOST_NAME = 24;
constexpr size_t LEAST_NOW = 10;
// Columns of less than this importance do not keep these from growing by so many columns.
constexpr int ESSENTIAL = 50;
constexpr size_t GROWTH = 18;
constexpr char NOT_KNOWN[] = "-";

std::string Length(const CCmTopLengths& aLengths, uint64_t aUsec) {
    return aLengths.count == 0
               ? NOT_KNOWN
               : CmLengthText(static_cast<int64_t>(std::min<uint64_t>(aUsec, INT64_MAX)));
}

std::string Rate(const CCmTopWorker& aWorker, double aRate) {
    return aWorker.isRated ? CmCountText(static_cast<uint64_t>(std::llround(std::min(aRate, 1e18))))
                           : NOT_KNOWN;
}

std::string Busy(const CCmTopWorker& aWorker) {
    return aWorker.isRated ? CmFormat("%.1f", aWorker.busy * 100) : NOT_KNOWN;
}

double Number(uint64_t aNumber) {
    return static_cast<double>(aNumber);
}

typedef const CCmTopWorker& Worker;

struct CColumn {
    const char* name;  // for --sort
    char key;
    const char* heading;
    size_t width;
    int importance;  // the lowest falls away first
    std::string (*text)(Worker aWorker);
    double (*value)(Worker aWorker);
    const char* meaning;
};

// In the order in which they stand, between the worker's name and what it runs now.
const std::array COLUMNS = {
    CColumn{"busy", 'b', "BUSY%", 5, 90, Busy, [](Worker w) { return w.busy; },
            "share of the time in events and timers"},
    CColumn{"events", 'e', "EV/S", 5, 60, [](Worker w) { return Rate(w, w.eventsPerSec); },
            [](Worker w) { return w.eventsPerSec; }, "events run each second"},
    CColumn{"pending", 'p', "PEND", 5, 80, [](Worker w) { return CmCountText(w.pending); },
            [](Worker w) { return Number(w.pending); }, "events that wait now"},
    CColumn{"most", 'm', "MOST", 5, 40, [](Worker w) { return CmCountText(w.mostPending); },
            [](Worker w) { return Number(w.mostPending); }, "events that waited, at most"},
    CColumn{"wait", 'w', "WAIT99", 6, 70,
            [](Worker w) { return Length(w.waiting, w.waiting.percent99); },
            [](Worker w) { return Number(w.waiting.percent99); },
            "how long 99 % of the events waited at most"},
    CColumn{"run", 'r', "RUN99", 6, 65,
            [](Worker w) { return Length(w.running, w.running.percent99); },
            [](Worker w) { return Number(w.running.percent99); },
            "how long 99 % of the events ran at most"},
    CColumn{"longest", 'l', "LONGEST", 7, 75,
            [](Worker w) { return Length(w.running, w.running.longest); },
            [](Worker w) { return Number(w.running.longest); }, "how long an event ran at most"},
    CColumn{"class", 'c', "OF CLASS", 16, 35,
            [](Worker w) {
                return w.longestClass.empty() ? NOT_KNOWN
                                              : CmPrintable(CmShortClassName(w.longestClass));
            },
            [](Worker w) { return Number(w.running.longest); }, "the class of that event"},
    CColumn{"timers", 't', "TIM/S", 5, 30, [](Worker w) { return Rate(w, w.timersPerSec); },
            [](Worker w) { return w.timersPerSec; }, "timers fired each second"},
    CColumn{"late", 'a', "LATE99", 6, 45, [](Worker w) { return Length(w.late, w.late.percent99); },
            [](Worker w) { return Number(w.late.percent99); },
            "how late 99 % of the timers fired at most"},
    CColumn{"sends", 's', "SENDS", 5, 20, [](Worker w) { return CmCountText(w.sends); },
            [](Worker w) { return Number(w.sends); }, "synchronous sends from this thread"},
    CColumn{"blocked", 'k', "BLOCKED", 7, 25,
            [](Worker w) { return Length(w.blocked, w.blocked.longest); },
            [](Worker w) { return Number(w.blocked.longest); },
            "how long such a send blocked at most"},
    CColumn{"total", 'o', "RUN", 5, 15, [](Worker w) { return CmCountText(w.run); },
            [](Worker w) { return Number(w.run); }, "events run since it started"},
    CColumn{"refused", 'f', "REFUS", 5, 50, [](Worker w) { return CmCountText(w.refused); },
            [](Worker w) { return Number(w.refused); }, "events refused"},
    CColumn{"unfired", 'u', "UNRUN", 5, 10, [](Worker w) { return CmCountText(w.unfired); },
            [](Worker w) { return Number(w.unfired); }, "events that ended without being run"},
};

// What is ordered by the name stands as the worker's name in front.
constexpr size_t BY_NAME = COLUMNS.size();

std::string NameOf(Worker aWorker) {
    return (aWorker.name.empty() ? "#" + std::to_string(aWorker.number)
                                 : CmPrintable(aWorker.name)) +
           (aWorker.isEnded ? " (ended)" : "");
}

std::string NowOf(const CCmTopReading& aReading, Worker aWorker) {
    if (aWorker.currentClass.empty()) {
        return NOT_KNOWN;
    }
    return CmLengthText(std::max<int64_t>(aReading.usec - aWorker.currentUsec, 0)) + " " +
           CmPrintable(CmShortClassName(aWorker.currentClass));
}

std::vector<const CCmTopWorker*> Ordered(const CCmTopReading& aReading, const CCmTopOrder& aOrder) {
    std::vector<const CCmTopWorker*> workers;
    for (const CCmTopWorker& worker : aReading.workers) {
        workers.push_back(&worker);
    }
    const auto isBefore = [&aOrder](const CCmTopWorker* aOne, const CCmTopWorker* aOther) {
        if (aOrder.column == BY_NAME) {
            return aOne->name < aOther->name;
        }
        const CColumn& column = COLUMNS[aOrder.column];
        return column.value(*aOne) > column.value(*aOther);
    };
    std::stable_sort(workers.begin(), workers.end(), isBefore);
    if (aOrder.isReversed) {
        std::reverse(workers.begin(), workers.end());
    }
    return workers;
}

// Which columns there is room for, and what is left for the name and for what runs now.
struct CLayout {
    std::array<bool, COLUMNS.size()> isShown{};
    size_t name = 0;
    size_t now = 0;  // 0: there is no room for it
};

CLayout LayOut(const std::vector<const CCmTopWorker*>& aWorkers, size_t aColumns) {
    size_t nLongest = LEAST_NAME;
    for (const CCmTopWorker* pWorker : aWorkers) {
        nLongest = std::max(nLongest, CmColumns(NameOf(*pWorker)));
    }
    nLongest = std::min(nLongest, MOST_NAME);
    std::array<size_t, COLUMNS.size()> order{};
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::sort(order.begin(), order.end(), [](size_t aOne, size_t aOther) {
        return COLUMNS[aOne].importance > COLUMNS[aOther].importance;
    });
    CLayout layout;
    size_t nUsed = LEAST_NAME;
    const bool bNow = nUsed + 1 + LEAST_NOW <= aColumns;
    nUsed += bNow ? 1 + LEAST_NOW : 0;
    for (const size_t nColumn : order) {
        // Those that matter less do not take the place of one that was too wide.
        const size_t nKept = COLUMNS[nColumn].importance < ESSENTIAL ? GROWTH : 0;
        if (nUsed + 1 + COLUMNS[nColumn].width + nKept > aColumns) {
            break;
        }
        layout.isShown[nColumn] = true;
        nUsed += 1 + COLUMNS[nColumn].width;
    }
    const size_t nLeft = aColumns - std::min(nUsed, aColumns);
    const size_t nMoreName = std::min(nLeft, nLongest - LEAST_NAME);
    layout.name = std::min(LEAST_NAME + nMoreName, aColumns);
    layout.now = bNow ? LEAST_NOW + nLeft - nMoreName : 0;
    return layout;
}

std::string Marked(const std::string& aHeading, bool aIsMarked) {
    return aIsMarked ? "\033[7m" + aHeading + "\033[0m" : aHeading;
}

std::string HeadLine(const CCmTopReading& aReading) {
    const char* pszState = aReading.state == ECmTopState::LIVE    ? ""
                           : aReading.state == ECmTopState::ENDED ? ", ended"
                                                                  : ", killed";
    return CmPrintable(aReading.process) + " " + std::to_string(aReading.pid) + pszState + ", " +
           std::to_string(aReading.workers.size()) +
           (aReading.workers.size() == 1 ? " worker, " : " workers, ") +
           CmClockText(aReading.usec).substr(0, 8) + ", up " +
           CmLengthText(std::max<int64_t>(aReading.usec - aReading.startUsec, 0));
}

std::string Headings(const CLayout& aLayout, const CCmTopOrder& aOrder, bool aMark) {
    std::string strLine =
        Marked(CmPadRight("WORKER", aLayout.name), aMark && aOrder.column == BY_NAME);
    for (size_t i = 0; i < COLUMNS.size(); ++i) {
        if (aLayout.isShown[i]) {
            strLine += " " + Marked(CmPadLeft(COLUMNS[i].heading, COLUMNS[i].width),
                                    aMark && aOrder.column == i);
        }
    }
    return strLine + (aLayout.now > 0 ? " RUNS NOW" : "");
}

std::string WorkerLine(const CCmTopReading& aReading, Worker aWorker, const CLayout& aLayout) {
    std::string strLine = CmPadRight(NameOf(aWorker), aLayout.name);
    for (size_t i = 0; i < COLUMNS.size(); ++i) {
        if (aLayout.isShown[i]) {
            strLine += " " + CmPadLeft(COLUMNS[i].text(aWorker), COLUMNS[i].width);
        }
    }
    return strLine + (aLayout.now > 0 ? " " + CmCut(NowOf(aReading, aWorker), aLayout.now) : "");
}

std::string JsonLengths(const char* aName, const CCmTopLengths& aLengths) {
    return CmFormat(
        "\"%s\": {\"count\": %llu, \"median\": %llu, \"p99\": %llu, \"p999\": %llu, "
        "\"longest\": %llu}",
        aName, static_cast<unsigned long long>(aLengths.count),
        static_cast<unsigned long long>(aLengths.median),
        static_cast<unsigned long long>(aLengths.percent99),
        static_cast<unsigned long long>(aLengths.permille999),
        static_cast<unsigned long long>(aLengths.longest));
}

std::string JsonCount(const char* aName, uint64_t aCount) {
    return CmFormat("\"%s\": %llu, ", aName, static_cast<unsigned long long>(aCount));
}

std::string JsonRate(const char* aName, Worker aWorker, double aRate) {
    return CmFormat("\"%s\": ", aName) + (aWorker.isRated ? CmFormat("%.3f", aRate) : "null") +
           ", ";
}

std::string JsonClass(const std::string& aClass) {
    return aClass.empty() ? "null" : CmJsonText(aClass);
}

std::string JsonWorker(Worker aWorker) {
    std::string strNow = "null";
    if (!aWorker.currentClass.empty()) {
        strNow =
            "{\"class\": " + JsonClass(aWorker.currentClass) +
            CmFormat(", \"since\": %.6f}", static_cast<double>(aWorker.currentUsec) / USEC_PER_SEC);
    }
    return "{\"name\": " + CmJsonText(aWorker.name) + ", " + JsonCount("number", aWorker.number) +
           JsonCount("thread", aWorker.thread) +
           CmFormat("\"ended\": %s, ", aWorker.isEnded ? "true" : "false") +
           JsonRate("busy", aWorker, aWorker.busy) +
           JsonRate("eventsPerSecond", aWorker, aWorker.eventsPerSec) +
           JsonRate("timersPerSecond", aWorker, aWorker.timersPerSec) +
           JsonCount("posted", aWorker.posted) + JsonCount("run", aWorker.run) +
           JsonCount("refused", aWorker.refused) + JsonCount("endedUnfired", aWorker.unfired) +
           JsonCount("pending", aWorker.pending) + JsonCount("mostPending", aWorker.mostPending) +
           JsonCount("inEventsUsec", aWorker.eventsUsec) +
           JsonCount("inTimersUsec", aWorker.timersUsec) +
           JsonCount("asleepUsec", aWorker.asleepUsec) + JsonCount("timers", aWorker.timers) +
           JsonCount("sends", aWorker.sends) + JsonLengths("runUsec", aWorker.running) +
           ", \"longestClass\": " + JsonClass(aWorker.longestClass) + ", " +
           JsonLengths("waitUsec", aWorker.waiting) + ", " + JsonLengths("lateUsec", aWorker.late) +
           ", " + JsonLengths("blockedUsec", aWorker.blocked) + ", \"now\": " + strNow + "}";
}

// What a counter grew by; one that was set back has not grown.
double Growth(uint64_t aBefore, uint64_t aNow) {
    return aNow > aBefore ? static_cast<double>(aNow - aBefore) : 0;
}

}  // namespace

void CmRateWorkers(const CCmTopReading& aBefore, CCmTopReading* aNow) {
    for (CCmTopWorker& worker : aNow->workers) {
        const auto before =
            std::find_if(aBefore.workers.begin(), aBefore.workers.end(), [&](Worker aWorker) {
                return aWorker.number == worker.number && aWorker.thread == worker.thread;
            });
        if (before == aBefore.workers.end() || worker.usec <= before->usec) {
            continue;
        }
        const double dUsec = static_cast<double>(worker.usec - before->usec);
        worker.isRated = true;
        worker.eventsPerSec = Growth(before->run, worker.run) * USEC_PER_SEC / dUsec;
        worker.timersPerSec = Growth(before->timers, worker.timers) * USEC_PER_SEC / dUsec;
        const double dBusy = Growth(before->eventsUsec, worker.eventsUsec) +
                             Growth(before->timersUsec, worker.timersUsec);
        worker.busy = std::min(dBusy / dUsec, 1.0);
    }
}

bool CmTopColumnOf(std::string_view aName, size_t* aColumn) {
    for (*aColumn = 0; *aColumn < COLUMNS.size(); ++*aColumn) {
        if (aName == COLUMNS[*aColumn].name) {
            return true;
        }
    }
    return aName == "name";
}

std::string CmTopColumnNames() {
    std::string strNames = "name";
    for (const CColumn& column : COLUMNS) {
        strNames += std::string(", ") + column.name;
    }
    return strNames;
}

bool CmTopColumnOfKey(char aKey, size_t* aColumn) {
    for (*aColumn = 0; *aColumn < COLUMNS.size(); ++*aColumn) {
        if (aKey == COLUMNS[*aColumn].key) {
            return true;
        }
    }
    return aKey == 'n';
}

std::string CmTopColumnHelp() {
    std::string strHelp = "  n  name     WORKER    the thread's name\n";
    for (const CColumn& column : COLUMNS) {
        strHelp += CmFormat("  %c  %-8s %-9s %s\n", column.key, column.name, column.heading,
                            column.meaning);
    }
    return strHelp;
}

std::string CmTopTable(const CCmTopReading& aReading, const CCmTopOrder& aOrder, size_t aColumns,
                       size_t aRows, bool aMark) {
    const std::vector<const CCmTopWorker*> workers = Ordered(aReading, aOrder);
    const CLayout layout = LayOut(workers, aColumns);
    std::vector<std::string> lines = {CmCut(HeadLine(aReading), aColumns),
                                      Headings(layout, aOrder, aMark)};
    for (const CCmTopWorker* pWorker : workers) {
        lines.push_back(WorkerLine(aReading, *pWorker, layout));
    }
    if (lines.size() > aRows && aRows > 2) {
        lines[aRows - 1] =
            CmCut("and " + std::to_string(lines.size() - aRows + 1) + " more", aColumns);
    }
    std::string strTable;
    for (size_t i = 0; i < std::min(lines.size(), aRows); ++i) {
        strTable += lines[i] + "\n";
    }
    return strTable;
}

std::string CmTopJson(const CCmTopReading& aReading, const CCmTopOrder& aOrder) {
    const char* pszState = aReading.state == ECmTopState::LIVE    ? "live"
                           : aReading.state == ECmTopState::ENDED ? "ended"
                                                                  : "killed";
    std::string strJson =
        "{\"process\": " + CmJsonText(aReading.process) + ", " + JsonCount("pid", aReading.pid) +
        "\"file\": " + CmJsonText(aReading.path) + CmFormat(", \"state\": \"%s\", ", pszState) +
        CmFormat("\"start\": %.6f, \"time\": %.6f, \"workers\": [",
                 static_cast<double>(aReading.startUsec) / USEC_PER_SEC,
                 static_cast<double>(aReading.usec) / USEC_PER_SEC);
    const char* pszSeparator = "";
    for (const CCmTopWorker* pWorker : Ordered(aReading, aOrder)) {
        strJson += pszSeparator + JsonWorker(*pWorker);
        pszSeparator = ", ";
    }
    return strJson + "]}";
}

}  // namespace UTIL_NS
