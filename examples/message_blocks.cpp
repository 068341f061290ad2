// Message blocks: build a packet from header and payload without copying, duplicate it, cut it,
// look into it and check it.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace UTIL_NS;

int main() {
    // Two blocks, chained into one stream of bytes; each has a data block of its own.
    const CCmChainPtr chain = CmMakeChain({"HEAD", "payload bytes"});
    if (chain == nullptr) {
        return EXIT_FAILURE;
    }
    for (const std::string_view piece : CCmPieces(chain.get())) {
        std::printf("%zu bytes: %.*s\n", piece.size(), static_cast<int>(piece.size()),
                    piece.data());
    }

    // A duplicate shares the bytes; only the block objects are new. Cut after the header, it keeps
    // 4 bytes, and the tail has the rest.
    const CCmChainPtr copy(chain->DuplicateChained());
    const CCmChainPtr tail(CCmMessageBlock::Disjoint(copy.get(), 4));
    const CCmString sTail = CCmMessageBlock::FlattenChained(tail.get());
    std::printf("after the header: %s\n", sTail.c_str());

    // Look into the whole chain without consuming it.
    unsigned char achSeen[7] = {};
    const CmResult rv = chain->Peek(achSeen, sizeof(achSeen), 4);
    std::printf("peeked: %.7s\n", reinterpret_cast<const char*>(achSeen));

    // A checksum over the chain, block by block.
    unsigned short wCrc = 0;
    CalcCRC16_m(wCrc, *chain, chain->GetChainedLength());
    std::printf("CRC-16 %04x\n", wCrc);

    const bool bOk = CM_SUCCEEDED(rv) && sTail == "payload bytes" &&
                     std::memcmp(achSeen, "payload", sizeof(achSeen)) == 0;
    return bOk ? EXIT_SUCCESS : EXIT_FAILURE;
}
