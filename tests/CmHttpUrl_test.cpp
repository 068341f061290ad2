#include "CmHttpUrl.h"

#include <gtest/gtest.h>
#include <time.h>

#include <random>

#include "CmT120Trace.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::MaskAddresses;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedTraceSink;

// Longer than a string holds without allocating.
constexpr char LONG_HOST[] = "a-host-with-quite-a-long-name.example.test";

TEST(CmHttpUrl, IsEmpty_WhenNew) {
    CCmHttpUrl url;
    EXPECT_EQ(url.GetScheme(), "");
    EXPECT_EQ(url.GetHostName(), "");
    EXPECT_EQ(url.GetPath(), "");
    EXPECT_EQ(url.GetPort(), 0);
    EXPECT_EQ(url.GetDefaultPort(), 0);
    EXPECT_EQ(url.GetReference(), 0u);
}

TEST(CmHttpUrl, PrintsSeparators_WhenNew) {
    CCmHttpUrl url;
    EXPECT_EQ(url.GetAsciiSpec(), ":///");
}

TEST(CmHttpUrl, IsDestroyed_WhenLastReferenceIsReleased) {
    // Nothing else may allocate in between, so no line reaches the trace facility.
    ScopedTraceSink sink;
    CCmHttpUrl* pUrl = new CCmHttpUrl;
    EXPECT_EQ(pUrl->AddReference(), 1u);
    EXPECT_TRUE(pUrl->SetNameAndPort(LONG_HOST));
    const long lLive = kelto_test::LiveAllocations();
    EXPECT_EQ(pUrl->ReleaseReference(), 0u);
    // The object and its host.
    EXPECT_EQ(kelto_test::LiveAllocations(), lLive - 2);
}

TEST(CmHttpUrl, NamesTheSchemes) {
    EXPECT_STREQ(CCmHttpUrl::s_pszSchemeHttp, "http");
    EXPECT_STREQ(CCmHttpUrl::s_pszSchemeHttps, "https");
    EXPECT_STREQ(CCmHttpUrl::s_pszSchemeFile, "file");
    EXPECT_STREQ(CCmHttpUrl::s_pszSchemeWS, "ws");
    EXPECT_STREQ(CCmHttpUrl::s_pszSchemeWSS, "wss");
    EXPECT_STREQ(CCmHttpUrl::get_pszSchemeHttp(), "http");
    EXPECT_STREQ(CCmHttpUrl::get_pszSchemeHttps(), "https");
    EXPECT_STREQ(CCmHttpUrl::get_pszSchemeFile(), "file");
}

TEST(CmHttpUrl, TakesAllPartsApart_WhenBlanksAreAround) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("  HTTP://h:8080/a/b "));
    EXPECT_EQ(url.GetScheme(), "http");
    EXPECT_EQ(url.GetHostName(), "h");
    EXPECT_EQ(url.GetPort(), 8080);
    EXPECT_EQ(url.GetPath(), "/a/b");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h:8080/a/b");
}

TEST(CmHttpUrl, TakesDefaults_WhenTheHostIsAlone) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("https://h"));
    EXPECT_EQ(url.GetPort(), 443);
    EXPECT_EQ(url.GetPath(), "/");
    EXPECT_EQ(url.GetAsciiSpec(), "https://h/");
    EXPECT_EQ(url.GetNameAndPort(1), "h:443");
}

TEST(CmHttpUrl, TakesDefaultPort_WhenPortIsZero) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("ws://h:0/x"));
    EXPECT_EQ(url.GetPort(), 80);
}

TEST(CmHttpUrl, Fails_WhenTheHostIsEmpty) {
    CCmHttpUrl url;
    EXPECT_FALSE(url.Init("http://:80/"));
}

TEST(CmHttpUrl, SplitsAtFirstColon_WhenTheAddressIsInBrackets) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("http://[::1]:80/"));
    EXPECT_EQ(url.GetHostName(), "[");
}

TEST(CmHttpUrl, TracesTheText_WhenInitialised) {
    ScopedTraceSink sink;
    CCmHttpUrl url;
    url.Init(" http://h/x ");
    ASSERT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.lines()[0].level, 20u);
    EXPECT_EQ(MaskAddresses(sink.lines()[0].text),
              "UTIL INFO: CCmHttpUrl::Init aSepc =  http://h/x  this=0x#");
}

