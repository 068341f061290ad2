#include <algorithm>
#include <array>
#include <map>
#include <unordered_map>

#include "CmFlightOutput.h"
#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

// In units of the picture.
constexpr double WIDTH = 1200;
constexpr double LEFT = 150;  // of the time's beginning, right of the threads' names
constexpr double RIGHT = 1180;
constexpr double TOP = 70;
constexpr double ROW = 46;
constexpr double BAR = 22;
constexpr double LEAST = 0.6;  // what is narrower is not seen
constexpr double CHARACTER = 6.2;

constexpr size_t MOST_ROWS = 64;
constexpr size_t MOST_SHAPES = 20000;
constexpr size_t MOST_ARROWS = 200;
constexpr unsigned WARNING_LEVEL = 10;

// The classes that took most time, in this order; those after them share the last one.
constexpr std::array<const char*, 7> COLOURS = {"#4477aa", "#ee6677", "#228833", "#ccbb44",
                                                "#66ccee", "#aa3377", "#999999"};

class CPicturePrinter {
  public:
    CPicturePrinter(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink)
        : m_Reader(aReader),
          m_Records(aRecords),
          m_Sink(aSink),
          m_Labels(CmThreadLabels(aRecords)) {}

    void Print() {
        FindRange();
        FindRows();
        FindClasses();
        const double dBottom = TOP + ROW * static_cast<double>(std::max<size_t>(m_Rows.size(), 1));
        const double dHeight = dBottom + 40 + 18 * static_cast<double>(m_Legend.size() + 1);
        m_Sink.Put(
            CmFormat("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                     "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"11\">\n",
                     WIDTH, dHeight, WIDTH, dHeight));
        m_Sink.Put("<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n");
        PrintHead();
        PrintAxis(dBottom);
        PrintRows();
        for (const CCmFlightRecord& record : m_Records.records) {
            if (record.isShown && m_nShapes < MOST_SHAPES) {
                PrintRecord(record, dBottom);
            }
        }
        PrintArrows();
        PrintLegend(dBottom + 40);
        m_Sink.Put("</svg>\n");
    }

  private:
    void FindRange() {
        m_llFrom = INT64_MAX;
        for (const CCmFlightRecord& record : m_Records.records) {
            if (record.isShown) {
                m_llFrom = std::min(m_llFrom, record.usec);
                m_llTo = std::max(m_llTo, CmEndOf(record));
            }
        }
        m_llFrom = std::min(m_llFrom, m_llTo);
        m_llTo = std::max(m_llTo, m_llFrom + 1);
    }

    void FindRows() {
        std::vector<uint64_t> counts(m_Records.threads.size());
        for (const CCmFlightRecord& record : m_Records.records) {
            counts[record.thread] += record.isShown ? 1 : 0;
        }
        std::vector<uint32_t> threads;
        for (uint32_t i = 0; i < counts.size(); ++i) {
            if (counts[i] > 0) {
                threads.push_back(i);
            }
        }
        std::stable_sort(threads.begin(), threads.end(), [&](uint32_t aOne, uint32_t aOther) {
            return m_Records.threads[aOne].number < m_Records.threads[aOther].number;
        });
        m_nLeftOut = threads.size() - std::min(threads.size(), MOST_ROWS);
        threads.resize(threads.size() - m_nLeftOut);
        for (const uint32_t dwThread : threads) {
            m_Rows.emplace(dwThread, m_Rows.size());
        }
        m_Ends.resize(m_Rows.size());
    }

    static bool HasBar(ECmRecord aKind) {
        return aKind == ECmRecord::EVENT || aKind == ECmRecord::TIMER ||
               aKind == ECmRecord::RUNNING;
    }

    void FindClasses() {
        std::unordered_map<uint64_t, int64_t> totals;
        for (const CCmFlightRecord& record : m_Records.records) {
            if (record.isShown && HasBar(record.kind)) {
                int64_t& llTotal = totals[record.table];
                llTotal = std::min(llTotal + std::min(record.length, m_llTo - m_llFrom),
                                   CM_FLIGHT_LAST_USEC);
            }
        }
        m_Legend.assign(totals.begin(), totals.end());
        std::sort(m_Legend.begin(), m_Legend.end(), [](const auto& aOne, const auto& aOther) {
            return aOne.second != aOther.second ? aOne.second > aOther.second
                                                : aOne.first < aOther.first;
        });
        for (size_t i = 0; i < m_Legend.size(); ++i) {
            m_Colours[m_Legend[i].first] = COLOURS[std::min(i, COLOURS.size() - 1)];
        }
        m_nClasses = m_Legend.size();
        m_Legend.resize(std::min(m_Legend.size(), COLOURS.size() - 1));
    }

