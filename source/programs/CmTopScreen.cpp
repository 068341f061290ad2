#include "CmTopScreen.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace UTIL_NS {

namespace {

// The second screen without a cursor, and the first with it.
constexpr char ENTER[] = "\033[?1049h\033[?25l\033[2J";
constexpr char LEAVE[] = "\033[0m\033[?25h\033[?1049l";
constexpr char HOME[] = "\033[H";
constexpr char CLEAR_LINE_END[] = "\033[K";
constexpr char CLEAR_SCREEN_END[] = "\033[J";
constexpr int64_t USEC_PER_SEC = 1000000;

constexpr int ENDS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int CRASHES[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};

volatile sig_atomic_t s_nEnd = 0;
volatile sig_atomic_t s_bStop = 0;
volatile sig_atomic_t s_bSize = 0;
termios s_before = {};

// A terminal that is held up (Ctrl-S) holds up the write, so that signals come then as well.
bool Write(std::string_view aText) {
    sigset_t none;
    sigset_t before;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, &before);
    bool bGood = true;
    while (!aText.empty() && bGood && s_nEnd == 0) {
        const ssize_t nWritten = write(STDOUT_FILENO, aText.data(), aText.size());
        if (nWritten > 0) {
            aText.remove_prefix(static_cast<size_t>(nWritten));
        } else if (errno == EAGAIN) {
            fd_set files;
            FD_ZERO(&files);
            FD_SET(STDOUT_FILENO, &files);
            bGood =
                select(STDOUT_FILENO + 1, nullptr, &files, nullptr, nullptr) >= 0 || errno == EINTR;
        } else {
            bGood = errno == EINTR;
        }
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return bGood;
}

bool Enter() {
    termios now = s_before;
    now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    now.c_cc[VMIN] = 1;
    now.c_cc[VTIME] = 0;
    return tcsetattr(STDIN_FILENO, TCSAFLUSH, &now) == 0 && Write(ENTER);
}

// Calls nothing that a signal handler may not. aLetsGo: of a terminal that the user holds (Ctrl-S),
// which would hold up a process that a signal ends. To start what was not stopped by this call has
// no effect.
void Leave(bool aLetsGo) {
    if (aLetsGo) {
        tcflow(STDOUT_FILENO, TCOOFF);
        tcflow(STDOUT_FILENO, TCOON);
    }
    const ssize_t nWritten = write(STDOUT_FILENO, LEAVE, sizeof(LEAVE) - 1);
    static_cast<void>(nWritten);  // nothing is left to do where it fails
    tcsetattr(STDIN_FILENO, TCSANOW, &s_before);
}

void OnEnd(int aSignal) {
    s_nEnd = aSignal;
}

void OnStop(int /*aSignal*/) {
    s_bStop = 1;
}

void OnSize(int /*aSignal*/) {
    s_bSize = 1;
}

// The signal comes again, with what it does by default.
void OnCrash(int aSignal) {
    Leave(true);
    raise(aSignal);
}

void Handle(int aSignal, void (*aHandler)(int), int aFlags) {
    struct sigaction action = {};
    action.sa_handler = aHandler;
    action.sa_flags = aFlags;
    sigaction(aSignal, &action, nullptr);  // fails for numbers of no signal alone
}

// Signals come while Wait waits and while the terminal takes what is written, at no other time.
sigset_t WaitedFor() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : ENDS) {
        sigaddset(&signals, nSignal);
    }
    sigaddset(&signals, SIGTSTP);
    sigaddset(&signals, SIGWINCH);
    return signals;
}

winsize Size() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size : winsize();
}

}  // namespace

bool CCmTopScreen::IsThere() {
    const char* pszKind = std::getenv("TERM");
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 && pszKind != nullptr &&
           *pszKind != '\0' && std::string_view(pszKind) != "dumb" &&
           tcgetattr(STDIN_FILENO, &s_before) == 0;
}

CCmTopScreen::CCmTopScreen() {
    const sigset_t signals = WaitedFor();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    for (const int nSignal : ENDS) {
        Handle(nSignal, OnEnd, 0);
    }
    for (const int nSignal : CRASHES) {
        Handle(nSignal, OnCrash, static_cast<int>(SA_RESETHAND));
    }
    Handle(SIGTSTP, OnStop, 0);
    Handle(SIGWINCH, OnSize, 0);
    Handle(SIGPIPE, SIG_IGN, 0);
    Enter();
}

CCmTopScreen::~CCmTopScreen() {
    Leave(s_nEnd != 0);
    for (const int nSignal : CRASHES) {
        Handle(nSignal, SIG_DFL, 0);
    }
}

size_t CCmTopScreen::Columns() const {
    const winsize size = Size();
    return size.ws_col > 0 ? size.ws_col : 80;
}

size_t CCmTopScreen::Rows() const {
    const winsize size = Size();
    return size.ws_row > 0 ? size.ws_row : 24;
}

// Line by line over what is there, in one piece, so that nothing flickers; no line end after the
// last one, which in the last row would scroll.
bool CCmTopScreen::Show(const std::string& aLines) {
    std::string strScreen = HOME;
    const std::string_view lines =
        std::string_view(aLines).substr(0, aLines.find_last_not_of('\n') + 1);
    for (const char ch : lines) {
        strScreen += ch == '\n' ? std::string(CLEAR_LINE_END) + "\r\n" : std::string(1, ch);
    }
    return Write(strScreen + CLEAR_LINE_END + CLEAR_SCREEN_END);
}

CCmTopScreen::EWhat CCmTopScreen::Wait(int64_t aUsec, char* aKey) {
    fd_set files;
    FD_ZERO(&files);
    FD_SET(STDIN_FILENO, &files);
    timespec wait = {};
    wait.tv_sec = static_cast<time_t>(std::max<int64_t>(aUsec, 0) / USEC_PER_SEC);
    wait.tv_nsec = static_cast<long>(std::max<int64_t>(aUsec, 0) % USEC_PER_SEC) * 1000;
    sigset_t none;
    sigemptyset(&none);
    // One that came while something was written would not end the wait.
    const bool bHasCome = s_nEnd != 0 || s_bStop != 0 || s_bSize != 0;
    const int nReady =
        bHasCome ? 0 : pselect(STDIN_FILENO + 1, &files, nullptr, nullptr, &wait, &none);
    if (s_nEnd != 0) {
        return EWhat::END;
    }
    if (s_bStop != 0) {
        s_bStop = 0;
        Leave(false);
        kill(getpid(), SIGSTOP);
        Enter();
        return EWhat::SIZE;
    }
    if (s_bSize != 0) {
        s_bSize = 0;
        return EWhat::SIZE;
    }
    if (nReady <= 0) {
        return nReady == 0 ? EWhat::TIME : EWhat::SIZE;
    }
    return read(STDIN_FILENO, aKey, 1) == 1 ? EWhat::KEY : EWhat::END;
}

int CCmTopScreen::Signal() {
    return s_nEnd;
}

}  // namespace UTIL_NS
