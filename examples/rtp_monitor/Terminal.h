// The terminal, if there is one, that results are shown on.
#ifndef RTP_MONITOR_TERMINAL_H
#define RTP_MONITOR_TERMINAL_H

#include <string>

#include "Output.h"

namespace rtp_monitor {

// One thread at a time.
class CTerminal {
  public:
    // aOutput must outlive it.
    explicit CTerminal(COutput& aOutput);

    // Whether the output is one at all.
    bool IsTerminal() const { return m_bTerminal; }
    // Whether it takes more than lines: it can be cleared and has a second screen.
    bool IsScreen() const { return m_bScreen; }
    // Unless the user has set NO_COLOR.
    bool HasColour() const { return m_bColour; }
    // As they are now.
    size_t Columns() const;
    size_t Rows() const;

    // Shows lines on the alternate screen, in place of what is there; the ordinary one stays as it
    // is. At most Rows() lines of at most Columns() characters.
    void Show(const std::string& aLines);
    // Back to the ordinary screen. Nothing happens unless Show has left it.
    void Leave();

  private:
    COutput& m_output;
    const bool m_bTerminal;
    const bool m_bScreen;
    const bool m_bColour;
    bool m_bAlternate = false;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_TERMINAL_H
