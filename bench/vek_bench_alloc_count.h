// Counts the heap allocations that the calling thread makes, so that a
// benchmark can report how many of them one iteration costs.
#ifndef BENCH_VEK_BENCH_ALLOC_COUNT_H_
#define BENCH_VEK_BENCH_ALLOC_COUNT_H_

#include <benchmark/benchmark.h>

#include <cstdint>

namespace vek_bench {

// Allocations made by this thread since it started.
uint64_t ThreadAllocations();

// Reports the allocations made between construction and destruction as
// the counter "allocs", per iteration. Every benchmark has one, just before
// its timed loop: the CSV output wants the same counters on every row.
class AllocationCounter {
 public:
  explicit AllocationCounter(benchmark::State& state)
      : state_(state), start_(ThreadAllocations()) {}
  ~AllocationCounter() {
    state_.counters["allocs"] =
        benchmark::Counter(static_cast<double>(ThreadAllocations() - start_),
                           benchmark::Counter::kAvgIterations);
  }

  AllocationCounter(const AllocationCounter&) = delete;
  AllocationCounter& operator=(const AllocationCounter&) = delete;

 private:
  benchmark::State& state_;
  uint64_t start_;
};

}  // namespace vek_bench

#endif  // BENCH_VEK_BENCH_ALLOC_COUNT_H_
