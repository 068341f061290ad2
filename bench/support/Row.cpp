#include "Row.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kelto_bench {

namespace {

constexpr int MASK_CORES = 8 * sizeof(unsigned long);

unsigned long Affinity() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    unsigned long ulMask = 0;
    for (int nCore = 0; nCore < MASK_CORES; ++nCore) {
        ulMask |= static_cast<unsigned long>(CPU_ISSET(nCore, &set) != 0) << nCore;
    }
    return ulMask;
}

void SetAffinity(unsigned long aMask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int nCore = 0; nCore < MASK_CORES; ++nCore) {
        if ((aMask >> nCore & 1) != 0) {
            CPU_SET(nCore, &set);
        }
    }
    Check(sched_setaffinity(0, sizeof(set), &set) == 0, "placement on a core");
}

}  // namespace

void Check(bool aHolds, const char* aWhat) {
    if (!aHolds) {
        std::fprintf(stderr, "bench: wrong: %s\n", aWhat);
        std::abort();
    }
}

Pinned::Pinned(int aCore) : m_ulBefore(Affinity()) {
    MoveTo(aCore);
}

Pinned::~Pinned() {
    SetAffinity(m_ulBefore);
}

void Pinned::MoveTo(int aCore) {
    SetAffinity(1UL << aCore);
}

double ThreadSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void CountFigure(benchmark::State& aState, const char* aUnit, double aValue) {
    aState.counters[aUnit] = aValue;
}

void CountLatencies(benchmark::State& aState, const std::vector<double>& aNanoseconds) {
    for (const char* pszPercentile : {"50", "90", "99", "99.9"}) {
        aState.counters[std::string("percentile_") + pszPercentile] =
            Percentile(aNanoseconds, std::strtod(pszPercentile, nullptr) / 100);
    }
}

double Percentile(std::vector<double> aValues, double aPart) {
    std::sort(aValues.begin(), aValues.end());
    return aValues[static_cast<size_t>(static_cast<double>(aValues.size() - 1) * aPart)];
}

std::string RandomBytes(size_t aSize) {
    Numbers numbers;
    std::string bytes(aSize, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(numbers.Next());
    }
    return bytes;
}

}  // namespace kelto_bench
