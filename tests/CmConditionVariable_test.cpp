#include "CmConditionVariable.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

TEST(CmConditionVariable, Signal_FailureIsTraced) {
    kelto_test::ScopedTraceSink sink;
    CCmMutexThread mutex;
    CCmConditionVariableThread condition(mutex);
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, condition.Signal());
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Signal, pthread_cond_signal() failed! err=22 "
        "this=0x#",
        kelto_test::MaskAddresses(sink.lines()[0].text));
}

}  // namespace
}  // namespace UTIL_NS
