// The tables and inner loops of the base64 codecs; internal.
//
// Both directions can be done in several ways: by scalars, which runs everywhere, and by the
// kernels of a processor, in port/CmBase64X86.cpp and its like, of which CMake takes the one for
// the processor that it builds for. All give the same bytes; CmBase64Encode and CmBase64Decode take
// the widest vectors that the processor at hand and the length allow.
#ifndef CM_BASE64_H
#define CM_BASE64_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace UTIL_NS {

// The alphabet, of CM_Base64Encode and of xbase64_encode.
inline constexpr char six2pr[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr const char* s_base64 = six2pr;

// The value of every character of the alphabet; aOther for all other bytes.
template <typename T>
constexpr std::array<T, 256> CmBase64Values(T aOther) {
    std::array<T, 256> values{};
    for (T& value : values) {
        value = aOther;
    }
    for (unsigned i = 0; i < 64; ++i) {
        values[static_cast<unsigned char>(six2pr[i])] = static_cast<T>(i);
    }
    return values;
}

constexpr uint32_t CM_BASE64_INVALID = 64;
// Of CM_Base64Decode.
inline constexpr std::array<uint32_t, 256> pr2six = CmBase64Values<uint32_t>(CM_BASE64_INVALID);
// Of xbase64_decode; hosts see it, so it is writable although nothing writes to it.
extern std::array<unsigned char, 256> s_base64_decode_table;

// Length of the text of aLen bytes, padding included.
constexpr size_t CmBase64EncodedLength(size_t aLen) {
    return aLen / 3 * 4 + (aLen % 3 != 0 ? 4 : 0);
}

// Writes the text of all aLen bytes, padding included; returns its end.
char* CmBase64Encode(const unsigned char* aIn, size_t aLen, char* aOut);

// Decodes groups of four characters from the front, up to the first group that is not whole or
// not all in the alphabet. Returns how many characters it consumed; it wrote three bytes for
// each four of them.
size_t CmBase64Decode(const unsigned char* aIn, size_t aLen, unsigned char* aOut);

// Each of the following consumes as many whole groups from the front as its steps cover, and
// returns how many bytes (a multiple of 3) or characters (of 4) that is. It reads only within aLen
// and writes only what belongs to the groups that it consumed.
size_t CmBase64EncodeScalar(const unsigned char* aIn, size_t aLen, char* aOut);
size_t CmBase64DecodeScalar(const unsigned char* aIn, size_t aLen, unsigned char* aOut);

// By the widest vectors that the processor has, if it has any that serve; else nothing is consumed.
size_t CmBase64EncodeByVector(const unsigned char* aIn, size_t aLen, char* aOut);
size_t CmBase64DecodeByVector(const unsigned char* aIn, size_t aLen, unsigned char* aOut);

// What these two choose from, for tests; the last has no name.
struct CCmBase64Kernel {
    const char* m_pszName;
    bool (*m_pfnIsThere)();  // on the processor at hand
    size_t (*m_pfnEncode)(const unsigned char* aIn, size_t aLen, char* aOut);
    size_t m_nEncodeLeft;  // it leaves fewer bytes than this
    size_t (*m_pfnDecode)(const unsigned char* aIn, size_t aLen, unsigned char* aOut);
    size_t m_nDecodeStep;  // characters
};
extern const CCmBase64Kernel g_base64Kernels[];

}  // namespace UTIL_NS

#endif  // CM_BASE64_H
