#include "CmFileTurn.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceGuard.h"

namespace UTIL_NS {

namespace {

// Guards the lists and counts below. A thread that holds it waits for nothing and takes no other
// lock.
CCmEternalLockT<CCmMutexThread> s_listMutex;

// A file, by device and inode, that is open at least once.
struct CTurnFile {
    CTurnFile* m_pNext = nullptr;
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
    int m_nUses = 0;                       // openings that have not been closed yet
    CCmTurnOpening* m_pToClose = nullptr;  // whoever has the turn closes these
    CCmMutexThread m_Turn{CCmStaticInit()};
};

CTurnFile* s_pFiles CM_GUARDED_BY(s_listMutex.m_Lock) = nullptr;
CCmTurnOpening* s_pOpenings CM_GUARDED_BY(s_listMutex.m_Lock) = nullptr;

}  // namespace

struct CCmTurnOpening {
    CCmTurnOpening* m_pNext = nullptr;
    int m_nDescriptor = -1;
    FILE* m_pStream = nullptr;  // owns the descriptor
    CTurnFile* m_pFile = nullptr;
    int m_nUses = 1;  // one of its owner, until CmCloseTurnFile, and one of each turn
};

namespace {

void CloseNow(CCmTurnOpening* aOpening) {
    if (aOpening->m_pStream != nullptr) {
        std::fclose(aOpening->m_pStream);
    } else {
        g_cmSystem.close(aOpening->m_nDescriptor);
    }
    delete aOpening;
}

bool HasClosings(const CTurnFile& aFile) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    return aFile.m_pToClose != nullptr;
}

CCmTurnOpening* TakeClosings(CTurnFile& aFile) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    return std::exchange(aFile.m_pToClose, nullptr);
}

// Closes what is listed, within a turn, since closing a file takes the process's locks off it. A
// thread that finds the turn taken need not wait: whoever has the turn comes here when it gives it
// back, and closes what this thread has listed. For the same reason it looks again after closing:
// others may have listed more meanwhile and left because it had the turn.
void CloseInTurn(CTurnFile& aFile) {
    while (HasClosings(aFile) && CM_SUCCEEDED(aFile.m_Turn.TryLock())) {
        CCmTurnOpening* pOpening = TakeClosings(aFile);
        while (pOpening != nullptr) {
            CloseNow(std::exchange(pOpening, pOpening->m_pNext));
        }
        aFile.m_Turn.UnLock();
    }
}

template <class Node>
void Unlink(Node*& aHeader, Node* aNode) {
    Node** ppLink = &aHeader;
    while (*ppLink != aNode) {
        ppLink = &(*ppLink)->m_pNext;
    }
    *ppLink = aNode->m_pNext;
}

void Release(CTurnFile* aFile) {
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        if (--aFile->m_nUses > 0) {
            return;
        }
        Unlink(s_pFiles, aFile);
    }
    delete aFile;
}

// After the last use it is closed. The opening is itself a use of its file, which is released only
// then: until it is closed, the turn must exist.
void Release(CCmTurnOpening* aOpening) {
    CTurnFile* const pFile = aOpening->m_pFile;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        if (--aOpening->m_nUses > 0) {
            return;
        }
        aOpening->m_pNext = pFile->m_pToClose;
        pFile->m_pToClose = aOpening;
    }
    CloseInTurn(*pFile);
    Release(pFile);
}

// Counts one more use of the file in the list or, when it is not there, of aNew, which is put
// there.
CTurnFile* UseFile_l(const struct stat& aStatus, std::unique_ptr<CTurnFile>& aNew)
    CM_REQUIRES(s_listMutex.m_Lock) {
    CTurnFile* pFile = s_pFiles;
    while (pFile != nullptr &&
           (pFile->m_Device != aStatus.st_dev || pFile->m_Inode != aStatus.st_ino)) {
        pFile = pFile->m_pNext;
    }
    if (pFile == nullptr) {
        pFile = aNew.release();
        pFile->m_Device = aStatus.st_dev;
        pFile->m_Inode = aStatus.st_ino;
        pFile->m_pNext = s_pFiles;
        s_pFiles = pFile;
    }
    ++pFile->m_nUses;
    return pFile;
}

CCmTurnOpening* FindOpening_l(FILE* aStream) CM_REQUIRES(s_listMutex.m_Lock) {
    CCmTurnOpening* pOpening = s_pOpenings;
    while (pOpening != nullptr && pOpening->m_pStream != aStream) {
        pOpening = pOpening->m_pNext;
    }
    return pOpening;
}

CCmTurnOpening* UseOpening(FILE* aStream) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    CCmTurnOpening* const pOpening = FindOpening_l(aStream);
    if (pOpening != nullptr) {
        ++pOpening->m_nUses;
    }
    return pOpening;
}

}  // namespace

FILE* CmOpenTurnFile(const char* aPath, int& aDescriptor) {
    // Memory first: a file that is open must be closed in a turn, which needs these.
    std::unique_ptr<CCmTurnOpening> pNew(new (std::nothrow) CCmTurnOpening);
    std::unique_ptr<CTurnFile> pNewFile(new (std::nothrow) CTurnFile);
    if (pNew == nullptr || pNewFile == nullptr) {
        return nullptr;
    }
    int nDescriptor;
    do {
        nDescriptor = g_cmSystem.open(aPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    } while (nDescriptor < 0 && errno == EINTR);
    if (nDescriptor < 0) {
        return nullptr;
    }
    struct stat status = {};
    if (g_cmSystem.fstat(nDescriptor, &status) != 0) {
        g_cmSystem.close(nDescriptor);
        return nullptr;
    }
    FILE* const pStream = g_cmSystem.fdopen(nDescriptor, "r+");
    CCmTurnOpening* const pOpening = pNew.release();
    pOpening->m_nDescriptor = nDescriptor;
    pOpening->m_pStream = pStream;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        pOpening->m_pFile = UseFile_l(status, pNewFile);
        if (pStream != nullptr) {
            pOpening->m_pNext = s_pOpenings;
            s_pOpenings = pOpening;
        }
    }
    if (pStream == nullptr) {
        Release(pOpening);
        return nullptr;
    }
    aDescriptor = nDescriptor;
    return pStream;
}

void CmCloseTurnFile(FILE* aStream) {
    CCmTurnOpening* pOpening;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        pOpening = FindOpening_l(aStream);
        Unlink(s_pOpenings, pOpening);
    }
    Release(pOpening);
}

CCmFileTurn::CCmFileTurn(FILE* aStream) : m_pOpening(UseOpening(aStream)) {
    if (m_pOpening != nullptr) {
        m_pOpening->m_pFile->m_Turn.Lock();
    }
}

CCmFileTurn::~CCmFileTurn() {
    if (m_pOpening != nullptr) {
        CTurnFile* const pFile = m_pOpening->m_pFile;
        pFile->m_Turn.UnLock();
        CloseInTurn(*pFile);
        Release(m_pOpening);
    }
}

}  // namespace UTIL_NS
