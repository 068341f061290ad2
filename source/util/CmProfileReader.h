// How a profile file is searched for one key; internal. CmConfig.h describes the format.
#ifndef CM_PROFILE_READER_H
#define CM_PROFILE_READER_H

#include <cstddef>
#include <cstdio>
#include <string_view>

#include "CmCancel.h"

namespace UTIL_NS {

// What a line holds at most, its line end included.
constexpr size_t CM_PROFILE_LINE_MAX = 2047;

bool CmIsProfileComment(std::string_view aLine);

// A line taken apart; nothing is trimmed. aLine: with or without its line end; a NUL ends what is
// seen of it.
struct CCmProfileLine {
    enum EKind { OTHER, HEADER, KEY };
    EKind m_kind = OTHER;
    std::string_view m_name;   // of the section or of the key
    std::string_view m_value;  // of the key
};
CCmProfileLine CmSplitProfileLine(std::string_view aLine);
// Trimmed and without its quotes.
std::string_view CmProfileValue(std::string_view aText);

// Examines the lines of one profile, in order, until the key is found or out of reach.
class CCmProfileSearch {
  public:
    CCmProfileSearch(const char* aSection, const char* aKey) : m_section(aSection), m_key(aKey) {}

    enum class EStep { GO_ON, FOUND, OUT_OF_REACH };
    // aLine: with or without its line end; a NUL ends what is seen of it.
    EStep Examine(std::string_view aLine);

    // While outside, only a section header changes anything; inside, also a line with the key.
    bool IsInside() const { return m_bInside; }
    std::string_view key() const { return m_key; }
    // After FOUND: trimmed and without its quotes; a part of the line examined last.
    std::string_view value() const { return m_value; }

  private:
    const std::string_view m_section;
    const std::string_view m_key;
    bool m_bInside = false;
    std::string_view m_value;
};

// The lines of a stdio stream. Its thread is not cancelled meanwhile: the stream would stay locked.
class CCmStreamLines {
  public:
    explicit CCmStreamLines(FILE* aFile) : m_pFile(aFile) {}

    bool Next(std::string_view& aLine);
    bool SkipToBracket() { return true; }
    bool SkipToBracketOrKey(std::string_view) { return true; }

  private:
    CCmDisableCancel m_DisableCancel;
    FILE* const m_pFile;
    char m_achLine[CM_PROFILE_LINE_MAX + 1];
};

// Opens a file for reading and waits for nobody: not for the writer of a named pipe either, whose
// reads then fail with EAGAIN until it writes. -1 with errno set.
int CmOpenForReading(const char* aPath);

// The lines of a file, the same as those of a stream over it, read in large pieces. A named pipe is
// read as its writer writes it; without a writer it is empty. Its thread is not cancelled
// meanwhile: the file would stay open.
class CCmFileLines {
  public:
    explicit CCmFileLines(const char* aPath);
    ~CCmFileLines();
    CCmFileLines(const CCmFileLines&) = delete;
    CCmFileLines& operator=(const CCmFileLines&) = delete;

    // aLine: valid until the next call. False when no line is left or the file cannot be read.
    bool Next(std::string_view& aLine);
    // Skips lines without a "[". False when only such lines are left.
    bool SkipToBracket();
    // Skips lines that have neither a "[" nor, in front of a "=", the key.
    bool SkipToBracketOrKey(std::string_view aKey);

  private:
    template <class Find>
    bool SkipTo(Find aFind);
    const char* LineOf(const char* aPosition) const;
    void Refill();

    // Most files are read at once; several lines of the greatest length fit.
    static constexpr size_t BUFFER_SIZE = 8 * 1024;
    static_assert(BUFFER_SIZE > 2 * CM_PROFILE_LINE_MAX, "a refill must make room for a line");

    CCmDisableCancel m_DisableCancel;
    const int m_nFile;
    bool m_bEnd;          // nothing is left to be read
    const char* m_pNext;  // start of the next line
    const char* m_pEnd;   // end of what has been read
    char m_achBuffer[BUFFER_SIZE];
};

// Runs a search over the lines; true when the key was found.
template <class Lines>
bool CmFindInProfile(Lines& aLines, CCmProfileSearch& aSearch) {
    std::string_view line;
    while (
        (aSearch.IsInside() ? aLines.SkipToBracketOrKey(aSearch.key()) : aLines.SkipToBracket()) &&
        aLines.Next(line)) {
        const CCmProfileSearch::EStep step = aSearch.Examine(line);
        if (step != CCmProfileSearch::EStep::GO_ON) {
            return step == CCmProfileSearch::EStep::FOUND;
        }
    }
    return false;
}

}  // namespace UTIL_NS

#endif  // CM_PROFILE_READER_H
