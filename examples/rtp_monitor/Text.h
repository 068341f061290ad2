// Text made of figures.
#ifndef RTP_MONITOR_TEXT_H
#define RTP_MONITOR_TEXT_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace rtp_monitor {

// As printf, of any length.
template <typename... Args>
std::string Format(const char* aFormat, Args... aArgs) {
    char szText[256];
    const int nLength = std::snprintf(szText, sizeof(szText), aFormat, aArgs...);
    if (nLength < static_cast<int>(sizeof(szText))) {
        return nLength < 0 ? std::string() : std::string(szText, static_cast<size_t>(nLength));
    }
    std::string sText(static_cast<size_t>(nLength) + 1, '\0');
    std::snprintf(sText.data(), sText.size(), aFormat, aArgs...);
    sText.pop_back();
    return sText;
}

// For %llu, whatever the type of a counter is.
inline unsigned long long Number(uint64_t aNumber) {
    return aNumber;
}

// Names of files may hold anything; to a terminal control characters would be commands.
inline std::string Printable(std::string aText) {
    for (char& ch : aText) {
        const auto by = static_cast<unsigned char>(ch);
        ch = by < 0x20 || by == 0x7F ? '?' : ch;
    }
    return aText;
}

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_TEXT_H
