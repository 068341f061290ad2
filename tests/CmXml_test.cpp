#include "CmXml.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Faults.h"

namespace UTIL_NS {
namespace {

char s_szDefault[] = "default";

// Both string functions on one document; they must agree.
std::string StringOf(std::string aXml, const char* aTag, unsigned short aMax = 64) {
    std::vector<char> narrow(aMax + 1u, 'x');
    std::vector<char> wide(aMax + 1u, 'x');
    char* const pNarrow = get_string_from_XML(&aXml[0], aTag, aMax, narrow.data(), s_szDefault);
    char* const pWide = xml_get_string(&aXml[0], aTag, aMax, wide.data(), s_szDefault);
    EXPECT_STREQ(pNarrow, pWide);
    EXPECT_TRUE(pNarrow == narrow.data() || pNarrow == s_szDefault);
    return pNarrow;
}

std::string Element(const std::string& aValue) {
    return "<a>" + aValue + "</a>";
}

TEST(CmXmlString, TrimsFourBlanks) {
    EXPECT_EQ("4 2", StringOf("<a> \t\r\n4 2\n\r\t </a>", "a"));
}

TEST(CmXmlString, KeepsOtherBlanks) {
    EXPECT_EQ("\v42\f", StringOf("<a>\v42\f</a>", "a"));
}

TEST(CmXmlString, KeepsBytesAbove0x7F) {
    EXPECT_EQ("\xA0\xE4 \xFF\x80", StringOf("<a> \xA0\xE4 \xFF\x80 </a>", "a"));
    EXPECT_EQ("1", StringOf("<\xE4>1</\xE4>", "\xE4"));
}

TEST(CmXmlString, GivesDefault_WhenTheElementIsMissing) {
    EXPECT_EQ("default", StringOf("<b>1</b>", "a"));
    EXPECT_EQ("default", StringOf("", "a"));
}

TEST(CmXmlString, GivesDefault_WhenTheClosingTagIsMissing) {
    EXPECT_EQ("default", StringOf("<a>1", "a"));
    EXPECT_EQ("default", StringOf("<a>1</b>", "a"));
    EXPECT_EQ("default", StringOf("</a><a>1", "a"));
}

TEST(CmXmlString, GivesDefault_WhenTheOpeningTagIsAtTheEnd) {
    EXPECT_EQ("default", StringOf("<a>", "a"));
    EXPECT_EQ("default", StringOf("<a> \t\r\n", "a"));
}

TEST(CmXmlString, GivesAnEmptyText_WhenTheElementIsEmpty) {
    EXPECT_EQ("", StringOf("<a></a>", "a"));
    EXPECT_EQ("", StringOf("<a> \n </a>", "a"));
}

TEST(CmXmlString, IsRight_WhenTheValueReplacesItsDocument) {
    char achXml[] = "<a>some text</a>";
    EXPECT_EQ(achXml, get_string_from_XML(achXml, "a", 16, achXml, s_szDefault));
    EXPECT_STREQ("some text", achXml);
    char achOther[] = "<a>some text</a>";
    EXPECT_EQ(achOther + 1, xml_get_string(achOther, "a", 16, achOther + 1, s_szDefault));
    EXPECT_STREQ("<some text", achOther);
}

TEST(CmXmlString, TakesTheFirstOpeningTag) {
    EXPECT_EQ("1", StringOf("<r><a>1</a><a>2</a></r>", "a"));
}

TEST(CmXmlString, EndsAtTheFirstClosingTag_WhenElementsAreNested) {
    EXPECT_EQ("<a>1", StringOf("<a><a>1</a>2</a>", "a"));
}

TEST(CmXmlString, FindsNothing_WhenTheTagBeginsAnother) {
    EXPECT_EQ("2", StringOf("<ab>1</ab><a>2</a>", "a"));
    EXPECT_EQ("1</ab>", StringOf("<a>1</ab></a>", "a"));
}

TEST(CmXmlString, FindsNothing_WhenTheTagHasAttributes) {
    EXPECT_EQ("default", StringOf("<a x=\"1\">2</a>", "a"));
}

TEST(CmXmlString, KeepsEntities) {
    EXPECT_EQ("&lt;", StringOf("<a>&lt;</a>", "a"));
}

TEST(CmXmlString, ComparesTagNamesExactly) {
    EXPECT_EQ("default", StringOf("<A>1</A>", "a"));
}

TEST(CmXmlString, FindsTheElement_WhenTheTagIsEmpty) {
    EXPECT_EQ("1", StringOf("<>1</>", ""));
}

TEST(CmXmlString, FindsTheElement_WhenTheTagHasManyCharacters) {
    const std::string sTag(5000, 't');
    EXPECT_EQ("1", StringOf("<" + sTag + "t>0</" + sTag + "t><" + sTag + ">1</" + sTag + ">",
                            sTag.c_str()));
}

TEST(CmXmlString, FillsTheBuffer_WhenTheValueIsTheLongest) {
    EXPECT_EQ("12345", StringOf(Element("12345"), "a", 5));
}

TEST(CmXmlString, GivesDefaultAndLeavesTheBuffer_WhenTheValueIsTooLong) {
    std::string sXml = Element("123456");
    char achOut[6] = "xxxxx";
    EXPECT_EQ(s_szDefault, get_string_from_XML(&sXml[0], "a", 5, achOut, s_szDefault));
    EXPECT_STREQ("xxxxx", achOut);
}

TEST(CmXmlString, TakesOnlyTheEmptyValue_WhenTheLimitIsZero) {
    EXPECT_EQ("", StringOf("<a> </a>", "a", 0));
    EXPECT_EQ("default", StringOf("<a>1</a>", "a", 0));
}

TEST(CmXmlString, GivesDefault_WhenTheLimitIsNegative) {
    std::string sXml = "<a></a>";
    char achOut[1];
    EXPECT_EQ(s_szDefault, get_string_from_XML(&sXml[0], "a", -1, achOut, s_szDefault));
}

TEST(CmXmlString, GivesDefault_WhenTheLengthIsBeyond16Bits) {
    std::string sXml = Element(std::string(65537, 'v'));
    char achOut[6] = "xxxxx";
    EXPECT_EQ(s_szDefault, xml_get_string(&sXml[0], "a", 5, achOut, s_szDefault));
    EXPECT_STREQ("xxxxx", achOut);
}

TEST(CmXmlString, TakesAsMany_WhenTheLimitIs65535) {
    EXPECT_EQ(65535u, StringOf(Element(std::string(65535, 'v')), "a", 65535).size());
    EXPECT_EQ("default", StringOf(Element(std::string(65536, 'v')), "a", 65535));
}

TEST(CmXmlString, GivesDefault_WhenAnArgumentIsNull) {
    char achOut[2];
    std::string sXml = "<a>1</a>";
    EXPECT_EQ(s_szDefault, get_string_from_XML(nullptr, "a", 1, achOut, s_szDefault));
    EXPECT_EQ(s_szDefault, get_string_from_XML(&sXml[0], nullptr, 1, achOut, s_szDefault));
    EXPECT_EQ(s_szDefault, xml_get_string(&sXml[0], "a", 1, nullptr, s_szDefault));
    EXPECT_EQ(nullptr, xml_get_string(&sXml[0], "z", 1, achOut, nullptr));
}

TEST(CmXmlNumber, AnswersADocument) {
    std::string sXml = "<a> 42 </a><b>7</b>";
    EXPECT_EQ(42u, get_uint32_from_XML(&sXml[0], "a", 5));
    EXPECT_EQ(7u, get_uint32_from_XML(&sXml[0], "b", 5));
    EXPECT_EQ(5u, get_uint32_from_XML(&sXml[0], "z", 5));
}

// What each integer function makes of one value, with the default 5.
struct NumberRow {
    const char* value;
    uint32_t uint32FromXml;
    int32_t int32FromXml;
    unsigned long xmlUint32;
    unsigned long xmlInt32;
    unsigned short xmlUint16;
    const char* reason;
};

TEST(CmXmlNumber, ParsesValues) {
    const NumberRow rows[] = {
        {"42", 42, 42, 42, 42, 42, "plain"},
        {"+42", 42, 42, 42, 42, 42, "sign"},
        {"-1", 4294967295u, -1, 18446744073709551615ul, 18446744073709551615ul, 65535, "negative"},
        {"12abc", 12, 12, 12, 12, 12, "ends at the first other character"},
        {"0x10", 0, 0, 0, 0, 0, "decimal only"},
        {"010", 10, 10, 10, 10, 10, "no octal"},
        {"\v9", 9, 9, 9, 9, 9, "a blank that trimming leaves"},
        {"65537", 65537, 65537, 65537, 65537, 1, "low 16 bits"},
        {"4294967295", 4294967295u, -1, 4294967295u, 4294967295u, 65535, "32 bits"},
        {"4294967298", 2, 2, 4294967298u, 4294967298u, 2, "low 32 bits"},
        {"18446744073709551615", 4294967295u, -1, 18446744073709551615ul, 9223372036854775807ul,
         65535, "64 bits"},
        {"abc", 5, 5, 5, 5, 5, "no number"},
        {"- 1", 5, 5, 5, 5, 5, "lone sign"},
        {"", 5, 5, 5, 5, 5, "empty"},
        {"  ", 5, 5, 5, 5, 5, "blank"},
    };
    for (const NumberRow& row : rows) {
        SCOPED_TRACE(row.reason);
        std::string sXml = Element(row.value);
        EXPECT_EQ(row.uint32FromXml, get_uint32_from_XML(&sXml[0], "a", 5));
        EXPECT_EQ(row.int32FromXml, get_int32_from_XML(&sXml[0], "a", 5));
        EXPECT_EQ(row.xmlUint32, xml_get_uint32(&sXml[0], "a", 5));
        EXPECT_EQ(row.xmlInt32, xml_get_int32(&sXml[0], "a", 5));
        EXPECT_EQ(row.xmlUint16, xml_get_uint16(&sXml[0], "a", 5));
        EXPECT_EQ(row.xmlUint16, xml_get_int16(&sXml[0], "a", 5));
    }
}

TEST(CmXmlNumber, CutsDefaultsToTheTypeOfTheResult) {
    char szXml[] = "";
    EXPECT_EQ(1u, get_uint32_from_XML(szXml, "a", 0x100000001ul));
    EXPECT_EQ(-1, get_int32_from_XML(szXml, "a", static_cast<unsigned long>(-1)));
    EXPECT_EQ(0x100000001ul, xml_get_uint32(szXml, "a", 0x100000001ul));
    EXPECT_EQ(0x8000000000000000ul, xml_get_int32(szXml, "a", 0x8000000000000000ul));
    EXPECT_EQ(65535, xml_get_uint16(szXml, "a", 65535));
}

TEST(CmXmlNumber, GivesDefault_WhenTheValueHasMoreThan64Characters) {
    std::string s64 = Element(std::string(63, '0') + "7");
    std::string s65 = Element(std::string(64, '0') + "7");
    EXPECT_EQ(7u, get_uint32_from_XML(&s64[0], "a", 5));
    EXPECT_EQ(5u, get_uint32_from_XML(&s65[0], "a", 5));
    EXPECT_EQ(7, get_int32_from_XML(&s64[0], "a", 5));
    EXPECT_EQ(5, get_int32_from_XML(&s65[0], "a", 5));
    EXPECT_EQ(7u, xml_get_uint32(&s64[0], "a", 5));
    EXPECT_EQ(5u, xml_get_uint32(&s65[0], "a", 5));
    EXPECT_EQ(7u, xml_get_int32(&s64[0], "a", 5));
    EXPECT_EQ(5u, xml_get_int32(&s65[0], "a", 5));
    EXPECT_EQ(7u, xml_get_uint16(&s64[0], "a", 5));
    EXPECT_EQ(5u, xml_get_uint16(&s65[0], "a", 5));
}

TEST(CmXmlDouble, PassesTheValueThroughSinglePrecision) {
    std::string sXml = Element("0.1");
    EXPECT_EQ(0.100000001490116119384765625, get_double_from_XML(&sXml[0], "a", 2.5));
}

TEST(CmXmlDouble, KeepsThePrecisionOfTheDefault) {
    char szXml[] = "<a></a><b>x</b>";
    EXPECT_EQ(0.1, get_double_from_XML(szXml, "z", 0.1));
    EXPECT_EQ(0.1, get_double_from_XML(szXml, "a", 0.1));
    EXPECT_EQ(0.1, get_double_from_XML(szXml, "b", 0.1));
}

TEST(CmXmlDouble, GivesDefault_WhenTheValueHasMoreThan256Characters) {
    std::string s256 = Element(std::string(253, '0') + "1.5");
    std::string s257 = Element(std::string(254, '0') + "1.5");
    EXPECT_EQ(1.5, get_double_from_XML(&s256[0], "a", 2.5));
    EXPECT_EQ(2.5, get_double_from_XML(&s257[0], "a", 2.5));
}

TEST(CmXmlNumber, AllocatesNothing) {
    std::string sXml = "<a>42</a>";
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    EXPECT_EQ(42u, get_uint32_from_XML(&sXml[0], "a", 5));
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
}

}  // namespace
}  // namespace UTIL_NS
