// The trace formatter, driven by an operation string, in a buffer of any size. Whatever does not
// fit is dropped; the last 96 bytes stay zero.
#include <memory>

#include "../Fuzz.h"
#include "CmT120Trace.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

typedef CCmT120Trace::Text_Formator Formatter;

constexpr size_t RESERVE = 96;

void Append(Formatter& aFormatter, kelto_fuzz::Input& aInput) {
    switch (aInput.Byte() % 16) {
        case 0:
            aFormatter << static_cast<char>(aInput.Byte());
            break;
        case 1:
            aFormatter << static_cast<unsigned char>(aInput.Byte());
            break;
        case 2:
            aFormatter << aInput.Bits<short>();
            break;
        case 3:
            aFormatter << aInput.Bits<unsigned short>();
            break;
        case 4:
            aFormatter << aInput.Bits<int>();
            break;
        case 5:
            aFormatter << aInput.Bits<unsigned int>();
            break;
        case 6:
            aFormatter << aInput.Bits<long>();
            break;
        case 7:
            aFormatter << aInput.Bits<unsigned long>();
            break;
        case 8:
            aFormatter << aInput.Bits<long long>();
            break;
        case 9:
            aFormatter << static_cast<float>(aInput.Bits<int>()) / 7;
            break;
        case 10:
            aFormatter << static_cast<double>(aInput.Bits<long>()) * 1e200;
            break;
        case 11:
            aFormatter << aInput.Line().c_str();
            break;
        case 12:
            aFormatter << CCmString(aInput.Line());
            break;
        case 13:
            aFormatter << reinterpret_cast<void*>(aInput.Bits<uintptr_t>());
            break;
        case 14:
            aFormatter << static_cast<CCmT120Trace::Ordix>(aInput.Byte() % 3);
            break;
        default:
            if (aInput.Byte() == 0) {
                aFormatter.reset();
            } else {
                aFormatter << static_cast<const char*>(nullptr);
            }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const size_t nSize = input.Bits<uint16_t>() % 600;
    const std::unique_ptr<char[]> pBuffer(new char[nSize]);
    Formatter formatter(pBuffer.get(), nSize);
    const size_t nUsable = nSize > RESERVE ? nSize - RESERVE : 0;
    while (!input.AtEnd()) {
        Append(formatter, input);
        Require(formatter.tell() <= nUsable, "the position stays inside");
        for (size_t i = formatter.tell(); i < nSize; ++i) {
            Require(pBuffer[i] == '\0', "what follows the text is zero");
        }
    }
    return 0;
}
