// What fails while the flight recorder is opened for the first time in a process.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <memory>

#include "CmFlight.h"
#include "CmSystem.h"
#include "support/ChildProcess.h"
#include "support/FaultRows.h"
#include "support/Faults.h"
#include "support/Flight.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::Fault;
using kelto_test::Returned;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedFlight;
using kelto_test::StatusOfChild;

template <typename Injection>
void ExpectNothing(const char* aCall, Injection aInject) {
    SCOPED_TRACE(aCall);
    EXPECT_EQ(0, StatusOfChild([&] {
                  const ScopedDirectory directory;
                  CCmFlightOptions options;
                  options.m_pszDirectory = directory.path().c_str();
                  {
                      const auto pFault = aInject(1, Failing::ONCE);
                      EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, CCmFlight::Open(options));
                  }
                  EXPECT_FALSE(CCmFlight::IsOpen());
                  EXPECT_EQ(nullptr, CCmFlight::AttachThisThread("none"));
                  CCmFlight::Close();
                  EXPECT_TRUE(directory.names().empty());
                  const ScopedFlight flight;  // the next time it goes well
                  EXPECT_NE(nullptr, CCmFlight::AttachThisThread("some"));
              }));
}

TEST(CmFlightStart, GivesNothing_WithoutMemoryOrHandlers) {
    typedef CCmSystemTable T;
    ExpectNothing("pthread_key_create", Returned<&T::pthread_key_create>(EAGAIN));
    ExpectNothing("pthread_atfork", Returned<&T::pthread_atfork>(ENOMEM));
    ExpectNothing("mmap", Fault<&T::mmap, void*>(ENOMEM, MAP_FAILED));
    for (const unsigned long ulNth : {1UL, 2UL}) {
        ExpectNothing("new", [=](unsigned long, Failing) {
            return std::make_unique<kelto_test::ScopedAllocationFault>(ulNth);
        });
    }
}

}  // namespace
}  // namespace UTIL_NS