TEST(CmHttpUrl, TracesOwnAddress_WhenInitialised) {
    ScopedTraceSink sink;
    CCmHttpUrl url;
    url.Init("");
    char achAddress[32];
    snprintf(achAddress, sizeof(achAddress), "0x%lx", reinterpret_cast<unsigned long>(&url));
    EXPECT_EQ(sink.lines().at(0).text,
              std::string("UTIL INFO: CCmHttpUrl::Init aSepc =  this=") + achAddress);
}

TEST(CmHttpUrl, TracesOnlyTheText_WhenEmpty) {
    ScopedTraceSink sink;
    CCmHttpUrl url;
    EXPECT_FALSE(url.Init(""));
    EXPECT_FALSE(url.Init("   "));
    ASSERT_EQ(sink.lines().size(), 2u);
    EXPECT_EQ(MaskAddresses(sink.lines()[1].text),
              "UTIL INFO: CCmHttpUrl::Init aSepc =     this=0x#");
}

TEST(CmHttpUrl, TracesAnError_WhenTheSchemeIsUnknown) {
    ScopedTraceSink sink;
    CCmHttpUrl url;
    EXPECT_FALSE(url.Init(" ftp://h/"));
    ASSERT_EQ(sink.lines().size(), 2u);
    EXPECT_EQ(MaskAddresses(sink.lines()[0].text),
              "UTIL INFO: CCmHttpUrl::Init aSepc =  ftp://h/ this=0x#");
    EXPECT_EQ(sink.lines()[1].level, 0u);
    EXPECT_EQ(MaskAddresses(sink.lines()[1].text),
              "UTIL ERROR: CCmHttpUrl::Init error format, scheme =  ftp://h/ this=0x#");
}

TEST(CmHttpUrl, KnowsNoScheme_WhenOneLetterDiffers) {
    for (const char* pszSpec : {"xttp://h/", "hxtp://h/", "httx://h/", "http;//h/", "http:x/h/",
                                "http:/xh/", "xs://h/", "wx://h/", "xss://h/", "xile://h/"}) {
        CCmHttpUrl url;
        EXPECT_FALSE(url.Init(pszSpec)) << pszSpec;
    }
}

TEST(CmHttpUrl, TracesNoError_WhenTheHostIsEmpty) {
    ScopedTraceSink sink;
    CCmHttpUrl url;
    EXPECT_FALSE(url.Init("http:///x"));
    EXPECT_EQ(sink.lines().size(), 1u);
}

TEST(CmHttpUrl, KeepsEverything_AfterUnknownScheme) {
    CCmHttpUrl url;
    url.Init("https://h:1/p");
    EXPECT_FALSE(url.Init("ftp://x/"));
    EXPECT_EQ(url.GetScheme(), "https");
    EXPECT_EQ(url.GetAsciiSpec(), "https://h:1/p");
}

TEST(CmHttpUrl, KeepsHostPortAndPath_AfterMissingHost) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    EXPECT_FALSE(url.Init("wss:///q"));
    EXPECT_EQ(url.GetScheme(), "wss");
    EXPECT_EQ(url.GetHostName(), "h");
    EXPECT_EQ(url.GetPort(), 1);
    EXPECT_EQ(url.GetPath(), "/p");
}

TEST(CmHttpUrl, HasSetSchemeAndPort_AfterEmptyHost) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    EXPECT_FALSE(url.Init("https://:81/q"));
    EXPECT_EQ(url.GetScheme(), "https");
    EXPECT_EQ(url.GetHostName(), "");
    EXPECT_EQ(url.GetPort(), 81);
    EXPECT_EQ(url.GetPath(), "/p");
}

TEST(CmHttpUrl, ReplacesAllParts_WhenInitialisedAgain) {
    CCmHttpUrl url;
    url.Init("http://first:1/one");
    EXPECT_EQ(url.GetAsciiSpec(), "http://first:1/one");
    EXPECT_TRUE(url.Init("wss://second"));
    EXPECT_EQ(url.GetAsciiSpec(), "wss://second/");
}

