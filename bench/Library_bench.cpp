// What a program pays for a library before it uses it: to load it, and to compile against it.

#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Process.h"
#include "Row.h"

using namespace kelto_bench;

namespace {

constexpr char AREA[] = "library";

// ---- The shared library. What it needs besides, and a C++ program does not have, counts too.

constexpr size_t LOADS = 31;  // a repetition; their median counts

struct CLoaded {
    double m_Nsec;
    double m_Bytes;  // of what was mapped from files
};

// The file that this program was linked with.
std::string FileOf(const std::string& aName) {
    struct CWanted {
        std::string m_strName;
        std::string m_strFile;
    } wanted = {"/" + aName + ".so", ""};
    dl_iterate_phdr(
        [](dl_phdr_info* aInfo, size_t, void* aWanted) {
            auto* pWanted = static_cast<CWanted*>(aWanted);
            if (std::string(aInfo->dlpi_name).find(pWanted->m_strName) != std::string::npos) {
                pWanted->m_strFile = aInfo->dlpi_name;
            }
            return 0;
        },
        &wanted);
    return wanted.m_strFile;
}

CLoaded Load(const std::string& aFile) {
    const std::string strOutput = RunProcess({KELTO_BENCH_LOADER, aFile}).m_strOutput;
    char* pszBytes = nullptr;
    const double nsec = std::strtod(strOutput.c_str(), &pszBytes);
    const CLoaded loaded = {nsec, std::strtod(pszBytes, nullptr)};
    Check(loaded.m_Nsec > 0 && loaded.m_Bytes > 0, "loading a library");
    return loaded;
}

// aName: without the suffix. One that this program is not linked with has no rows.
void AddLoadRows(const char* aName, const char* aWho) {
    const std::string strFile = FileOf(aName);
    if (strFile.empty()) {
        return;
    }
    Row(
        AREA, "load the shared library", aWho,
        [=](benchmark::State& aState) {
            std::vector<double> nsec;
            for (auto _ : aState) {
                while (nsec.size() < LOADS) {
                    nsec.push_back(Load(strFile).m_Nsec);
                }
            }
            CountFigure(aState, NANOSECONDS, Percentile(nsec, 0.5));
        },
        Clock::FIGURES);
    Row(
        AREA, "size of the shared library", aWho,
        [=](benchmark::State& aState) {
            double bytes = 0;
            for (auto _ : aState) {
                bytes = Load(strFile).m_Bytes;
            }
            CountFigure(aState, BYTES, bytes);
        },
        Clock::FIGURES);
}

// ---- The headers.

class CSourceFile {
  public:
    explicit CSourceFile(const std::vector<std::string>& aHeaders) {
        Check(mkdtemp(m_szDirectory) != nullptr, "directory of a source file");
        std::ofstream file(path());
        for (const std::string& strHeader : aHeaders) {
            file << "#include <" << strHeader << ">\n";
        }
    }
    ~CSourceFile() {
        unlink(path().c_str());
        rmdir(m_szDirectory);
    }
    CSourceFile(const CSourceFile&) = delete;
    CSourceFile& operator=(const CSourceFile&) = delete;

    std::string path() const { return std::string(m_szDirectory) + "/include.cpp"; }

  private:
    char m_szDirectory[32] = "/tmp/bench_include.XXXXXX";
};

// Compiled once a repetition, as long as that takes.
void AddCompileRow(const char* aWho, const std::vector<std::string>& aHeaders,
                   const std::vector<std::string>& aFlags = {}) {
    Row(
        AREA, "compile a file that includes it", aWho,
        [=](benchmark::State& aState) {
            const CSourceFile file(aHeaders);
            std::vector<std::string> command = {
                KELTO_BENCH_COMPILER, "-std=c++17", "-O2",      "-I", KELTO_BENCH_INCLUDE, "-c",
                file.path(),          "-o",         "/dev/null"};
            command.insert(command.end(), aFlags.begin(), aFlags.end());
            double seconds = 0;
            for (auto _ : aState) {
                seconds = RunProcess(command).m_CpuSeconds;
            }
            CountFigure(aState, NANOSECONDS, seconds * 1e9);
        },
        Clock::FIGURES);
}

const bool s_bAdded = [] {
    AddLoadRows("libkelto_util", OURS);
    AddLoadRows("libuv", "libuv");
    AddLoadRows("libevent-2.1", "libevent");
    AddLoadRows("libtbb", "TBB");
    AddLoadRows("libglib-2.0", "GLib");
    AddLoadRows("libPocoFoundation", "POCO Foundation");
    AddLoadRows("libACE-7.0.8", "ACE");
    AddLoadRows("libspdlog", "spdlog");
    AddCompileRow(OURS, {"kelto_util.h"});
    AddCompileRow("floor: headers string, functional and memory",
                  {"string", "functional", "memory"});
#if KELTO_WITH_BOOST
    AddCompileRow("Asio", {"boost/asio.hpp"});
#endif
#if KELTO_WITH_SPDLOG
    AddCompileRow("spdlog", {"spdlog/spdlog.h"},
                  {"-DSPDLOG_SHARED_LIB", "-DSPDLOG_COMPILED_LIB", "-DSPDLOG_FMT_EXTERNAL"});
#endif
#if KELTO_WITH_ABSEIL
    AddCompileRow("Abseil: Cord, escaping, Mutex, Time",
                  {"absl/strings/cord.h", "absl/strings/escaping.h", "absl/synchronization/mutex.h",
                   "absl/time/time.h"});
#endif
    return true;
}();

}  // namespace
