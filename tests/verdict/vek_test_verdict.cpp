// The case watchdog inside a googletest program and the runner over it,
// judged by what their processes print and how they end: a hang is
// reported at the deadline and a crash by its signal, each with the cases
// that did not run; the runner goes on behind every hang, crash and exit,
// reports every case once in googletest's form and in one well-formed
// JUnit file; and where nothing goes wrong, both print googletest's own
// report.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "vek_verdict_process.h"

namespace vek_test {
namespace {

constexpr char kSample[] = VEK_VERDICT_SAMPLE;
constexpr char kPlainSample[] = VEK_VERDICT_SAMPLE_PLAIN;
constexpr char kRunner[] = VEK_UT_RUNNER;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEK_VERDICT_TSAN 1
#endif
#endif
#ifdef VEK_VERDICT_TSAN
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// Generous against every deadline here on a loaded two-core machine; it
// only keeps a broken build from hanging the test.
constexpr int kLimitS = 120;

using Args = std::vector<std::string>;

ProcessResult RunToEnd(const Args& argv, const Args& env = {}) {
  return RunProcess(argv, env, kLimitS);
}

const std::string kExeSample = std::string("--exe=") + kSample;

Args Sample(const std::string& filter, const char* option = nullptr) {
  Args args = {kSample, "--gtest_filter=" + filter};
  if (option != nullptr) args.push_back(option);
  return args;
}

// The runner over the sample, with these options.
Args Supervised(const std::string& option, const char* more = nullptr) {
  Args args = {kRunner, kExeSample, option};
  if (more != nullptr) args.push_back(more);
  return args;
}

std::string Closing(const std::string& report) {
  const size_t at = report.rfind("[==========] ");
  return at == std::string::npos ? "" : WithoutTimings(report.substr(at));
}

// One run, judged by how it ends, how long it takes and what it prints
// last.
struct Ending {
  int status;  // an exit status, or minus the signal that ends it
  int64_t min_ms;
  int64_t max_ms;
  std::string env;  // "NAME=value", or empty
  Args argv;
  std::string out_tail = {};  // timings blanked
  std::string err_has = {};
  // ThreadSanitizer's _exit flushes every stdio stream first, and so waits
  // for the lock that a case hung in printf holds.
  bool holds_stdout = false;
};

TEST(VerdictTest, EachRunEndsAsItMust) {
  const std::string two_s = "VEK_UT_CASE_TIMEOUT_S=2";
  std::vector<Ending> rows = {
      // The case's buffered line is flushed before the verdict.
      {1, 2000, 5000, two_s,
       Sample("VerdictSample.Passes:VerdictHang.Hangs:VerdictTail.*"),
       "[       OK ] VerdictSample.Passes (N ms)\n"
       "[----------] 1 test from VerdictSample (N ms total)\n\n"
       "[----------] 1 test from VerdictHang\n"
       "[ RUN      ] VerdictHang.Hangs\n"
       "waiting for a wake-up that never comes\n"
       "[  HUNG    ] VerdictHang.Hangs (2 s)\n"
       "[  NOT RUN ] 1 test, listed below:\n"
       "[  NOT RUN ] VerdictTail.Passes\n"},
      // Its own half line stays locked in the buffer; the verdict gets out.
      {1, 2000, 5000, two_s, Sample("VerdictHang.HangsHoldingStdout"),
       "[ RUN      ] VerdictHang.HangsHoldingStdout\n"
       "[  HUNG    ] VerdictHang.HangsHoldingStdout (2 s)\n",
       "", true},
      // The deadline holds for each case: three of a second and a half
      // each take longer than it in all.
      {0, 4500, 9000, two_s, Sample("VerdictSlow.*", "--gtest_repeat=3")},
      // 0 is no deadline, not a deadline of no time.
      {0, 1500, 5000, "VEK_UT_CASE_TIMEOUT_S=0", Sample("VerdictSlow.*")},
      {1, 1000, 4000, "VEK_UT_CASE_TIMEOUT_S=1", Sample("VerdictSlow.*"),
       "[  HUNG    ] VerdictSlow.TakesASecondAndAHalf (1 s)\n"},
      // Not whole seconds: refused aloud, and the default deadline stays.
      {0, 1500, 5000, "VEK_UT_CASE_TIMEOUT_S=1s", Sample("VerdictSlow.*"), "",
       "ignoring VEK_UT_CASE_TIMEOUT_S=\"1s\""},
      // The runner restarts behind a crash on the user's selection only.
      {1, 0, 5000, "",
       Supervised("--gtest_filter=VerdictSample.Passes:VerdictCrash.Aborts:"
                  "VerdictTail.*"),
       "[==========] 3 tests from 3 test suites ran. (N ms total)\n"
       "[  PASSED  ] 2 tests.\n"
       "[  FAILED  ] 1 test, listed below:\n"
       "[  FAILED  ] VerdictCrash.Aborts\n\n"
       " 1 FAILED TEST\n"},
      // A hang outside every case (here in the global tear-down) escapes
      // the case deadline; the runner kills the silent process after the
      // deadline and its grace of ten seconds, and fails the run.
      {1, 10000, 16000, "VEK_VERDICT_SAMPLE_STALL=1",
       Supervised("--case-timeout=1", "--gtest_filter=VerdictTail.*"),
       "[  PASSED  ] 1 test.\n", "outside any case and was killed"},
      // What the runner cannot honour it refuses.
      {2, 0, 5000, "", Supervised("--gtest_output=xml:x.xml")},
      {2, 0, 5000, "", Supervised("--gtest_repeat=2")},
      {2, 0, 5000, "", Supervised("--case-timeout=1s")},
      {2, 0, 5000, "", {kRunner, "--exe=/nonexistent/program"}},
  };
  // A fatal signal names the case, lists those that did not run, and ends
  // the process by that signal.
  const std::string not_run =
      "[  NOT RUN ] 2 tests, listed below:\n"
      "[  NOT RUN ] VerdictExit.ExitsMidCase\n"
      "[  NOT RUN ] VerdictTail.Passes\n";
  for (const auto& [name, sig, sig_name] :
       {std::tuple("Segfaults", SIGSEGV, "SIGSEGV"),
        std::tuple("SegfaultsOnWorkerThread", SIGSEGV, "SIGSEGV"),
        std::tuple("Aborts", SIGABRT, "SIGABRT")}) {
    const std::string full = std::string("VerdictCrash.") + name;
    const std::string tail = "[ RUN      ] " + full + "\n[  CRASHED ] " + full +
                             " (" + sig_name + ")\n" + not_run;
    rows.push_back({-sig, 0, 3000, "",
                    Sample(full + ":VerdictTail.*:VerdictExit.*"), tail});
  }
  for (const Ending& row : rows) {
    SCOPED_TRACE(row.env + testing::PrintToString(row.argv));
    if (kThreadSanitizer && row.holds_stdout) continue;
    const ProcessResult run =
        RunToEnd(row.argv, row.env.empty() ? Args() : Args{row.env});
    EXPECT_TRUE(row.status < 0 ? run.Signaled(-row.status)
                               : run.Exited(row.status))
        << "status " << run.status;
    EXPECT_GE(run.elapsed_ms, row.min_ms);
    EXPECT_LT(run.elapsed_ms, row.max_ms);
    EXPECT_TRUE(EndsWith(WithoutTimings(run.out), row.out_tail)) << run.out;
    EXPECT_NE(run.err.find(row.err_has), std::string::npos) << run.err;
  }
}

TEST(VerdictTest, WithNothingWrongTheReportIsGoogletestsOwn) {
  const std::string filter =
      "--gtest_filter=VerdictSample.*:VerdictTyped*:VerdictTail.*:"
      "DISABLED_VerdictOff.*";
  const Args watched = {kSample};
  const Args plain = {kPlainSample};
  const Args runner = {kRunner, kExeSample};
  // Two programs on the same cases, given the same options: the same
  // report but for the timings, the same status, and the same standard
  // error unless the last field says what the second writes there.
  const std::tuple<int, Args, Args, std::string, std::string> rows[] = {
      // The watchdog linked in, whatever the printer's options.
      {1, plain, watched, filter, ""},
      {1, plain, watched, filter + " --gtest_brief=1", ""},
      {1, plain, watched, filter + " --gtest_print_time=0", ""},
      {1, plain, watched, filter + " --gtest_also_run_disabled_tests", ""},
      {1, plain, watched,
       filter + " --gtest_repeat=2 --gtest_shuffle --gtest_random_seed=7", ""},
      // The runner over a healthy run.
      {0, watched, runner,
       "--gtest_filter=VerdictSample.Passes:VerdictTyped/0.*:VerdictTail.*",
       ""},
      {1, watched, runner,
       "--gtest_filter=-VerdictHang.*:VerdictCrash.*:VerdictExit.*:"
       "VerdictSlow.*",
       ""},
      {1, watched, runner,
       "--gtest_filter=VerdictSample.*:VerdictTyped* --gtest_brief=1", ""},
      // A program without the watchdog keeps its own result, and the
      // runner says why it cannot do more.
      {1,
       plain,
       {kRunner, std::string("--exe=") + kPlainSample},
       "--gtest_filter=VerdictSample.*:VerdictTail.*",
       "does not report its cases"},
  };
  for (const auto& [status, first_program, second_program, options, err_has] :
       rows) {
    SCOPED_TRACE(testing::PrintToString(second_program) + " " + options);
    Args first = first_program;
    Args second = second_program;
    std::istringstream words(options);
    for (std::string word; words >> word;) {
      first.push_back(word);
      second.push_back(word);
    }
    const ProcessResult a = RunToEnd(first);
    const ProcessResult b = RunToEnd(second);

    EXPECT_TRUE(a.Exited(status)) << a.out;
    EXPECT_TRUE(b.Exited(status)) << b.err;
    EXPECT_EQ(WithoutTimings(b.out), WithoutTimings(a.out));
    if (err_has.empty()) {
      EXPECT_EQ(b.err, a.err);
    } else {
      EXPECT_NE(b.err.find(err_has), std::string::npos) << b.err;
    }
  }
}

std::string Text(xmlChar* text) {
  const std::string copy = text != nullptr ? reinterpret_cast<char*>(text) : "";
  xmlFree(text);
  return copy;
}

std::string Attribute(const xmlNode* node, const char* name) {
  return Text(xmlGetProp(node, BAD_CAST name));
}

// The string value of an XPath expression.
std::string Evaluate(xmlDoc* doc, const char* expression) {
  xmlXPathContext* context = xmlXPathNewContext(doc);
  xmlXPathObject* value = xmlXPathEvalExpression(BAD_CAST expression, context);
  const std::string text = Text(xmlXPathCastToString(value));
  xmlXPathFreeObject(value);
  xmlXPathFreeContext(context);
  return text;
}

// Each testcase element in document order: "Class.name status result",
// its type parameter, and each element in it with its type and, where it
// has one, its message.
std::vector<std::string> Testcases(xmlNode* root) {
  std::vector<std::string> rows;
  for (xmlNode* suite = xmlFirstElementChild(root); suite != nullptr;
       suite = xmlNextElementSibling(suite)) {
    for (xmlNode* test = xmlFirstElementChild(suite); test != nullptr;
         test = xmlNextElementSibling(test)) {
      std::string row =
          Attribute(test, "classname") + "." + Attribute(test, "name") + " " +
          Attribute(test, "status") + " " + Attribute(test, "result");
      if (xmlHasProp(test, BAD_CAST "type_param") != nullptr) {
        row += " <" + Attribute(test, "type_param") + ">";
      }
      for (xmlNode* part = xmlFirstElementChild(test); part != nullptr;
           part = xmlNextElementSibling(part)) {
        row += " " + std::string(reinterpret_cast<const char*>(part->name));
        const std::string type = Attribute(part, "type");
        if (!type.empty()) row += ":" + type + " " + Attribute(part, "message");
      }
      rows.push_back(row);
    }
  }
  return rows;
}

TEST(VerdictTest, RunnerGoesOnAfterEveryHangCrashAndExitAndReportsEachCase) {
  const std::string xml_path = testing::TempDir() + "vek_verdict_all.xml";
  unlink(xml_path.c_str());
  const ProcessResult run =
      RunToEnd({kRunner, kExeSample, "--case-timeout=2", "--xml=" + xml_path});
  EXPECT_TRUE(run.Exited(1)) << "status " << run.status << "\n" << run.err;
  // Two hangs at two seconds, one slow case, the rest quick.
  EXPECT_LT(run.elapsed_ms, 20000);

  const char* const cases[] = {
      "VerdictSample.Passes run completed",
      "VerdictSample.FailsCheck run completed failure",
      "VerdictSample.Skips run skipped skipped",
      "VerdictTyped/0.FourBytes run completed <int>",
      "VerdictTyped/1.FourBytes run completed <char> failure",
      "VerdictHang.Hangs run hung failure:hung hung: no end within 2 s",
      "VerdictHang.HangsHoldingStdout run hung failure:hung hung: no end "
      "within 2 s",
      "VerdictSlow.TakesASecondAndAHalf run completed",
      "VerdictCrash.Segfaults run crashed failure:crashed crashed: SIGSEGV",
      "VerdictCrash.SegfaultsOnWorkerThread run crashed failure:crashed "
      "crashed: SIGSEGV",
      "VerdictCrash.Aborts run crashed failure:crashed crashed: SIGABRT",
      "VerdictExit.ExitsMidCase run exited failure:exited exited during the "
      "case: status 3",
      "VerdictTail.Passes run completed",
      "DISABLED_VerdictOff.NeverRuns notrun suppressed",
  };
  // Every case that ran started once, in the one report.
  for (const char* text : cases) {
    const std::string row = text;
    const std::string name = row.substr(0, row.find(' '));
    EXPECT_EQ(CountOf(run.out, "[ RUN      ] " + name + "\n"),
              row.find(" run ") != std::string::npos ? 1u : 0u)
        << name;
  }
  for (const char* verdict : {
           "[  HUNG    ] VerdictHang.Hangs (2 s)\n",
           "[  HUNG    ] VerdictHang.HangsHoldingStdout (2 s)\n",
           "[  CRASHED ] VerdictCrash.Segfaults (SIGSEGV)\n",
           "[  CRASHED ] VerdictCrash.SegfaultsOnWorkerThread (SIGSEGV)\n",
           "[  CRASHED ] VerdictCrash.Aborts (SIGABRT)\n",
           "[  FAILED  ] VerdictExit.ExitsMidCase (exited with status 3)\n",
           "[       OK ] VerdictTail.Passes",
       }) {
    EXPECT_EQ(CountOf(run.out, verdict), 1u) << verdict;
  }
  // One closing for the whole run; the single runs' own closings, starts
  // and filters are not repeated.
  EXPECT_EQ(Closing(run.out),
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
            "\n")
      << run.out;
  EXPECT_EQ(CountOf(run.out, " ran."), 1u);
  EXPECT_EQ(CountOf(run.out, "Running main() from "), 1u);
  EXPECT_EQ(CountOf(run.out, "Note: Google Test filter"), 0u);

  // Only well-formed XML parses: valid UTF-8, allowed characters, known
  // entities, balanced elements.
  std::ifstream file(xml_path);
  const std::string xml{std::istreambuf_iterator<char>(file), {}};
  xmlDoc* doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()),
                              "runner.xml", nullptr, XML_PARSE_NONET);
  ASSERT_NE(doc, nullptr) << xmlGetLastError()->message << xml;
  EXPECT_EQ(Testcases(xmlDocGetRootElement(doc)),
            std::vector<std::string>(std::begin(cases), std::end(cases)));
  EXPECT_EQ(Evaluate(doc,
                     "concat(name(/*), ' ', /*/@tests, ' ', "
                     "/*/@failures, ' ', /*/@disabled)"),
            "testsuites 14 8 1");
  EXPECT_EQ(Evaluate(doc, "count(//testcase[@classname != ../@name])"), "0");
  // The failure text survives: markup and quotes escaped, the CDATA end
  // split, the control character dropped, the stray byte replaced.
  const std::string failure =
      Evaluate(doc, "//testcase[@name = 'FailsCheck']/failure");
  EXPECT_NE(failure.find("vek_verdict_sample.cpp:"), std::string::npos);
  EXPECT_NE(failure.find("<&\"'> ]]> ctl: byte:\xEF\xBF\xBD end"),
            std::string::npos)
      << failure;
  EXPECT_NE(Evaluate(doc, "//testcase[@name = 'FailsCheck']/failure/@message")
                .find("Expected equality"),
            std::string::npos);
  xmlFreeDoc(doc);
  unlink(xml_path.c_str());
}

}  // namespace
}  // namespace vek_test
