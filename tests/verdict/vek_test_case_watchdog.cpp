// The case watchdog inside a googletest program: a hang is reported at the
// deadline, a crash by its signal, each with the cases that did not run,
// and a healthy run's report stays googletest's own.
#include <signal.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vek_verdict_process.h"

namespace vek_test {
namespace {

constexpr char kSample[] = VEK_VERDICT_SAMPLE;
constexpr char kPlainSample[] = VEK_VERDICT_SAMPLE_PLAIN;

// Small against every deadline here, generous for a loaded two-core
// machine.
constexpr int64_t kSlackMs = 3000;
// No run here should come near it; it only keeps a broken build from
// hanging the test.
constexpr int kLimitS = 60;

ProcessResult RunSample(const char* program,
                        const std::vector<std::string>& args,
                        const std::vector<std::string>& env = {}) {
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv, env, kLimitS);
}

TEST(CaseWatchdogTest, HangIsReportedAtTheDeadlineWithTheCasesNotRun) {
  const ProcessResult run = RunSample(
      kSample,
      {"--gtest_filter=VerdictSample.Passes:VerdictHang.Hangs:VerdictTail.*"},
      {"VEK_UT_CASE_TIMEOUT_S=2"});

  EXPECT_TRUE(run.Exited(1)) << "status " << run.status;
  EXPECT_GE(run.elapsed_ms, 2000);
  EXPECT_LT(run.elapsed_ms, 2000 + kSlackMs);
  // The case's buffered line is flushed before the verdict.
  EXPECT_TRUE(EndsWith(WithoutTimings(run.out),
                       "[       OK ] VerdictSample.Passes (N ms)\n"
                       "[----------] 1 test from VerdictSample (N ms total)\n"
                       "\n"
                       "[----------] 1 test from VerdictHang\n"
                       "[ RUN      ] VerdictHang.Hangs\n"
                       "waiting for a wake-up that never comes\n"
                       "[  HUNG    ] VerdictHang.Hangs (2 s)\n"
                       "[  NOT RUN ] 1 test, listed below:\n"
                       "[  NOT RUN ] VerdictTail.Passes\n"))
      << run.out;
}

TEST(CaseWatchdogTest, HangIsReportedWhileTheCaseHoldsTheReportStream) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
  GTEST_SKIP() << "ThreadSanitizer's _exit flushes every stdio stream "
                  "first, and so waits for the lock that the hung case holds";
#endif
#endif
  const ProcessResult run =
      RunSample(kSample, {"--gtest_filter=VerdictHang.HangsHoldingStdout"},
                {"VEK_UT_CASE_TIMEOUT_S=2"});

  EXPECT_TRUE(run.Exited(1)) << "status " << run.status;
  EXPECT_LT(run.elapsed_ms, 2000 + kSlackMs);
  // Its own half line stays locked in the buffer; the verdict gets out.
  EXPECT_TRUE(EndsWith(run.out,
                       "[ RUN      ] VerdictHang.HangsHoldingStdout\n"
                       "[  HUNG    ] VerdictHang.HangsHoldingStdout (2 s)\n"))
      << run.out;
}

