#include "Plot.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "StreamOrder.h"
#include "Text.h"

namespace rtp_monitor {

namespace {

constexpr double USEC_PER_SEC = 1e6;
constexpr double BITS_PER_BYTE = 8;
constexpr double BITS_PER_KBIT = 1000;

// In pixels.
constexpr int PAGE_WIDTH = 1200;
constexpr int HEAD_HEIGHT = 64;
constexpr int ROW_HEIGHT = 190;
constexpr int ROW_TOP = 44;  // of the charts within a row
constexpr int CHART_HEIGHT = 110;
constexpr int CHART_WIDTH = 310;
constexpr int CHART_LEFT = 64;
constexpr int CHART_DISTANCE = 390;
constexpr int TICKS = 5;  // of time, at most

constexpr char STYLE[] =
    "text{font-family:sans-serif;font-size:12px;fill:#333}"
    ".h{font-size:18px}.s{font-size:14px;font-weight:bold}.r{text-anchor:end}.m{text-anchor:middle}"
    ".g{stroke:#ddd;fill:none}.a{stroke:#888;fill:none}.l{stroke:#c00;stroke-dasharray:5 4}"
    ".loss{fill:#d33}.jitter{stroke:#b60;stroke-width:1.5;fill:none}"
    ".rate{stroke:#16a;stroke-width:1.5;fill:none}";

// For text and attributes. What XML cannot hold becomes a question mark.
std::string XmlText(std::string_view aText) {
    std::string sXml;
    for (const char ch : aText) {
        const auto by = static_cast<unsigned char>(ch);
        sXml += ch == '&'                 ? "&amp;"
                : ch == '<'               ? "&lt;"
                : ch == '>'               ? "&gt;"
                : ch == '"'               ? "&quot;"
                : by < 0x20 || by >= 0x7F ? "?"
                                          : std::string(1, ch);
    }
    return sXml;
}

// 1, 2 or 5 times a power of ten, at least aValue.
double NiceAbove(double aValue) {
    const double dPower = std::pow(10, std::floor(std::log10(aValue)));
    for (const double dFactor : {1.0, 2.0, 5.0}) {
        if (aValue <= dFactor * dPower) {
            return dFactor * dPower;
        }
    }
    return 10 * dPower;
}

struct CTimeUnit {
    double seconds;
    const char* name;
};
constexpr CTimeUnit TIME_UNITS[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};

// The largest unit that makes at least two of the length.
CTimeUnit UnitFor(double aSeconds) {
    for (const CTimeUnit& unit : TIME_UNITS) {
        if (aSeconds >= 2 * unit.seconds) {
            return unit;
        }
    }
    return {1, "s"};
}

// What one chart shows.
struct CChart {
    const char* title;
    const char* unit;
    const char* style;
    double least;  // that the axis reaches at least
    double limit;  // 0: none
    bool hasBars;
    std::vector<double> values;  // by step
};

// The time that all charts span.
struct CSpan {
    int64_t startUsec = 0;
    double seconds = 1;
};

class CPage {
  public:
    CPage(const CReport& aReport, const std::vector<CCurve>& aCurves, const std::string& aTitle);

    std::string TakeText() { return std::move(m_sText); }

  private:
    void AddStream(const CStreamReport& aStream, const CCurve* aCurve, int aTop);
    void AddChart(const CChart& aChart, const CCurve& aCurve, int aLeft, int aTop);
    void AddAxes(const CChart& aChart, double aTopValue, int aLeft, int aTop);
    void AddText(double aX, double aY, const char* aStyle, const std::string& aText) {
        m_sText += Format("<text x=\"%.1f\" y=\"%.1f\" class=\"%s\">", aX, aY, aStyle) +
                   XmlText(aText) + "</text>\n";
    }
    void AddLine(const char* aStyle, double aFromX, double aFromY, double aToX, double aToY) {
        m_sText += Format("<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n",
                          aStyle, aFromX, aFromY, aToX, aToY);
    }

