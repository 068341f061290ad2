// Message blocks: build a packet from header and payload without copying, duplicate it, cut it,
// look into it and check it.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace UTIL_NS;

int main() {
    // Two blocks, chained into one stream of bytes; each has a data block of its own.
    CCmMessageBlock header(4, nullptr, 0, 0);
    CCmMessageBlock payload(16, nullptr, 0, 0);
    header.Write("HEAD", 4, nullptr);
    payload.Write("payload bytes", 13, nullptr);
    header.Append(&payload);
    std::printf("%u bytes in the chain\n", header.GetChainedLength());

    // A duplicate shares the bytes; only the block objects are new.
    CCmMessageBlock* pCopy = header.DuplicateChained();
    if (pCopy == nullptr) {
        return EXIT_FAILURE;
    }

    // Cut the duplicate behind the header: pCopy keeps 4 bytes, pTail has the rest.
    CCmMessageBlock* pTail = pCopy->Disjoint(4);
    const CCmString sTail = CCmMessageBlock::FlattenChained(pTail);
    std::printf("behind the header: %s\n", sTail.c_str());

    // Look into the whole chain without consuming it.
    unsigned char achSeen[7] = {};
    const CmResult rv = header.Peek(achSeen, sizeof(achSeen), 4);
    std::printf("peeked: %.7s\n", reinterpret_cast<const char*>(achSeen));

    // A checksum over the chain, block by block.
    unsigned short wCrc = 0;
    CalcCRC16_m(wCrc, header, header.GetChainedLength());
    std::printf("CRC-16 %04x\n", wCrc);

    CCmMessageBlock::DestroyChained(pCopy);  // duplicates are freed by their receiver
    CCmMessageBlock::DestroyChained(pTail);
    const bool bOk = CM_SUCCEEDED(rv) && sTail == "payload bytes" &&
                     std::memcmp(achSeen, "payload", sizeof(achSeen)) == 0;
    return bOk ? EXIT_SUCCESS : EXIT_FAILURE;
}
