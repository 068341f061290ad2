// Measuring in fresh processes, where nothing of earlier rows is left in memory.
#ifndef BENCH_SUPPORT_PROCESS_H
#define BENCH_SUPPORT_PROCESS_H

#include <string>
#include <vector>

namespace kelto_bench {

struct CFinished {
    std::string m_strOutput;  // what it wrote to its standard output
    double m_CpuSeconds;      // of the process and of its children
};

// Runs a command and waits for its end. The program ends when the command fails.
CFinished RunProcess(const std::vector<std::string>& aCommand);

// A measurement for a process of its own, registered during the initialisation of static objects.
class FreshMeasurement {
  public:
    FreshMeasurement(const std::string& aName, double (*aMeasure)());

    // Runs this program anew for one of them.
    static double Take(const std::string& aName);
    // What main does first. In such a process it does not return.
    static void RunIfAsked(int aCount, char** aArguments);
};

// What the process has of the memory, in bytes.
double ResidentBytes();

}  // namespace kelto_bench

#endif  // BENCH_SUPPORT_PROCESS_H
