// The benchmarks' entry point.
//
// glibc's mutexes, and libstdc++'s shared-pointer counts, drop the lock
// prefix of their atomic instructions while the process has never had a
// second thread, and never take it up again once it has had one. A process
// that runs the framework always has several threads, and the rows that
// start threads (ping-pong, create+join) would otherwise switch every later
// reference to the slower path in the middle of a randomly ordered run. So
// the process starts one thread before any benchmark: every row, ours and
// the references, then runs in the state of a real process, whatever the
// order.
#include <benchmark/benchmark.h>

#include <thread>

int main(int argc, char** argv) {
  std::thread([] {}).join();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
