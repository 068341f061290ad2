// Two objects around a worker: one ends before the events that were posted for it, another bounds
// how many are on their way. Prints how many frames were encoded and how many were dropped.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace UTIL_NS;

namespace {

constexpr DWORD MOST_ON_THE_WAY = 8;
constexpr int FRAMES = 1000;

class CEncoder {
  public:
    // aWorker must run.
    explicit CEncoder(CCmWorker& aWorker) : m_poster(*aWorker.GetEventQueue(), MOST_ON_THE_WAY) {}

    // False: there was no room for it.
    bool Encode(int aFrame) {
        return CM_SUCCEEDED(
            m_poster.TryPost(m_guard.Wrap([this, aFrame] { m_nLast = aFrame, ++m_nEncoded; })));
    }
    int encoded() const { return m_nEncoded; }

  private:
    int m_nLast = 0;
    int m_nEncoded = 0;
    CCmBoundedPoster m_poster;
    CCmLifeGuard m_guard;  // last: it ends first, and none of the callables runs afterwards
};

}  // namespace

int main() {
    CCmWorker worker;
    if (CM_FAILED(worker.Result())) {
        return EXIT_FAILURE;
    }
    auto pEncoder = std::make_unique<CEncoder>(worker);
    int nDropped = 0;
    for (int nFrame = 1; nFrame <= FRAMES; ++nFrame) {
        nDropped += pEncoder->Encode(nFrame) ? 0 : 1;
    }
    if (CM_FAILED(worker.Drain())) {
        return EXIT_FAILURE;
    }
    const int nEncoded = pEncoder->encoded();
    std::printf("%d frames encoded, %d dropped\n", nEncoded, nDropped);

    const bool bPosted = pEncoder->Encode(FRAMES + 1);  // nothing else is on its way
    pEncoder.reset();  // what was posted a moment ago has run or never will
    return bPosted && nEncoded + nDropped == FRAMES ? EXIT_SUCCESS : EXIT_FAILURE;
}
