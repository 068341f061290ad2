// A thread whose loop is its own: it waits for a pipe as others wait for sockets, and is woken to
// its end. Prints what came through the pipe.

#include <kelto_util.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

namespace {

// Both ends of a pipe, closed with it.
struct CPipe {
    CPipe() : m_bOpen(pipe(m_ends) == 0) {}
    ~CPipe() {
        if (m_bOpen) {
            close(m_ends[0]);
            close(m_ends[1]);
        }
    }
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;

    int m_ends[2];  // to read from and to write to
    const bool m_bOpen;
};

class CReader : public CCmLoopThread {
  public:
    // aInput: what to read. The wake-up has a pipe of its own. aHasRead: signalled when something
    // came, or when nothing more can come.
    CReader(int aInput, CCmEventThread& aHasRead) : m_nInput(aInput), m_hasRead(aHasRead) {}
    bool IsOpen() const { return m_wake.m_bOpen; }

    void OnThreadRun() override {
        pollfd files[] = {{m_nInput, POLLIN, 0}, {m_wake.m_ends[0], POLLIN, 0}};
        ssize_t nLength = 1;
        while (nLength > 0 && !GetStopFlag() && poll(files, 2, -1) > 0) {
            if (files[0].revents != 0) {
                char achText[64];
                nLength = read(m_nInput, achText, sizeof(achText));
                if (nLength > 0) {
                    std::fwrite(achText, 1, static_cast<size_t>(nLength), stdout);
                }
                m_hasRead.Signal();
            }
        }
    }

  protected:
    // The byte stays in the pipe, so that a wait that begins later ends as well.
    void OnWakeUp() override {
        if (write(m_wake.m_ends[1], "", 1) != 1) {
            std::perror("wake-up");
        }
    }

  private:
    const int m_nInput;
    CCmEventThread& m_hasRead;
    const CPipe m_wake;
};

}  // namespace

int main() {
    CCmEventThread hasRead(1);  // manual reset: stays signalled
    const CPipe input;          // both outlive the thread
    if (!input.m_bOpen) {
        return EXIT_FAILURE;
    }
    auto* pReader = new CReader(input.m_ends[0], hasRead);
    CCmThreadPtr reader(pReader);  // stops, joins and frees
    if (!pReader->IsOpen() || CM_FAILED(reader->Create(1))) {
        return EXIT_FAILURE;
    }
    CCmTimeValue tvLimit(10);
    const bool bRead = write(input.m_ends[1], "through the pipe\n", 17) == 17 &&
                       CM_SUCCEEDED(hasRead.Wait(&tvLimit));
    return CM_SUCCEEDED(CmEndThread(reader.release())) && bRead ? EXIT_SUCCESS : EXIT_FAILURE;
}
