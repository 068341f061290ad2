#include "CmUtilTemplates.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CmScopedLock.h"
#include "CmSingletonMutex.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::ScopedTraceSink;

// ---- Reference counts ----

int g_nDestroyed = 0;

template <class MutexType>
class Counted : public CCmReferenceControlT<MutexType> {
  public:
    ~Counted() override { ++g_nDestroyed; }
};

template <class MutexType>
class CmReferenceControl : public testing::Test {
  protected:
    CmReferenceControl() { g_nDestroyed = 0; }
};

typedef testing::Types<CCmMutexThread, CCmMutexNullSingleThread> Flavours;
TYPED_TEST_SUITE(CmReferenceControl, Flavours, );

TYPED_TEST(CmReferenceControl, CountStartsAtZero) {
    Counted<TypeParam> object;
    EXPECT_EQ(0u, object.GetReference());
}

TYPED_TEST(CmReferenceControl, ReleaseDestroys_WhenTheReferenceIsTheLast) {
    auto* pObject = new Counted<TypeParam>;
    EXPECT_EQ(1u, pObject->AddReference());
    EXPECT_EQ(1u, pObject->GetReference());
    EXPECT_EQ(0u, pObject->ReleaseReference());
    EXPECT_EQ(1, g_nDestroyed);
}

TYPED_TEST(CmReferenceControl, ReleaseReturnsTheNewCount) {
    auto* pObject = new Counted<TypeParam>;
    EXPECT_EQ(1u, pObject->AddReference());
    EXPECT_EQ(2u, pObject->AddReference());
    EXPECT_EQ(1u, pObject->ReleaseReference());
    EXPECT_EQ(0, g_nDestroyed);
    EXPECT_EQ(0u, pObject->ReleaseReference());
    EXPECT_EQ(1, g_nDestroyed);
}

TYPED_TEST(CmReferenceControl, ReleaseMakesTheCountNegative_WhenItIsZero) {
    Counted<TypeParam> object;
    EXPECT_EQ(0xFFFFFFFFu, object.ReleaseReference());
    EXPECT_EQ(0xFFFFFFFFu, object.GetReference());
    EXPECT_EQ(0, g_nDestroyed);
}

template <class MutexType>
class Kept : public CCmReferenceControlT<MutexType> {
  public:
    void OnReferenceDestory() override { ++m_nEnded; }
    int m_nEnded = 0;
};

TYPED_TEST(CmReferenceControl, DestoryIsThatOfTheDerivedClass_WhenOverridden) {
    Kept<TypeParam> object;
    object.AddReference();
    EXPECT_EQ(0u, object.ReleaseReference());
    EXPECT_EQ(1, object.m_nEnded);
    EXPECT_EQ(0u, object.GetReference());
}

