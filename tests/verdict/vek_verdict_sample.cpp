// Cases that end in the ways a case of a broken port ends: passing,
// failing, skipped, hanging, crashing, exiting. The verdict tests run this
// program, linked with the case watchdog and without it, and choose the
// cases by filter.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

namespace zov_vek_unit_test {
namespace {

// Text that JUnit XML cannot carry as it is: markup, quotes, the end of a
// CDATA section, a control character and a byte that is not UTF-8.
constexpr char kHostileText[] =
    "<&\"'> ]]> ctl:\x01 byte:\xff"
    " end";

void Segfault() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}

TEST(VerdictSample, Passes) { EXPECT_EQ(2, 1 + 1); }

TEST(VerdictSample, FailsCheck) { EXPECT_EQ(1, 2) << kHostileText; }

TEST(VerdictSample, Skips) { GTEST_SKIP() << "not on this port"; }

template <typename T>
class VerdictTyped : public testing::Test {};
using VerdictTypes = testing::Types<int, char>;
TYPED_TEST_SUITE(VerdictTyped, VerdictTypes);

// Passes for int, fails for char: a typed case fails per type.
TYPED_TEST(VerdictTyped, FourBytes) { EXPECT_EQ(sizeof(TypeParam), 4u); }

// Its line stays in the stream's buffer (the report goes to a pipe) until
// someone flushes it.
TEST(VerdictHang, Hangs) {
  printf("waiting for a wake-up that never comes\n");
  for (;;) sleep(1);
}

// Hangs with the report's stream locked and text in its buffer, as a case
// stuck inside printf would.
TEST(VerdictHang, HangsHoldingStdout) {
  printf("half a line");
  flockfile(stdout);
  for (;;) sleep(1);
}

TEST(VerdictSlow, TakesASecondAndAHalf) {
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
}

TEST(VerdictCrash, Segfaults) { Segfault(); }

TEST(VerdictCrash, SegfaultsOnWorkerThread) {
  std::thread worker(Segfault);
  worker.join();
}

TEST(VerdictCrash, Aborts) { abort(); }

// exit() runs the static destructors while the watchdog still watches.
TEST(VerdictExit, ExitsMidCase) { exit(3); }

TEST(VerdictTail, Passes) { SUCCEED(); }

TEST(DISABLED_VerdictOff, NeverRuns) { FAIL(); }

// Hangs after the last case, where no case deadline applies, when asked
// to.
class StallAtTearDown : public testing::Environment {
 public:
  void TearDown() override {
    if (getenv("VEK_VERDICT_SAMPLE_STALL") == nullptr) return;
    for (;;) sleep(1);
  }
};

testing::Environment* const kStall =
    testing::AddGlobalTestEnvironment(new StallAtTearDown);

}  // namespace
}  // namespace zov_vek_unit_test
