#include "Series.h"

#include <algorithm>

namespace rtp_monitor {

namespace {

CPoint PointOf(const CStreamStats& aStats) {
    const CStreamReport report = aStats.Report();
    return {report.bytes, report.expected, report.lost, report.jitterMs};
}

}  // namespace

void CSeries::CloseSteps(int64_t aArrivalUsec, const CStreamStats& aStats) {
    if (m_llStepUsec == 0) {
        m_llStartUsec = aArrivalUsec;
        m_llStepUsec = FIRST_STEP_USEC;
        m_llStepEndUsec = aArrivalUsec + FIRST_STEP_USEC;
        return;
    }
    const CPoint point = PointOf(aStats);
    // First there must be room for all steps of a long silence.
    while ((aArrivalUsec - m_llStartUsec) / m_llStepUsec > static_cast<int64_t>(MAX_POINTS)) {
        Halve();
    }
    while (aArrivalUsec >= m_llStepEndUsec) {
        if (m_points.size() == MAX_POINTS) {
            Halve();
        } else {
            m_points.push_back(point);
            m_llStepEndUsec += m_llStepUsec;
        }
    }
}

// The later of two points is where both of them ended; the jitter shown is the larger. The half of
// a step that is over comes again when all of it is.
void CSeries::Halve() {
    const size_t nHalf = m_points.size() / 2;
    for (size_t i = 0; i < nHalf; ++i) {
        const double dJitterMs = std::max(m_points[2 * i].jitterMs, m_points[2 * i + 1].jitterMs);
        m_points[i] = m_points[2 * i + 1];
        m_points[i].jitterMs = dJitterMs;
    }
    m_points.resize(nHalf);
    m_llStepUsec *= 2;
    m_llStepEndUsec = m_llStartUsec + m_llStepUsec * static_cast<int64_t>(nHalf + 1);
}

std::vector<CPoint> CSeries::Points(const CStreamStats& aStats) const {
    std::vector<CPoint> points = m_points;
    points.push_back(PointOf(aStats));
    return points;
}

}  // namespace rtp_monitor
