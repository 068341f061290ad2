/// CCmDataBlock: the shared byte buffer beneath the message blocks.
/// \file
#ifndef CM_DATA_BLOCK_H
#define CM_DATA_BLOCK_H

#include "CmBase.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

/// A reference-counted buffer of fixed capacity. Header and payload are one allocation:
///
///     +--------------------------------+---------------------------+
///     | count, m_dwSize, m_pPayload  --|-> m_dwSize payload bytes  |
///     +--------------------------------+---------------------------+
///
/// Made by CreateInstance, ended by the last ReleaseReference, never deleted; usually held by
/// CCmComAutoPtr. Any thread may count; the payload is not guarded, so threads that write to one
/// block coordinate themselves.
class CM_UTIL_EXPORT CCmDataBlock final : public CCmReferenceControlT<CCmMutexThread> {
  public:
    /// CM_OK with a new block in aDb, whose one reference belongs to the caller. aData: aSize
    /// bytes to start with, or null to leave the payload uninitialised. CM_ERROR_INVALID_ARG when
    /// aSize is 0, CM_ERROR_OUT_OF_MEMORY; aDb is untouched then.
    static CmResult CreateInstance(CCmDataBlock*& aDb, unsigned int aSize, const char* aData);

    /// For CreateInstance: describes a payload, with count 0; copies nothing.
    CCmDataBlock(unsigned int aSize, char* aData) : m_dwSize(aSize), m_pPayload(aData) {}

    /// Ends the block: destructor, then the release of its one allocation.
    void OnReferenceDestory() override;

    const uint32_t m_dwSize;  ///< capacity in bytes
    char* const m_pPayload;   ///< first byte

  private:
    CCmDataBlock(unsigned int aSize, char* aData, long aCount)
        : CCmReferenceControlT<CCmMutexThread>(aCount), m_dwSize(aSize), m_pPayload(aData) {}
    CM_UTIL_HIDDEN ~CCmDataBlock() override;
    // Of what CreateInstance allocated, which is larger than the object.
    CM_UTIL_HIDDEN static void operator delete(void* aMemory);
};

}  // namespace UTIL_NS

#endif  // CM_DATA_BLOCK_H
