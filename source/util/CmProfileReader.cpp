#include "CmProfileReader.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "CmAscii.h"
#include "CmSystem.h"

namespace UTIL_NS {

namespace {

std::string_view Unquoted(std::string_view aValue) {
    const bool bQuoted = aValue.size() >= 2 && (aValue.front() == '"' || aValue.front() == '\'') &&
                         aValue.back() == aValue.front();
    return bQuoted ? CmTrimmed(aValue.substr(1, aValue.size() - 2)) : aValue;
}

// The first aChar of a text, or its end.
const char* Find(char aChar, const char* aStart, const char* aEnd) {
    const void* pFound = std::memchr(aStart, aChar, static_cast<size_t>(aEnd - aStart));
    return pFound != nullptr ? static_cast<const char*>(pFound) : aEnd;
}

// Whether a text, which a "=" follows, ends with aKey and perhaps blanks. If not, the line is not
// that of the key: a test that needs no line to be taken apart.
bool EndsWithKey(std::string_view aText, std::string_view aKey) {
    aText = CmTrimmedRight(aText, CmIsBlank);
    return aText.size() >= aKey.size() &&
           CmEqualsNoCase(aText.substr(aText.size() - aKey.size()), aKey);
}

// Waits until the writer of a named pipe has written or closed it; false when that cannot be done.
bool WaitForWriter(int aFile) {
    pollfd request = {aFile, POLLIN, 0};
    return g_cmSystem.poll(&request, 1, -1) >= 0 || errno == EINTR;
}

// Whether a read that failed is to be made again.
bool IsToBeRepeated(int aFile) {
    return errno == EINTR || (errno == EAGAIN && WaitForWriter(aFile));
}

}  // namespace

bool CmIsProfileComment(std::string_view aLine) {
    const std::string_view line = CmTrimmedLeft(aLine, CmIsBlank);
    return !line.empty() && line.front() == '#';
}

CCmProfileLine CmSplitProfileLine(std::string_view aLine) {
    const std::string_view line = aLine.substr(0, aLine.find('\0'));
    CCmProfileLine split;
    if (CmIsProfileComment(line)) {
        return split;
    }
    const size_t nOpen = line.find('[');
    const size_t nClose = nOpen == line.npos ? line.npos : line.find(']');
    if (nClose != line.npos) {
        // The first "]" cuts the line; one before the "[" does not shorten the name.
        const size_t nLength = nClose > nOpen ? nClose - nOpen - 1 : line.npos;
        split.m_kind = CCmProfileLine::HEADER;
        split.m_name = line.substr(nOpen + 1, nLength);
        return split;
    }
    const size_t nEqual = line.find('=');
    if (nEqual != line.npos) {
        split.m_kind = CCmProfileLine::KEY;
        split.m_name = line.substr(0, nEqual);
        split.m_value = line.substr(nEqual + 1);
    }
    return split;
}

std::string_view CmProfileValue(std::string_view aText) {
    return Unquoted(CmTrimmed(aText));
}

int CmOpenForReading(const char* aPath) {
    int nFile;
    do {
        nFile = g_cmSystem.open(aPath, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0);
    } while (nFile < 0 && errno == EINTR);
    return nFile;
}

CCmProfileSearch::EStep CCmProfileSearch::Examine(std::string_view aLine) {
    const CCmProfileLine line = CmSplitProfileLine(aLine);
    if (line.m_kind == CCmProfileLine::HEADER) {
        if (m_bInside) {
            return EStep::OUT_OF_REACH;
        }
        m_bInside = CmEqualsNoCase(CmTrimmed(line.m_name), m_section);
        return EStep::GO_ON;
    }
    if (!m_bInside || line.m_kind != CCmProfileLine::KEY ||
        !CmEqualsNoCase(CmTrimmed(line.m_name), m_key)) {
        return EStep::GO_ON;
    }
    m_value = CmProfileValue(line.m_value);
    return EStep::FOUND;
}

bool CCmStreamLines::Next(std::string_view& aLine) {
    if (std::feof(m_pFile) || g_cmSystem.fgets(m_achLine, sizeof(m_achLine), m_pFile) == nullptr) {
        return false;
    }
    aLine = m_achLine;
    return true;
}

CCmFileLines::CCmFileLines(const char* aPath)
    : m_nFile(CmOpenForReading(aPath)),
      m_bEnd(m_nFile < 0),
      m_pNext(m_achBuffer),
      m_pEnd(m_achBuffer) {}

CCmFileLines::~CCmFileLines() {
    if (m_nFile >= 0) {
        g_cmSystem.close(m_nFile);
    }
}

bool CCmFileLines::Next(std::string_view& aLine) {
    for (;;) {
        const size_t nLeft = static_cast<size_t>(m_pEnd - m_pNext);
        const size_t nMost = std::min<size_t>(nLeft, CM_PROFILE_LINE_MAX);
        const char* const pLineEnd = static_cast<const char*>(std::memchr(m_pNext, '\n', nMost));
        if (pLineEnd != nullptr || nMost == CM_PROFILE_LINE_MAX || m_bEnd) {
            const char* const pAfter = pLineEnd != nullptr ? pLineEnd + 1 : m_pNext + nMost;
            aLine = std::string_view(m_pNext, static_cast<size_t>(pAfter - m_pNext));
            m_pNext = pAfter;
            return !aLine.empty();
        }
        Refill();
    }
}

bool CCmFileLines::SkipToBracket() {
    return SkipTo([](const char* aStart, const char* aEnd) { return Find('[', aStart, aEnd); });
}

bool CCmFileLines::SkipToBracketOrKey(std::string_view aKey) {
    return SkipTo([aKey](const char* aStart, const char* aEnd) {
        const char* const pBracket = Find('[', aStart, aEnd);
        const char* pEqual = Find('=', aStart, pBracket);
        while (pEqual != pBracket &&
               !EndsWithKey({aStart, static_cast<size_t>(pEqual - aStart)}, aKey)) {
            pEqual = Find('=', pEqual + 1, pBracket);
        }
        return pEqual;
    });
}

// Skips the lines before the one with the place that aFind finds in the text that has been read.
template <class Find>
bool CCmFileLines::SkipTo(Find aFind) {
    for (;;) {
        const char* const pFound = aFind(m_pNext, m_pEnd);
        m_pNext = LineOf(pFound);
        if (pFound != m_pEnd || m_bEnd) {
            return pFound != m_pEnd;
        }
        Refill();
    }
}

// The start of the line that aPosition, which is not before m_pNext, lies in. A line that is too
// long counts as several, all but the last of the greatest length.
const char* CCmFileLines::LineOf(const char* aPosition) const {
    const char* pLine = aPosition;
    while (pLine > m_pNext && pLine[-1] != '\n') {
        --pLine;
    }
    const size_t nOffset = static_cast<size_t>(aPosition - pLine);
    return pLine + nOffset / CM_PROFILE_LINE_MAX * CM_PROFILE_LINE_MAX;
}

// Moves the unfinished line, which is shorter than the greatest length, to the front and reads more
// after it. At the end of the file it is the last line; when a read fails it is dropped, since it
// may be cut.
void CCmFileLines::Refill() {
    const size_t nLeft = static_cast<size_t>(m_pEnd - m_pNext);
    std::memmove(m_achBuffer, m_pNext, nLeft);
    ssize_t nRead;
    do {
        nRead = g_cmSystem.read(m_nFile, m_achBuffer + nLeft, sizeof(m_achBuffer) - nLeft);
    } while (nRead < 0 && IsToBeRepeated(m_nFile));
    m_bEnd = nRead <= 0;
    m_pNext = m_achBuffer;
    m_pEnd = nRead < 0 ? m_achBuffer : m_achBuffer + nLeft + nRead;
}

}  // namespace UTIL_NS
