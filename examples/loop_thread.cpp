// A thread whose loop is its own: it waits for a pipe as others wait for sockets, and is woken to
// its end. Prints what came through the pipe.

#include <kelto_util.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

namespace {

class Reader : public CCmLoopThread {
  public:
    // aInput: what to read. The wake-up has a pipe of its own.
    explicit Reader(int aInput) : m_nInput(aInput) { m_bOpen = pipe(m_wake) == 0; }
    ~Reader() override {
        if (m_bOpen) {
            close(m_wake[0]);
            close(m_wake[1]);
        }
    }
    bool IsOpen() const { return m_bOpen; }

    void OnThreadRun() override {
        pollfd files[] = {{m_nInput, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        while (!GetStopFlag() && poll(files, 2, -1) > 0) {
            char achText[64];
            const ssize_t nLength = files[0].revents != 0 ? read(m_nInput, achText, 64) : 0;
            std::printf("%.*s", static_cast<int>(nLength), achText);
        }
    }

  protected:
    void OnWakeUp() override {
        if (write(m_wake[1], "", 1) != 1) {
            std::perror("wake-up");
        }
    }

  private:
    const int m_nInput;
    int m_wake[2];
    bool m_bOpen;
};

}  // namespace

int main() {
    int input[2];
    if (pipe(input) != 0) {
        return EXIT_FAILURE;
    }
    auto* pReader = new Reader(input[0]);
    CCmThreadPtr reader(pReader);  // stops, joins and frees
    if (!pReader->IsOpen() || CM_FAILED(reader->Create(1))) {
        return EXIT_FAILURE;
    }
    const bool bWritten = write(input[1], "through the pipe\n", 17) == 17;
    SleepMs(20);
    return bWritten && CM_SUCCEEDED(CmEndThread(reader.release())) ? EXIT_SUCCESS : EXIT_FAILURE;
}
