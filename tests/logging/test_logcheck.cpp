// vek_ut_logcheck on real logs of the conformance executable, taken when
// the test runs: as written, in logcat's formats, and changed the ways a
// broken port changes them.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "vek_verdict_process.h"

namespace {

constexpr char kFilter[] = "--gtest_filter=DiagCustomTests.*:*Overflow*";
constexpr char kEnter[] = ">> enter ";
// liblog's host format: tag, priority, date, time, pid, tid, text.
const std::regex kHost("(\\S+) (.) (\\S+) (\\S+) +(\\d+) +(\\d+) (.*)");

using Lines = std::vector<std::string>;

Lines RunConformance(std::vector<std::string> argv) {
  argv.insert(argv.begin(), VEK_UT_EXE);
  const vek_test::ProcessResult run = vek_test::RunProcess(argv, {}, 120);
  EXPECT_TRUE(run.Exited(0)) << run.out;
  Lines lines;
  std::istringstream in(run.err);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// vek_ut_logcheck on the lines, rewritten by `format` (regex_replace's).
vek_test::ProcessResult Check(const Lines& lines, std::vector<std::string> args,
                              const char* format = "$0") {
  const std::string path = testing::TempDir() + "logcheck.log";
  std::ofstream log(path);
  for (const std::string& line : lines) {
    log << std::regex_replace(line, kHost, format) << "\n";
  }
  log.close();
  args.insert(args.begin(), VEK_LOGCHECK);
  args.push_back(path);
  return vek_test::RunProcess(args, {}, 120);
}

// The first line whose text is `text`, which the test takes to be there.
std::string& Find(Lines& lines, const std::string& text) {
  for (std::string& line : lines) {
    if (vek_test::EndsWith(line, " " + text)) return line;
  }
  ADD_FAILURE() << "no line \"" << text << "\" in the run's log";
  return lines.front();
}

struct Row {
  std::function<void(Lines&)> edit;
  std::vector<std::string> args;
  int exit_code;
  std::string says;
};

TEST(LogCheck, JudgesRealLogsAsWrittenAndChanged) {
  const Lines run = RunConformance({});
  const Lines filtered = RunConformance({kFilter});
  ASSERT_FALSE(run.empty() || filtered.empty());
  const std::pair<const char*, const char*> formats[] = {
      {"$0", "liblog host stderr format; "},
      {"$3 $4.000 $5 $6 $2 $1: $7", "logcat threadtime format"},
      {"$2/$1($5): $7", "logcat brief format"}};
  for (const auto& [format, says] : formats) {
    const vek_test::ProcessResult check = Check(run, {}, format);
    EXPECT_TRUE(check.Exited(0)) << check.out << check.err;
    EXPECT_NE(check.out.find(says), std::string::npos) << check.out;
  }

  const std::string other = std::to_string(
      std::stol(std::regex_replace(run.front(), kHost, "$5")) + 1);
  const std::string w =
      "(EXPECT: VISIBLE /W) Log from src with predefined tag, val:: 1234!";
  const std::string d =
      "(EXPECT: SUPPRESSED /D) Log from src with predefined tag, val:: 1234!";
  const std::string queue =
      "Back() Back: queue is empty, occupied_count=0, queue_size=32";
  const auto drop = [](const std::string& text) {
    return [text](Lines& l) { l.erase(l.begin() + (&Find(l, text) - &l[0])); };
  };
  const auto cut = [](Lines& l) { Find(l, kEnter).pop_back(); };
  const auto level = [&](Lines& l) {
    Find(l, w)[Find(l, w).find(' ') + 1] = 'I';
  };
  const auto claim = [&](Lines& l) {
    l.push_back(l[0].substr(0, l[0].rfind(kEnter)) + d);
  };
  const auto twice = [](Lines& l) {
    l.push_back(Find(l, "Log config update!"));
  };
  const auto mixed = [&](Lines& l) {
    for (size_t i = l.size(); i-- > 0;) {
      l.insert(l.begin() + i, "vek-osal E 01-01 00:00:00 " + other + " 1 x");
    }
  };
  const auto two_runs = [&](Lines& l) {
    Lines broken = l;
    drop(kEnter)(broken);
    for (std::string& line : broken) {
      line = std::regex_replace(line, kHost, "$1 $2 $3 $4 " + other + " $6 $7");
    }
    l.insert(l.begin(), broken.begin(), broken.end());
  };
  const std::string xml = testing::TempDir() + "logcheck.xml";
  const Row rows[] = {
      {drop(kEnter),
       {"--xml=" + xml},
       1,
       "DiagPredefTests.TestHelperFunctions: absent: I vek-diag \">> enter \""},
      {cut, {}, 1, "unexpected: I vek-diag \">> enter\""},
      {level, {}, 1, "W vek-diag \"" + w + "\" found at I instead"},
      {claim, {}, 1, "written although claimed suppressed: I vek-diag"},
      {drop(queue), {}, 1, "absent: E vek-osal \"" + queue + "\""},
      {twice, {}, 1, "found 2 times, expected 1"},
      {mixed, {}, 0, "lines of 1 other process not checked"},
      {two_runs, {}, 0, "required lines present"},
      {two_runs, {"--pid=" + other}, 1, "absent: I vek-diag \">> enter \""},
      // The last three check the filtered run.
      {nullptr, {kFilter}, 0, "filtered run: 7 of 100 cases"},
      {nullptr, {kFilter, "--pid=" + other}, 2, ""},
      {nullptr, {}, 1, "absent: "},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    Lines lines = i + 3 >= std::size(rows) ? filtered : run;
    if (rows[i].edit) rows[i].edit(lines);
    const vek_test::ProcessResult check = Check(lines, rows[i].args);
    EXPECT_TRUE(check.Exited(rows[i].exit_code)) << check.out << check.err;
    EXPECT_NE(check.out.find(rows[i].says), std::string::npos) << check.out;
  }
  std::ifstream file(xml);
  const std::string report{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(
      report.find("<testcase name=\"DiagPredefTests.TestHelperFunctions\" "
                  "classname=\"vek_ut_logcheck\" status=\"run\" "
                  "result=\"completed\">\n      <failure message=\"absent"),
      std::string::npos)
      << report;
}

}  // namespace
