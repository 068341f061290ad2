#include "CmDataBlock.h"

#include <cstring>
#include <new>

#include "CmBlockPool.h"

namespace UTIL_NS {

CCmDataBlock::~CCmDataBlock() = default;

CmResult CCmDataBlock::CreateInstance(CCmDataBlock*& aDb, unsigned int aSize, const char* aData) {
    CM_ASSERTE_RETURN_LINE(aSize > 0, CM_ERROR_INVALID_ARG, 15);
    void* const pMemory = CCmBlockPool::AllocateOrNull(sizeof(CCmDataBlock) + aSize);
    if (pMemory == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    char* pPayload = static_cast<char*>(pMemory) + sizeof(CCmDataBlock);
    if (aData != nullptr) {
        std::memcpy(pPayload, aData, aSize);
    }
    aDb = ::new (pMemory) CCmDataBlock(aSize, pPayload, 1);
    return CM_OK;
}

void CCmDataBlock::OnReferenceDestory() {
    delete this;
}

void CCmDataBlock::operator delete(void* aMemory) {
    CCmBlockPool::Free(aMemory);
}

}  // namespace UTIL_NS
