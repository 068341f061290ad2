#include "CmUtilClasses.h"

#include <gtest/gtest.h>
#include <time.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "CmUtilMisc.h"
#include "CmUtilTemplates.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

std::string g_sEnded;

// Leaves its letter when it is destroyed.
class Registered : public CCmCleanUpBase {
  public:
    explicit Registered(char aLetter) : m_chLetter(aLetter) {}
    ~Registered() override { g_sEnded += m_chLetter; }

  private:
    const char m_chLetter;
};

class Quiet : public CCmCleanUpBase {};

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

TEST_F(CmCleanUpBase, CleanupAllDestroysTheLatestFirst) {
    new Registered('a');
    new Registered('b');
    new Registered('c');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("cba", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAllDestroysOnce) {
    new Registered('a');
    CCmCleanUpBase::CleanupAll();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("a", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAllLeavesAnObjectToTheNextCall_WhenADestructorRegistersIt) {
    new Registered('a');
    new RegistersWhenDestroyed;
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bRa", g_sEnded);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bRan", g_sEnded);
}

// Registers another one of its kind, which an unbounded walk would follow for ever.
class RegistersItsLike : public CCmCleanUpBase {
  public:
    ~RegistersItsLike() override {
        g_sEnded += 'L';
        if (g_sEnded.size() < 100) {
            new RegistersItsLike;
        }
    }
};

TEST_F(CmCleanUpBase, CleanupAllEnds_WhenDestructorsRegisterTheirLike) {
    new RegistersItsLike;
    new Registered('a');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("aL", g_sEnded);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("aLL", g_sEnded);
    g_sEnded.resize(100);  // ends the row
}

class RegistersAndCleansUp : public CCmCleanUpBase {
  public:
    ~RegistersAndCleansUp() override {
        g_sEnded += '(';
        new Registered('x');
        new Registered('y');
        CCmCleanUpBase::CleanupAll();
        new Registered('z');
        g_sEnded += ')';
    }
};

TEST_F(CmCleanUpBase, CleanupAllHandlesOnlyWhatWasRegisteredSince_WhenNested) {
    new Registered('a');
    new RegistersAndCleansUp;
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("b(yx)a", g_sEnded);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("b(yx)az", g_sEnded);
}

// Deletes objects that the same call would come to later, one of them from a nested call.
class DeletesOthers : public CCmCleanUpBase {
  public:
    DeletesOthers(CCmCleanUpBase* aFirst, CCmCleanUpBase* aSecond)
        : m_pFirst(aFirst), m_pSecond(aSecond) {}
    ~DeletesOthers() override {
        g_sEnded += 'D';
        delete m_pFirst;
        if (m_pSecond != nullptr) {
            new DeletesOthers(m_pSecond, nullptr);
            CCmCleanUpBase::CleanupAll();
        }
    }

  private:
    CCmCleanUpBase* const m_pFirst;
    CCmCleanUpBase* const m_pSecond;
};

TEST_F(CmCleanUpBase, CleanupAllSkipsAnObject_WhenADestructorDeletedIt) {
    CCmCleanUpBase* pLast = new Registered('a');
    new Registered('b');
    CCmCleanUpBase* pMiddle = new Registered('c');
    new Registered('d');
    new DeletesOthers(pMiddle, pLast);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("DcDadb", g_sEnded);
}

class RegistersForAMoment : public CCmCleanUpBase {
  public:
    ~RegistersForAMoment() override {
        g_sEnded += 'R';
        delete new Registered('m');
    }
};

TEST_F(CmCleanUpBase, RegistryForgetsAnObject_WhenADestructorRegistersAndDeletesIt) {
    new Registered('a');
    new RegistersForAMoment;
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("Rma", g_sEnded);
}

// Writes over what earlier calls have left on the stack.
void OverwriteStack() {
    volatile char achUsed[2048];
    for (volatile char& ch : achUsed) {
        ch = 0x7F;
    }
}

// A nested call ends before it deletes an object that the outer one would come to.
class DeletesAfterANestedCall : public CCmCleanUpBase {
  public:
    explicit DeletesAfterANestedCall(CCmCleanUpBase* aOther) : m_pOther(aOther) {}
    ~DeletesAfterANestedCall() override {
        CCmCleanUpBase::CleanupAll();
        OverwriteStack();
        delete m_pOther;
    }

  private:
    CCmCleanUpBase* const m_pOther;
};

TEST_F(CmCleanUpBase, CleanupAllSkipsAnObject_WhenItIsDeletedAfterANestedCall) {
    new Registered('a');
    CCmCleanUpBase* pOther = new Registered('b');
    new DeletesAfterANestedCall(pOther);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("ba", g_sEnded);
}

// Left alive by its CleanUp; its owner destroys it.
class OutlivesCleanUp : public CCmCleanUpBase {
  public:
    void CleanUp() override { g_sEnded += 'k'; }
};

TEST_F(CmCleanUpBase, CleanupAllForgetsAnObject_WhenItKeepsItself) {
    new Registered('a');
    CCmCleanUpBase* pKept = new OutlivesCleanUp;
    CCmCleanUpBase::CleanupAll();
    CCmCleanUpBase::CleanupAll();
    new Registered('b');
    delete pKept;
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("kab", g_sEnded);
}

class ThrowsOnCleanUp : public CCmCleanUpBase {
  public:
    void CleanUp() override {
        new Registered('n');
        throw std::runtime_error("clean-up");
    }
};

TEST_F(CmCleanUpBase, CleanupAllLeavesTheRestRegistered_WhenACleanUpThrows) {
    new Registered('a');
    new Registered('b');
    CCmCleanUpBase* pThrowing = new ThrowsOnCleanUp;
    EXPECT_THROW(CCmCleanUpBase::CleanupAll(), std::runtime_error);
    EXPECT_EQ("", g_sEnded);
    delete pThrowing;
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("nba", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAllTakesLinearTime) {
    const auto milliseconds = [](int aCount) {
        for (int i = 0; i < aCount; ++i) {
            new Quiet;
        }
        timespec before = {};
        timespec after = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
        CCmCleanUpBase::CleanupAll();
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
        return static_cast<double>(after.tv_sec - before.tv_sec) * 1e3 +
               static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e6;
    };
    // Walks of quadratic cost would take half a minute.
    EXPECT_LT(milliseconds(200000), 5000);
}

TEST_F(CmCleanUpBase, CleanupAllReturns_WhenADestructorCallsIt) {
    new Registered('a');
    new CleansUpWhenDestroyed;
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bCa", g_sEnded);
}

// Whether another thread could take the mutex, before and after a nested call.
class TriesTheMutexElsewhere : public CCmCleanUpBase {
  public:
    ~TriesTheMutexElsewhere() override {
        TryElsewhere();
        CCmCleanUpBase::CleanupAll();
        TryElsewhere();
    }
    static void TryElsewhere() {
        std::thread([]() CM_NO_THREAD_SAFETY_ANALYSIS {
            const bool bTaken = CM_SUCCEEDED(g_SingletonMutex.TryLock());
            g_sEnded += bTaken ? 't' : '-';
            if (bTaken) {
                g_SingletonMutex.UnLock();
            }
        }).join();
    }
};

TEST_F(CmCleanUpBase, CleanupAllHoldsTheMutexThroughout) {
    new TriesTheMutexElsewhere;
    new Registered('a');
    new TriesTheMutexElsewhere;
    CCmCleanUpBase::CleanupAll();
    TriesTheMutexElsewhere::TryElsewhere();
    EXPECT_EQ("--a--t", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanupAllDestroysAll_WithoutItsMutex) {
    new Registered('a');
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
        0, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("a", g_sEnded);
}

TEST_F(CmCleanUpBase, RegistryForgetsAnObject_WhenItsConstructionFailed) {
    new Registered('a');
    EXPECT_THROW(new ThrowsWhenConstructed, std::bad_alloc);
    new Registered('b');
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("ba", g_sEnded);
}

TEST_F(CmCleanUpBase, RegistryForgetsAnObject_WhenOthersDeleteIt) {
    new Registered('a');
    CCmCleanUpBase* pMiddle = new Registered('b');
    new Registered('c');
    delete pMiddle;
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("bca", g_sEnded);
}

TEST_F(CmCleanUpBase, CleanUpDeletesTheObject) {
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

TEST(CmEnsureSingleThread, OwnerIsTheConstructingThread) {
    Probe probe;
    EXPECT_TRUE(pthread_equal(pthread_self(), probe.owner()));
}

TEST(CmEnsureSingleThread, OwnerCanBeReset) {
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

TEST(CmEnsureSingleThread, CheckTracesNothing) {
    kelto_test::ScopedTraceSink sink;
    const Probe probe;
    std::thread([&probe] { probe.EnsureSingleThread(); }).join();
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmStopFlag, FlagStartsFalseAndFollowsItsSetters) {
    CCmStopFlag flag;
    EXPECT_FALSE(flag.IsFlagStopped());
    flag.SetStopFlag();
    EXPECT_TRUE(flag.IsFlagStopped());
    flag.SetStopFlag();
    EXPECT_TRUE(flag.IsFlagStopped());
    flag.SetStartFlag();
    EXPECT_FALSE(flag.IsFlagStopped());
}

TEST(CmStopFlag, FlagIsRead_WhileItIsSet) {
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
