// vek_ut_logcheck: holds a saved system log of one conformance run to the
// lines that the run must write.
//
// Part of a run's verdict is in the log only: the logging suites' claims
// ("EXPECT: VISIBLE", "EXPECT: SUPPRESSED"), the entry, exit and scoped
// lines, the containers' error lines. The cases check return codes, so a
// port whose mask handling is wrong passes them all. What a right run
// writes is not listed here: it is learnt by running the suites, linked
// into this program with our reference port, for exactly the cases the
// run selected (vek_log_recording.h).

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "vek_ut_logcheck/vek_log_check.h"
#include "vek_ut_logcheck/vek_log_lines.h"
#include "vek_ut_logcheck/vek_log_recording.h"

namespace zov_vek_unit_test {
namespace logcheck {
namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: vek_ut_logcheck [--pid=<n>] [--xml=<file>] "
    "[--gtest_filter=<filter>]\n"
    "                       [--gtest_also_run_disabled_tests] [<log> | -]\n"
    "\n"
    "Checks the system log of one run of vek_ut_osal_common: every line the\n"
    "run must write is there as often as the run writes it, with its tag,\n"
    "priority and text; no line claimed suppressed and no other line under\n"
    "the suites' tags is. The log (standard input for \"-\" or none) is\n"
    "liblog's host stderr format or logcat's threadtime or brief format.\n"
    "Exits 0 when the log is right, 1 when not, 2 on a usage error, an\n"
    "unreadable log or when the expected lines cannot be derived.\n"
    "\n"
    "  --pid=<n>         check the lines of process <n> (default: the run\n"
    "                    found in the log, the last one if there are several)\n"
    "  --xml=<file>      also write a JUnit report\n"
    "  --gtest_filter, --gtest_also_run_disabled_tests\n"
    "                    the options the run was given, if any: the check\n"
    "                    then covers the cases that ran\n";

struct Options {
  std::string log_path;
  std::string xml_path;
  bool has_pid = false;
  long pid = 0;
  std::vector<std::string> gtest_args;
  bool help = false;
};

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options->help = true;
    } else if (arg.compare(0, 6, "--pid=") == 0) {
      char* end = nullptr;
      options->pid = std::strtol(arg.c_str() + 6, &end, 10);
      options->has_pid = true;
      if (arg.size() == 6 || *end != '\0' || options->pid <= 0) {
        *error = "--pid takes a process id, not \"" + arg.substr(6) + "\"";
        return false;
      }
    } else if (arg.compare(0, 6, "--xml=") == 0 && arg.size() > 6) {
      options->xml_path = arg.substr(6);
    } else if (arg.compare(0, 15, "--gtest_filter=") == 0 ||
               arg == "--gtest_also_run_disabled_tests") {
      options->gtest_args.push_back(arg);
    } else if (arg.compare(0, 2, "--") == 0) {
      *error = "unknown option " + arg;
      return false;
    } else if (!options->log_path.empty()) {
      *error = "one log at a time";
      return false;
    } else {
      options->log_path = arg;
    }
  }
  if (options->log_path.empty()) options->log_path = "-";
  return true;
}

bool ReadAll(const std::string& path, std::string* text) {
  FILE* file = path == "-" ? stdin : fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char buffer[65536];
  size_t n = 0;
  while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) {
    text->append(buffer, n);
  }
  const bool ok = ferror(file) == 0;
  if (file != stdin) fclose(file);
  return ok;
}

bool WriteFile(const std::string& path, const std::string& text) {
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
  return fclose(file) == 0 && written;
}

// The expected lines of the cases that `gtest_args` select.
bool DeriveExpectation(const std::vector<std::string>& gtest_args,
                       Expectation* expectation, std::string* error) {
  Recording masks_off;
  Recording masks_on;
  if (!Record(0, gtest_args, &masks_off, error) ||
      !Record(31, gtest_args, &masks_on, error)) {
    return false;
  }
  std::vector<std::string> tags = PredefinedTags();
  if (masks_on.cases.size() < masks_on.registered) {
    // Lines under the tags of the cases that did not run are unexpected
    // all the same.
    Recording all;
    if (!Record(31, {}, &all, error)) return false;
    for (const RecordedLine& line : all.lines) tags.push_back(line.line.tag);
  }
  return Derive(masks_off, masks_on, tags, expectation, error);
}

int Main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "vek_ut_logcheck: %s\n\n%s", error.c_str(), kUsage);
    return kUsageError;
  }
  if (options.help) {
    fputs(kUsage, stdout);
    return 0;
  }
  const std::string name =
      options.log_path == "-" ? "standard input" : options.log_path;
  std::string text;
  if (!ReadAll(options.log_path, &text)) {
    fprintf(stderr, "vek_ut_logcheck: cannot read %s: %s\n", name.c_str(),
            strerror(errno));
    return kUsageError;
  }
  const ParsedLog log = ParseLog(text);
  if (log.line_count > 0 && log.entries.empty()) {
    fprintf(stderr,
            "vek_ut_logcheck: no line of %s is in liblog's host stderr "
            "format or logcat's threadtime or brief format\n",
            name.c_str());
    return kUsageError;
  }

  Expectation expectation;
  if (!DeriveExpectation(options.gtest_args, &expectation, &error)) {
    fprintf(stderr, "vek_ut_logcheck: cannot derive the expected lines: %s\n",
            error.c_str());
    return kUsageError;
  }
  CheckOptions check;
  check.log_name = name;
  check.has_pid = options.has_pid;
  check.pid = options.pid;
  const CheckResult result = Check(log, expectation, check);
  fputs(result.report.c_str(),
        result.exit_code == kUsageError ? stderr : stdout);
  if (result.exit_code != kUsageError && !options.xml_path.empty() &&
      !WriteFile(options.xml_path, result.xml)) {
    fprintf(stderr, "vek_ut_logcheck: cannot write %s: %s\n",
            options.xml_path.c_str(), strerror(errno));
    return kUsageError;
  }
  return result.exit_code;
}

}  // namespace
}  // namespace logcheck
}  // namespace zov_vek_unit_test

int main(int argc, char** argv) {
  return zov_vek_unit_test::logcheck::Main(argc, argv);
}
