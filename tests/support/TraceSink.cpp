#include "support/TraceSink.h"

#include <cctype>
#include <mutex>

namespace kelto_test {

namespace {

// Never destroyed: lines may come while the program ends.
std::mutex& g_mutex = *new std::mutex;
std::vector<TraceLine>& g_lines = *new std::vector<TraceLine>;

void Capture(unsigned long aLevel, const char* aText, unsigned int aLength) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back(TraceLine{aLevel, aText, aLength});
}

}  // namespace

ScopedTraceSink::ScopedTraceSink() : m_pfnPrevious(UTIL_NS::g_util_trace_sink.load()) {
    clear();
    set_util_external_trace_sink(Capture);
}

ScopedTraceSink::~ScopedTraceSink() {
    set_util_external_trace_sink(m_pfnPrevious);
    clear();
}

std::vector<TraceLine> ScopedTraceSink::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

size_t ScopedTraceSink::count(const std::string& aText) const {
    size_t nCount = 0;
    for (const TraceLine& line : lines()) {
        nCount += line.text.find(aText) != std::string::npos ? 1 : 0;
    }
    return nCount;
}

void ScopedTraceSink::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<TraceLine>().swap(g_lines);  // with its memory, which tests count
}

std::string MaskAddresses(const std::string& aText) {
    std::string sMasked;
    for (size_t i = 0; i < aText.size(); ++i) {
        sMasked += aText[i];
        if (aText[i] == 'x' && i > 0 && aText[i - 1] == '0') {
            sMasked += '#';
            while (i + 1 < aText.size() &&
                   std::isxdigit(static_cast<unsigned char>(aText[i + 1]))) {
                ++i;
            }
        }
    }
    return sMasked;
}

}  // namespace kelto_test