    double X(int64_t aUsec) const {
        const double dShare = static_cast<double>(std::clamp(aUsec, m_llFrom, m_llTo) - m_llFrom) /
                              static_cast<double>(m_llTo - m_llFrom);
        return LEFT + dShare * (RIGHT - LEFT);
    }

    double Y(size_t aRow) const { return TOP + ROW * static_cast<double>(aRow) + 12; }

    void PrintText(double aX, double aY, const char* aMore, const std::string& aText) {
        m_Sink.Put(CmFormat("<text x=\"%.1f\" y=\"%.1f\"%s>", aX, aY, aMore) + CmXmlText(aText) +
                   "</text>\n");
    }

    void PrintHead() {
        PrintText(10, 20, " font-size=\"14\" font-weight=\"bold\"",
                  m_Reader.Process() + " " + std::to_string(m_Reader.ProcessId()));
        std::string strRange = CmTimeText(m_llFrom) + " and " + CmLengthText(m_llTo - m_llFrom);
        if (m_nLeftOut > 0) {
            strRange += CmFormat("; %zu more threads are not drawn", m_nLeftOut);
        }
        PrintText(10, 38, " fill=\"#555555\"", strRange);
    }

    void PrintAxis(double aBottom) {
        const double dRange = static_cast<double>(m_llTo - m_llFrom);
        double dStep = 1;
        for (int i = 0; dStep * 8 < dRange; ++i) {
            dStep *= i % 3 == 1 ? 2.5 : 2;  // 1, 2, 5, 10, ...
        }
        for (double d = 0; d <= dRange; d += dStep) {
            const int64_t llOffset = static_cast<int64_t>(d);
            const double dX = X(m_llFrom + llOffset);
            m_Sink.Put(CmFormat("<path d=\"M%.1f %.1fV%.1f\" stroke=\"#dddddd\"/>\n", dX, TOP - 6,
                                aBottom));
            PrintText(dX, TOP - 10, " fill=\"#555555\" text-anchor=\"middle\"",
                      "+" + CmLengthText(llOffset));
        }
    }

    void PrintRows() {
        for (const auto& [dwThread, nRow] : m_Rows) {
            PrintText(LEFT - 8, Y(nRow) + BAR / 2 + 4, " text-anchor=\"end\"",
                      CmCut(CmPrintable(m_Labels[dwThread]), 22));
            m_Sink.Put(CmFormat("<path d=\"M%.1f %.1fH%.1f\" stroke=\"#bbbbbb\"/>\n", LEFT,
                                Y(nRow) + BAR, RIGHT));
        }
    }

    // What nobody could tell from what is drawn there already is left out.
    bool IsSeen(size_t aRow, double aX, double aEnd) {
        if (aEnd < m_Ends[aRow] + LEAST / 2) {
            return false;
        }
        m_Ends[aRow] = std::max(m_Ends[aRow], std::max(aEnd, aX + LEAST));
        return true;
    }

    void PrintBar(const CCmFlightRecord& aRecord, size_t aRow) {
        const double dX = X(aRecord.usec);
        const double dEnd = X(aRecord.usec + aRecord.length);
        if (!IsSeen(aRow, dX, dEnd)) {
            return;
        }
        const std::string strClass = m_Reader.ClassOf(aRecord.table);
        const std::string strLength = CmLengthText(aRecord.length);
        const char* pszMore = aRecord.kind == ECmRecord::EVENT ? ""
                              : aRecord.kind == ECmRecord::TIMER
                                  ? " rx=\"8\""
                                  : " stroke=\"#cc0000\" stroke-width=\"2\"";
        m_Sink.Put(
            CmFormat("<rect x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.0f\" fill=\"%s\"%s>",
                     dX, Y(aRow), std::max(dEnd - dX, LEAST), BAR, m_Colours[aRecord.table],
                     pszMore) +
            "<title>" + CmXmlText(strClass) + ", " + CmRecordName(aRecord.kind) + ", " + strLength +
            "</title></rect>\n");
        const std::string strLabel = CmShortClassName(strClass) + " " + strLength;
        if (CHARACTER * static_cast<double>(CmColumns(strLabel)) < dEnd - dX) {
            PrintText(dX + 3, Y(aRow) + BAR / 2 + 4, " fill=\"#ffffff\" pointer-events=\"none\"",
                      strLabel);
        }
        ++m_nShapes;
    }

    void PrintMark(const CCmFlightRecord& aRecord, size_t aRow) {
        const bool bGrave = aRecord.level <= WARNING_LEVEL;
        const std::string& strText = m_Records.texts[aRecord.text];
        m_Sink.Put(CmFormat("<circle cx=\"%.2f\" cy=\"%.1f\" r=\"3\" fill=\"%s\"><title>",
                            X(aRecord.usec), Y(aRow) - 5, bGrave ? "#cc0000" : "#888888") +
                   CmXmlText(strText) + "</title></circle>\n");
        ++m_nShapes;
    }

