// Base64 on processors for which no kernel is written.
#include "CmBase64.h"

namespace UTIL_NS {

const CCmBase64Kernel g_base64Kernels[] = {
    {nullptr, nullptr, nullptr, 0, nullptr, 0},
};

size_t CmBase64EncodeByVector(const unsigned char* /*aIn*/, size_t /*aLen*/, char* /*aOut*/) {
    return 0;
}

size_t CmBase64DecodeByVector(const unsigned char* /*aIn*/, size_t /*aLen*/,
                              unsigned char* /*aOut*/) {
    return 0;
}

}  // namespace UTIL_NS