    std::string m_sText;
    CSpan m_span;
};

CSpan SpanOf(const std::vector<CCurve>& aCurves) {
    CSpan span;
    int64_t llEndUsec = 0;
    for (const CCurve& curve : aCurves) {
        const int64_t llEnd =
            curve.startUsec + curve.stepUsec * static_cast<int64_t>(curve.points.size());
        const bool bFirst = &curve == &aCurves.front();
        span.startUsec = bFirst ? curve.startUsec : std::min(span.startUsec, curve.startUsec);
        llEndUsec = bFirst ? llEnd : std::max(llEndUsec, llEnd);
    }
    span.seconds =
        std::max(static_cast<double>(llEndUsec - span.startUsec) / USEC_PER_SEC, 1 / USEC_PER_SEC);
    return span;
}

// The growth of a figure in each step; where a late packet takes a loss back, there is none.
double Growth(const std::vector<CPoint>& aPoints, size_t aStep, uint64_t CPoint::*aFigure) {
    const uint64_t ullNow = aPoints[aStep].*aFigure;
    const uint64_t ullBefore = aStep > 0 ? aPoints[aStep - 1].*aFigure : 0;
    return ullNow > ullBefore ? static_cast<double>(ullNow - ullBefore) : 0;
}

// The shares that were lost of what was expected in each step. A loss shows when the next packet
// comes; where nothing came for whole steps, and as much is missing as they would have brought, it
// is theirs, too.
std::vector<double> LossOf(const std::vector<CPoint>& aPoints) {
    const double dUsual = aPoints.empty() ? 0
                                          : static_cast<double>(aPoints.back().expected) /
                                                static_cast<double>(aPoints.size());
    std::vector<double> losses;
    size_t nSilent = 0;  // steps before this one
    for (size_t i = 0; i < aPoints.size(); ++i) {
        const double dExpected = Growth(aPoints, i, &CPoint::expected);
        const double dLost = Growth(aPoints, i, &CPoint::lost);
        losses.push_back(dExpected > 0 ? std::min(100.0, 100 * dLost / dExpected) : 0);
        if (dExpected > 0) {
            if (dLost >= static_cast<double>(nSilent) * dUsual / 2) {
                std::fill_n(losses.rbegin(), nSilent + 1, losses.back());
            }
            nSilent = 0;
        } else {
            ++nSilent;
        }
    }
    return losses;
}

std::vector<CChart> ChartsOf(const CStreamReport& aStream, const CCurve& aCurve) {
    CChart loss = {"loss",
                   "%",
                   "loss",
                   LOSS_LIMIT_PERCENT * 2,
                   LOSS_LIMIT_PERCENT,
                   true,
                   LossOf(aCurve.points)};
    CChart jitter = {"jitter", "ms", "jitter", 1, JITTER_LIMIT_MS, false, {}};
    CChart rate = {"bit rate", "kbit/s", "rate", 1, 0, false, {}};
    for (size_t i = 0; i < aCurve.points.size(); ++i) {
        jitter.values.push_back(aCurve.points[i].jitterMs);
        const double dBits = Growth(aCurve.points, i, &CPoint::bytes) * BITS_PER_BYTE;
        // The last step is not over: of a piece of one there is no rate to speak of, unless there
        // is no other.
        const bool bPiece = i + 1 == aCurve.points.size();
        const int64_t llLengthUsec =
            bPiece ? aStream.lastArrivalUsec - aCurve.startUsec : aCurve.stepUsec;
        rate.values.push_back(bPiece && i > 0    ? rate.values.back()
                              : llLengthUsec > 0 ? dBits * USEC_PER_SEC / BITS_PER_KBIT /
                                                       static_cast<double>(llLengthUsec)
                                                 : 0);
    }
    if (aStream.clockRate == 0) {
        jitter.values.clear();
    }
    return {loss, jitter, rate};
}

CPage::CPage(const CReport& aReport, const std::vector<CCurve>& aCurves, const std::string& aTitle)
    : m_span(SpanOf(aCurves)) {
    const size_t nShown = std::min(aReport.streams.size(), MAX_PLOTTED);
    const int nHeight = HEAD_HEIGHT + ROW_HEIGHT * static_cast<int>(std::max<size_t>(nShown, 1));
    m_sText = Format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
        "viewBox=\"0 0 %d %d\">\n",
        PAGE_WIDTH, nHeight, PAGE_WIDTH, nHeight);
    m_sText += "<title>" + XmlText("RTP streams of " + aTitle) + "</title>\n<style>" + STYLE +
               "</style>\n<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    AddText(16, 28, "h", "RTP streams of " + aTitle);
    const size_t nStreams = aReport.streams.size();
    std::string sCount = std::to_string(nStreams) + (nStreams == 1 ? " stream" : " streams");
    sCount += nShown < nStreams ? ", the first " + std::to_string(nShown) + " are shown" : "";
    sCount += aReport.isComplete ? "" : "; partial: not all of the input was read";
    AddText(16, 50, "", sCount);
    int nTop = HEAD_HEIGHT;
    for (size_t i = 0; i < nShown; ++i) {
        const CStreamReport& stream = aReport.streams[i];
        const auto curve =
            std::find_if(aCurves.begin(), aCurves.end(),
                         [&stream](const CCurve& aCurve) { return aCurve.key == stream.key; });
        AddStream(stream, curve != aCurves.end() ? &*curve : nullptr, nTop);
        nTop += ROW_HEIGHT;
    }
    m_sText += "</svg>\n";
}

void CPage::AddStream(const CStreamReport& aStream, const CCurve* aCurve, int aTop) {
    AddLine("g", 0, aTop, PAGE_WIDTH, aTop);
    const std::string sType = aStream.payloadName.empty()
                                  ? "payload type " + std::to_string(aStream.payloadType)
                                  : aStream.payloadName;
    AddText(16, aTop + 20, "s",
            FormatSource(aStream.key) + " > " + FormatDestination(aStream.key) +
                Format("   %08x   ", aStream.key.ssrc) + sType +
                Format("   %llu %s, %llu lost (%.1f%%)", Number(aStream.received),
                       aStream.received == 1 ? "packet" : "packets", Number(aStream.lost),
                       LossPercent(aStream)));
    if (aCurve == nullptr) {
        return;
    }
    int nLeft = CHART_LEFT;
    for (const CChart& chart : ChartsOf(aStream, *aCurve)) {
        AddChart(chart, *aCurve, nLeft, aTop + ROW_TOP);
        nLeft += CHART_DISTANCE;
    }
}

void CPage::AddChart(const CChart& aChart, const CCurve& aCurve, int aLeft, int aTop) {
    AddText(aLeft, aTop - 6, "", std::string(aChart.title) + ", " + aChart.unit);
    if (aChart.values.empty()) {
        AddText(aLeft + CHART_WIDTH / 2.0, aTop + CHART_HEIGHT / 2.0, "m",
                "the clock rate is not known (--clock)");
        return;
    }
    const double dLargest = *std::max_element(aChart.values.begin(), aChart.values.end());
    const double dTopValue = NiceAbove(std::max(dLargest, aChart.least));
    AddAxes(aChart, dTopValue, aLeft, aTop);
    const double dPixelsPerUsec = CHART_WIDTH / m_span.seconds / USEC_PER_SEC;
    double dX = aLeft + static_cast<double>(aCurve.startUsec - m_span.startUsec) * dPixelsPerUsec;
    const double dStep = static_cast<double>(aCurve.stepUsec) * dPixelsPerUsec;
    std::string sPoints;
    for (const double dValue : aChart.values) {
        const double dHeight = CHART_HEIGHT * dValue / dTopValue;
        const double dY = aTop + CHART_HEIGHT - dHeight;
        if (!aChart.hasBars) {
            sPoints += Format("%.1f,%.1f %.1f,%.1f ", dX, dY, dX + dStep, dY);
        } else if (dValue > 0) {
            m_sText += Format(
                "<rect class=\"%s\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" "
                "height=\"%.1f\"/>\n",
                aChart.style, dX, dY, std::max(dStep, 1.0), dHeight);
        }
        dX += dStep;
    }
    if (!aChart.hasBars) {
        m_sText += Format("<polyline class=\"%s\" points=\"", aChart.style) + sPoints + "\"/>\n";
    }
}

void CPage::AddAxes(const CChart& aChart, double aTopValue, int aLeft, int aTop) {
    const int nBottom = aTop + CHART_HEIGHT;
    const int nRight = aLeft + CHART_WIDTH;
    for (const double dPart : {0.0, 0.5, 1.0}) {
        const double dY = nBottom - dPart * CHART_HEIGHT;
        AddLine("g", aLeft, dY, nRight, dY);
        AddText(aLeft - 6, dY + 4, "r", Format("%g", aTopValue * dPart));
    }
    const CTimeUnit unit = UnitFor(m_span.seconds);
    const double dLength = m_span.seconds / unit.seconds;
    const double dTick = NiceAbove(dLength / TICKS);
    for (int i = 0; i * dTick <= dLength; ++i) {
        const double dX = aLeft + CHART_WIDTH * i * dTick / dLength;
        AddLine("a", dX, nBottom, dX, nBottom + 4);
        AddText(dX, nBottom + 18, "m", Format("%g", i * dTick) + (i == 0 ? "" : unit.name));
    }
    AddLine("a", aLeft, nBottom, nRight, nBottom);
    if (aChart.limit > 0 && aChart.limit <= aTopValue) {
        const double dY = nBottom - CHART_HEIGHT * aChart.limit / aTopValue;
        AddLine("l", aLeft, dY, nRight, dY);
    }
}

}  // namespace

std::string FormatPlot(const CReport& aReport, const std::vector<CCurve>& aCurves,
                       const std::string& aTitle) {
    return CPage(aReport, aCurves, aTitle).TakeText();
}

}  // namespace rtp_monitor
