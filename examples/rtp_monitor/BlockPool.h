// The data blocks that packets are read into.
#ifndef RTP_MONITOR_BLOCK_POOL_H
#define RTP_MONITOR_BLOCK_POOL_H

#include <vector>

#include "CaptureReader.h"
#include "CmDataBlock.h"
#include "CmUtilTemplates.h"

namespace rtp_monitor {

typedef UTIL_NS::CCmComAutoPtr<UTIL_NS::CCmDataBlock> DataBlockPtr;

// Keeps the blocks that it made and gives those again that nobody else holds any more. It makes as
// many as are held at a time, which is bounded by what may wait for the workers. One thread.
class CBlockPool {
  public:
    // Bytes; room for the longest record of a capture, and for several packets of a socket.
    static constexpr uint32_t BLOCK_SIZE = CCaptureReader::MAX_RECORD;

    // Null when memory ran out.
    DataBlockPtr Take() {
        for (DataBlockPtr& block : m_blocks) {
            // Alone again after the release: it orders what the workers read before what is
            // written.
            block->AddReference();
            if (block->ReleaseReference() == 1) {
                return block;
            }
        }
        UTIL_NS::CCmDataBlock* pNew = nullptr;
        if (CM_FAILED(UTIL_NS::CCmDataBlock::CreateInstance(pNew, BLOCK_SIZE, nullptr))) {
            return nullptr;
        }
        m_blocks.emplace_back().Attach(pNew);
        return m_blocks.back();
    }

  private:
    std::vector<DataBlockPtr> m_blocks;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_BLOCK_POOL_H
