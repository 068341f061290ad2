// Lines that a test writes to a trace file and finds in it again, whole or not.
#ifndef TESTS_SUPPORT_TRACELINES_H
#define TESTS_SUPPORT_TRACELINES_H

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace kelto_test {

constexpr char TRACE_MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t TRACE_HEADER_LENGTH = 32;

// Its writer and its number, which counts from 1.
using TraceLineId = std::pair<int, int>;

// A text that is told from every other, of a length of its own.
inline std::string NumberedText(TraceLineId aId) {
    const int nPadding = (aId.second * 17 + aId.first * 29) % 41;
    return "w" + std::to_string(aId.first) + " n" + std::to_string(aId.second) + " " +
           std::string(static_cast<size_t>(nPadding), 'x') + " end";
}

// What a trace file holds from its header to the position there, and what is wrong with that.
struct NumberedFile {
    long position = 0;
    std::set<TraceLineId> lines;
    bool isMarked = false;  // the marker stands at the position
    std::string fault;      // empty: none
};

// The line of one of these texts, with or without what stands in front of it; {0, 0}: no such line.
inline TraceLineId IdOfLine(const std::string& aLine, bool aWithoutFront) {
    static constexpr TraceLineId NONE{0, 0};
    const size_t nText = aLine.rfind("m:w");
    TraceLineId id;
    if (nText == std::string::npos ||
        std::sscanf(aLine.c_str() + nText, "m:w%d n%d", &id.first, &id.second) != 2 ||
        aLine.substr(nText + 2) != NumberedText(id)) {
        return NONE;
    }
    unsigned aFields[8];
    int nTid = 0;
    int nEnd = 0;
    const int nRead = std::sscanf(aLine.c_str(), "[%2u/%2u/%4u %2u:%2u:%2u.%3u pid=%u tid=%d] %n",
                                  &aFields[0], &aFields[1], &aFields[2], &aFields[3], &aFields[4],
                                  &aFields[5], &aFields[6], &aFields[7], &nTid, &nEnd);
    const bool bWhole = nRead == 9 && static_cast<size_t>(nEnd) == nText;
    return bWhole || aWithoutFront ? id : NONE;
}

// What may have become of lines: all are there, or some could not be written.
enum class ELosses { NONE, SOME };

// Takes in the lines up to aEnd: all whole, none twice, and those of each writer in their order,
// without a gap where none were lost. Of a new file, the header has cut the first line.
inline void CollectLines(const std::string& aContent, size_t aEnd, ELosses aLosses,
                         NumberedFile& aFile) {
    std::map<int, int> last;
    for (size_t nAt = TRACE_HEADER_LENGTH; nAt < aEnd;) {
        const size_t nLineEnd = aContent.find('\n', nAt);
        const std::string sLine = aContent.substr(nAt, nLineEnd - nAt);
        TraceLineId id = IdOfLine(sLine, false);
        if (id.first == 0 && nAt == TRACE_HEADER_LENGTH) {
            id = IdOfLine(sLine, true);
            id = id.second == 1 || aLosses == ELosses::SOME ? id : TraceLineId{0, 0};
        }
        if (id.first == 0 || nLineEnd >= aEnd) {
            aFile.fault = "torn at " + std::to_string(nAt) + ": " + sLine;
            return;
        }
        const int nBefore = last.count(id.first) != 0 ? last[id.first] : 0;
        const bool bFollows = aLosses == ELosses::SOME || nBefore == 0 || nBefore + 1 == id.second;
        if (id.second <= nBefore || !bFollows) {
            aFile.fault =
                "line " + NumberedText(id) + " does not follow " + std::to_string(nBefore);
            return;
        }
        last[id.first] = id.second;
        aFile.lines.insert(id);
        nAt = nLineEnd + 1;
    }
}

// A file without a number at its top counts as empty: its next writer starts there.
inline NumberedFile ReadNumberedFile(const std::string& aContent, ELosses aLosses) {
    NumberedFile file;
    file.position = std::strtol(aContent.substr(0, TRACE_HEADER_LENGTH).c_str(), nullptr, 10);
    if (file.position == 0) {
        return file;
    }
    const size_t nPosition = static_cast<size_t>(file.position);
    if (file.position < static_cast<long>(TRACE_HEADER_LENGTH) || nPosition > aContent.size() ||
        aContent[TRACE_HEADER_LENGTH - 1] != '\n') {
        file.fault = "no such position: " + aContent.substr(0, TRACE_HEADER_LENGTH);
        return file;
    }
    file.isMarked = aContent.compare(nPosition, sizeof(TRACE_MARKER) - 1, TRACE_MARKER) == 0;
    CollectLines(aContent, nPosition, aLosses, file);
    const size_t nMarker = aContent.find(TRACE_MARKER, TRACE_HEADER_LENGTH);
    if (file.fault.empty() && nMarker != std::string::npos) {
        NumberedFile beforeMarker;
        CollectLines(aContent, nMarker, aLosses, beforeMarker);
        file.fault = beforeMarker.fault.empty() ? "" : "before the marker, " + beforeMarker.fault;
    }
    return file;
}

// Whether an acknowledged line that is not among those up to the position may be missing there: the
// file has started again at the top since. It is still there, after the position, or a later line
// is, which has overwritten it.
inline bool IsRolledOver(TraceLineId aId, const std::string& aContent) {
    std::istringstream content(aContent.substr(TRACE_HEADER_LENGTH));
    for (std::string sLine; std::getline(content, sLine);) {
        const TraceLineId id = IdOfLine(sLine, false);
        if (id.first != 0 && (id.first != aId.first || id.second >= aId.second)) {
            return true;
        }
    }
    return false;
}

// What is wrong with a file that is to hold these lines; empty: nothing. aRollsOver: it starts
// again at the top when it is full.
inline std::string FaultOf(const std::string& aContent, const std::set<TraceLineId>& aAcknowledged,
                           bool aRollsOver, ELosses aLosses = ELosses::NONE) {
    const NumberedFile file = ReadNumberedFile(aContent, aLosses);
    if (!file.fault.empty()) {
        return file.fault;
    }
    for (const TraceLineId& id : aAcknowledged) {
        if (file.lines.count(id) == 0 && !(aRollsOver && IsRolledOver(id, aContent))) {
            return "acknowledged, and lost: " + NumberedText(id);
        }
    }
    return "";
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_TRACELINES_H
