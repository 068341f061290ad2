// Building and counting message block chains in tests.
#ifndef TESTS_SUPPORT_CHAINS_H
#define TESTS_SUPPORT_CHAINS_H

#include <gtest/gtest.h>

#include <string>

#include "CmMessageBlock.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace kelto_test {

// A chain whose blocks are made by the library's own duplication.
inline UTIL_NS::CCmMessageBlock* HeapBlock(const std::string& aText) {
    UTIL_NS::CCmMessageBlock block(static_cast<unsigned int>(aText.size()));
    block.Write(aText.data(), static_cast<unsigned int>(aText.size()));
    return block.DuplicateTopLevel();
}

// Captures the trace and fails a test after which a block or its storage is still alive.
class ChainTest : public testing::Test {
  protected:
    void SetUp() override {
        util_adapter_trace(0, "", 0);  // the sink's own storage
        m_sink.clear();
        m_lBefore = LiveAllocations();
    }
    void TearDown() override {
        m_sink.clear();
        EXPECT_EQ(m_lBefore, LiveAllocations());
    }

    std::string Line(size_t aIndex) const {
        const std::vector<TraceLine> lines = m_sink.lines();
        return aIndex < lines.size() ? MaskAddresses(lines[aIndex].text) : "(no line)";
    }
    size_t Lines() const { return m_sink.lines().size(); }

    ScopedTraceSink m_sink;
    long m_lBefore = 0;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CHAINS_H
