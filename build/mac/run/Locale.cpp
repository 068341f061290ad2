// The locale functions that the target's C++ library is built on, in the "C" locale, and the table
// of character classes that isalpha and its like look into.
#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <locale.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include <string>

#include "Supply.h"

namespace kelto_mac {

namespace {

// ---- Characters

constexpr uint32_t CLASS_ALPHA = 0x100;
constexpr uint32_t CLASS_CONTROL = 0x200;
constexpr uint32_t CLASS_DIGIT = 0x400;
constexpr uint32_t CLASS_GRAPH = 0x800;
constexpr uint32_t CLASS_LOWER = 0x1000;
constexpr uint32_t CLASS_PUNCTUATION = 0x2000;
constexpr uint32_t CLASS_SPACE = 0x4000;
constexpr uint32_t CLASS_UPPER = 0x8000;
constexpr uint32_t CLASS_HEX_DIGIT = 0x10000;  // the digit's value in the lowest byte
constexpr uint32_t CLASS_BLANK = 0x20000;
constexpr uint32_t CLASS_PRINT = 0x40000;

struct RuneRange {
    int count;
    void* entries;
};

// What the inline functions of the target's ctype.h read.
struct RuneLocale {
    char magic[8] = {'R', 'u', 'n', 'e', 'M', 'a', 'g', 'A'};
    char encoding[32] = "NONE";
    void* sgetrune = nullptr;
    void* sputrune = nullptr;
    int invalid_rune = 0xFFFD;
    uint32_t runetype[256] = {};
    int maplower[256] = {};
    int mapupper[256] = {};
    RuneRange ranges[3] = {};
    void* variable = nullptr;
    int variable_length = 0;
    int classes_count = 0;
    void* classes = nullptr;
};
static_assert(offsetof(RuneLocale, runetype) == 60, "the target's layout");

uint32_t ClassOf(int aCharacter) {
    uint32_t ulClass = 0;
    const auto fnAdd = [&](int aIs, uint32_t aClass) { ulClass |= aIs != 0 ? aClass : 0; };
    fnAdd(isalpha(aCharacter), CLASS_ALPHA);
    fnAdd(iscntrl(aCharacter), CLASS_CONTROL);
    fnAdd(isdigit(aCharacter), CLASS_DIGIT | static_cast<uint32_t>(aCharacter - '0'));
    fnAdd(isgraph(aCharacter), CLASS_GRAPH);
    fnAdd(islower(aCharacter), CLASS_LOWER);
    fnAdd(ispunct(aCharacter), CLASS_PUNCTUATION);
    fnAdd(isspace(aCharacter), CLASS_SPACE);
    fnAdd(isupper(aCharacter), CLASS_UPPER);
    fnAdd(isblank(aCharacter), CLASS_BLANK);
    fnAdd(isprint(aCharacter), CLASS_PRINT);
    fnAdd(isxdigit(aCharacter), CLASS_HEX_DIGIT);
    if (isxdigit(aCharacter) && !isdigit(aCharacter)) {
        ulClass |= static_cast<uint32_t>(tolower(aCharacter) - 'a' + 10);
    }
    return ulClass;
}

RuneLocale& Runes() {
    static RuneLocale s_runes = [] {
        RuneLocale runes;
        for (int i = 0; i < 256; ++i) {
            runes.runetype[i] = ClassOf(i);
            runes.maplower[i] = tolower(i);
            runes.mapupper[i] = toupper(i);
        }
        return runes;
    }();
    return s_runes;
}

bool InTable(int aCharacter) {
    return aCharacter >= 0 && aCharacter < 256;
}

int MaskRune(int aCharacter, unsigned long aMask) {
    return InTable(aCharacter) ? static_cast<int>(Runes().runetype[aCharacter] & aMask) : 0;
}

int ToLower(int aCharacter) {
    return InTable(aCharacter) ? Runes().maplower[aCharacter] : aCharacter;
}

int ToUpper(int aCharacter) {
    return InTable(aCharacter) ? Runes().mapupper[aCharacter] : aCharacter;
}

int MaskRuneL(int aCharacter, unsigned long aMask, locale_t) {
    return MaskRune(aCharacter, aMask);
}

int ToLowerL(int aCharacter, locale_t) {
    return ToLower(aCharacter);
}

int ToUpperL(int aCharacter, locale_t) {
    return ToUpper(aCharacter);
}

// ---- Locales. All are "C": the loader is not to be taken for a test of others.

locale_t CLocale() {
    static const locale_t s_locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return s_locale;
}

bool IsC(const char* aName) {
    return aName == nullptr || *aName == '\0' || strcmp(aName, "C") == 0 ||
           strcmp(aName, "POSIX") == 0;
}

locale_t NewLocale(int, const char* aName, locale_t) {
    if (!IsC(aName)) {
        errno = ENOENT;
        return nullptr;
    }
    return CLocale();
}

void FreeLocale(locale_t) {}

char* SetLocale(int, const char* aName) {
    static char s_chName[] = "C";
    return IsC(aName) ? s_chName : nullptr;
}

lconv* LocaleConvL(locale_t) {
    return localeconv();
}

int MbCurMaxL(locale_t) {
    return 1;
}

// Each differs from the function without "_l" only in a last argument, the locale, which comes in a
// register: the function overlooks it.
const char* const WITH_LOCALE[] = {
    "btowc",   "wctob",      "mbrlen",  "mbrtowc", "mbtowc",   "mbsnrtowcs", "mbsrtowcs",
    "wcrtomb", "wcsnrtombs", "strcoll", "strxfrm", "wcscoll",  "wcsxfrm",    "strftime",
    "strtod",  "strtof",     "strtold", "strtoll", "strtoull",
};

int SnprintfL(char* aText, size_t aLength, locale_t, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = vsnprintf(aText, aLength, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

int AsprintfL(char** aText, locale_t, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = vasprintf(aText, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

int SscanfL(const char* aText, locale_t, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = vsscanf(aText, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

}  // namespace

void SupplyLocale() {
    for (const char* pszName : WITH_LOCALE) {
        Supply({{("_" + std::string(pszName) + "_l").c_str(), dlsym(RTLD_DEFAULT, pszName)}});
    }
    Supply({
        {"__DefaultRuneLocale", &Runes()},
        {"___maskrune", Address(&MaskRune)},
        {"___maskrune_l", Address(&MaskRuneL)},
        {"___tolower", Address(&ToLower)},
        {"___toupper", Address(&ToUpper)},
        {"____tolower_l", Address(&ToLowerL)},
        {"____toupper_l", Address(&ToUpperL)},
        {"____mb_cur_max_l", Address(&MbCurMaxL)},
        {"_newlocale", Address(&NewLocale)},
        {"_freelocale", Address(&FreeLocale)},
        {"_setlocale", Address(&SetLocale)},
        {"_localeconv_l", Address(&LocaleConvL)},
        {"_snprintf_l", Address(&SnprintfL)},
        {"_asprintf_l", Address(&AsprintfL)},
        {"_sscanf_l", Address(&SscanfL)},
    });
}

}  // namespace kelto_mac
