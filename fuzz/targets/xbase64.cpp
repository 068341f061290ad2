// The codec on buffers: round trip, and arbitrary text, in buffers of exactly the stated size.
#include <algorithm>
#include <cstring>
#include <memory>

#include "../Fuzz.h"
#include "CmEncoding.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::unique_ptr<unsigned char[]> pIn(new unsigned char[aSize]);
    std::copy(aData, aData + aSize, pIn.get());
    const size_t nText = (aSize + 2) / 3 * 4;
    Require(nText <= xbase64_calc_encode_buf_size(pIn.get(), aSize), "the stated size suffices");
    const std::unique_ptr<unsigned char[]> pText(new unsigned char[nText]);
    Require(xbase64_encode(pIn.get(), aSize, pText.get(), nText) == static_cast<long>(nText),
            "length of the text");
    const std::unique_ptr<unsigned char[]> pBack(new unsigned char[nText / 4 * 3]);
    const unsigned long ulBack = xbase64_decode(pText.get(), nText, pBack.get(), aSize);
    Require(ulBack == aSize && (aSize == 0 || memcmp(pBack.get(), aData, aSize) == 0),
            "round trip");

    const std::unique_ptr<unsigned char[]> pRaw(new unsigned char[aSize / 4 * 3]);
    const unsigned long ulRaw = xbase64_decode(pIn.get(), aSize, pRaw.get(), aSize / 4 * 3);
    Require(ulRaw <= aSize / 4 * 3, "3 bytes for each group suffice");
    return 0;
}
