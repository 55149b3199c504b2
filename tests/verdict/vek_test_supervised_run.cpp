// The runner over the sample program: it goes on after every hang, crash
// and exit, reports every case once with the right verdict and exit
// status, writes one well-formed and complete XML file, and prints what a
// plain run prints when nothing goes wrong.
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vek_verdict_process.h"
#include "vek_xml_check.h"

namespace vek_test {
namespace {

constexpr char kSample[] = VEK_VERDICT_SAMPLE;
constexpr char kPlainSample[] = VEK_VERDICT_SAMPLE_PLAIN;
constexpr char kRunner[] = VEK_UT_RUNNER;

constexpr int kLimitS = 120;

// The sample's cases in run order; DISABLED_VerdictOff.NeverRuns is not
// selected.
const char* const kSelected[] = {
    "VerdictSample.Passes",
    "VerdictSample.FailsCheck",
    "VerdictSample.Skips",
    "VerdictTyped/0.FourBytes",
    "VerdictTyped/1.FourBytes",
    "VerdictHang.Hangs",
    "VerdictHang.HangsHoldingStdout",
    "VerdictSlow.TakesASecondAndAHalf",
    "VerdictCrash.Segfaults",
    "VerdictCrash.SegfaultsOnWorkerThread",
    "VerdictCrash.Aborts",
    "VerdictExit.ExitsMidCase",
    "VerdictTail.Passes",
};

const char kClosing[] =
    "[==========] 13 tests from 8 test suites ran. (N ms total)\n"
    "[  PASSED  ] 4 tests.\n"
    "[  SKIPPED ] 1 test, listed below:\n"
    "[  SKIPPED ] VerdictSample.Skips\n"
    "[  FAILED  ] 8 tests, listed below:\n"
    "[  FAILED  ] VerdictSample.FailsCheck\n"
    "[  FAILED  ] VerdictTyped/1.FourBytes, where TypeParam = char\n"
    "[  FAILED  ] VerdictHang.Hangs\n"
    "[  FAILED  ] VerdictHang.HangsHoldingStdout\n"
    "[  FAILED  ] VerdictCrash.Segfaults\n"
    "[  FAILED  ] VerdictCrash.SegfaultsOnWorkerThread\n"
    "[  FAILED  ] VerdictCrash.Aborts\n"
    "[  FAILED  ] VerdictExit.ExitsMidCase\n"
    "\n"
    " 8 FAILED TESTS\n"
    "  YOU HAVE 1 DISABLED TEST\n"
    "\n";

ProcessResult RunProgram(const char* program,
                         const std::vector<std::string>& args,
                         const std::vector<std::string>& env = {}) {
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv, env, kLimitS);
}

std::string Closing(const std::string& report) {
  const size_t at = report.rfind("[==========] ");
  return at == std::string::npos ? "" : WithoutTimings(report.substr(at));
}

// One supervised run of every case, shared by the tests that judge it.
class SupervisedRunTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/vek_verdict_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string xml_path = std::string(dir) + "/all.xml";
    run_ = new ProcessResult(
        RunProgram(kRunner, {std::string("--exe=") + kSample,
                             "--case-timeout=2", "--xml=" + xml_path}));
    std::ifstream file(xml_path);
    std::stringstream text;
    text << file.rdbuf();
    xml_ = new std::string(text.str());
    unlink(xml_path.c_str());
    rmdir(dir);
  }
  static void TearDownTestSuite() {
    delete run_;
    delete xml_;
  }

  static ProcessResult* run_;
  static std::string* xml_;
};

ProcessResult* SupervisedRunTest::run_ = nullptr;
std::string* SupervisedRunTest::xml_ = nullptr;

TEST_F(SupervisedRunTest, GoesOnAfterEveryHangCrashAndExit) {
  const ProcessResult& run = *run_;
  EXPECT_TRUE(run.Exited(1)) << "status " << run.status << "\n" << run.err;
  // Two hangs at two seconds, one slow case, the rest quick.
  EXPECT_LT(run.elapsed_ms, 20000);

  for (const char* name : kSelected) {
    EXPECT_EQ(CountOf(run.out, std::string("[ RUN      ] ") + name + "\n"), 1u)
        << name;
  }
  EXPECT_EQ(CountOf(run.out, "NeverRuns"), 0u);
  const char* const verdicts[] = {
      "[  HUNG    ] VerdictHang.Hangs (2 s)\n",
      "[  HUNG    ] VerdictHang.HangsHoldingStdout (2 s)\n",
      "[  CRASHED ] VerdictCrash.Segfaults (SIGSEGV)\n",
      "[  CRASHED ] VerdictCrash.SegfaultsOnWorkerThread (SIGSEGV)\n",
      "[  CRASHED ] VerdictCrash.Aborts (SIGABRT)\n",
      "[  FAILED  ] VerdictExit.ExitsMidCase (exited with status 3)\n",
      "[       OK ] VerdictTail.Passes",
  };
  for (const char* verdict : verdicts) {
    EXPECT_EQ(CountOf(run.out, verdict), 1u) << verdict;
  }
}

