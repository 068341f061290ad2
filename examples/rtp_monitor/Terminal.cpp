#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace rtp_monitor {

namespace {

constexpr size_t DEFAULT_COLUMNS = 80;  // of a terminal that does not know its size
constexpr size_t DEFAULT_ROWS = 24;
constexpr char ENTER_ALTERNATE[] = "\033[?1049h\033[?25l\033[2J";  // and hide the cursor
constexpr char LEAVE_ALTERNATE[] = "\033[?25h\033[?1049l";
constexpr char HOME[] = "\033[H";
constexpr char CLEAR_TO_LINE_END[] = "\033[K";
constexpr char CLEAR_TO_SCREEN_END[] = "\033[J";

std::string_view Environment(const char* aName) {
    const char* pszValue = std::getenv(aName);
    return pszValue != nullptr ? pszValue : std::string_view();
}

winsize SizeOf(int aFile) {
    winsize size = {};
    return ioctl(aFile, TIOCGWINSZ, &size) == 0 ? size : winsize();
}

}  // namespace

CTerminal::CTerminal(COutput& aOutput)
    : m_output(aOutput),
      m_bTerminal(isatty(aOutput.descriptor()) != 0),
      m_bScreen(m_bTerminal && !Environment("TERM").empty() && Environment("TERM") != "dumb"),
      m_bColour(m_bScreen && Environment("NO_COLOR").empty()) {}

size_t CTerminal::Columns() const {
    const winsize size = SizeOf(m_output.descriptor());
    return size.ws_col > 0 ? size.ws_col : DEFAULT_COLUMNS;
}

size_t CTerminal::Rows() const {
    const winsize size = SizeOf(m_output.descriptor());
    return size.ws_row > 0 ? size.ws_row : DEFAULT_ROWS;
}

// Line by line over what is there, in one piece, so that nothing flickers. No line end after the
// last one: in the last row it would scroll.
void CTerminal::Show(const std::string& aLines) {
    std::string sScreen = m_bAlternate ? HOME : std::string(ENTER_ALTERNATE) + HOME;
    m_bAlternate = true;
    for (const char ch : aLines) {
        sScreen += ch == '\n' ? std::string(CLEAR_TO_LINE_END) + "\n" : std::string(1, ch);
    }
    if (!aLines.empty() && aLines.back() == '\n') {
        sScreen.pop_back();
    }
    m_output.Write(sScreen + CLEAR_TO_SCREEN_END);
}

void CTerminal::Leave() {
    if (m_bAlternate) {
        m_bAlternate = false;
        m_output.Write(LEAVE_ALTERNATE);
    }
}

}  // namespace rtp_monitor
