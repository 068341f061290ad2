/// One scalar value out of a text that holds simple XML.
///
/// The text is searched for "<tag>" and "</tag>" as they are written: no attributes, nesting,
/// entities or namespaces. The first opening tag in the text counts, and the first closing tag
/// after it ends the value, which loses blanks, tabs, CRs and LFs at both ends. Nothing fails:
/// what cannot be had is the default. Nothing is kept between calls; any thread.
///
/// aXml, aTag: NUL-terminated; null counts as a text without the element. aTag comes without
/// brackets and may be of any length.
/// \file
#ifndef CM_XML_H
#define CM_XML_H

#include "CmBase.h"

namespace UTIL_NS {

/// Writes the value into aOut, of at least aMax + 1 bytes, and returns aOut. When the element is
/// missing or unclosed, or its value longer than aMax characters, returns aDefault with aOut
/// untouched. An empty element is an empty value. aOut may lie in the document.
CM_UTIL_EXPORT char* get_string_from_XML(char* aXml, const char* aTag, int aMax, char* aOut,
                                         char* aDefault);
/// The same with a limit of at most 65535 characters.
CM_UTIL_EXPORT char* xml_get_string(char* aXml, const char* aTag, unsigned short aMax, char* aOut,
                                    char* aDefault);

/// A decimal number of at most 64 characters; the default when there is none or it does not parse.
/// A number too large for an unsigned long counts as the largest one; of that the result has the
/// low 32 bits.
CM_UTIL_EXPORT uint32_t get_uint32_from_XML(char* aXml, const char* aTag, unsigned long aDefault);
/// The same for a signed number: one that no long can hold counts as the nearest.
CM_UTIL_EXPORT int32_t get_int32_from_XML(char* aXml, const char* aTag, unsigned long aDefault);
/// As get_uint32_from_XML, with all bits of the number.
CM_UTIL_EXPORT unsigned long xml_get_uint32(char* aXml, const char* aTag, unsigned long aDefault);
/// As get_int32_from_XML, with all bits of the number.
CM_UTIL_EXPORT unsigned long xml_get_int32(char* aXml, const char* aTag, unsigned long aDefault);
/// As get_int32_from_XML, with the low 16 bits of the number.
CM_UTIL_EXPORT unsigned short xml_get_uint16(char* aXml, const char* aTag, unsigned short aDefault);
/// The same as xml_get_uint16.
CM_UTIL_EXPORT unsigned short xml_get_int16(char* aXml, const char* aTag, unsigned short aDefault);

/// At most 256 characters, with the decimal point of the host's locale. A value that is found
/// passes through single precision, so 0.1 comes back as the nearest float.
CM_UTIL_EXPORT double get_double_from_XML(char* aXml, const char* aTag, double aDefault);

}  // namespace UTIL_NS

#endif  // CM_XML_H
