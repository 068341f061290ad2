// Message blocks: put a header before a payload without copying the payload, duplicate the packet,
// cut it, look into it and check it.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace UTIL_NS;

int main() {
    // A payload as it came, in a data block; a view of it that shares its bytes; and a header with
    // few bytes of its own, chained before it into one stream.
    constexpr char PAYLOAD[] = "payload bytes";
    constexpr unsigned int PAYLOAD_SIZE = sizeof(PAYLOAD) - 1;
    CCmDataBlock* pReceived = nullptr;
    if (CM_FAILED(CCmDataBlock::CreateInstance(pReceived, PAYLOAD_SIZE, PAYLOAD))) {
        return EXIT_FAILURE;
    }
    CCmComAutoPtr<CCmDataBlock> received;
    received.Attach(pReceived);
    CCmChainPtr payload = CmMakeBlockOfArea(*received, 0, PAYLOAD_SIZE);
    const CCmChainPtr chain = CmMakeBlock("HEAD");
    if (payload == nullptr || chain == nullptr) {
        return EXIT_FAILURE;
    }
    chain->Append(payload.release());  // freed with the chain
    const char* pLast = nullptr;
    for (const std::string_view piece : CCmPieces(chain.get())) {
        std::printf("%zu bytes: %.*s\n", piece.size(), static_cast<int>(piece.size()),
                    piece.data());
        pLast = piece.data();
    }
    const bool bCopied = pLast != received->m_pPayload;

    // A duplicate shares the bytes; only the block objects are new. Cut after the header, it keeps
    // 4 bytes, and the tail has the rest.
    const CCmChainPtr copy(chain->DuplicateChained());
    const CCmChainPtr tail(CCmMessageBlock::Disjoint(copy.get(), 4));
    const CCmString strTail = CCmMessageBlock::FlattenChained(tail.get());
    std::printf("after the header: %s\n", strTail.c_str());

    // Look into the whole chain without consuming it.
    unsigned char abySeen[7] = {};
    const CmResult rv = chain->Peek(abySeen, sizeof(abySeen), 4);
    std::printf("peeked: %.7s\n", reinterpret_cast<const char*>(abySeen));

    // A checksum over the chain, block by block.
    unsigned short wCrc = 0;
    CalcCRC16_m(wCrc, *chain, chain->GetChainedLength());
    std::printf("CRC-16 %04x\n", wCrc);

    const bool bOk = !bCopied && CM_SUCCEEDED(rv) && strTail == PAYLOAD &&
                     std::memcmp(abySeen, "payload", sizeof(abySeen)) == 0;
    return bOk ? EXIT_SUCCESS : EXIT_FAILURE;
}
