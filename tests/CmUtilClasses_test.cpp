#include "CmUtilClasses.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "CmUtilTemplates.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

std::string g_sEnded;

// Leaves its letter when it ends.
class Registered : public CCmCleanUpBase {
  public:
    explicit Registered(char aLetter) : m_chLetter(aLetter) {}
    ~Registered() override { g_sEnded += m_chLetter; }

  private:
    const char m_chLetter;
};

class ThrowsWhenConstructed : public CCmCleanUpBase {
  public:
    ThrowsWhenConstructed() { throw std::bad_alloc(); }
};

class RegistersWhenDestroyed : public CCmCleanUpBase {
  public:
    ~RegistersWhenDestroyed() override {
        g_sEnded += 'R';
        new Registered('n');
    }
};

class CleansUpWhenDestroyed : public CCmCleanUpBase {
  public:
    ~CleansUpWhenDestroyed() override {
        g_sEnded += 'C';
        CCmCleanUpBase::CleanupAll();
    }
};

class CmCleanUpBase : public testing::Test {
  protected:
    CmCleanUpBase() {
        CCmCleanUpBase::CleanupAll();
        g_sEnded.clear();
    }
    ~CmCleanUpBase() override { CCmCleanUpBase::CleanupAll(); }
};

TEST_F(CmCleanUpBase, CleanupAll_DestroysTheLatestFirst) {
    new Registered('a');
    new Registered('b');
    new Registered('c');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("cba", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAll_DestroysOnce) {
    new Registered('a');
    CCmCleanUpBase::CleanupAll();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("a", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAll_DestroysWhatADestructorRegisters) {
    new Registered('a');
    new RegistersWhenDestroyed;
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bRna", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAll_MayBeCalledByADestructor) {
    new Registered('a');
    new CleansUpWhenDestroyed;
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bCa", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAll_WorksWithoutItsMutex) {
    new Registered('a');
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
        0, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("a", g_sEnded);
}

TEST_F(CmCleanUpBase, Registry_ForgetsAnObjectThatFailedHalfWay) {
    new Registered('a');
    EXPECT_THROW(new ThrowsWhenConstructed, std::bad_alloc);
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("ba", g_sEnded);
}

TEST_F(CmCleanUpBase, Registry_ForgetsAnObjectThatOthersDelete) {
    new Registered('a');
    CCmCleanUpBase* pMiddle = new Registered('b');
    new Registered('c');
    delete pMiddle;
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bca", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanUp_DeletesTheObject) {
    const long lLive = kelto_test::LiveAllocations();
    CCmCleanUpBase* pObject = new Registered('a');
    pObject->CleanUp();
    EXPECT_EQ("a", g_sEnded);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

class Probe : public CCmEnsureSingleThread {
  public:
    pthread_t owner() const { return m_ThreadId; }
};

TEST(CmEnsureSingleThread, Owner_IsTheConstructingThread) {
    Probe probe;
    EXPECT_TRUE(pthread_equal(pthread_self(), probe.owner()));
}

TEST(CmEnsureSingleThread, Owner_CanBeReset) {
    Probe probe;
    pthread_t other{};
    std::thread([&probe, &other] {
        probe.Reset2CurrentThreadId();
        other = pthread_self();
        EXPECT_TRUE(pthread_equal(other, probe.owner()));
    }).join();
    EXPECT_FALSE(pthread_equal(pthread_self(), probe.owner()));
    probe.Reset2ThreadId(pthread_self());
    EXPECT_TRUE(pthread_equal(pthread_self(), probe.owner()));
}

TEST(CmEnsureSingleThread, Check_DoesNothing) {
    kelto_test::ScopedTraceSink sink;
    const Probe probe;
    std::thread([&probe] { probe.EnsureSingleThread(); }).join();
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmStopFlag, Flag_StartsFalseAndFollowsItsSetters) {
    CCmStopFlag flag;
    EXPECT_FALSE(flag.IsFlagStopped());
    flag.SetStopFlag();
    EXPECT_TRUE(flag.IsFlagStopped());
    flag.SetStopFlag();
    EXPECT_TRUE(flag.IsFlagStopped());
    flag.SetStartFlag();
    EXPECT_FALSE(flag.IsFlagStopped());
}

TEST(CmStopFlag, Flag_MayBeReadWhileItIsSet) {
    CCmStopFlag flag;
    std::thread reader([&flag] {
        while (!flag.IsFlagStopped()) {
            std::this_thread::yield();
        }
    });
    flag.SetStopFlag();
    reader.join();
    EXPECT_TRUE(flag.IsFlagStopped());
}

}  // namespace
}  // namespace UTIL_NS
