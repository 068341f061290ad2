/// A profile file that is read once and answers for itself.
///
///     CCmConfigReader config;
///     config.ReadMain();
///     int nWorkers = 2;
///     CCmTimeValue tvInterval(1);
///     config.GetNumber("Host", "Workers", nWorkers, 1, 64);
///     config.GetDuration("Host", "Interval", tvInterval, CCmTimeValue(0, 100000));
///     for (const CCmString& strSentence : config.problems()) {
///         puts(strSentence.c_str());
///     }
///     // kelto.cfg:7: Workers = "two" in section [Host] should be a whole number from 1 to 64
///
/// The grammar is that of CmConfig.h, to the letter: what get_string_from_profile finds there is
/// found here, but for one thing: values are never cut. ReadMain also takes a single ";" off the
/// end of a value, as get_string_param does.
///
/// A snapshot: a change of the file shows when it is read again, not before. One thread at a time;
/// nothing throws or traces, and only Read and ReadMain touch the file, HasChanged its attributes.
/// \file
#ifndef CM_CONFIG_READER_H
#define CM_CONFIG_READER_H

#include <cstdio>
#include <limits>
#include <string_view>
#include <type_traits>
#include <vector>

#include "CmBase.h"
#include "CmPrivateRoom.h"
#include "CmStrict.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// One file as it was when it was read, and what was asked of it since.
class CM_UTIL_EXPORT CCmConfigReader {
  public:
    /// Empty, as if it had read an empty file.
    CCmConfigReader();
    /// What it handed out is gone with it.
    ~CCmConfigReader();
    CCmConfigReader(const CCmConfigReader&) = delete;
    CCmConfigReader& operator=(const CCmConfigReader&) = delete;

    /// Opens the file once and takes it as it was at one moment, before an edit or after it; where
    /// it was written to just now, waits up to a second for that to end. Values handed out before
    /// are gone then, and so are the problems. CM_OK. CM_ERROR_NOT_FOUND: there is no such file;
    /// the reader is empty. With the reader as it was but for a new problem: CM_ERROR_FAILURE (it
    /// cannot be read), CM_ERROR_NOT_AVAILABLE (it does not stop changing), CM_ERROR_OUT_OF_MEMORY,
    /// CM_ERROR_INVALID_ARG (aPath is null).
    CmResult Read(const char* aPath);
    /// The main configuration file (CmConfig.h).
    CmResult ReadMain();

    /// Whether the file is another one than was read: its place, size or time of change differ, it
    /// has gone or it has come. True before the first Read.
    bool HasChanged() const;

    /// Makes the trace facility take its settings from this snapshot of the main configuration
    /// file, so that it need not open the file itself. refresh_trace_config reads the file again.
    /// Before the first thread of the library, the watch (CmWatch.h) takes its settings from it,
    /// too, and is started if they say so. CM_ERROR_NOT_INITIALIZED: the main file has not been
    /// read.
    CmResult UseForTrace();

    // ---- Look-ups. CM_OK with the value stored. CM_ERROR_NOT_FOUND: the key is absent.
    // CM_ERROR_INVALID_ARG: it is there and its value, an empty one among them, is bad; problems()
    // then says so. Nothing is stored but with CM_OK, so that a variable keeps its default.
    // CM_ERROR_OUT_OF_MEMORY: as INVALID_ARG, but the sentence could not be made.

    /// The value, which may be empty, as long as the snapshot lives.
    CmResult GetText(std::string_view aSection, std::string_view aKey, std::string_view& aValue);
    /// A decimal number of any integer type, as CmParseNumber has it.
    template <class Integer>
    CmResult GetNumber(std::string_view aSection, std::string_view aKey, Integer& aNumber,
                       Integer aMin = std::numeric_limits<Integer>::min(),
                       Integer aMax = std::numeric_limits<Integer>::max());
    /// As CmParseBool has it.
    CmResult GetBool(std::string_view aSection, std::string_view aKey, bool& aValue);
    /// As CmParseDuration has it.
    CmResult GetDuration(std::string_view aSection, std::string_view aKey, CCmTimeValue& aDuration,
                         const CCmTimeValue& aMin = CCmTimeValue(),
                         const CCmTimeValue& aMax = CCmTimeValue(INT64_MAX));
    /// As CmParseSize has it.
    CmResult GetSize(std::string_view aSection, std::string_view aKey, uint64_t& aBytes,
                     uint64_t aMin = 0, uint64_t aMax = UINT64_MAX);
    /// Of either family, without brackets: a line with "[" and "]" is a section header.
    CmResult GetAddress(std::string_view aSection, std::string_view aKey, CCmIpAddress& aAddress);

    /// For a value that the host itself finds bad: records the sentence and returns
    /// CM_ERROR_INVALID_ARG. aExpected completes "should be ...". CM_ERROR_NOT_FOUND, with nothing
    /// recorded: the key is absent.
    CmResult Refuse(std::string_view aSection, std::string_view aKey, const char* aExpected);

    // ---- What is wrong with the file

    /// A sentence for each bad value that was asked for, in the order of asking: file, line, key,
    /// value, section, and what was expected.
    const std::vector<CCmString>& problems() const;

    /// Appends a sentence for each line with a key that nobody has asked for, a typing error
    /// perhaps, or that nobody can reach: a second section or key of one name, a line before all
    /// sections. aSection: of this section alone, unless it is empty. CM_OK or
    /// CM_ERROR_OUT_OF_MEMORY.
    CmResult ListUnasked(std::string_view aSection, std::vector<CCmString>& aSentences) const;

  private:
    struct CReaderState;
    CCmPrivateRoomT<CReaderState, 512> m_Private;
};

template <class Integer>
CmResult CCmConfigReader::GetNumber(std::string_view aSection, std::string_view aKey,
                                    Integer& aNumber, Integer aMin, Integer aMax) {
    std::string_view value;
    const CmResult rv = GetText(aSection, aKey, value);
    if (CM_FAILED(rv) || CmParseNumber(value, aNumber, aMin, aMax)) {
        return rv;
    }
    char szExpected[80];
    if constexpr (std::is_signed<Integer>::value) {
        std::snprintf(szExpected, sizeof(szExpected), "a whole number from %lld to %lld",
                      static_cast<long long>(aMin), static_cast<long long>(aMax));
    } else {
        std::snprintf(szExpected, sizeof(szExpected), "a whole number from %llu to %llu",
                      static_cast<unsigned long long>(aMin), static_cast<unsigned long long>(aMax));
    }
    return Refuse(aSection, aKey, szExpected);
}

}  // namespace UTIL_NS

#endif  // CM_CONFIG_READER_H
