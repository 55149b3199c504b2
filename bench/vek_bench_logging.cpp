// Log statements beside liblog's own gate and a direct __android_log_print.
//
// Every row writes into a logger that drops the line, so that the time is
// the statement's own and not the sink's; liblog's stderr logger is put
// back afterwards.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "vek_bench_alloc_count.h"

namespace {

using zov_vek::Logger;
using zov_vek::PredefinedGroup;

constexpr char kGroupTag[] = "vek-diag";
constexpr char kCustomTag[] = "vek-bench";
constexpr uint32_t kErrorOnly = 1u << Logger::kError;
constexpr uint32_t kAllLevels = 0x1f;

void DropLine(const struct __android_logger_data*, const char*) {}

// For the life of a benchmark: lines go nowhere, and liblog's minimum
// priority is `minimum` (restored afterwards).
class NullSink {
 public:
  explicit NullSink(int minimum)
      : saved_minimum_(__android_log_get_minimum_priority()) {
    __android_log_set_logger(DropLine);
    __android_log_set_minimum_priority(minimum);
  }
  ~NullSink() {
    __android_log_set_minimum_priority(saved_minimum_);
    __android_log_set_logger(__android_log_stderr_logger);
  }
  NullSink(const NullSink&) = delete;
  NullSink& operator=(const NullSink&) = delete;

 private:
  int saved_minimum_;
};

// === Disabled statements
// A debug statement in a group whose mask holds only the error bit, beside
// the same statement behind liblog's own loggability test with the process
// minimum at info.

void DisabledPredefinedVek(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_VERBOSE);
  Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kDiag, kErrorOnly);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    LOG_DEBUG(PredefinedGroup::kDiag, "disabled %d", value);
  }
  benchmark::DoNotOptimize(value);
  state.SetLabel("max_ns=1");
}
BENCHMARK(DisabledPredefinedVek)->Name("log_disabled_predefined/vek");

void DisabledPredefinedIsLoggable(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_INFO);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    if (__android_log_is_loggable(ANDROID_LOG_DEBUG, kGroupTag,
                                  ANDROID_LOG_INFO)) {
      __android_log_print(ANDROID_LOG_DEBUG, kGroupTag, "disabled %d", value);
    }
  }
  benchmark::DoNotOptimize(value);
  state.SetLabel("goal=0.2");
}
BENCHMARK(DisabledPredefinedIsLoggable)
    ->Name("log_disabled_predefined/android_log_is_loggable");

void DisabledCustomVek(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_VERBOSE);
  Logger::GetLogger().SetLogLevelMask(kCustomTag, kErrorOnly);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    LOG_CUSTOM_DEBUG(kCustomTag, "disabled %d", value);
  }
  benchmark::DoNotOptimize(value);
}
BENCHMARK(DisabledCustomVek)->Name("log_disabled_custom/vek");

void DisabledCustomIsLoggable(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_INFO);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    if (__android_log_is_loggable(ANDROID_LOG_DEBUG, kCustomTag,
                                  ANDROID_LOG_INFO)) {
      __android_log_print(ANDROID_LOG_DEBUG, kCustomTag, "disabled %d", value);
    }
  }
  benchmark::DoNotOptimize(value);
}
BENCHMARK(DisabledCustomIsLoggable)
    ->Name("log_disabled_custom/android_log_is_loggable");

// === Enabled statements

void EnabledPredefinedVek(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_VERBOSE);
  Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kDiag, kAllLevels);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    LOG_DEBUG(PredefinedGroup::kDiag, "enabled %d", value);
    ++value;
  }
}
BENCHMARK(EnabledPredefinedVek)->Name("log_enabled_predefined/vek");

void EnabledPredefinedDirect(benchmark::State& state) {
  NullSink sink(ANDROID_LOG_VERBOSE);
  int value = 0;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    __android_log_print(ANDROID_LOG_DEBUG, kGroupTag, "enabled %d", value);
    ++value;
  }
  state.SetLabel("goal=1.05");
}
BENCHMARK(EnabledPredefinedDirect)
    ->Name("log_enabled_predefined/android_log_print");

}  // namespace
