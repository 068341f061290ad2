// Files that several threads lock, by themselves; CmT120TraceFile_test has them as trace files.
#include "CmFileTurn.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::ScopedEntry;

int s_nClosed = -1;  // the last descriptor that was closed without a stream

int RecordingClose(int aFile) {
    s_nClosed = aFile;
    return close(aFile);
}

bool IsOpen(int aFile) {
    struct stat status;
    return fstat(aFile, &status) == 0;
}

class CmFileTurn : public testing::Test {
  protected:
    CmFileTurn() : m_Close(g_cmSystem.close, &RecordingClose) {
        s_nClosed = -1;
        close(mkstemp(m_szPath));
    }
    ~CmFileTurn() override { unlink(m_szPath); }

    char m_szPath[32] = "/tmp/kelto_turnXXXXXX";

  private:
    ScopedEntry<decltype(g_cmSystem.close)> m_Close;
};

TEST_F(CmFileTurn, ClosesTheStream_WhenThereIsOne) {
    const long lLive = kelto_test::LiveAllocations();
    int nDescriptor = -1;
    FILE* const pStream = CmOpenTurnFile(m_szPath, nDescriptor);
    ASSERT_NE(nullptr, pStream);
    EXPECT_EQ(fileno(pStream), nDescriptor);
    CmCloseTurnFile(pStream);
    EXPECT_EQ(-1, s_nClosed) << "the stream owns the descriptor";
    EXPECT_FALSE(IsOpen(nDescriptor));
    EXPECT_FALSE(CCmFileTurn(pStream).IsHeld());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_F(CmFileTurn, ClosesTheDescriptor_WhenThereIsNoStream) {
    const FailingCall<&CCmSystemTable::fdopen> fault(ENOMEM, nullptr);
    int nDescriptor = -1;
    EXPECT_EQ(nullptr, CmOpenTurnFile(m_szPath, nDescriptor));
    EXPECT_EQ(-1, nDescriptor);
    EXPECT_LE(0, s_nClosed);
    EXPECT_FALSE(IsOpen(s_nClosed));
}

TEST_F(CmFileTurn, MakesAFileThatIsNoProgram_WhenThereIsNone) {
    unlink(m_szPath);
    int nDescriptor = -1;
    FILE* const pStream = CmOpenTurnFile(m_szPath, nDescriptor);
    ASSERT_NE(nullptr, pStream);
    struct stat status = {};
    EXPECT_EQ(0, fstat(nDescriptor, &status));
    EXPECT_EQ(0600u, status.st_mode & 0711u);
    CmCloseTurnFile(pStream);
}

TEST_F(CmFileTurn, OpensNothing_WhenTheFileIsUnknown) {
    const FailingCall<&CCmSystemTable::fstat> fault(EIO);
    int nDescriptor = -1;
    EXPECT_EQ(nullptr, CmOpenTurnFile(m_szPath, nDescriptor));
    EXPECT_LE(0, s_nClosed);
    EXPECT_FALSE(IsOpen(s_nClosed));
}

TEST_F(CmFileTurn, OpensNothing_WhenMemoryRunsOut) {
    const long lLive = kelto_test::LiveAllocations();
    for (unsigned long ulNth = 1; ulNth <= 2; ++ulNth) {
        const kelto_test::ScopedAllocationFault fault(ulNth);
        int nDescriptor = -1;
        EXPECT_EQ(nullptr, CmOpenTurnFile(m_szPath, nDescriptor));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    EXPECT_EQ(-1, s_nClosed) << "was not opened";
}

TEST_F(CmFileTurn, IsThatOfTheFile_WhenItIsOpenTwice) {
    const long lLive = kelto_test::LiveAllocations();
    int nFirst = -1;
    int nSecond = -1;
    FILE* const pFirst = CmOpenTurnFile(m_szPath, nFirst);
    FILE* const pSecond = CmOpenTurnFile(m_szPath, nSecond);
    ASSERT_NE(nullptr, pFirst);
    ASSERT_NE(nullptr, pSecond);
    {
        const CCmFileTurn turn(pFirst);
        EXPECT_TRUE(turn.IsHeld());
        // Closing either would take the process's locks off the file.
        CmCloseTurnFile(pSecond);
        CmCloseTurnFile(pFirst);
        EXPECT_TRUE(IsOpen(nFirst));
        EXPECT_TRUE(IsOpen(nSecond));
    }
    EXPECT_FALSE(IsOpen(nFirst));
    EXPECT_FALSE(IsOpen(nSecond));
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

dev_t s_Device = 0;
ino_t s_Inode = 0;

int FakeFstat(int aFile, struct stat* aStatus) {
    const int rv = fstat(aFile, aStatus);
    aStatus->st_dev = s_Device;
    aStatus->st_ino = s_Inode;
    return rv;
}

TEST_F(CmFileTurn, IsNotThatOfAnother_WhenTheirDeviceOrTheirNumberDiffers) {
    const struct {
        dev_t device;
        ino_t inode;
        bool isSame;
    } rows[] = {{7, 100, true}, {7, 101, false}, {8, 100, false}};
    const ScopedEntry<decltype(g_cmSystem.fstat)> entry(g_cmSystem.fstat, &FakeFstat);
    for (const auto& row : rows) {
        s_Device = 7;
        s_Inode = 100;
        int nFirst = -1;
        int nSecond = -1;
        FILE* const pFirst = CmOpenTurnFile(m_szPath, nFirst);
        s_Device = row.device;
        s_Inode = row.inode;
        FILE* const pSecond = CmOpenTurnFile(m_szPath, nSecond);
        ASSERT_NE(nullptr, pFirst);
        ASSERT_NE(nullptr, pSecond);
        {
            const CCmFileTurn turn(pFirst);
            CmCloseTurnFile(pSecond);
            EXPECT_EQ(row.isSame, IsOpen(nSecond)) << row.device << ' ' << row.inode;
        }
        CmCloseTurnFile(pFirst);
    }
}

int s_nOpenings = 0;

int OpenZero(const char* /*aPath*/, int /*aFlags*/, mode_t /*aMode*/) {
    errno = s_nOpenings == 0 ? EINTR : 0;  // of something before
    ++s_nOpenings;
    return 0;
}

int NoteClose(int aFile) {
    s_nClosed = aFile;
    return 0;
}

TEST_F(CmFileTurn, OpensOnce_WhenTheDescriptorIsZero) {
    s_nOpenings = 0;
    const ScopedEntry<decltype(g_cmSystem.open)> open(g_cmSystem.open, &OpenZero);
    const ScopedEntry<decltype(g_cmSystem.close)> close(g_cmSystem.close, &NoteClose);
    const FailingCall<&CCmSystemTable::fstat> fault(EIO);
    int nDescriptor = -1;
    EXPECT_EQ(nullptr, CmOpenTurnFile(m_szPath, nDescriptor));
    EXPECT_EQ(1, s_nOpenings);
    EXPECT_EQ(0, s_nClosed);
}

}  // namespace
}  // namespace UTIL_NS
