#include "Process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "Row.h"

namespace kelto_bench {

namespace {

constexpr char OPTION[] = "--fresh";

// Made when it is first used: measurements of other files are registered before main.
std::map<std::string, double (*)()>& Measurements() {
    static std::map<std::string, double (*)()> s_measurements;
    return s_measurements;
}

double Seconds(const timeval& aTime) {
    return static_cast<double>(aTime.tv_sec) + 1e-6 * static_cast<double>(aTime.tv_usec);
}

std::string ReadAll(int aFile) {
    std::string text;
    char achPart[256];
    for (ssize_t nRead = 0; (nRead = read(aFile, achPart, sizeof(achPart))) > 0;) {
        text.append(achPart, static_cast<size_t>(nRead));
    }
    return text;
}

}  // namespace

CFinished RunProcess(const std::vector<std::string>& aCommand) {
    int nFiles[2];
    Check(pipe2(nFiles, O_CLOEXEC) == 0, "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, nFiles[1], STDOUT_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(aCommand.size() + 1);
    for (const std::string& strArgument : aCommand) {
        arguments.push_back(const_cast<char*>(strArgument.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t nProcess = 0;
    Check(posix_spawnp(&nProcess, arguments[0], &actions, nullptr, arguments.data(), environ) == 0,
          arguments[0]);
    posix_spawn_file_actions_destroy(&actions);
    close(nFiles[1]);
    CFinished finished = {ReadAll(nFiles[0]), 0};
    close(nFiles[0]);
    int nStatus = 0;
    rusage usage = {};
    Check(wait4(nProcess, &nStatus, 0, &usage) == nProcess && nStatus == 0, arguments[0]);
    finished.m_CpuSeconds = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    return finished;
}

FreshMeasurement::FreshMeasurement(const std::string& aName, double (*aMeasure)()) {
    Check(Measurements().emplace(aName, aMeasure).second, "one measurement of a name");
}

double FreshMeasurement::Take(const std::string& aName) {
    return std::strtod(RunProcess({"/proc/self/exe", OPTION, aName}).m_strOutput.c_str(), nullptr);
}

void FreshMeasurement::RunIfAsked(int aCount, char** aArguments) {
    if (aCount == 3 && std::string(aArguments[1]) == OPTION) {
        std::printf("%.0f\n", Measurements().at(aArguments[2])());
        std::fflush(stdout);
        std::_Exit(0);  // nothing that ends with the process is measured
    }
}

double ResidentBytes() {
    std::FILE* pFile = std::fopen("/proc/self/statm", "re");
    Check(pFile != nullptr, "memory of the process");
    char szLine[256] = "";
    Check(std::fgets(szLine, sizeof(szLine), pFile) != nullptr, "memory of the process");
    std::fclose(pFile);
    char* pszResident = szLine;
    std::strtol(szLine, &pszResident, 10);  // the size of the address space stands before it
    return std::strtod(pszResident, nullptr) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

}  // namespace kelto_bench
