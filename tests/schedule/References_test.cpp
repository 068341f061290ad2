// Reference counts, data blocks and message blocks of several threads, in every schedule.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "CmDataBlock.h"
#include "CmMessageBlock.h"
#include "CmUtilTemplates.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

int s_nAlive;
int s_nDestroyedOn;

class CCounted : public CCmReferenceControlT<CCmMutexThread> {
  public:
    CCounted() { ++s_nAlive; }
    ~CCounted() override {
        --s_nAlive;
        s_nDestroyedOn = ThreadNumber();
    }
};

CCounted& MakeCounted(int aReferences) {
    s_nAlive = 0;
    s_nDestroyedOn = -1;
    auto* const pCounted = new CCounted;
    for (int nReference = 0; nReference < aReferences; ++nReference) {
        pCounted->AddReference();
    }
    return *pCounted;
}

std::string TextOf(CCmMessageBlock& aBlock) {
    std::string strText(aBlock.GetChainedLength(), ' ');
    SCHEDULE_EXPECT(aBlock.Read(strText.data(), static_cast<unsigned int>(strText.size())) ==
                    CM_OK);
    return strText;
}

}  // namespace

TEST(ScheduledReference, IsDestroyedOnTheThreadThatReleasesLast_WhenTwoRelease) {
    Explore([] {
        CCounted& counted = MakeCounted(2);
        int nLast = -1;
        const auto release = [&] {
            if (counted.ReleaseReference() == 0) {
                SCHEDULE_EXPECT(nLast == -1);
                nLast = ThreadNumber();
            }
        };
        CThreadOf other(release);
        release();
        other.Join();
        SCHEDULE_EXPECT(s_nAlive == 0 && nLast == s_nDestroyedOn);
    });
}

TEST(ScheduledReference, Lives_WhileAThreadAddsAndReleasesItsOwn) {
    Explore([] {
        CCounted& counted = MakeCounted(2);
        CThreadOf other([&counted] {
            counted.AddReference();
            SCHEDULE_EXPECT(counted.ReleaseReference() >= 1);
            SCHEDULE_EXPECT(s_nAlive == 1);
            counted.ReleaseReference();
        });
        CThreadOf third([&counted] { counted.ReleaseReference(); });
        other.Join();
        third.Join();
        SCHEDULE_EXPECT(s_nAlive == 0 && s_nDestroyedOn > 0);
    });
}

TEST(ScheduledReference, IsDestroyedOnce_WhenPointersOfThreeThreadsLetGo) {
    Explore([] {
        CCounted& counted = MakeCounted(0);
        {
            const CCmComAutoPtr<CCounted> pFirst(&counted);
            CCmComAutoPtr<CCounted> pSecond(pFirst);
            CThreadOf second([&pSecond] { pSecond = nullptr; });
            CCmComAutoPtr<CCounted> pThird(pFirst);
            CThreadOf third([&] {
                CCmComAutoPtr<CCounted> pCopy(pThird);
                pThird = nullptr;
            });
            SCHEDULE_EXPECT(s_nAlive == 1);
        }
        SCHEDULE_EXPECT(s_nAlive == 0 && s_nDestroyedOn == 0);
    });
}

TEST(ScheduledBlock, IsFreedOnce_WhenTwoThreadsReleaseIt) {
    Explore([] {
        CCmDataBlock* pBlock = nullptr;
        SCHEDULE_EXPECT(CCmDataBlock::CreateInstance(pBlock, 5, "text") == CM_OK);
        CCmComAutoPtr<CCmDataBlock> pHeld;
        pHeld.Attach(pBlock);
        const uint32_t dwBefore = pBlock->GetReference();
        {
            const auto share = [pBlock] {
                CCmComAutoPtr<CCmDataBlock> pShared(pBlock);
                CCmMessageBlock message(pBlock, 0, 5);
                SCHEDULE_EXPECT(TextOf(message) == std::string("text\0", 5));
            };
            CThreadOf first(share);
            CThreadOf second(share);
        }
        SCHEDULE_EXPECT(pBlock->GetReference() == dwBefore);
    });
}

TEST(ScheduledBlock, KeepsItsText_WhenTwoThreadsReadAndFreeDuplicates) {
    Explore([] {
        auto* const pFirst = new CCmMessageBlock(4u, nullptr, 0, 0);
        CCmMessageBlock rest(4u, nullptr, 0, 0);
        SCHEDULE_EXPECT(pFirst->Write("abcd", 4) == CM_OK && rest.Write("efgh", 4) == CM_OK);
        pFirst->Append(&rest);
        CCmMessageBlock* const pCopy = pFirst->DuplicateChained();
        CCmMessageBlock* const pOther = pFirst->DuplicateChained();
        SCHEDULE_EXPECT(pCopy != nullptr && pOther != nullptr);
        {
            CThreadOf reader([pCopy] {
                SCHEDULE_EXPECT(TextOf(*pCopy) == "abcdefgh");
                pCopy->DestroyChained();
            });
            CThreadOf second([pOther] {
                SCHEDULE_EXPECT(TextOf(*pOther) == "abcdefgh");
                pOther->DestroyChained();
            });
            delete pFirst;
        }
    });
}

TEST(ScheduledBlock, IsFreedByTheLast_WhenAPieceIsCutOffAndTheRestIsFreed) {
    Explore([] {
        auto* const pMessage = new CCmMessageBlock(8u, nullptr, 0, 0);
        SCHEDULE_EXPECT(pMessage->Write("abcdefgh", 8) == CM_OK);
        CCmMessageBlock* const pTail = pMessage->Disjoint(3);
        SCHEDULE_EXPECT(pTail != nullptr);
        CThreadOf other([pTail] {
            SCHEDULE_EXPECT(TextOf(*pTail) == "defgh");
            pTail->DestroyChained();
        });
        SCHEDULE_EXPECT(TextOf(*pMessage) == "abc");
        delete pMessage;
    });
}

}  // namespace kelto_test
