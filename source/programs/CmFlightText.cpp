#include <algorithm>

#include "CmFlightOutput.h"
#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

constexpr size_t MOST_LABEL = 24;  // columns

std::string Number(const char* aName, uint64_t aNumber) {
    return CmFormat(" %s=%llu", aName, static_cast<unsigned long long>(aNumber));
}

std::string Usec(const char* aName, int64_t aUsec) {
    return CmFormat(" %s=%lld", aName, static_cast<long long>(aUsec));
}

std::string Address(uint64_t aAddress) {
    return CmFormat("0x%llx", static_cast<unsigned long long>(aAddress));
}

// As the library's table has them, which takes the library along.
struct CLevel {
    unsigned number;
    const char* name;
};
constexpr CLevel LEVELS[] = {{0, "Error"},    {1, "Server"}, {10, "Warning"},   {11, "Meeting"},
                             {12, "Session"}, {13, "User"},  {14, "Statistic"}, {20, "Info"},
                             {21, "State"},   {22, "PDU"},   {23, "Func"},      {24, "Tick"},
                             {25, "Detail"},  {26, "WDMS"},  {27, "Debug"}};

class CTextPrinter {
  public:
    CTextPrinter(CCmFlightReader& aReader, const CCmFlightRecords& aRecords)
        : m_Reader(aReader), m_Records(aRecords), m_Labels(CmThreadLabels(aRecords)) {
        for (std::string& strLabel : m_Labels) {
            strLabel = CmPrintable(strLabel);
            // "# " begins the lines of the head alone.
            if (strLabel == "#" || strLabel.rfind("# ", 0) == 0) {
                strLabel.replace(0, 1, "\\x23");
            }
            m_nLabel = std::max(m_nLabel, CmColumns(strLabel));
        }
        m_nLabel = std::min(m_nLabel, MOST_LABEL);
    }

    std::string Line(const CCmFlightRecord& aRecord) {
        const std::string strDetails = Details(aRecord);
        const std::string strKind = CmRecordName(aRecord.kind);
        return CmTimeText(aRecord.usec) + "  " + CmPadRight(m_Labels[aRecord.thread], m_nLabel) +
               "  " + (strDetails.empty() ? strKind : CmPadRight(strKind, 10) + strDetails) + "\n";
    }

    std::string ThreadLine(uint32_t aThread) {
        const CCmFlightThread& thread = m_Records.threads[aThread];
        return CmPadRight(m_Labels[aThread], m_nLabel) + Number("number", thread.number) +
               " thread=" + Address(thread.thread) + Time("begin", thread.beginUsec) +
               Time("end", thread.endUsec) + Number("records", thread.count) + "\n";
    }

  private:
    static std::string Time(const char* aName, int64_t aUsec) {
        return aUsec != 0 ? std::string(" ") + aName + "=\"" + CmTimeText(aUsec) + "\"" : "";
    }

    std::string Class(uint64_t aTable) {
        return " class=\"" + CmPrintable(m_Reader.ClassOf(aTable)) + "\"";
    }

    // Its thread, where that is known.
    std::string Queue(const char* aName, uint64_t aQueue) const {
        const auto queue = m_Records.queues.find(aQueue);
        return std::string(" ") + aName + "=" +
               (queue != m_Records.queues.end() ? "\"" + m_Labels[queue->second] + "\""
                                                : Address(aQueue));
    }

    std::string Waited(const CCmFlightRecord& aEvent) const {
        if (aEvent.post == CM_NO_RECORD) {
            return "";
        }
        const CCmFlightRecord& post = m_Records.records[aEvent.post];
        return Usec("waitedUsec", std::max<int64_t>(aEvent.usec - post.usec, 0)) + " postedBy=\"" +
               m_Labels[post.thread] + "\"";
    }