TEST(CaseWatchdogTest, DeadlineHoldsForEachCaseAndFollowsTheEnvironment) {
  // Three cases of a second and a half take longer than a two-second
  // deadline in all; each is within it.
  const ProcessResult each =
      RunSample(kSample, {"--gtest_filter=VerdictSlow.*", "--gtest_repeat=3"},
                {"VEK_UT_CASE_TIMEOUT_S=2"});
  EXPECT_TRUE(each.Exited(0)) << each.out;
  EXPECT_GE(each.elapsed_ms, 4500);
  EXPECT_EQ(CountOf(each.out, "[       OK ] VerdictSlow.TakesASecondAndAHalf"),
            3u);
  EXPECT_EQ(CountOf(each.out, "HUNG"), 0u);

  // 0 is no deadline, not a deadline of no time.
  const ProcessResult none = RunSample(
      kSample, {"--gtest_filter=VerdictSlow.*"}, {"VEK_UT_CASE_TIMEOUT_S=0"});
  EXPECT_TRUE(none.Exited(0)) << none.out;

  const ProcessResult tight = RunSample(
      kSample, {"--gtest_filter=VerdictSlow.*"}, {"VEK_UT_CASE_TIMEOUT_S=1"});
  EXPECT_TRUE(tight.Exited(1));
  EXPECT_TRUE(EndsWith(tight.out,
                       "[  HUNG    ] VerdictSlow.TakesASecondAndAHalf (1 s)\n"))
      << tight.out;

  // A value that is not whole seconds is refused aloud, on stderr, and the
  // default deadline stays.
  const ProcessResult typo = RunSample(
      kSample, {"--gtest_filter=VerdictSlow.*"}, {"VEK_UT_CASE_TIMEOUT_S=1s"});
  EXPECT_TRUE(typo.Exited(0)) << typo.out;
  EXPECT_NE(typo.err.find("ignoring VEK_UT_CASE_TIMEOUT_S=\"1s\""),
            std::string::npos)
      << typo.err;
}

TEST(CaseWatchdogTest, FatalSignalNamesTheCaseAndEndsTheProcessByIt) {
  struct Crash {
    const char* name;
    int sig;
    const char* sig_name;
  };
  const Crash crashes[] = {
      {"VerdictCrash.Segfaults", SIGSEGV, "SIGSEGV"},
      {"VerdictCrash.SegfaultsOnWorkerThread", SIGSEGV, "SIGSEGV"},
      {"VerdictCrash.Aborts", SIGABRT, "SIGABRT"},
  };
  for (const Crash& crash : crashes) {
    SCOPED_TRACE(crash.name);
    const std::string name = crash.name;
    const ProcessResult run = RunSample(
        kSample, {"--gtest_filter=" + name + ":VerdictTail.*:VerdictExit.*"});

    EXPECT_TRUE(run.Signaled(crash.sig)) << "status " << run.status;
    EXPECT_TRUE(EndsWith(run.out, "[ RUN      ] " + name +
                                      "\n"
                                      "[  CRASHED ] " +
                                      name + " (" + crash.sig_name +
                                      ")\n"
                                      "[  NOT RUN ] 2 tests, listed below:\n"
                                      "[  NOT RUN ] VerdictExit.ExitsMidCase\n"
                                      "[  NOT RUN ] VerdictTail.Passes\n"))
        << run.out;
  }
}

// googletest's report of the same cases, with the watchdog linked in and
// without it: equal but for the timings, whatever the printer's options.
TEST(CaseWatchdogTest, HealthyReportIsGoogletestsOwn) {
  const std::string filter =
      "--gtest_filter=VerdictSample.*:VerdictTyped*:VerdictTail.*:"
      "DISABLED_VerdictOff.*";
  const std::vector<std::vector<std::string>> option_sets = {
      {},
      {"--gtest_brief=1"},
      {"--gtest_print_time=0"},
      {"--gtest_also_run_disabled_tests"},
      {"--gtest_repeat=2", "--gtest_shuffle", "--gtest_random_seed=7"},
  };
  for (std::vector<std::string> options : option_sets) {
    options.push_back(filter);
    SCOPED_TRACE(testing::PrintToString(options));
    const ProcessResult watched = RunSample(kSample, options);
    const ProcessResult plain = RunSample(kPlainSample, options);

    ASSERT_FALSE(plain.timed_out);
    EXPECT_EQ(watched.status, plain.status);
    EXPECT_EQ(WithoutTimings(watched.out), WithoutTimings(plain.out));
    EXPECT_EQ(watched.err, plain.err);
    EXPECT_NE(plain.out.find("[  FAILED  ] VerdictSample.FailsCheck"),
              std::string::npos);
  }
}

}  // namespace
}  // namespace vek_test
