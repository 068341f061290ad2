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

// Guards the lists and counts below. Nothing is waited for while it is held.
CCmEternalLockT<CCmMutexThread> s_listMutex;

// A file, by device and inode, that is open at least once.
struct TurnFile {
    TurnFile* m_pNext = nullptr;
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
    int m_nUses = 0;                      // openings until they have been passed to Close
    CmTurnOpening* m_pToClose = nullptr;  // by whoever has the turn
    CCmMutexThread m_Turn{CCmStaticInit()};
};

TurnFile* s_pFiles CM_GUARDED_BY(s_listMutex.m_Lock) = nullptr;
CmTurnOpening* s_pOpenings CM_GUARDED_BY(s_listMutex.m_Lock) = nullptr;

}  // namespace

struct CmTurnOpening {
    CmTurnOpening* m_pNext = nullptr;
    int m_nDescriptor = -1;
    FILE* m_pStream = nullptr;  // owns the descriptor
    TurnFile* m_pFile = nullptr;
    int m_nUses = 1;  // its owner's, until it closes, and each turn's
};

namespace {

void CloseNow(CmTurnOpening* aOpening) {
    if (aOpening->m_pStream != nullptr) {
        std::fclose(aOpening->m_pStream);
    } else {
        g_cmSystem.close(aOpening->m_nDescriptor);
    }
    delete aOpening;
}

bool HasToClose(const TurnFile& aFile) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    return aFile.m_pToClose != nullptr;
}

CmTurnOpening* TakeToClose(TurnFile& aFile) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    return std::exchange(aFile.m_pToClose, nullptr);
}

// A thread that finds the turn taken may leave: whoever has it comes here when it ends.
void CloseWhatIsLeft(TurnFile& aFile) {
    while (HasToClose(aFile) && CM_SUCCEEDED(aFile.m_Turn.TryLock())) {
        CmTurnOpening* pOpening = TakeToClose(aFile);
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

void EndUseOf(TurnFile* aFile) {
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        if (--aFile->m_nUses > 0) {
            return;
        }
        Unlink(s_pFiles, aFile);
    }
    delete aFile;
}

// The last use closes it. The file is used until that has been seen to.
void EndUseOf(CmTurnOpening* aOpening) {
    TurnFile* const pFile = aOpening->m_pFile;
    {
        CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
        if (--aOpening->m_nUses > 0) {
            return;
        }
        aOpening->m_pNext = pFile->m_pToClose;
        pFile->m_pToClose = aOpening;
    }
    CloseWhatIsLeft(*pFile);
    EndUseOf(pFile);
}

// aNew becomes the file unless it is open already.
TurnFile* UseFile(const struct stat& aStatus, std::unique_ptr<TurnFile>& aNew)
    CM_REQUIRES(s_listMutex.m_Lock) {
    TurnFile* pFile = s_pFiles;
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

CmTurnOpening* FindOpening(FILE* aStream) CM_REQUIRES(s_listMutex.m_Lock) {
    CmTurnOpening* pOpening = s_pOpenings;
    while (pOpening != nullptr && pOpening->m_pStream != aStream) {
        pOpening = pOpening->m_pNext;
    }
    return pOpening;
}

CmTurnOpening* UseOpening(FILE* aStream) {
    CCmScopedLockT<CCmMutexThread> lock(s_listMutex.m_Lock);
    CmTurnOpening* const pOpening = FindOpening(aStream);
    if (pOpening != nullptr) {
        ++pOpening->m_nUses;
    }
    return pOpening;
}

}  // namespace

FILE* CmOpenTurnFile(const char* aPath, int& aDescriptor) {
    // Memory first: once the file is open, it can only be closed in a turn.
    std::unique_ptr<CmTurnOpening> pNew(new (std::nothrow) CmTurnOpening);
    std::unique_ptr<TurnFile> pNewFile(new (std::nothrow) TurnFile);
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
    CmTurnOpening* const pOpening = pNew.release();
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
    CmTurnOpening* pOpening;
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
        TurnFile* const pFile = m_pOpening->m_pFile;
        pFile->m_Turn.UnLock();
        CloseWhatIsLeft(*pFile);
        EndUseOf(m_pOpening);
    }
}

}  // namespace UTIL_NS
