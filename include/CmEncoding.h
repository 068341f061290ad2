/// Small text codecs and conversions: base64 twice, URL escaping, a backward search.
///
/// Both base64 codecs use the alphabet of RFC 4648 with '=' padding and write no line breaks.
/// CM_Base64... works on strings and stops at the first character outside the alphabet;
/// xbase64_... works on buffers and takes such characters for 'A'. For text that nobody vouches
/// for: CmStrict.h. Any thread, except that two threads must not share an output.
/// \file
#ifndef CM_ENCODING_H
#define CM_ENCODING_H

#include "CmBase.h"

extern "C" {

/// Sets aOut to the base64 text of the aLen bytes at aIn. Null aIn or no memory: aOut is empty.
/// The bytes may be those of aOut itself.
CM_UTIL_EXPORT void CM_Base64Encode(const void* aIn, unsigned long aLen, UTIL_NS::CCmString& aOut);

/// Sets aOut to the bytes that the NUL-terminated text aIn stands for. Leading blanks and tabs are
/// skipped; decoding ends silently at the first character outside the alphabet ('=' and line ends
/// included), and padding may be missing. A single character of value v left over at the end
/// gives the byte v * 4 | 4, and a second byte (the upper four bits of w) when the character two
/// places after it is in the alphabet, with the value w. Null aIn or no memory: aOut is empty.
/// The text may be that of aOut itself.
CM_UTIL_EXPORT void CM_Base64Decode(const char* aIn, UTIL_NS::CCmString& aOut);

/// The last place in aStr where aSub occurs, without regard to the case of ASCII letters; null
/// when it does not occur or when either is null or empty. Takes time linear in both lengths.
CM_UTIL_EXPORT char* CM_strcaserstr(char* aStr, const char* aSub);

}  // extern "C"

namespace UTIL_NS {

/// The 256-entry table of xbase64_decode: 0 to 63 for the alphabet, 0 for every other byte. For
/// compatibility hosts call this once before they decode; the table is complete from the start.
/// Not to be written to.
CM_UTIL_EXPORT unsigned char* xbase64_init_decode_table();

/// Characters that xbase64_encode needs at most for aLen bytes: aLen / 3 * 4 + 4. aIn is not read.
CM_UTIL_EXPORT unsigned long xbase64_calc_encode_buf_size(unsigned char* aIn, unsigned long aLen);

/// Writes the base64 text of the aLen bytes at aIn to aOut, without a terminator, and returns its
/// length, a multiple of 4. aOutSize is not consulted: aOut must hold the text.
CM_UTIL_EXPORT long xbase64_encode(unsigned char* aIn, unsigned long aLen, unsigned char* aOut,
                                   unsigned long aOutSize);

/// Decodes aLen / 4 whole groups from aIn to aOut and returns how many bytes they gave. aOut must
/// have room for 3 bytes for every 4 characters, since every group writes three: "=" as its third
/// character leaves one of them, and the other two are 0; "=" as its fourth alone leaves two, and
/// the last one is what the table gives. That holds in the middle of the text, too, where the next
/// group overwrites what is not left. Any other character outside the alphabet counts as 'A'.
/// aOutSize is not consulted.
CM_UTIL_EXPORT unsigned long xbase64_decode(unsigned char* aIn, unsigned long aLen,
                                            unsigned char* aOut, unsigned long aOutSize);

/// Escapes the NUL-terminated aIn as forms do: letters and digits stay, a blank becomes '+', every
/// other byte '%' and its value in lower-case hexadecimal. A byte below 0x10 gives '%', one digit
/// and a NUL, so that the text ends there for whoever reads it, although what follows is written
/// after it. Input is taken while fewer than aOutSize characters have been written, so aOut must
/// hold aOutSize + 3 bytes; with aOutSize of 0 or less, or a null aIn, only the terminator is
/// written. Returns aOut; null when that is null.
CM_UTIL_EXPORT char* url_string_encode(char* aIn, char* aOut, int aOutSize);

/// Writes aValue in decimal into aBuf, NUL-terminated. A value of 0 or below gets a "-" in
/// front, so 0 reads "-0". Digits and sign must fit in aSize - 1 characters; nothing is written
/// outside the buffer. CM_OK, or CM_ERROR_FAILURE when aBuf is null, aSize is below 3 or the
/// text does not fit (the buffer then holds a partial result). Any thread.
template <typename T>
CmResult xtoa_yrk(T aValue, char* aBuf, int aSize);

/// For long long, the type for which the library has it.
template <>
CM_UTIL_EXPORT CmResult xtoa_yrk<long long>(long long aValue, char* aBuf, int aSize);

}  // namespace UTIL_NS

namespace yrk {

/// Does nothing.
CM_UTIL_EXPORT void ObjectTracer();

}  // namespace yrk

#endif  // CM_ENCODING_H
