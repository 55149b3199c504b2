// Thread churn: many create/join cycles must give back every thread and
// every byte, whichever stack a thread runs on (the library's, or a
// caller's allocated and freed around the cycle) and however it ends
// (returning, or OsalThreadExit, which unwinds differently).
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "stress_support.h"

namespace vek_stress {
namespace {

using namespace std::chrono_literals;
using zov_vek::VekError;

// Half the cycles run on a library stack: a stack or thread left behind by
// each of those exceeds the resident-memory slack below several times over,
// and one byte of heap left by any cycle shows at once.
constexpr unsigned int kCycles = 2000;

// Under qemu-user (the aarch64 test preset sets VEK_TEST_EMULATOR),
// /proc/self/status describes the emulator, not the program: its host
// thread outlives a joined guest thread for a moment, and it keeps memory
// for every guest thread it ran. The program's own allocator count below
// still holds there.
bool ProcessCountersAreTheEmulators() {
  return std::getenv("VEK_TEST_EMULATOR") != nullptr;
}
constexpr unsigned int kStackSize = 16384;
struct Churn {
  std::atomic<unsigned int> ran{0};
  void* library_attr = nullptr;
  void* caller_attr = nullptr;

  static void Return(void* arg) { static_cast<Churn*>(arg)->ran++; }
  static void Exit(void* arg) {
    static_cast<Churn*>(arg)->ran++;
    zov_vek::OsalThreadExit();
  }

  // One create/join cycle: odd cycles run on a stack of the caller's,
  // and every other pair of cycles ends through OsalThreadExit.
  bool Cycle(unsigned int cycle) {
    void* stack = nullptr;
    void* attr = library_attr;
    if (cycle % 2 == 1) {
      stack = memalign(4096, kStackSize);
      if (stack == nullptr) return false;
      if (zov_vek::OsalThreadAttrSetStack(caller_attr, stack, kStackSize) !=
          VekError::kOk) {
        free(stack);
        return false;
      }
      attr = caller_attr;
    }
    void* thread = nullptr;
    bool ok = zov_vek::OsalThreadCreate(&thread, attr,
                                        cycle % 4 < 2 ? &Return : &Exit,
                                        this) == VekError::kOk;
    if (ok) ok = zov_vek::OsalThreadJoin(thread) == VekError::kOk;
    free(stack);
    return ok;
  }
};

TEST(ThreadStressTest, CreateJoinCyclesGiveBackThreadsAndMemory) {
  Deadline deadline("thread create/join cycles", 300s);
  Churn churn;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrInit(&churn.library_attr));
  ASSERT_EQ(VekError::kOk,
            zov_vek::OsalThreadAttrSetName(churn.library_attr, "churn_lib"));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetStackSize(
                               churn.library_attr, kStackSize));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrInit(&churn.caller_attr));
  ASSERT_EQ(VekError::kOk,
            zov_vek::OsalThreadAttrSetName(churn.caller_attr, "churn_caller"));

  // Warm-up: the first threads make the C library set up what it keeps for
  // the process's life (arenas, the stack cache, thread-local blocks).
  for (unsigned int cycle = 0; cycle < 64; ++cycle) {
    ASSERT_TRUE(churn.Cycle(cycle)) << "warm-up cycle " << cycle;
  }
  churn.ran = 0;
  const long threads_before = ProcStatusField("Threads");
  const long rss_before = ProcStatusField("VmRSS");
  const uint64_t heap_before = HeapBytesInUse();
  ASSERT_GT(threads_before, 0);
  ASSERT_GT(rss_before, 0);

  unsigned int failed = 0;
  for (unsigned int cycle = 0; cycle < kCycles; ++cycle) {
    if (!churn.Cycle(cycle)) failed++;
  }

  const uint64_t heap_after = HeapBytesInUse();
  const long threads_after = ProcStatusField("Threads");
  const long rss_after = ProcStatusField("VmRSS");
  EXPECT_EQ(0u, failed);
  EXPECT_EQ(kCycles, churn.ran.load());
  if (!ProcessCountersAreTheEmulators()) {
    EXPECT_EQ(threads_before, threads_after);
  }
  EXPECT_EQ(heap_before, heap_after);
#ifndef VEK_STRESS_SANITIZED
  // A sanitizer keeps freed memory in quarantine and gives every thread
  // shadow and fake-stack pages, so resident memory only means something
  // without one; there the allocator's own count above stands in for it.
  // Without one, the allocator and the thread stack cache may keep a few
  // pages; a leak of one object per cycle would exceed this many times
  // over.
  constexpr long kRssSlackKb = 2048;
  if (!ProcessCountersAreTheEmulators()) {
    EXPECT_LE(rss_after, rss_before + kRssSlackKb)
        << "VmRSS grew from " << rss_before << " kB to " << rss_after << " kB";
  }
#endif
  RecordProperty("cycles", static_cast<int>(kCycles));
  RecordProperty("rss_before_kb", static_cast<int>(rss_before));
  RecordProperty("rss_after_kb", static_cast<int>(rss_after));

  EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadAttrDestroy(churn.caller_attr));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadAttrDestroy(churn.library_attr));
}

}  // namespace
}  // namespace vek_stress
