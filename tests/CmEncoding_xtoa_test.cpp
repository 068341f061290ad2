#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "CmEncoding.h"

namespace UTIL_NS {
namespace {

struct Fits {
    long long llValue;
    int nSize;
    const char* pszText;
    const char* pszReason;
};

TEST(CmEncodingXtoa, Writes_WhenTheTextFits) {
    const Fits rows[] = {
        {-45, 4, "-45", "sign, digits and terminator fill the buffer"},
        {0, 3, "-0", "zero has a sign"},
        {7, 3, "7", "the smallest buffer"},
        {45, 3, "45", "two digits fill the smallest buffer"},
        {-7, 3, "-7", "a sign fills the smallest buffer"},
        {1234567, 65, "1234567", "text moves to the start of a large buffer"},
        {LLONG_MAX, 20, "9223372036854775807", "the largest number, exactly"},
        {LLONG_MIN, 21, "-9223372036854775808", "the smallest number, exactly"},
        {-1, 65, "-1", ""},
        {100, 65, "100", "zeros at the end"},
    };
    for (const Fits& row : rows) {
        char achBuffer[80];
        std::memset(achBuffer, 'z', sizeof(achBuffer));
        EXPECT_EQ(CM_OK, xtoa_yrk<long long>(row.llValue, achBuffer, row.nSize)) << row.pszReason;
        EXPECT_STREQ(row.pszText, achBuffer) << row.pszReason;
        EXPECT_EQ('z', achBuffer[row.nSize]) << "written past the buffer: " << row.pszReason;
    }
}

struct Refused {
    long long llValue;
    int nSize;
    const char* pszReason;
};

TEST(CmEncodingXtoa, Refuses_WhenTheTextDoesNotFit) {
    const Refused rows[] = {
        {1234567, 4, "seven digits in three characters"}, {-45, 3, "no room for the sign"},
        {100, 3, "no room for the last digit"},           {LLONG_MAX, 19, "one character short"},
        {LLONG_MIN, 20, "one character short"},
    };
    for (const Refused& row : rows) {
        char achBuffer[82];
        std::memset(achBuffer, 'z', sizeof(achBuffer));
        EXPECT_EQ(CM_ERROR_FAILURE, xtoa_yrk<long long>(row.llValue, achBuffer + 1, row.nSize))
            << row.pszReason;
        EXPECT_EQ('z', achBuffer[0]) << "written before the buffer: " << row.pszReason;
        EXPECT_EQ('z', achBuffer[1 + row.nSize]) << "written past it: " << row.pszReason;
    }
}

TEST(CmEncodingXtoa, Refuses_WhenTheBufferHasLessThanThreeBytes) {
    for (int nSize : {2, 1, 0, -1, INT_MIN}) {
        char achBuffer[] = "zzz";
        EXPECT_EQ(CM_ERROR_FAILURE, xtoa_yrk<long long>(1, achBuffer, nSize)) << nSize;
        EXPECT_STREQ("zzz", achBuffer) << nSize;
    }
}

TEST(CmEncodingXtoa, Refuses_WhenTheBufferIsNull) {
    EXPECT_EQ(CM_ERROR_FAILURE, xtoa_yrk<long long>(1, nullptr, 65));
}

}  // namespace
}  // namespace UTIL_NS
