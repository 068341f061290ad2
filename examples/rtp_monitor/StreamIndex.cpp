#include "StreamIndex.h"

namespace rtp_monitor {

uint32_t CStreamIndex::Find(const CStreamKey& aKey, bool* aIsNew) {
    *aIsNew = false;
    if (!m_heard.empty() && m_heard.front().key == aKey) {
        return m_heard.front().place;
    }
    const auto found = m_byKey.find(aKey);
    if (found != m_byKey.end()) {
        m_heard.splice(m_heard.begin(), m_heard, found->second);
        return m_heard.front().place;
    }
    *aIsNew = true;
    if (m_heard.size() < m_dwMost) {
        m_heard.push_front({aKey, static_cast<uint32_t>(m_heard.size())});
    } else {
        m_byKey.erase(m_heard.back().key);
        m_heard.splice(m_heard.begin(), m_heard, std::prev(m_heard.end()));
        m_heard.front().key = aKey;
    }
    m_byKey.emplace(aKey, m_heard.begin());
    return m_heard.front().place;
}

}  // namespace rtp_monitor