TEST(CmHttpUrl, PrintsFileUrl_WithoutHostAndPort) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("file:///dir/name"));
    EXPECT_EQ(url.GetScheme(), "file");
    EXPECT_EQ(url.GetPath(), "/name");
    EXPECT_EQ(url.GetPort(), 0);
    EXPECT_EQ(url.GetDefaultPort(), 0);
    EXPECT_EQ(url.GetAsciiSpec(), "file:///name");
}

TEST(CmHttpUrl, KeepsHostAndPort_WhenFileFollows) {
    CCmHttpUrl url;
    url.Init("http://h:8080/x");
    EXPECT_TRUE(url.Init("file://y"));
    EXPECT_EQ(url.GetScheme(), "file");
    EXPECT_EQ(url.GetHostName(), "h");
    EXPECT_EQ(url.GetPort(), 8080);
    EXPECT_EQ(url.GetPath(), "y");
    EXPECT_EQ(url.GetAsciiSpec(), "file://h:8080/y");
}

TEST(CmHttpUrl, KeepsCachedForm_WhenFileFollows) {
    CCmHttpUrl url;
    url.Init("http://h/x");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/x");
    url.Init("file://y");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/x");
    url.SetPath("y");
    EXPECT_EQ(url.GetAsciiSpec(), "file://h:80/y");
}

TEST(CmHttpUrl, ChangesNothing_WhenNameAndPortIsEmpty) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    EXPECT_FALSE(url.SetNameAndPort(""));
    EXPECT_EQ(url.GetAsciiSpec(), "http://h:1/p");
}

TEST(CmHttpUrl, SetsNameAndPort) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    EXPECT_TRUE(url.SetNameAndPort("g:2"));
    EXPECT_EQ(url.GetHostName(), "g");
    EXPECT_EQ(url.GetPort(), 2);
    EXPECT_EQ(url.GetAsciiSpec(), "http://g:2/p");
}

TEST(CmHttpUrl, SetsDefaultPort_WhenTheNameIsAlone) {
    CCmHttpUrl url;
    url.Init("https://h:1/p");
    EXPECT_TRUE(url.SetNameAndPort("g"));
    EXPECT_EQ(url.GetPort(), 443);
}

TEST(CmHttpUrl, SetsPort_BeforeItRefusesEmptyHost) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h:1/p");
    EXPECT_FALSE(url.SetNameAndPort(":90"));
    EXPECT_EQ(url.GetPort(), 90);
    EXPECT_EQ(url.GetAsciiSpec(), "http://:90/p");
}

TEST(CmHttpUrl, KeepsBlanksAndSlashes_WhenNameAndPortAreSet) {
    CCmHttpUrl url;
    url.Init("http://h/");
    EXPECT_TRUE(url.SetNameAndPort(" a/b : 7/c"));
    EXPECT_EQ(url.GetHostName(), " a/b ");
    EXPECT_EQ(url.GetPort(), 7);
}

struct PortRow {
    const char* text;
    unsigned short port;
    const char* reason;
};

TEST(CmHttpUrl, ReadsPortsAsNumbersOf16Bits) {
    constexpr PortRow ROWS[] = {
        {"h:1", 1, "smallest"},
        {"h:65535", 65535, "largest"},
        {"h:", 80, "missing"},
        {"h:x", 80, "not a number"},
        {"h:0", 80, "zero"},
        {"h:65536", 80, "cut to 0"},
        {"h:65537", 1, "cut to 1"},
        {"h:0081", 81, "leading zeros"},
        {"h:82x", 82, "ends at a letter"},
        {"h:83:84", 83, "ends at the second colon"},
        {"h: 85", 85, "blanks in front"},
        {"h:\t86", 86, "a tab in front"},
        {"h:+87", 87, "a plus sign"},
        {"h:-1", 65535, "negative: cut to 16 bits"},
        {"h:-65536", 80, "negative: cut to 0"},
        {"h:0x50", 80, "no hexadecimal numbers: 0"},
        {"h:4294967296", 80, "2^32, cut to 0"},
        {"h:4294967297", 1, "2^32 + 1, cut to 1"},
        {"h:9223372036854775807", 65535, "LONG_MAX, cut"},
        {"h:99999999999999999999", 65535, "counts as LONG_MAX"},
        {"h:-99999999999999999999", 80, "counts as LONG_MIN, cut to 0"},
    };
    for (const PortRow& row : ROWS) {
        CCmHttpUrl url;
        url.Init("http://h/");
        EXPECT_TRUE(url.SetNameAndPort(row.text)) << row.text;
        EXPECT_EQ(url.GetPort(), row.port) << row.text << ": " << row.reason;
    }
}

