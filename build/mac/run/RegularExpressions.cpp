// Regular expressions: the target's record, this system's matcher.
#include <regex.h>
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "Numbers.h"
#include "Supply.h"

namespace kelto_mac {

namespace {

constexpr Pair FLAGS[] = {{1, REG_EXTENDED}, {2, REG_ICASE}, {4, REG_NOSUB}, {8, REG_NEWLINE}};

struct TargetRegex {
    int re_magic;
    size_t re_nsub;
    const char* re_endp;
    regex_t* re_g;
};
static_assert(sizeof(TargetRegex) == 32, "the target's size");

struct TargetMatch {
    int64_t rm_so;
    int64_t rm_eo;
};

// The results have the same numbers on both systems.
int RegComp(TargetRegex* aRegex, const char* aPattern, int aFlags) {
    aRegex->re_g = static_cast<regex_t*>(malloc(sizeof(regex_t)));
    if (aRegex->re_g == nullptr) {
        return REG_ESPACE;
    }
    const int nResult = regcomp(aRegex->re_g, aPattern, FlagsToHost(FLAGS, aFlags));
    if (nResult != 0) {
        free(aRegex->re_g);
        aRegex->re_g = nullptr;
        return nResult;
    }
    aRegex->re_nsub = aRegex->re_g->re_nsub;
    return 0;
}

int RegExec(const TargetRegex* aRegex, const char* aText, size_t aMatches, TargetMatch* aMatch,
            int aFlags) {
    std::vector<regmatch_t> matches(aMatches);
    const int nResult = regexec(aRegex->re_g, aText, aMatches, matches.data(), aFlags);
    for (size_t i = 0; nResult == 0 && aMatch != nullptr && i < aMatches; ++i) {
        aMatch[i] = {matches[i].rm_so, matches[i].rm_eo};
    }
    return nResult;
}

void RegFree(TargetRegex* aRegex) {
    if (aRegex->re_g != nullptr) {
        regfree(aRegex->re_g);
        free(aRegex->re_g);
        aRegex->re_g = nullptr;
    }
}

}  // namespace

void SupplyRegularExpressions() {
    Supply({
        {"_regcomp", Address(&RegComp)},
        {"_regexec", Address(&RegExec)},
        {"_regfree", Address(&RegFree)},
    });
}

}  // namespace kelto_mac
