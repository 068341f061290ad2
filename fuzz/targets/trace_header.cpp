// A trace file that begins with any header: nothing outside the file's rules is written.
#include <algorithm>
#include <climits>
#include <cstring>

#include "../Fuzz.h"
#include "CmT120TraceFile.h"
#include "support/Clock.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

constexpr size_t HEADER_LENGTH = 32;
constexpr long POSITION_READ_BACK = 100000;
constexpr char LINE_END[] = "text\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("trace");
    static const kelto_test::ScopedClock clock(1700000000);  // every run writes the same line
    kelto_fuzz::Input input(aData, aSize);
    const unsigned char bShared = input.Byte() % 2 != 0 ? 1 : 0;
    const unsigned long ulLimit = input.Byte() % 2 != 0 ? input.Bits<uint16_t>() : 0;
    const std::string sBefore = input.Rest();
    char szHeader[HEADER_LENGTH + 1] = {};
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the array was cleared
    memcpy(szHeader, sBefore.data(), std::min(sBefore.size(), HEADER_LENGTH));
    const long lBefore = strtol(szHeader, nullptr, 10);
    if (lBefore > POSITION_READ_BACK && lBefore <= LONG_MAX / 2) {
        return 0;  // a file with so large a hole takes too long to read back
    }
    file.SetContent(sBefore);
    {
        CCmT120TraceFile trace(file.path().c_str(), ulLimit, bShared, 0);
        Require(trace.attach() == CM_OK, "attached");
        trace.write("tag", "module", "text");
    }
    const std::string sAfter = file.Content();
    if (lBefore < 0 || lBefore > POSITION_READ_BACK) {
        Require(sAfter == sBefore, "an impossible position leaves the file alone");
        return 0;
    }
    const bool bTop =
        bShared != 0 && ulLimit != 0 && static_cast<unsigned long>(lBefore) >= ulLimit;
    const size_t nStart = bTop ? HEADER_LENGTH : static_cast<size_t>(lBefore);
    const auto nEnd = static_cast<size_t>(strtol(sAfter.c_str(), nullptr, 10));
    Require(nEnd > nStart && nEnd < sAfter.size(), "the position moved by a line");
    Require(sAfter.compare(nEnd - strlen(LINE_END), strlen(LINE_END), LINE_END) == 0, "the line");
    Require(sAfter.compare(nEnd, 3, "***") == 0, "the marker");
    if (nStart > HEADER_LENGTH && sBefore.size() > HEADER_LENGTH) {
        const size_t nKept = std::min(nStart, sBefore.size()) - HEADER_LENGTH;
        Require(sAfter.compare(HEADER_LENGTH, nKept, sBefore, HEADER_LENGTH, nKept) == 0,
                "what stands before stays");
    }
    return 0;
}
