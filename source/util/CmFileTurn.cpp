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

// Guards the lists and counts below. Nothing is waited for while it is held, and no other lock is
// taken.
CCmEternalLockT<CCmMutexThread> s_listMutex;

// A file, by device and inode, that is open at least once.
struct CTurnFile {
    CTurnFile* m_pNext = nullptr;
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
    int m_nUses = 0;                       // openings until they have been passed to Close
    CCmTurnOpening* m_pToClose = nullptr;  // by whoever has the turn
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
    int m_nUses = 1;  // its owner's, until it closes, and each turn's
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

// Closes within a turn, since to close a file takes the process's locks off it. A thread that finds
// the turn taken need not wait: whoever has it comes here after it, and then finds what this thread
// listed before it tried. So a thread that has closed asks again: others may have listed more
// meanwhile, found it at work and left.
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

void EndUseOf(CTurnFile* aFile) {
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        if (--aFile->m_nUses > 0) {
            return;
        }
        Unlink(s_pFiles, aFile);
    }
    delete aFile;
}

// The last use closes it. The opening is itself a use of its file, which ends after that: the turn
// has to be there until then.
void EndUseOf(CCmTurnOpening* aOpening) {
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
    EndUseOf(pFile);
}

// The file that is open already, or aNew, which becomes it. One more use of either.
CTurnFile* UseFile(const struct stat& aStatus, std::unique_ptr<CTurnFile>& aNew)
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

CCmTurnOpening* FindOpening(FILE* aStream) CM_REQUIRES(s_listMutex.m_Lock) {
    CCmTurnOpening* pOpening = s_pOpenings;
    while (pOpening != nullptr && pOpening->m_pStream != aStream) {
        pOpening = pOpening->m_pNext;
    }
    return pOpening;
}

CCmTurnOpening* UseOpening(FILE* aStream) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    CCmTurnOpening* const pOpening = FindOpening(aStream);
    if (pOpening != nullptr) {
        ++pOpening->m_nUses;
    }
    return pOpening;
}

}  // namespace

FILE* CmOpenTurnFile(const char* aPath, int& aDescriptor) {
    // Memory first: once the file is open, it can only be closed in a turn.
    std::unique_ptr<CCmTurnOpening> pNew(new (std::nothrow) CCmTurnOpening);
    std::unique_ptr<CTurnFile> pNewFile(new (std::nothrow) CTurnFile);
    if (pNew == nullptr || pNewFile == nullptr) {
        return nullptr;
    }
    const int nDescriptor = g_cmSystem.open(aPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
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
        pOpening->m_pFile = UseFile(status, pNewFile);
        if (pStream != nullptr) {
            pOpening->m_pNext = s_pOpenings;
            s_pOpenings = pOpening;
        }
    }
    if (pStream == nullptr) {
        EndUseOf(pOpening);
        return nullptr;
    }
    aDescriptor = nDescriptor;
    return pStream;
}

void CmCloseTurnFile(FILE* aStream) {
    CCmTurnOpening* pOpening;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        pOpening = FindOpening(aStream);
        Unlink(s_pOpenings, pOpening);
    }
    EndUseOf(pOpening);
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
        EndUseOf(m_pOpening);
    }
}

}  // namespace UTIL_NS
