// One row of the benchmark tables.
//
// A row is named by its area, its work and whoever does it. Rows of the same area and work do the
// same work and are compared with each other; OURS marks the library's own. Every row verifies
// what it computed and aborts the program when that is wrong.
#ifndef BENCH_SUPPORT_ROW_H
#define BENCH_SUPPORT_ROW_H

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kelto_bench {

inline constexpr char OURS[] = "kelto_util";

// What the time of a row is.
enum class Clock {
    THREAD,   // processor time of the measuring thread
    PROCESS,  // processor time of all threads
    WALL,     // elapsed time
    MANUAL,   // what the row reports by SetIterationTime
    FIGURES,  // none: the row runs once a repetition and ends by CountFigure or CountLatencies
};

// Registers a row during the initialisation of static objects.
class Row {
  public:
    template <typename Function>
    Row(const std::string& aArea, const std::string& aWork, const std::string& aWho,
        Function aFunction, Clock aClock = Clock::THREAD) {
        benchmark::internal::Benchmark* pRow = benchmark::RegisterBenchmark(
            (aArea + ";" + aWork + ";" + aWho).c_str(), std::move(aFunction));
        if (aClock == Clock::PROCESS) {
            pRow->MeasureProcessCPUTime();
        } else if (aClock == Clock::WALL) {
            pRow->UseRealTime();
        } else if (aClock == Clock::MANUAL) {
            pRow->UseManualTime();
        } else if (aClock == Clock::FIGURES) {
            pRow->Iterations(1);
        }
    }
};

// Ends the program when a row's work came out wrong.
void Check(bool aHolds, const char* aWhat);

// Makes the compiler believe that memory reachable from aObject is read and written here. Used
// rather than the framework's own means, which with some compilers changes the object.
inline void Touch(const void* aObject) {
    asm volatile("" : : "g"(aObject) : "memory");
}

// Units of figures.
inline constexpr char NANOSECONDS[] = "nanoseconds";
inline constexpr char BYTES[] = "bytes";

// The result of a row of Clock::FIGURES.
void CountFigure(benchmark::State& aState, const char* aUnit, double aValue);

// As above; the tables have a line for each of several percentiles.
void CountLatencies(benchmark::State& aState, const std::vector<double>& aNanoseconds);

// The value below which that part of aValues lies, which are not empty.
double Percentile(std::vector<double> aValues, double aPart);

// Counts aPerIteration pieces of work for each iteration; times are per piece.
inline void CountItems(benchmark::State& aState, int64_t aPerIteration = 1) {
    aState.SetItemsProcessed(aState.iterations() * aPerIteration);
}

// As above, for work that is measured by its bytes.
inline void CountBytes(benchmark::State& aState, size_t aPerIteration) {
    aState.SetBytesProcessed(aState.iterations() * static_cast<int64_t>(aPerIteration));
    CountItems(aState);
}

// Keeps the calling thread, and threads that it starts meanwhile, on one core.
class Pinned {
  public:
    explicit Pinned(int aCore);
    ~Pinned();
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

    static void MoveTo(int aCore);

  private:
    unsigned long m_ulBefore;
};

// Processor time of the calling thread in seconds.
double ThreadSeconds();

// The same numbers in the same order on every run.
class Numbers {
  public:
    uint32_t Next() {
        m_ullState = m_ullState * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<uint32_t>(m_ullState >> 33);
    }

  private:
    uint64_t m_ullState = 42;
};

std::string RandomBytes(size_t aSize);

}  // namespace kelto_bench

#endif  // BENCH_SUPPORT_ROW_H
