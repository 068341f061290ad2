// The check of UTF-8 against GLib.
#if KELTO_WITH_GLIB
#include <glib.h>
#endif

#include "../Fuzz.h"
#include "CmStrict.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sText = kelto_fuzz::Input(aData, aSize).Rest();
    const CCmParsed parsed = CmCheckUtf8(sText);
    Require(parsed.m_nAt <= sText.size(), "the place lies in the text");
#if KELTO_WITH_GLIB
    std::string sOther = sText;
    for (char& ch : sOther) {
        ch = ch == '\0' ? 'a' : ch;  // GLib takes a NUL for an error
    }
    const char* pEnd = nullptr;
    const bool bTheirs = g_utf8_validate_len(sOther.data(), sOther.size(), &pEnd) != FALSE;
    Require(bTheirs == static_cast<bool>(parsed), "good UTF-8");
    Require(bTheirs || parsed.m_nAt == static_cast<size_t>(pEnd - sOther.data()), "the place");
#endif
    return 0;
}