TEST_F(SupervisedRunTest, SummarizesTheWholeRunOnceInGoogletestsForm) {
  const ProcessResult& run = *run_;
  EXPECT_EQ(Closing(run.out), kClosing) << run.out;
  // The single runs' own closings, starts and filters are not repeated.
  EXPECT_EQ(CountOf(run.out, " ran."), 1u);
  EXPECT_EQ(CountOf(run.out, "Running main() from "), 1u);
  EXPECT_EQ(CountOf(run.out, "Note: Google Test filter"), 0u);
}

TEST_F(SupervisedRunTest, MergedXmlIsWellFormedAndComplete) {
  XmlElement root;
  std::string error;
  ASSERT_TRUE(XmlReader::Read(*xml_, &root, &error)) << error << "\n" << *xml_;

  EXPECT_EQ(root.name, "testsuites");
  EXPECT_EQ(root.Attribute("tests"), "14");
  EXPECT_EQ(root.Attribute("failures"), "8");
  EXPECT_EQ(root.Attribute("disabled"), "1");

  std::map<std::string, const XmlElement*> cases;
  size_t suites = 0;
  for (const XmlElement* suite : root.Children("testsuite")) {
    ++suites;
    for (const XmlElement* test : suite->Children("testcase")) {
      const std::string name =
          suite->Attribute("name") + "." + test->Attribute("name");
      EXPECT_TRUE(cases.emplace(name, test).second) << "twice: " << name;
      EXPECT_EQ(test->Attribute("classname"), suite->Attribute("name"));
    }
  }
  EXPECT_EQ(suites, 9u);
  ASSERT_EQ(cases.size(), 14u);

  struct Expected {
    const char* name;
    const char* result;
    size_t failures;
    const char* failure_type;
  };
  const Expected expected[] = {
      {"VerdictSample.Passes", "completed", 0, ""},
      {"VerdictSample.FailsCheck", "completed", 1, ""},
      {"VerdictSample.Skips", "skipped", 0, ""},
      {"VerdictTyped/0.FourBytes", "completed", 0, ""},
      {"VerdictTyped/1.FourBytes", "completed", 1, ""},
      {"VerdictHang.Hangs", "hung", 1, "hung"},
      {"VerdictHang.HangsHoldingStdout", "hung", 1, "hung"},
      {"VerdictSlow.TakesASecondAndAHalf", "completed", 0, ""},
      {"VerdictCrash.Segfaults", "crashed", 1, "crashed"},
      {"VerdictCrash.SegfaultsOnWorkerThread", "crashed", 1, "crashed"},
      {"VerdictCrash.Aborts", "crashed", 1, "crashed"},
      {"VerdictExit.ExitsMidCase", "exited", 1, "exited"},
      {"VerdictTail.Passes", "completed", 0, ""},
      {"DISABLED_VerdictOff.NeverRuns", "suppressed", 0, ""},
  };
  for (const Expected& want : expected) {
    SCOPED_TRACE(want.name);
    ASSERT_EQ(cases.count(want.name), 1u);
    const XmlElement& test = *cases[want.name];
    EXPECT_EQ(test.Attribute("result"), want.result);
    const std::vector<const XmlElement*> failures = test.Children("failure");
    ASSERT_EQ(failures.size(), want.failures);
    if (want.failures > 0) {
      EXPECT_EQ(failures[0]->Attribute("type"), want.failure_type);
    }
  }

  EXPECT_EQ(cases["DISABLED_VerdictOff.NeverRuns"]->Attribute("status"),
            "notrun");
  EXPECT_EQ(cases["VerdictTyped/1.FourBytes"]->Attribute("type_param"), "char");
  EXPECT_EQ(cases["VerdictSample.Skips"]->Children("skipped").size(), 1u);
  EXPECT_EQ(cases["VerdictCrash.Aborts"]->Children("failure")[0]->Attribute(
                "message"),
            "crashed: SIGABRT");
  EXPECT_EQ(
      cases["VerdictHang.Hangs"]->Children("failure")[0]->Attribute("message"),
      "hung: no end within 2 s");

  // The failure text survives: markup and quotes escaped, the CDATA end
  // split, the control character dropped, the stray byte replaced.
  const XmlElement& failure =
      *cases["VerdictSample.FailsCheck"]->Children("failure")[0];
  EXPECT_NE(failure.text.find("vek_verdict_sample.cpp:"), std::string::npos);
  EXPECT_NE(failure.text.find("<&\"'> ]]> ctl: byte:\xEF\xBF\xBD end"),
            std::string::npos)
      << failure.text;
  EXPECT_NE(failure.Attribute("message").find("Expected equality"),
            std::string::npos);
}