TEST(CmReferenceControlThreads, DestoryHappensOnce_WhenEightThreadsRelease) {
    for (int nRound = 0; nRound < 50; ++nRound) {
        g_nDestroyed = 0;
        auto* pObject = new Counted<CCmMutexThread>;
        for (int i = 0; i < 8; ++i) {
            pObject->AddReference();
        }
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([pObject] {
                for (int n = 0; n < 100; ++n) {
                    pObject->AddReference();
                    pObject->ReleaseReference();
                }
                pObject->ReleaseReference();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(1, g_nDestroyed);
    }
}

// ---- Auto pointer ----

class CmComAutoPtr : public testing::Test {
  protected:
    typedef Counted<CCmMutexThread> Object;
    CmComAutoPtr() { g_nDestroyed = 0; }
};

TEST_F(CmComAutoPtr, ConstructorTakesAReference) {
    Object* pObject = new Object;
    {
        CCmComAutoPtr<Object> ptr(pObject);
        EXPECT_EQ(1u, pObject->GetReference());
        EXPECT_EQ(pObject, ptr.ParaIn());
        EXPECT_EQ(pObject, ptr.operator->());
        EXPECT_EQ(pObject, &*ptr);
    }
    EXPECT_EQ(1, g_nDestroyed);
}

TEST_F(CmComAutoPtr, ConstructorTakesNothing_WhenThePointerIsNull) {
    CCmComAutoPtr<Object> ptr;
    EXPECT_EQ(nullptr, ptr.ParaIn());
    ptr = nullptr;
    EXPECT_EQ(nullptr, ptr.ParaIn());
}

TEST_F(CmComAutoPtr, AssignChangesNothing_WhenThePointerIsItsOwn) {
    Object* pObject = new Object;
    CCmComAutoPtr<Object> ptr(pObject);
    ptr = pObject;
    EXPECT_EQ(1u, pObject->GetReference());
    CCmComAutoPtr<Object>& sameOne = ptr;
    ptr = sameOne;
    EXPECT_EQ(1u, pObject->GetReference());
    EXPECT_EQ(0, g_nDestroyed);
}

// Counts the references that are taken on it.
class Watched : public Counted<CCmMutexThread> {
  public:
    uint32_t AddReference() override {
        ++m_nAdded;
        return Counted<CCmMutexThread>::AddReference();
    }
    int m_nAdded = 0;
};

TEST_F(CmComAutoPtr, AssignTakesNoReference_WhenThePointerIsItsOwn) {
    CCmComAutoPtr<Watched> ptr(new Watched);
    ptr = ptr.ParaIn();
    EXPECT_EQ(1, ptr->m_nAdded);
}

TEST_F(CmComAutoPtr, AssignReleasesTheOldObject) {
    CCmComAutoPtr<Object> ptr(new Object);
    Object* pNew = new Object;
    ptr = pNew;
    EXPECT_EQ(1, g_nDestroyed);
    EXPECT_EQ(1u, pNew->GetReference());
    ptr = nullptr;
    EXPECT_EQ(2, g_nDestroyed);
}

TEST_F(CmComAutoPtr, AttachTakesNoReferenceAndReleasesTheOldObject) {
    CCmComAutoPtr<Object> ptr(new Object);
    Object* pNew = new Object;
    pNew->AddReference();
    ptr.Attach(pNew);
    EXPECT_EQ(1, g_nDestroyed);
    EXPECT_EQ(pNew, ptr.ParaIn());
    EXPECT_EQ(1u, pNew->GetReference());
}

TEST_F(CmComAutoPtr, AttachFillsThePointer_WhenItIsEmpty) {
    Object* pObject = new Object;
    pObject->AddReference();
    {
        CCmComAutoPtr<Object> ptr;
        ptr.Attach(pObject);
        EXPECT_EQ(1u, pObject->GetReference());
    }
    EXPECT_EQ(1, g_nDestroyed);
}

TEST_F(CmComAutoPtr, CopySharesTheObject) {
    CCmComAutoPtr<Object> first(new Object);
    CCmComAutoPtr<Object> second(first);  // NOLINT(performance-unnecessary-copy-initialization)
    CCmComAutoPtr<Object> third;
    third = first;
    EXPECT_EQ(3u, first->GetReference());
}

// Owns the next of its kind.
class Link : public Counted<CCmMutexThread> {
  public:
    CCmComAutoPtr<Link> m_Next;
};

TEST_F(CmComAutoPtr, AssignKeepsAChain_WhenTheOldObjectOwnsIt) {
    CCmComAutoPtr<Link> ptr(new Link);
    ptr->m_Next = new Link;
    ptr = ptr->m_Next.ParaIn();
    EXPECT_EQ(1, g_nDestroyed);
    EXPECT_EQ(1u, ptr->GetReference());
    EXPECT_EQ(nullptr, ptr->m_Next.ParaIn());
}

// Assigns another object to the pointer that held it, when it ends.
class Reassigning : public Counted<CCmMutexThread> {
  public:
    ~Reassigning() override {
        if (m_pHolder != nullptr) {
            m_pHeldAtEnd = m_pHolder->ParaIn();
            *m_pHolder = m_pNext;
        }
    }
    CCmComAutoPtr<Reassigning>* m_pHolder = nullptr;
    Reassigning* m_pNext = nullptr;
    inline static Reassigning* m_pHeldAtEnd = nullptr;
};

TEST_F(CmComAutoPtr, AssignHoldsTheNewObject_WhenTheOldOneEnds) {
    CCmComAutoPtr<Reassigning> ptr(new Reassigning);
    Reassigning* pSecond = new Reassigning;
    Reassigning* pThird = new Reassigning;
    ptr->m_pHolder = &ptr;
    ptr->m_pNext = pThird;
    ptr = pSecond;
    EXPECT_EQ(pSecond, Reassigning::m_pHeldAtEnd);
    EXPECT_EQ(2, g_nDestroyed);  // the first, and the second that the third replaced
    EXPECT_EQ(pThird, ptr.ParaIn());
    EXPECT_EQ(1u, pThird->GetReference());
}

// ---- Singletons ----

std::string g_sEvents;
std::atomic<int> g_nConstructed{0};

template <char Letter>
struct Named {
    Named() { g_sEvents += Letter; }
    ~Named() {
        g_sEvents += '~';
        g_sEvents += Letter;
    }
};

struct Slow {
    Slow() {
        ++g_nConstructed;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        m_nValue = 42;
    }
    int m_nValue = 0;
};

struct Throwing {
    Throwing() {
        CCmSingletonT<Named<'i'>>::Instance();  // registers after the one that fails
        if (s_bThrows) {
            throw std::bad_alloc();
        }
    }
    inline static bool s_bThrows = true;
};

struct LooksUpWhenDestroyed {
    ~LooksUpWhenDestroyed() { CCmSingletonT<Named<'l'>>::Instance(); }
};

class CmSingleton : public testing::Test {
  protected:
    CmSingleton() {
        CCmCleanUpBase::CleanupAll();
        g_sEvents.clear();
        g_nConstructed = 0;
    }
    ~CmSingleton() override { CCmCleanUpBase::CleanupAll(); }
};

constexpr char NO_INSTANCE[] =
    "UTIL ERROR: include/CmUtilTemplates.h:58 Assert failed: m_psInstance";

TEST_F(CmSingleton, InstanceIsCreatedOnce) {
    Named<'a'>* pFirst = CCmSingletonT<Named<'a'>>::Instance();
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(pFirst, CCmSingletonT<Named<'a'>>::Instance());
    EXPECT_EQ("a", g_sEvents);
}

TEST_F(CmSingleton, CleanupAllDestroysInReverseOrder) {
    CCmSingletonT<Named<'a'>>::Instance();
    CCmSingletonT<Named<'b'>>::Instance();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("ab~b~a", g_sEvents);
    EXPECT_NE(nullptr, CCmSingletonT<Named<'a'>>::Instance());
    EXPECT_EQ("ab~b~aa", g_sEvents);
}

TEST_F(CmSingleton, DestructorIsTraced) {
    CCmSingletonT<Named<'a'>>::Instance();
    ScopedTraceSink sink;
    CCmCleanUpBase::CleanupAll();
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(20u, sink.lines()[0].level);
    const std::string sLine = sink.lines()[0].text;
    EXPECT_EQ("UTIL INFO: CCmSingletonT::~CCmSingletonT() instance = 0x# this=0x#",
              kelto_test::MaskAddresses(sLine));
    // Both are the address of the singleton.
    const size_t nFirst = sLine.find("0x");
    const size_t nThis = sLine.find(" this=");
    EXPECT_EQ(sLine.substr(nFirst, nThis - nFirst), sLine.substr(nThis + 6));
}

TEST_F(CmSingleton, InstanceIsNull_WithoutMemory) {
    ScopedTraceSink sink;
    {
        kelto_test::ScopedAllocationFault fault(1);
        EXPECT_EQ(nullptr, CCmSingletonT<Named<'a'>>::Instance());
        EXPECT_TRUE(fault.hit());
    }
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ(NO_INSTANCE, sink.lines()[0].text);
    EXPECT_NE(nullptr, CCmSingletonT<Named<'a'>>::Instance());
}

TEST_F(CmSingleton, InstanceIsNull_WhenItsConstructionThrows) {
    ScopedTraceSink sink;
    Throwing::s_bThrows = true;
    EXPECT_EQ(nullptr, CCmSingletonT<Throwing>::Instance());
    EXPECT_EQ(1u, sink.count(NO_INSTANCE));
    EXPECT_EQ("i", g_sEvents);
    // The registry holds the inner singleton only.
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("i~i", g_sEvents);
}

TEST_F(CmSingleton, InstanceFreesTheMutex_WhenItsConstructionThrows) {
    ScopedTraceSink sink;
    Throwing::s_bThrows = true;
    EXPECT_EQ(nullptr, CCmSingletonT<Throwing>::Instance());
    std::thread([]() CM_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_EQ(CM_OK, g_SingletonMutex.TryLock());
        EXPECT_EQ(CM_OK, g_SingletonMutex.UnLock());
    }).join();
    Throwing::s_bThrows = false;
    EXPECT_NE(nullptr, CCmSingletonT<Throwing>::Instance());
}

TEST_F(CmSingleton, InstanceIsCreated_WithoutItsMutex) {
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
        0, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
    EXPECT_NE(nullptr, CCmSingletonT<Named<'a'>>::Instance());
}

TEST_F(CmSingleton, InstanceTakesNoLock_AfterItExists) {
    CCmSingletonT<Named<'a'>>::Instance();
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> counting(0, 0, 100);
    CCmSingletonT<Named<'a'>>::Instance();
    EXPECT_EQ(0u, counting.calls());
}

TEST_F(CmSingleton, InstanceIsCreatedOnce_WhenEightThreadsAsk) {
    std::vector<std::thread> threads;
    std::vector<Slow*> instances(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&instances, i] {
            instances[i] = CCmSingletonT<Slow>::Instance();
            EXPECT_EQ(42, instances[i]->m_nValue);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, g_nConstructed);
    EXPECT_EQ(std::vector<Slow*>(8, instances[0]), instances);
}

TEST_F(CmSingleton, InstanceEndsInTheNextCleanUp_WhenADestructorCreatedIt) {
    CCmSingletonT<LooksUpWhenDestroyed>::Instance();
    CCmSingletonT<Named<'l'>>::Instance();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("l~ll", g_sEvents);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("l~ll~l", g_sEvents);
}

// While bounded, looks up the singleton of the other kind, which may be its own.
template <char Letter, char Other>
struct LooksUpAnother {
    ~LooksUpAnother() {
        g_sEvents += Letter;
        if (g_sEvents.size() < 100) {
            CCmSingletonT<LooksUpAnother<Other, Letter>>::Instance();
        }
    }
};

TEST_F(CmSingleton, CleanupAllEnds_WhenADestructorLooksItselfUp) {
    CCmSingletonT<LooksUpAnother<'s', 's'>>::Instance();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("s", g_sEvents);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("ss", g_sEvents);
    g_sEvents.resize(100);
}

TEST_F(CmSingleton, CleanupAllEnds_WhenTwoDestructorsLookEachOtherUp) {
    CCmSingletonT<LooksUpAnother<'p', 'q'>>::Instance();
    CCmSingletonT<LooksUpAnother<'q', 'p'>>::Instance();
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("qp", g_sEvents);
    CCmCleanUpBase::CleanupAll();
    EXPECT_EQ("qpq", g_sEvents);
    g_sEvents.resize(100);
}

// ---- Trimming ----

TEST(CmTrim, IsSpaceIsTheBlankOnly) {
    CCmIsSpace isSpace;
    EXPECT_TRUE(isSpace(' '));
    for (char ch : {'\t', '\n', '\r', '\v', '\f', '\0', 'a', '\xA0'}) {
        EXPECT_FALSE(isSpace(ch)) << static_cast<int>(ch);
    }
}

TEST(CmTrim, StringsLoseBlanksAtOneEnd) {
    CCmString sLeft = "  a b  ";
    LTrimString(sLeft, CCmIsSpace());
    EXPECT_EQ("a b  ", sLeft);
    CCmString sRight = "  a b  ";
    RTrimString(sRight, CCmIsSpace());
    EXPECT_EQ("  a b", sRight);
}

TEST(CmTrim, StringsBecomeEmpty_WhenThereAreOnlyBlanks) {
    CCmString sBlanks = "   ";
    LTrimString(sBlanks, CCmIsSpace());
    EXPECT_EQ("", sBlanks);
    sBlanks = "   ";
    RTrimString(sBlanks, CCmIsSpace());
    EXPECT_EQ("", sBlanks);
    RTrimString(sBlanks, CCmIsSpace());
    LTrimString(sBlanks, CCmIsSpace());
    EXPECT_EQ("", sBlanks);
}

TEST(CmTrim, StringsKeepTabs) {
    CCmString sText = " \ta\t ";
    LTrimString(sText, CCmIsSpace());
    RTrimString(sText, CCmIsSpace());
    EXPECT_EQ("\ta\t", sText);
}

}  // namespace
}  // namespace UTIL_NS
