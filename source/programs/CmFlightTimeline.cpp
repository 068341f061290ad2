#include <algorithm>

#include "CmFlightOutput.h"
#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

// Threads whose number is not known are given one that no other has.
constexpr uint64_t UNKNOWN_THREADS = uint64_t{1} << 32;

class CTimelinePrinter {
  public:
    CTimelinePrinter(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink)
        : m_Reader(aReader),
          m_Records(aRecords),
          m_Sink(aSink),
          m_Labels(CmThreadLabels(aRecords)) {}

    void Print() {
        m_Sink.Put("{\"displayTimeUnit\": \"ms\", \"traceEvents\": [");
        Put("M", "process_name", 0, 0,
            ", \"args\": {\"name\": " + CmJsonText(m_Reader.Process()) + "}");
        for (uint32_t i = 0; i < m_Records.threads.size(); ++i) {
            Put("M", "thread_name", i, 0,
                ", \"args\": {\"name\": " + CmJsonText(m_Labels[i]) + "}");
        }
        for (uint32_t i = 0; i < m_Records.records.size(); ++i) {
            if (m_Records.records[i].isShown) {
                PutRecord(m_Records.records[i], i);
            }
        }
        m_Sink.Put("\n]}\n");
    }

  private:
    uint64_t ThreadId(uint32_t aThread) const {
        const uint32_t dwNumber = m_Records.threads[aThread].number;
        return dwNumber != 0 ? dwNumber : UNKNOWN_THREADS + aThread;
    }

    // aMore: further members, each after a comma.
    void Put(const char* aPhase, const std::string& aName, uint32_t aThread, int64_t aUsec,
             const std::string& aMore) {
        m_Sink.Put(std::string(m_bFirst ? "" : ",") + "\n{\"ph\": \"" + aPhase +
                   "\", \"name\": " + CmJsonText(aName) +
                   CmFormat(", \"pid\": %llu, \"tid\": %llu, \"ts\": %lld",
                            static_cast<unsigned long long>(m_Reader.ProcessId()),
                            static_cast<unsigned long long>(
                                aThread < m_Records.threads.size() ? ThreadId(aThread) : 0),
                            static_cast<long long>(aUsec)) +
                   aMore + "}");
        m_bFirst = false;
    }

    void PutSlice(const CCmFlightRecord& aRecord, const std::string& aArguments) {
        Put("X", m_Reader.ClassOf(aRecord.table), aRecord.thread, aRecord.usec,
            CmFormat(", \"cat\": \"%s\", \"dur\": %lld, \"args\": {", CmRecordName(aRecord.kind),
                     static_cast<long long>(aRecord.length)) +
                aArguments + "}");
    }

    void PutMark(const CCmFlightRecord& aRecord, const char* aScope, const std::string& aName) {
        Put("i", aName, aRecord.thread, aRecord.usec,
            CmFormat(", \"cat\": \"%s\", \"s\": \"%s\"", CmRecordName(aRecord.kind), aScope));
    }

    void PutPending(const CCmFlightRecord& aRecord, int64_t aUsec) {
        Put("C", "pending " + m_Labels[aRecord.thread], aRecord.thread, aUsec,
            CmFormat(", \"args\": {\"pending\": %llu}",
                     static_cast<unsigned long long>(aRecord.pending)));
    }

    // An arrow from the slice of the post to that of the event.
    void PutArrow(const CCmFlightRecord& aPost, const CCmFlightRecord& aEvent, uint32_t aId) {
        const std::string strId = CmFormat(", \"cat\": \"post\", \"id\": %u", aId);
        Put("s", "post", aPost.thread, aPost.usec, strId);
        Put("f", "post", aEvent.thread, std::max(aEvent.usec, aPost.usec),
            strId + ", \"bp\": \"e\"");
    }

    void PutEvent(const CCmFlightRecord& aRecord, uint32_t aId) {
        std::string strArguments =
            CmFormat("\"pending\": %llu", static_cast<unsigned long long>(aRecord.pending));
        const CCmFlightRecord* pPost =
            aRecord.post != CM_NO_RECORD ? &m_Records.records[aRecord.post] : nullptr;
        if (pPost != nullptr) {
            strArguments +=
                CmFormat(", \"waitedUsec\": %lld, \"postedBy\": ",
                         static_cast<long long>(std::max<int64_t>(aRecord.usec - pPost->usec, 0))) +
                CmJsonText(m_Labels[pPost->thread]);
        }
        PutSlice(aRecord, strArguments);
        PutPending(aRecord, aRecord.usec);
        if (pPost != nullptr && pPost->isShown) {
            PutArrow(*pPost, aRecord, aId);
        }
    }

    void PutRecord(const CCmFlightRecord& aRecord, uint32_t aId) {
        switch (aRecord.kind) {
            case ECmRecord::EVENT:
                PutEvent(aRecord, aId);
                break;
            case ECmRecord::POST:
                PutSlice(aRecord, "");
                break;
            case ECmRecord::TIMER:
                PutSlice(aRecord,
                         CmFormat("\"lateUsec\": %lld", static_cast<long long>(aRecord.late)));
                break;
            case ECmRecord::SEND:
                PutSlice(aRecord, "");
                break;
            case ECmRecord::RUNNING:
                PutSlice(aRecord, "\"ended\": false");
                break;
            case ECmRecord::HIGH_WATER:
                PutMark(
                    aRecord, "t",
                    CmFormat("high-water %llu", static_cast<unsigned long long>(aRecord.pending)));
                break;
            case ECmRecord::STEP:
                PutMark(aRecord, "g",
                        CmFormat("the clock was set by %lld us",
                                 static_cast<long long>(aRecord.length)));
                break;
            case ECmRecord::LINE:
                PutMark(aRecord, "t", m_Records.texts[aRecord.text]);
                break;
            default:
                PutMark(aRecord, "t", CmRecordName(aRecord.kind));
                break;
        }
    }

    CCmFlightReader& m_Reader;
    const CCmFlightRecords& m_Records;
    ICmTextSink& m_Sink;
    const std::vector<std::string> m_Labels;
    bool m_bFirst = true;
};

}  // namespace

void CmPrintTimeline(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                     ICmTextSink& aSink) {
    CTimelinePrinter(aReader, aRecords, aSink).Print();
}

}  // namespace UTIL_NS
