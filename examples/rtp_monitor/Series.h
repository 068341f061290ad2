// How the figures of one stream went over its life, in a bounded number of points.
#ifndef RTP_MONITOR_SERIES_H
#define RTP_MONITOR_SERIES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "StreamKey.h"
#include "StreamStats.h"

namespace rtp_monitor {

// Where a stream stood at the end of a step.
struct CPoint {
    uint64_t bytes = 0;
    uint64_t expected = 0;
    uint64_t lost = 0;
    double jitterMs = 0;
};

class CSeries {
  public:
    static constexpr size_t MAX_POINTS = 120;
    static constexpr int64_t FIRST_STEP_USEC = 100000;

    // To be called before aStats gets a packet that arrived then: notes where it stood at the end
    // of each step that is over. When there is no room for more points, two become one.
    void OnTime(int64_t aArrivalUsec, const CStreamStats& aStats) {
        if (aArrivalUsec >= m_llStepEndUsec) {
            CloseSteps(aArrivalUsec, aStats);
        }
    }
    // All steps, with the last one, which is not over, as far as it has come.
    std::vector<CPoint> Points(const CStreamStats& aStats) const;
    int64_t startUsec() const { return m_llStartUsec; }
    int64_t stepUsec() const { return m_llStepUsec; }

  private:
    void CloseSteps(int64_t aArrivalUsec, const CStreamStats& aStats);
    void Halve();

    int64_t m_llStartUsec = 0;
    int64_t m_llStepUsec = 0;  // 0: there was no packet yet
    int64_t m_llStepEndUsec = INT64_MIN;
    std::vector<CPoint> m_points;
};

// The same, ready to be drawn.
struct CCurve {
    CStreamKey key;
    int64_t startUsec = 0;
    int64_t stepUsec = 0;
    std::vector<CPoint> points;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_SERIES_H
