#include "CmFlightRecords.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

// Of all rings together, so that memory stays bounded.
constexpr uint64_t MOST_UNITS = uint64_t{1} << 21;

// Posts carry the time of a clock that moves every few milliseconds.
constexpr int64_t COARSE_USEC = 20000;

constexpr const char* NAMES[] = {"begin",   "post",       "event", "timer", "send",
                                 "running", "high-water", "step",  "line",  "end"};
static_assert(std::size(NAMES) == static_cast<size_t>(ECmRecord::COUNT));

struct CWords {
    char achBytes[sizeof(CCmFlightUnit::m_ullWords)];
    explicit CWords(const CCmFlightUnit& aUnit) {
        std::memcpy(achBytes, aUnit.m_ullWords, sizeof(achBytes));
    }
};
static_assert(sizeof(CWords::achBytes) == CM_FLIGHT_UNIT_TEXT);

// Reads the ring of one slot.
class CRingDecoder {
  public:
    CRingDecoder(const CCmFlightReader::CRing& aRing, const CCmFlightSlot& aSlot,
                 CCmFlightRecords* aOut)
        : m_Ring(aRing), m_Slot(aSlot), m_pOut(aOut) {}

    void Decode() {
        for (m_nAt = 0; m_nAt < m_Ring.units.size(); ++m_nAt) {
            if (m_Ring.first + m_nAt >= m_Slot.m_ullFirst) {
                BelongsToSlot();
            }
            DecodeUnit(m_Ring.units[m_nAt]);
        }
        BelongsToSlot();
        DecodeCurrent();
    }

  private:
    CCmFlightThread& Thread() { return m_pOut->threads[m_dwThread]; }

    // From here on records are of another thread.
    void NewThread() {
        m_dwThread = static_cast<uint32_t>(m_pOut->threads.size());
        m_pOut->threads.emplace_back();
        m_llEnd = 0;
    }

    void EnsureThread() {
        if (m_dwThread == CM_NO_THREAD) {
            NewThread();
        }
    }

    void BelongsToSlot() {
        if (m_bOfSlot || m_Slot.m_dwState == CCmFlightSlot::FREE) {
            return;
        }
        m_bOfSlot = true;
        NewThread();
        Thread().number = m_Slot.m_dwNumber;
        Thread().thread = m_Slot.m_ullThread;
        Thread().name = CmFlightText(m_Slot.m_szName, sizeof(m_Slot.m_szName));
        Thread().beginUsec = CmFlightUsec(m_Slot.m_ullStart);
        Thread().endUsec = CmFlightUsec(m_Slot.m_ullEnd);
    }

    CCmFlightRecord& Add(ECmRecord aKind, int64_t aUsec) {
        EnsureThread();
        ++Thread().count;
        CCmFlightRecord record;
        record.kind = aKind;
        record.thread = m_dwThread;
        record.usec = aUsec;
        m_pOut->records.push_back(record);
        return m_pOut->records.back();
    }

    void DecodeUnit(const CCmFlightUnit& aUnit) {
        const int64_t llUsec = static_cast<int64_t>(CmFlightTime(aUnit.m_ullHead));
        const uint64_t(&ullWords)[3] = aUnit.m_ullWords;
        switch (CmFlightKind(aUnit.m_ullHead)) {
            case CCmFlightUnit::EVENT: {
                CCmFlightRecord& record = Add(ECmRecord::EVENT, llUsec);
                SetLength(record, CmFlightRunLength(ullWords[0]));
                record.pending = CmFlightRunPending(ullWords[0]);
                record.table = ullWords[1];
                record.object = ullWords[2];
                break;
            }
            case CCmFlightUnit::POST: {
                // It came after what the thread had done before.
                const bool bCoarse = m_llEnd > llUsec && m_llEnd - llUsec < COARSE_USEC;
                CCmFlightRecord& record = Add(ECmRecord::POST, bCoarse ? m_llEnd : llUsec);
                record.table = ullWords[0];
                record.object = ullWords[1];
                record.queue = ullWords[2];
                break;
            }
            case CCmFlightUnit::TIMER: {
                CCmFlightRecord& record = Add(ECmRecord::TIMER, llUsec);
                SetLength(record, ullWords[0]);
                record.late = CmFlightUsec(ullWords[1]);
                record.table = ullWords[2];
                break;
            }
            case CCmFlightUnit::SEND: {
                CCmFlightRecord& record = Add(ECmRecord::SEND, llUsec);
                record.length = CmFlightUsec(ullWords[0]);
                record.table = ullWords[1];
                record.queue = ullWords[2];
                break;
            }
            case CCmFlightUnit::HIGH_WATER: {
                CCmFlightRecord& record = Add(ECmRecord::HIGH_WATER, llUsec);
                record.pending = ullWords[0];
                record.queue = ullWords[1];
                break;
            }
            case CCmFlightUnit::STEP:
                Add(ECmRecord::STEP, llUsec).length = (ullWords[0] >> 63) != 0
                                                          ? -CmFlightUsec(~ullWords[0] + 1)
                                                          : CmFlightUsec(ullWords[0]);
                break;
            case CCmFlightUnit::LINE:
                DecodeLine(aUnit, llUsec);
                break;
            case CCmFlightUnit::THREAD:
                DecodeThread(aUnit, llUsec);
                break;
            case CCmFlightUnit::END:
                Add(ECmRecord::END, llUsec);
                Thread().number = static_cast<uint32_t>(ullWords[0]);
                Thread().endUsec = llUsec;
                break;
            default:  // nothing, or the rest of a text whose beginning is gone
                break;
        }
    }