TEST(SupervisedPlainRunTest, HealthyRunPrintsWhatAPlainRunPrints) {
  struct Variant {
    std::vector<std::string> args;
    int status;
  };
  const Variant variants[] = {
      {{"--gtest_filter=VerdictSample.Passes:VerdictTyped/0.*:VerdictTail.*"},
       0},
      {{"--gtest_filter=-VerdictHang.*:VerdictCrash.*:VerdictExit.*:"
        "VerdictSlow.*"},
       1},
      {{"--gtest_filter=VerdictSample.*:VerdictTyped*", "--gtest_brief=1"}, 1},
  };
  for (const Variant& variant : variants) {
    SCOPED_TRACE(testing::PrintToString(variant.args));
    std::vector<std::string> supervised = {std::string("--exe=") + kSample};
    supervised.insert(supervised.end(), variant.args.begin(),
                      variant.args.end());
    const ProcessResult plain = RunProgram(kSample, variant.args);
    const ProcessResult run = RunProgram(kRunner, supervised);

    EXPECT_TRUE(plain.Exited(variant.status));
    EXPECT_TRUE(run.Exited(variant.status)) << run.err;
    EXPECT_EQ(WithoutTimings(run.out), WithoutTimings(plain.out));
    EXPECT_EQ(run.err, "");
  }
}

TEST(SupervisedPlainRunTest, RestartKeepsToTheUsersSelection) {
  const ProcessResult run = RunProgram(
      kRunner, {std::string("--exe=") + kSample,
                "--gtest_filter=VerdictSample.Passes:VerdictCrash.Aborts:"
                "VerdictTail.*"});

  EXPECT_TRUE(run.Exited(1)) << run.err;
  EXPECT_EQ(CountOf(run.out, "[ RUN      ] "), 3u) << run.out;
  EXPECT_EQ(Closing(run.out),
            "[==========] 3 tests from 3 test suites ran. (N ms total)\n"
            "[  PASSED  ] 2 tests.\n"
            "[  FAILED  ] 1 test, listed below:\n"
            "[  FAILED  ] VerdictCrash.Aborts\n"
            "\n"
            " 1 FAILED TEST\n");
}

TEST(SupervisedPlainRunTest, ProgramWithoutWatchdogKeepsItsOwnResult) {
  const std::vector<std::string> args = {
      "--gtest_filter=VerdictSample.*:VerdictTail.*"};
  std::vector<std::string> supervised = {std::string("--exe=") + kPlainSample};
  supervised.insert(supervised.end(), args.begin(), args.end());
  const ProcessResult plain = RunProgram(kPlainSample, args);
  const ProcessResult run = RunProgram(kRunner, supervised);

  EXPECT_TRUE(run.Exited(1));
  EXPECT_EQ(WithoutTimings(run.out), WithoutTimings(plain.out));
  EXPECT_NE(run.err.find("does not report its cases"), std::string::npos)
      << run.err;
}

// A hang outside every case (here in the global tear-down) escapes the
// case deadline; the runner kills the silent process and fails the run.
TEST(SupervisedPlainRunTest, SilentProcessOutsideAnyCaseIsKilled) {
  const ProcessResult run =
      RunProgram(kRunner,
                 {std::string("--exe=") + kSample, "--case-timeout=1",
                  "--gtest_filter=VerdictTail.*"},
                 {"VEK_VERDICT_SAMPLE_STALL=1"});

  EXPECT_TRUE(run.Exited(1)) << run.err;
  // The deadline, the runner's grace of ten seconds, and slack.
  EXPECT_LT(run.elapsed_ms, 1000 + 10000 + 5000);
  EXPECT_NE(run.err.find("outside any case and was killed"), std::string::npos)
      << run.err;
  EXPECT_NE(run.out.find("[  PASSED  ] 1 test.\n"), std::string::npos);
}

TEST(SupervisedPlainRunTest, RefusesWhatItCannotHonour) {
  const std::string exe = std::string("--exe=") + kSample;
  EXPECT_TRUE(RunProgram(kRunner, {exe, "--gtest_output=xml:x.xml"}).Exited(2));
  EXPECT_TRUE(RunProgram(kRunner, {exe, "--gtest_repeat=2"}).Exited(2));
  EXPECT_TRUE(RunProgram(kRunner, {exe, "--case-timeout=1s"}).Exited(2));
  EXPECT_TRUE(RunProgram(kRunner, {"--exe=/nonexistent/program"}).Exited(2));
}

}  // namespace
}  // namespace vek_test
