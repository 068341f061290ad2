// Which place each stream has. Places are few and given to new streams again.
#ifndef RTP_MONITOR_STREAM_INDEX_H
#define RTP_MONITOR_STREAM_INDEX_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "StreamKey.h"

namespace rtp_monitor {

// One thread.
class CStreamIndex {
  public:
    // aMost: streams known at a time, at least 1.
    explicit CStreamIndex(uint32_t aMost) : m_dwMost(aMost) {}

    // The place of a stream that was heard just now. aIsNew: it had none. It then gets one that
    // nobody had, or, when there are aMost, that of the stream that was not heard for longest.
    uint32_t Find(const CStreamKey& aKey, bool* aIsNew);

  private:
    struct CHeard {
        CStreamKey key;
        uint32_t place;
    };
    typedef std::list<CHeard> Heard;

    const uint32_t m_dwMost;
    Heard m_heard;  // the last one heard first
    std::unordered_map<CStreamKey, Heard::iterator, CStreamKeyHash> m_byKey;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_INDEX_H