TEST(CmHttpUrl, SetsPortAndClearsCache) {
    CCmHttpUrl url;
    url.Init("http://h/p");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/p");
    url.SetPort(8080);
    EXPECT_EQ(url.GetAsciiSpec(), "http://h:8080/p");
    url.SetPort(0);
    EXPECT_EQ(url.GetPort(), 80);
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/p");
}

TEST(CmHttpUrl, PrintsSingleSlash_BeforePathWithoutOne) {
    CCmHttpUrl url;
    url.Init("http://h/p");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/p");
    url.SetPath("x");
    EXPECT_EQ(url.GetPath(), "x");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/x");
}

TEST(CmHttpUrl, StoresSlash_WhenPathIsEmpty) {
    CCmHttpUrl url;
    url.Init("http://h/p");
    url.SetPath("");
    EXPECT_EQ(url.GetPath(), "/");
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/");
}

TEST(CmHttpUrl, PrintsSlash_WhenFilePathIsEmpty) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init("file://"));
    EXPECT_EQ(url.GetPath(), "");
    EXPECT_EQ(url.GetAsciiSpec(), "file:///");
}

TEST(CmHttpUrl, ReturnsACopyOfTheCachedForm) {
    CCmHttpUrl url;
    url.Init("http://h/p");
    CCmString strFirst = url.GetAsciiSpec();
    strFirst += "changed";
    EXPECT_EQ(url.GetAsciiSpec(), "http://h/p");
}

struct NameAndPortRow {
    const char* spec;
    const char* whenNeeded;
    const char* always;
};

TEST(CmHttpUrl, PrintsPort_WhenAskedOrNotDefault) {
    constexpr NameAndPortRow ROWS[] = {
        {"http://h/", "h", "h:80"},
        {"http://h:80/", "h", "h:80"},
        {"http://h:443/", "h:443", "h:443"},
        {"https://h/", "h", "h:443"},
        {"https://h:80/", "h:80", "h:80"},
        {"ws://h", "h", "h:80"},
        {"wss://h", "h", "h:443"},
        {"http://h:7", "h:7", "h:7"},
        {"http://h:65535", "h:65535", "h:65535"},
        {"file://x", "", ":0"},
    };
    for (const NameAndPortRow& row : ROWS) {
        CCmHttpUrl url;
        ASSERT_TRUE(url.Init(row.spec)) << row.spec;
        EXPECT_EQ(url.GetNameAndPort(0), row.whenNeeded) << row.spec;
        EXPECT_EQ(url.GetNameAndPort(1), row.always) << row.spec;
        EXPECT_EQ(url.GetNameAndPort(-1), row.always) << row.spec;
    }
}

TEST(CmHttpUrl, AllocatesOnlyResultStrings_WhenInitialised) {
    // The first line of a process makes the trace facility, which allocates.
    CCmT120Trace::instance();
    CCmHttpUrl url;
    const CCmString strSpec = CCmString(" http://") + LONG_HOST + ":81/a/path/longer/than/inline ";
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    EXPECT_TRUE(url.Init(strSpec));
    // One for the host, one for the path.
    EXPECT_EQ(kelto_test::AllocationsOfThisThread() - ulBefore, 2u);
}

TEST(CmHttpUrl, InitFails_WhenMemoryRunsOut) {
    // The first line of a process makes the trace facility, which allocates.
    CCmT120Trace::instance();
    const CCmString strSpec = CCmString("http://") + LONG_HOST + "/a/path/longer/than/inline";
    for (unsigned long ulNth = 1; ulNth <= 2; ++ulNth) {
        CCmHttpUrl url;
        bool bDone = true;
        {
            ScopedAllocationFault fault(ulNth);
            bDone = url.Init(strSpec);
            ASSERT_TRUE(fault.hit());
        }
        EXPECT_FALSE(bDone);
        EXPECT_EQ(url.GetScheme(), "http");
        EXPECT_TRUE(url.Init(strSpec));
    }
}

