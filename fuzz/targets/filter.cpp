// The filter file. The first line is the module that is matched.
#include <regex.h>

#include "../Fuzz.h"
#include "CmT120TraceFile.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("conf/keltoexp.filter");
    kelto_fuzz::Input input(aData, aSize);
    const std::string sModule = std::string(input.Line().c_str());
    const std::string sContent = input.Rest();
    // Repetitions of repetitions take the system's matcher as long as they like.
    if (sContent.find_first_of("{*+?") != std::string::npos || sContent.size() > 2000) {
        return 0;
    }
    file.SetContent(sContent);
    const int nBefore = regex_cnt.load();
    CCmT120TraceFileMgr::init_reg_filter();
    const int nFilters = regex_cnt.load();
    Require(nFilters >= 0 && nFilters <= 2 * CM_TRACE_FILTER_COUNT, "count");
    Require(!sContent.empty() || nFilters == nBefore, "an empty file changes nothing");
    const int nMatch = regex_match(sModule.c_str());
    Require(nMatch == 0 || nMatch == -1, "result");
    Require(nFilters != 0 || nMatch == -1, "no filter matches nothing");
    return 0;
}
