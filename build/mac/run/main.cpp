// macho_run PROGRAM [ARGUMENT...]: runs a Mach-O program for x86-64 in a Linux process.
// macho_run --supplied: prints the names of the system that the loader supplies.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "Image.h"
#include "Processes.h"
#include "Supply.h"

using namespace kelto_mac;

namespace {

using Main = int (*)(int, char**, char**, char**);

void SupplyAll() {
    SupplyPlainNames();
    SupplyErrors();
    SupplyThreads();
    SupplyLocks();
    SupplyThreadLocals();
    SupplyDynamicLinking();
    SupplyFiles();
    SupplyStreams();
    SupplyNetwork();
    SupplyTime();
    SupplySignals();
    SupplyProcesses();
    SupplyRegularExpressions();
    SupplyLocale();
    SupplyDesktopServices();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        Refuse("usage: macho_run PROGRAM [ARGUMENT...]");
    }
    if (argv[1][0] != '-' && !IsMachO(argv[1])) {  // of this system, as a test's interpreter is
        execvp(argv[1], argv + 1);
    }
    const std::string sLoader = LoaderPath();
    SetRuntimeFolder(sLoader.substr(0, sLoader.rfind('/')));
    SupplyAll();
    if (strcmp(argv[1], "--supplied") == 0) {
        PrintSupplied();
        return 0;
    }

    std::string sError;
    static char* s_apple[] = {argv[1], nullptr};
    g_arguments = {argc - 1, argv + 1, environ, s_apple};
    Image* const pProgram = LoadImage(argv[1], nullptr, &sError);
    if (pProgram == nullptr) {
        Refuse("%s", sError.c_str());
    }
    if (pProgram->filetype != MH_EXECUTE) {
        Refuse("%s is no program", argv[1]);
    }
    Initialise(*pProgram);
    atexit(&RunTerminators);
    const Main pMain =
        reinterpret_cast<Main>(reinterpret_cast<uint64_t>(pProgram->header) + pProgram->entry);
    exit(pMain(g_arguments.argc, g_arguments.argv, environ, s_apple));
}
