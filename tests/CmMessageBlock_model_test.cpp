#include <gtest/gtest.h>

#include <vector>

#include "CmTrace.h"
#include "CmUtilMisc.h"
#include "support/ChainModel.h"
#include "support/Faults.h"
#include "support/RandomBytes.h"

namespace UTIL_NS {
namespace {

void DropLine(unsigned long, const char*, unsigned int) {}

TEST(CmMessageBlockModel, AgreesWithTheModel_WhateverTheSequence) {
    const UtilTraceSink pfnBefore = g_util_trace_sink.load();
    set_util_external_trace_sink(DropLine);
    unsigned short wCrc = 0;
    unsigned char byData = 0;
    CalcCRC16(wCrc, &byData, 1);  // creates a singleton that stays
    const long lBefore = kelto_test::LiveAllocations();
    for (unsigned int dwSeed = 0; dwSeed < 4000 && !testing::Test::HasFailure(); ++dwSeed) {
        const std::vector<uint8_t> bytes = kelto_test::RandomBytes(400, dwSeed);
        EXPECT_EQ("", kelto_test::RunChainModel(bytes.data(), bytes.size())) << "seed " << dwSeed;
    }
    EXPECT_EQ(lBefore, kelto_test::LiveAllocations());
    set_util_external_trace_sink(pfnBefore);
}

}  // namespace
}  // namespace UTIL_NS