    void SetLength(CCmFlightRecord& aRecord, uint64_t aLength) {
        aRecord.length = CmFlightUsec(aLength);
        m_llEnd = aRecord.usec + aRecord.length;
    }

    // Appends the units of text that follow, up to aLength bytes in all; those that are missing end
    // it. They count from 1.
    void TakeText(std::string* aText, size_t aLength) {
        for (uint64_t n = 1; aText->size() < aLength && m_nAt + 1 < m_Ring.units.size(); ++n) {
            const CCmFlightUnit& unit = m_Ring.units[m_nAt + 1];
            if (unit.m_ullHead != CmFlightHead(CCmFlightUnit::TEXT, n)) {
                return;
            }
            ++m_nAt;
            aText->append(CWords(unit).achBytes,
                          std::min(aLength - aText->size(), CM_FLIGHT_UNIT_TEXT));
        }
    }

    void DecodeLine(const CCmFlightUnit& aUnit, int64_t aUsec) {
        const uint64_t ullLine = aUnit.m_ullWords[0];
        const size_t nLength = CmFlightLineLength(ullLine);
        CCmFlightRecord& record = Add(ECmRecord::LINE, aUsec);
        record.level = static_cast<uint8_t>(CmFlightLineLevel(ullLine));
        record.flags = static_cast<uint8_t>(CmFlightLineFlags(ullLine));
        record.text = static_cast<uint32_t>(m_pOut->texts.size());
        std::string strText(CWords(aUnit).achBytes + sizeof(ullLine),
                            std::min(nLength, CM_FLIGHT_LINE_TEXT));
        TakeText(&strText, nLength);
        if (strText.size() < nLength) {
            record.flags |= CM_FLIGHT_LINE_CUT;
        }
        m_pOut->texts.push_back(std::move(strText));
    }

    // The same number again: the thread has another name now.
    void DecodeThread(const CCmFlightUnit& aUnit, int64_t aUsec) {
        const uint32_t dwNumber = static_cast<uint32_t>(aUnit.m_ullWords[0]);
        std::string strName;
        TakeText(&strName, static_cast<size_t>(
                               std::min<uint64_t>(aUnit.m_ullWords[2], CM_FLIGHT_NAME_SIZE - 1)));
        const bool bSlot = m_Slot.m_dwState != CCmFlightSlot::FREE && dwNumber == m_Slot.m_dwNumber;
        if (bSlot) {
            BelongsToSlot();
        } else if (m_dwThread == CM_NO_THREAD || Thread().number != dwNumber) {
            NewThread();
            Thread().number = dwNumber;
            Thread().thread = aUnit.m_ullWords[1];
            Thread().beginUsec = aUsec;
        }
        if (!bSlot) {
            Thread().name = strName;
        }
        if (aUsec == Thread().beginUsec) {
            Add(ECmRecord::BEGIN, aUsec);
        }
    }

    void DecodeCurrent() {
        if (m_Slot.m_dwState == CCmFlightSlot::LIVE && m_Slot.m_ullCurrentTable != 0) {
            Add(ECmRecord::RUNNING, CmFlightUsec(m_Slot.m_ullCurrentStart)).table =
                m_Slot.m_ullCurrentTable;
        }
    }

    const CCmFlightReader::CRing& m_Ring;
    const CCmFlightSlot& m_Slot;
    CCmFlightRecords* const m_pOut;
    size_t m_nAt = 0;
    uint32_t m_dwThread = CM_NO_THREAD;
    bool m_bOfSlot = false;
    int64_t m_llEnd = 0;  // of the thread's last event or timer
};

// Posts of an event's address that have not led to an event yet, the latest ones: those of one
// time, as their clock stands still for some milliseconds in which the address may be used again.
struct CPosts {
    uint32_t first;
    uint32_t last;
};