TEST(CmHttpUrl, SettersChangeNothing_WhenMemoryRunsOut) {
    CCmHttpUrl url;
    url.Init("http://h:1/p");
    const CCmString strLong(LONG_HOST);
    {
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        EXPECT_FALSE(url.SetNameAndPort(strLong));
        url.SetPath(strLong);
    }
    EXPECT_EQ(url.GetAsciiSpec(), "http://h:1/p");
}

TEST(CmHttpUrl, GettersReturnEmptyText_WhenMemoryRunsOut) {
    CCmHttpUrl url;
    url.Init(CCmString("http://") + LONG_HOST + "/" + LONG_HOST);
    {
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        EXPECT_EQ(url.GetHostName(), "");
        EXPECT_EQ(url.GetPath(), "");
        EXPECT_EQ(url.GetAsciiSpec(), "");
        EXPECT_EQ(url.GetNameAndPort(1), "");
    }
    EXPECT_EQ(url.GetAsciiSpec(), CCmString("http://") + LONG_HOST + "/" + LONG_HOST);
}

TEST(CmHttpUrl, KeepsANul_WhenItIsInHostOrPath) {
    CCmHttpUrl url;
    EXPECT_TRUE(url.Init(CCmString("http://a\0b:81/c\0d", 17)));
    EXPECT_EQ(url.GetHostName(), CCmString("a\0b", 3));
    EXPECT_EQ(url.GetPort(), 81);
    EXPECT_EQ(url.GetPath(), CCmString("/c\0d", 4));
}

struct ReplaceRow {
    const char* text;
    const char* from;
    const char* to;
    const char* result;
    const char* reason;
};

TEST(CmReplaceCaseMatch, ReplacesExactMatches) {
    constexpr ReplaceRow ROWS[] = {
        {"aXbxc", "x", "y", "aXbyc", "case counts"},
        {"", "x", "y", "", "empty source"},
        {"abc", "x", "y", "abc", "no match"},
        {"x", "x", "y", "y", "the whole text"},
        {"xx", "x", "y", "yy", "neighbours"},
        {"xax", "x", "", "a", "deleted at both ends"},
        {"aaa", "aa", "b", "ba", "from the left, not overlapping"},
        {"abab", "ab", "abab", "abababab", "the replacement is not searched"},
        {"ab", "abc", "x", "ab", "longer than the source"},
        {"a", "", "y", "a", "an empty text occurs nowhere"},
        {"axb", "x", "x", "axb", "equal texts"},
        {"ab", "", "", "ab", "both empty"},
    };
    for (const ReplaceRow& row : ROWS) {
        CCmString strResult;
        replaceCaseMatch(row.text, row.from, row.to, strResult);
        EXPECT_EQ(strResult, row.result) << row.reason;
    }
}

// The replacement by a search that starts anew at every place.
CCmString StatedReplacement(const CCmString& aText, const CCmString& aFrom, const CCmString& aTo) {
    CCmString strResult;
    size_t nStart = 0;
    for (size_t nFound = aText.find(aFrom); !aFrom.empty() && nFound != CCmString::npos;
         nFound = aText.find(aFrom, nStart)) {
        strResult.append(aText, nStart, nFound - nStart).append(aTo);
        nStart = nFound + aFrom.size();
    }
    return strResult.append(aText, nStart);
}

TEST(CmReplaceCaseMatch, ReplacesWhatTheStatedSearchFinds) {
    std::mt19937 random(4711);
    const auto text = [&random](size_t aLength, unsigned aLetters) {
        CCmString strText(aLength, ' ');
        for (char& ch : strText) {
            ch = static_cast<char>('a' + random() % aLetters);
        }
        return strText;
    };
    unsigned dwReplaced = 0;
    for (int i = 0; i < 200000; ++i) {
        const unsigned dwLetters = i % 3 + 1;
        const CCmString strText = text(random() % 60, dwLetters);
        const CCmString strFrom = text(random() % 10, dwLetters);
        const CCmString strExpected = StatedReplacement(strText, strFrom, "<>");
        dwReplaced += strExpected != strText ? 1 : 0;
        CCmString strResult;
        replaceCaseMatch(strText.c_str(), strFrom, "<>", strResult);
        ASSERT_EQ(strExpected, strResult) << strText << " / " << strFrom;
    }
    EXPECT_LT(50000u, dwReplaced);
}

