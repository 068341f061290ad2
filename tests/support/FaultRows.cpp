#include "support/FaultRows.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "support/TraceSink.h"

namespace kelto_test {

namespace {

// The line of a failed call, if there is one; the others are not about failures.
std::string FailureLine(const ScopedTraceSink& aSink) {
    std::string sFailure;
    for (const TraceLine& line : aSink.lines()) {
        const std::string sText = MaskAddresses(line.text);
        if (sText.find("failed") != std::string::npos || sText.find("can't") != std::string::npos) {
            sFailure += sFailure.empty() ? sText : "\n" + sText;
        }
    }
    return sFailure;
}

long OpenDescriptors() {
    const std::filesystem::directory_iterator all("/dev/fd");
    return std::distance(begin(all), end(all));
}

struct Belongings {
    long allocations = LiveAllocations();
    long descriptors = OpenDescriptors();
};

void CheckOperation(const FaultRow& aRow, bool aFails) {
    ScopedTraceSink sink;
    EXPECT_EQ(aFails ? aRow.bad : aRow.good, aRow.operation());
    EXPECT_EQ(aFails ? aRow.line : "", FailureLine(sink));
}

void CheckOperations(const FaultRow& aRow, unsigned long aNth, Failing aFailing) {
    const Belongings before;
    {
        const std::shared_ptr<FaultPlan> pFault = aRow.inject(aNth, aFailing);
        for (unsigned long ulFirst = 1; ulFirst <= 2 * aRow.calls + 1; ulFirst += aRow.calls) {
            SCOPED_TRACE("from call " + std::to_string(ulFirst) + ", failing " +
                         std::to_string(aNth) + (aFailing == Failing::ONCE ? "" : " and on"));
            const bool bReached = aNth < ulFirst + aRow.calls;
            CheckOperation(aRow, bReached && (aFailing != Failing::ONCE || aNth >= ulFirst));
        }
        EXPECT_LE(aNth, pFault->calls()) << "the call that was to fail was made";
    }
    const Belongings after;
    EXPECT_EQ(before.allocations, after.allocations);
    EXPECT_EQ(before.descriptors, after.descriptors);
}

}  // namespace

void CheckFaultRows(std::initializer_list<FaultRow> aRows) {
    unsigned long ulCases = 0;
    for (const FaultRow& row : aRows) {
        SCOPED_TRACE(row.name);
        CheckOperation(row, false);  // what is made once is made here
        for (unsigned long ulNth = 1; ulNth <= 3 * row.calls; ++ulNth) {
            CheckOperations(row, ulNth, Failing::ONCE);
            if (!row.isRetriedForever) {
                CheckOperations(row, ulNth, Failing::FROM_THERE_ON);
            }
        }
        ulCases += (row.isRetriedForever ? 3 : 6) * row.calls;
    }
    testing::Test::RecordProperty("rows", static_cast<int>(aRows.size()));
    testing::Test::RecordProperty("cases", static_cast<int>(ulCases));
}

}  // namespace kelto_test