    void PrintRecord(const CCmFlightRecord& aRecord, double aBottom) {
        const auto row = m_Rows.find(aRecord.thread);
        if (row == m_Rows.end()) {
            return;
        }
        const double dX = X(aRecord.usec);
        if (HasBar(aRecord.kind)) {
            PrintBar(aRecord, row->second);
        } else if (aRecord.kind == ECmRecord::SEND) {
            m_Sink.Put(
                CmFormat("<path d=\"M%.2f %.1fH%.2f\" stroke=\"#cc0000\" stroke-width=\"3\"/>\n",
                         dX, Y(row->second) + BAR + 3, std::max(X(CmEndOf(aRecord)), dX + LEAST)));
            ++m_nShapes;
        } else if (aRecord.kind == ECmRecord::LINE) {
            PrintMark(aRecord, row->second);
        } else if (aRecord.kind == ECmRecord::STEP) {
            m_Sink.Put(CmFormat(
                "<path d=\"M%.2f %.1fV%.1f\" stroke=\"#cc0000\" stroke-dasharray=\"4 3\"/>\n", dX,
                TOP, aBottom));
            ++m_nShapes;
        }
    }

    // From the posts to the events that waited longest.
    void PrintArrows() {
        std::vector<const CCmFlightRecord*> events;
        for (const CCmFlightRecord& record : m_Records.records) {
            if (record.isShown && record.post != CM_NO_RECORD && m_Rows.count(record.thread) > 0 &&
                m_Rows.count(PostOf(record).thread) > 0 && PostOf(record).isShown) {
                events.push_back(&record);
            }
        }
        std::stable_sort(events.begin(), events.end(),
                         [this](const CCmFlightRecord* aOne, const CCmFlightRecord* aOther) {
                             return WaitOf(*aOne) > WaitOf(*aOther);
                         });
        events.resize(std::min(events.size(), MOST_ARROWS));
        for (const CCmFlightRecord* pEvent : events) {
            const CCmFlightRecord& post = PostOf(*pEvent);
            const size_t nFrom = m_Rows[post.thread];
            const size_t nTo = m_Rows[pEvent->thread];
            m_Sink.Put(
                CmFormat("<path d=\"M%.2f %.1fL%.2f %.1f\" stroke=\"#000000\" "
                         "stroke-opacity=\"0.35\"/>\n",
                         X(post.usec), Y(nFrom) + (nFrom < nTo ? BAR : 0), X(pEvent->usec),
                         Y(nTo) + (nFrom < nTo ? 0 : BAR)));
        }
    }

    const CCmFlightRecord& PostOf(const CCmFlightRecord& aEvent) const {
        return m_Records.records[aEvent.post];
    }

    int64_t WaitOf(const CCmFlightRecord& aEvent) const {
        return aEvent.usec - PostOf(aEvent).usec;
    }

    void PrintLegend(double aTop) {
        double dY = aTop;
        for (const auto& [ullTable, llTotal] : m_Legend) {
            m_Sink.Put(
                CmFormat("<rect x=\"%.1f\" y=\"%.1f\" width=\"12\" height=\"12\" fill=\"%s\"/>\n",
                         LEFT, dY - 10, m_Colours[ullTable]));
            PrintText(LEFT + 18, dY, "",
                      CmCut(CmPrintable(m_Reader.ClassOf(ullTable)), 120) + ", " +
                          CmLengthText(llTotal) + " in all");
            dY += 18;
        }
        if (m_nClasses > m_Legend.size()) {
            PrintText(LEFT + 18, dY, " fill=\"#555555\"",
                      CmFormat("grey: %zu more", m_nClasses - m_Legend.size()));
        }
    }

    CCmFlightReader& m_Reader;
    const CCmFlightRecords& m_Records;
    ICmTextSink& m_Sink;
    const std::vector<std::string> m_Labels;
    int64_t m_llFrom = 0;
    int64_t m_llTo = 0;
    std::map<uint32_t, size_t> m_Rows;  // of threads
    std::vector<double> m_Ends;         // of the last bar in a row
    size_t m_nLeftOut = 0;              // threads
    size_t m_nClasses = 0;
    size_t m_nShapes = 0;
    std::vector<std::pair<uint64_t, int64_t>> m_Legend;  // class and time
    std::unordered_map<uint64_t, const char*> m_Colours;
};

}  // namespace

void CmPrintPicture(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    ICmTextSink& aSink) {
    CPicturePrinter(aReader, aRecords, aSink).Print();
}

}  // namespace UTIL_NS