TEST(CmReplaceCaseMatch, TakesLinearTime_WhenTheTextIsHostile) {
    const CCmString strText(2000000, 'a');
    const CCmString strRepeated(500000, 'a');
    timespec before = {};
    timespec after = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    for (const CCmString& strFrom :
         {strRepeated + "b", "b" + strRepeated, strRepeated + "b" + strRepeated}) {
        CCmString strResult;
        replaceCaseMatch(strText.c_str(), strFrom, "x", strResult);
        EXPECT_TRUE(strResult == strText);
    }
    CCmString strResult;
    replaceCaseMatch(strText.c_str(), strRepeated, "x", strResult);
    EXPECT_EQ("xxxx", strResult);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    // A search that starts anew at every place takes 20 seconds and more.
    EXPECT_GT(5, after.tv_sec - before.tv_sec);
}

TEST(CmReplaceCaseMatch, Appends_WhenResultIsNotEmpty) {
    CCmString strResult = "before ";
    replaceCaseMatch("axb", "x", "y", strResult);
    EXPECT_EQ(strResult, "before ayb");
}

TEST(CmReplaceCaseMatch, SetsResult_WhenTextsAreEqual) {
    CCmString strResult = "before ";
    replaceCaseMatch("axb", "x", "x", strResult);
    EXPECT_EQ(strResult, "axb");
}

TEST(CmReplaceCaseMatch, TracesAssertion_WhenSourceIsNull) {
    ScopedTraceSink sink;
    CCmString strResult = "kept";
    replaceCaseMatch(nullptr, "x", "y", strResult);
    EXPECT_EQ(strResult, "kept");
    ASSERT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.lines()[0].level, 0u);
    EXPECT_EQ(sink.lines()[0].text,
              "UTIL ERROR: source/util/CmHttpUrl.cpp:12 Assert failed: pScriptString");
}

TEST(CmReplaceCaseMatch, GivesTheResult_WhenArgumentsOverlap) {
    CCmString strText = "axb";
    replaceCaseMatch(strText.c_str(), "x", "y", strText);
    EXPECT_EQ(strText, "axbayb");
    CCmString strFrom = "x";
    replaceCaseMatch("axxb", strFrom, "y", strFrom);
    EXPECT_EQ(strFrom, "xayyb");
    CCmString strTo = "y";
    replaceCaseMatch("axxb", "x", strTo, strTo);
    EXPECT_EQ(strTo, "yayyb");
}

TEST(CmReplaceCaseMatch, KeepsResult_WhenMemoryRunsOut) {
    CCmString strResult = "kept";
    {
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        replaceCaseMatch("a text that needs more room than a string has inline", "room", "space",
                         strResult);
    }
    EXPECT_EQ(strResult, "kept");
}

TEST(CmTrimString, RemovesBlanksOnly) {
    CCmString strText = " \t x \n ";
    LTrimString(strText, CCmIsSpace());
    EXPECT_EQ(strText, "\t x \n ");
    RTrimString(strText, CCmIsSpace());
    EXPECT_EQ(strText, "\t x \n");
}

TEST(CmTrimString, LeavesNothing_WhenThereAreOnlyBlanks) {
    CCmString strLeft = "   ";
    LTrimString(strLeft, CCmIsSpace());
    EXPECT_EQ(strLeft, "");
    CCmString strRight = "   ";
    RTrimString(strRight, CCmIsSpace());
    EXPECT_EQ(strRight, "");
}

TEST(CmTrimString, ChangesNothing_WhenTheTextIsEmpty) {
    CCmString strText;
    LTrimString(strText, CCmIsSpace());
    RTrimString(strText, CCmIsSpace());
    EXPECT_EQ(strText, "");
}

}  // namespace
}  // namespace UTIL_NS
