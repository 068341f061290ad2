// The records of the interface query, in both layouts that platforms have.
#include "port/CmInterfaceRecord.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>

#include <string>
#include <vector>

namespace UTIL_NS {
namespace {

// A record of 10.0.0.7 (or of another family, with the same bytes) as each layout has it.
struct Fixed {
    typedef CCmFixedInterfaceRecord Record;
    static constexpr size_t IPV4_LENGTH = sizeof(ifreq);
    static constexpr size_t IPV6_LENGTH = sizeof(ifreq);

    static std::vector<char> Make(const std::string& aName, int aFamily) {
        std::vector<char> record(sizeof(ifreq));
        const uint16_t wFamily = static_cast<uint16_t>(aFamily);
        memcpy(record.data(), aName.data(), aName.size());
        memcpy(&record[16], &wFamily, sizeof(wFamily));
        memcpy(&record[20], "\x0A\0\0\x07", 4);
        return record;
    }
};

struct Variable {
    typedef CCmVariableInterfaceRecord Record;
    static constexpr size_t IPV4_LENGTH = 32;
    static constexpr size_t IPV6_LENGTH = 16 + 28;

    static std::vector<char> Make(const std::string& aName, int aFamily) {
        const char chLength = aFamily == AF_INET6 ? 28 : 16;
        std::vector<char> record(16 + static_cast<size_t>(chLength));
        memcpy(record.data(), aName.data(), aName.size());
        record[16] = chLength;
        record[17] = static_cast<char>(aFamily);
        memcpy(&record[20], "\x0A\0\0\x07", 4);
        return record;
    }
};

template <class Layout>
class CmInterfaceRecord : public testing::Test {
  protected:
    size_t Read(const std::vector<char>& aRecords, size_t aOffset = 0) {
        // A copy of the exact size lets the address sanitizer see what is read.
        const std::vector<char> records(aRecords.begin() + static_cast<long>(aOffset),
                                        aRecords.end());
        return CmReadInterface<typename Layout::Record>(records.data(), records.size(),
                                                        m_interface);
    }

    CmPortInterface m_interface = {};
};
typedef testing::Types<Fixed, Variable> Layouts;
TYPED_TEST_SUITE(CmInterfaceRecord, Layouts, );

TYPED_TEST(CmInterfaceRecord, IsTakenApart) {
    EXPECT_EQ(TypeParam::IPV4_LENGTH, this->Read(TypeParam::Make("eth0", AF_INET)));
    EXPECT_STREQ("eth0", this->m_interface.m_szName);
    EXPECT_EQ(AF_INET, this->m_interface.m_nFamily);
    EXPECT_EQ(0, memcmp(this->m_interface.m_abyAddress + 4, "\x0A\0\0\x07", 4));
}

TYPED_TEST(CmInterfaceRecord, TerminatesTheName_WhenItHas16Characters) {
    this->Read(TypeParam::Make("0123456789abcdef", AF_INET));
    EXPECT_STREQ("0123456789abcdef", this->m_interface.m_szName);
}

TYPED_TEST(CmInterfaceRecord, WalkVisitsEveryRecord_WhateverItsLength) {
    std::vector<char> records;
    for (const auto& [sName, nFamily] : std::vector<std::pair<std::string, int>>{
             {"lo", AF_INET}, {"lo", AF_INET6}, {"eth0", AF_INET}}) {
        const std::vector<char> record = TypeParam::Make(sName, nFamily);
        records.insert(records.end(), record.begin(), record.end());
    }
    std::vector<std::string> names;
    std::vector<size_t> lengths;
    size_t nOffset = 0;
    while (const size_t nLength = this->Read(records, nOffset)) {
        names.push_back(this->m_interface.m_szName);
        lengths.push_back(nLength);
        nOffset += nLength;
    }
    EXPECT_EQ(records.size(), nOffset);
    EXPECT_EQ((std::vector<std::string>{"lo", "lo", "eth0"}), names);
    EXPECT_EQ((std::vector<size_t>{TypeParam::IPV4_LENGTH, TypeParam::IPV6_LENGTH,
                                   TypeParam::IPV4_LENGTH}),
              lengths);
}

TYPED_TEST(CmInterfaceRecord, IsNone_WhenItIsIncomplete) {
    const std::vector<char> whole = TypeParam::Make("eth0", AF_INET);
    for (size_t nLength = 0; nLength < whole.size(); ++nLength) {
        EXPECT_EQ(0u, this->Read(std::vector<char>(whole.begin(),
                                                   whole.begin() + static_cast<long>(nLength))))
            << nLength;
    }
}

TEST(CmInterfaceRecordVariable, TakesTheRoomOfThirtyTwoBytes_WhenTheAddressIsShort) {
    std::vector<char> record(32);
    CmPortInterface interface;
    for (const char chLength : {0, 1, 15, 16}) {
        record[16] = chLength;
        EXPECT_EQ(32u, CmReadInterface<CCmVariableInterfaceRecord>(record.data(), record.size(),
                                                                   interface));
    }
    record[16] = 17;
    EXPECT_EQ(0u,
              CmReadInterface<CCmVariableInterfaceRecord>(record.data(), record.size(), interface));
}

TEST(CmInterfaceRecordVariable, TakesTheLengthAsUnsigned_WhenTheAddressIsTheLongest) {
    std::vector<char> record(16 + 255);
    CmPortInterface interface;
    record[16] = static_cast<char>(255);
    EXPECT_EQ(271u,
              CmReadInterface<CCmVariableInterfaceRecord>(record.data(), record.size(), interface));
}

}  // namespace
}  // namespace UTIL_NS