// Which post led to an event: of those the first.
void FindPosts(CCmFlightRecords* aRecords) {
    std::vector<CCmFlightRecord>& records = aRecords->records;
    std::unordered_map<uint64_t, CPosts> posts;  // by address
    std::vector<uint32_t> next(records.size(), CM_NO_RECORD);
    for (uint32_t i = 0; i < records.size(); ++i) {
        CCmFlightRecord& record = records[i];
        if (record.kind == ECmRecord::POST) {
            const auto [post, bIsNew] = posts.try_emplace(record.object, CPosts{i, i});
            if (!bIsNew && records[post->second.last].usec == record.usec) {
                next[post->second.last] = i;
                post->second.last = i;
            } else {
                post->second = {i, i};
            }
        } else if (record.kind == ECmRecord::EVENT) {
            const auto post = posts.find(record.object);
            if (post == posts.end() || records[post->second.first].table != record.table) {
                continue;
            }
            record.post = post->second.first;
            aRecords->queues[records[record.post].queue] = record.thread;
            post->second.first = next[record.post];
            if (post->second.first == CM_NO_RECORD) {
                posts.erase(post);
            }
        }
    }
}

uint32_t UsedRings(CCmFlightReader& aReader) {
    uint32_t dwUsed = 0;
    for (uint32_t i = 0; i < aReader.SlotCount(); ++i) {
        CCmFlightSlot slot = {};
        dwUsed += aReader.ReadSlot(i, &slot) && slot.m_ullWritten > 0 ? 1 : 0;
    }
    return dwUsed;
}

bool IsBefore(const CCmFlightRecord& aOne, const CCmFlightRecord& aOther) {
    return aOne.usec != aOther.usec ? aOne.usec < aOther.usec : aOne.kind < aOther.kind;
}

}  // namespace

const char* CmRecordName(ECmRecord aKind) {
    return NAMES[static_cast<size_t>(aKind)];
}

bool CmRecordOf(const std::string& aName, ECmRecord* aKind) {
    const auto name = std::find(std::begin(NAMES), std::end(NAMES), aName);
    *aKind = static_cast<ECmRecord>(name - std::begin(NAMES));
    return name != std::end(NAMES);
}

CCmFlightRecords CmReadRecords(CCmFlightReader& aReader) {
    CCmFlightRecords out;
    const uint64_t ullShare = MOST_UNITS / std::max<uint64_t>(UsedRings(aReader), 1);
    uint64_t ullLeft = MOST_UNITS;  // rings may have come into use meanwhile
    for (uint32_t i = 0; i < aReader.SlotCount(); ++i) {
        CCmFlightReader::CRing ring;
        CCmFlightSlot slot = {};
        const bool bRead = aReader.ReadRing(i, std::min(ullShare, ullLeft), &slot, &ring);
        ullLeft -= ring.units.size();
        if (!bRead) {
            out.error = out.error.empty() ? aReader.Error() : out.error;
            continue;
        }
        out.isLimited = out.isLimited || ring.isLimited;
        CRingDecoder(ring, slot, &out).Decode();
    }
    if (out.error.empty() && !aReader.CheckSize()) {
        out.error = aReader.Error();
    }
    out.lastUsec = aReader.LastUsec();
    for (const CCmFlightRecord& record : out.records) {
        out.lastUsec = std::max(out.lastUsec, CmEndOf(record));
    }
    for (CCmFlightRecord& record : out.records) {
        if (record.kind == ECmRecord::RUNNING) {
            record.length = out.lastUsec - record.usec;
        }
    }
    std::stable_sort(out.records.begin(), out.records.end(), IsBefore);
    FindPosts(&out);
    return out;
}

void CmFilterRecords(const CCmFlightFilter& aFilter, CCmFlightRecords* aRecords) {
    std::vector<bool> isThread(aRecords->threads.size(), aFilter.threads.empty());
    for (size_t i = 0; i < isThread.size(); ++i) {
        const CCmFlightThread& thread = aRecords->threads[i];
        for (const std::string& strAsked : aFilter.threads) {
            isThread[i] =
                isThread[i] || strAsked == thread.name || strAsked == std::to_string(thread.number);
        }
    }
    for (CCmFlightRecord& record : aRecords->records) {
        const bool bKind = aFilter.kinds.empty() ||
                           std::find(aFilter.kinds.begin(), aFilter.kinds.end(), record.kind) !=
                               aFilter.kinds.end();
        record.isShown = bKind && isThread[record.thread] && CmEndOf(record) >= aFilter.fromUsec &&
                         record.usec <= aFilter.toUsec;
    }
}

// A step has no length but a distance.
int64_t CmEndOf(const CCmFlightRecord& aRecord) {
    return aRecord.usec + (aRecord.kind == ECmRecord::STEP ? 0 : aRecord.length);
}

std::vector<std::string> CmThreadLabels(const CCmFlightRecords& aRecords) {
    std::unordered_map<std::string, size_t> counts;
    for (const CCmFlightThread& thread : aRecords.threads) {
        ++counts[thread.name];
    }
    std::vector<std::string> labels;
    for (const CCmFlightThread& thread : aRecords.threads) {
        const std::string strNumber = thread.number != 0 ? "#" + std::to_string(thread.number) : "";
        const bool bAlone = !thread.name.empty() && counts[thread.name] == 1;
        labels.push_back(thread.name + (bAlone ? "" : strNumber));
        labels.back() = labels.back().empty() ? "unknown" : labels.back();
    }
    return labels;
}

}  // namespace UTIL_NS
