// Waits for what is about to happen that do not put the thread to sleep; internal.
#ifndef CM_BRIEF_WAIT_H
#define CM_BRIEF_WAIT_H

#include <algorithm>

#include "CmNsec.h"

namespace UTIL_NS {

// Whether to try something that is worth it only if it works out: after every failure it is left
// out for longer, up to 1023 times in a row. Not for several threads at a time.
class CCmLearnedTry {
  public:
    bool MayTry() {
        if (m_dwLeftOut == 0) {
            return true;
        }
        --m_dwLeftOut;
        return false;
    }
    void Note(bool aWorked) {
        m_dwPause = aWorked ? m_dwPause / 2 : std::min(m_dwPause * 2 + 1, PAUSE_AT_MOST);
        m_dwLeftOut = aWorked ? 0 : m_dwPause;
    }
    // It has done harm.
    void NoteHarm() { m_dwPause = m_dwLeftOut = PAUSE_AT_MOST; }

  private:
    static constexpr DWORD PAUSE_AT_MOST = 1023;

    DWORD m_dwPause = 0;
    DWORD m_dwLeftOut = 0;
};

// Returns whether aIsThere came to hold within aLimitNsec. The readings of the clock keep the loop
// from hammering at what the other thread is to write.
template <class ConditionType>
bool CmSpinUntil(ConditionType aIsThere, long long aLimitNsec) {
    const long long llEnd = CmMonotonicNsec() + aLimitNsec;
    while (!aIsThere()) {
        if (CmMonotonicNsec() >= llEnd) {
            return aIsThere();
        }
    }
    return true;
}

}  // namespace UTIL_NS

#endif  // CM_BRIEF_WAIT_H