    std::string Details(const CCmFlightRecord& aRecord) {
        switch (aRecord.kind) {
            case ECmRecord::POST:
                return Class(aRecord.table) + Queue("to", aRecord.queue) +
                       " event=" + Address(aRecord.object);
            case ECmRecord::EVENT:
                return Class(aRecord.table) + Usec("ranUsec", aRecord.length) + Waited(aRecord) +
                       Number("pending", aRecord.pending) + " event=" + Address(aRecord.object);
            case ECmRecord::TIMER:
                return Class(aRecord.table) + Usec("ranUsec", aRecord.length) +
                       Usec("lateUsec", aRecord.late);
            case ECmRecord::SEND:
                return Class(aRecord.table) + Usec("blockedUsec", aRecord.length) +
                       Queue("to", aRecord.queue);
            case ECmRecord::RUNNING:
                return Class(aRecord.table) + " and had not ended";
            case ECmRecord::HIGH_WATER:
                return Number("pending", aRecord.pending) + Queue("of", aRecord.queue);
            case ECmRecord::STEP:
                return Usec("byUsec", aRecord.length);
            case ECmRecord::LINE:
                return std::string(" ") + CmFlightLevelName(aRecord.level) +
                       ((aRecord.flags & CM_FLIGHT_LINE_FILTERED) != 0 ? " (filtered): " : ": ") +
                       CmPrintable(m_Records.texts[aRecord.text]) +
                       ((aRecord.flags & CM_FLIGHT_LINE_CUT) != 0 ? "\xE2\x80\xA6" : "");
            default:
                return "";
        }
    }

    CCmFlightReader& m_Reader;
    const CCmFlightRecords& m_Records;
    std::vector<std::string> m_Labels;  // printable
    size_t m_nLabel = 0;                // columns
};

void PrintHead(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink) {
    const CCmFlightReader::EState eState = aReader.State();
    const char* pszState = eState == CCmFlightReader::EState::LIVE    ? "still runs"
                           : eState == CCmFlightReader::EState::ENDED ? "ended in order"
                                                                      : "was killed";
    const auto nShown =
        std::count_if(aRecords.records.begin(), aRecords.records.end(),
                      [](const CCmFlightRecord& aRecord) { return aRecord.isShown; });
    aSink.Put("# " + CmPrintable(aReader.Process()) + " " + std::to_string(aReader.ProcessId()) +
              ", from " + CmTimeText(aReader.StartUsec()) + " to " + CmTimeText(aRecords.lastUsec) +
              ", " + pszState +
              CmFormat("; %zu threads, %zu of %zu records\n", aRecords.threads.size(),
                       static_cast<size_t>(nShown), aRecords.records.size()));
    if (aRecords.isLimited) {
        aSink.Put("# There are more records; of each thread the last ones are taken.\n");
    }
    if (aReader.UnslottedThreads() > 0) {
        aSink.Put(CmFormat("# Not recorded, for want of a place: %llu threads.\n",
                           static_cast<unsigned long long>(aReader.UnslottedThreads())));
    }
    if (aReader.LostClasses() > 0) {
        aSink.Put("# Some classes have no name, as there were too many.\n");
    }
}

}  // namespace

const char* CmFlightLevelName(unsigned aLevel) {
    for (const CLevel& level : LEVELS) {
        if (level.number == aLevel) {
            return level.name;
        }
    }
    return "NA";
}

void CmPrintRecords(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    ICmTextSink& aSink) {
    PrintHead(aReader, aRecords, aSink);
    CTextPrinter printer(aReader, aRecords);
    for (const CCmFlightRecord& record : aRecords.records) {
        if (record.isShown) {
            aSink.Put(printer.Line(record));
        }
    }
}

void CmPrintThreads(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    ICmTextSink& aSink) {
    PrintHead(aReader, aRecords, aSink);
    CTextPrinter printer(aReader, aRecords);
    for (uint32_t i = 0; i < aRecords.threads.size(); ++i) {
        aSink.Put(printer.ThreadLine(i));
    }
}

}  // namespace UTIL_NS
