// What became of each case of a supervised run, gathered from the records
// of one or more runs of the executable, and the two reports made from it:
// googletest's closing summary and one JUnit XML file.
#ifndef VEK_UT_RUNNER_VEK_UT_VERDICTS_H_
#define VEK_UT_RUNNER_VEK_UT_VERDICTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vek_ut_runner/vek_ut_case_list.h"

namespace zov_vek_unit_test {
namespace runner {

enum class Outcome {
  kPending,   // selected, not started yet
  kNotRun,    // selected, and the run ended before it started
  kDisabled,  // not selected: DISABLED_ and not asked for
  kPassed,
  kFailed,
  kSkipped,
  kHung,     // outlived its deadline
  kCrashed,  // a fatal signal ended the process during the case
  kExited,   // the process exited during the case
};

// Whether the outcome fails the run.
bool IsFailure(Outcome outcome);

struct PartReport {
  bool skip = false;
  std::string file;
  int line = -1;
  std::string summary;
  std::string message;
};

struct CaseVerdict {
  PlannedCase planned;
  Outcome outcome = Outcome::kPending;
  bool started = false;
  int64_t start_epoch_ms = 0;
  int64_t elapsed_ms = 0;
  // For kHung the deadline ("60 s"), for kCrashed the signal ("SIGSEGV"),
  // for kExited the status, for kNotRun why.
  std::string detail;
  std::vector<PartReport> parts;
};

class VerdictBook {
 public:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // With also_run_disabled, DISABLED_ cases are selected like the others.
  VerdictBook(const std::vector<PlannedCase>& planned, bool also_run_disabled);

  // Takes one record of the executable's stream (without its newline),
  // received at now_epoch_ms. Returns false for a record it cannot read,
  // which changes nothing.
  bool Apply(std::string_view record, int64_t now_epoch_ms);

  // The case that started and has neither ended nor been reported hung or
  // crashed, or kNone.
  size_t running() const { return running_; }

  // Ends the running case for a reason that the executable could not
  // report itself (it was killed, or exited during the case).
  void EndRunning(Outcome outcome, std::string detail, int64_t now_epoch_ms);

  // Selected cases that have not started, in plan order.
  std::vector<size_t> Unstarted() const;

  // Gives every selected case that has not started this outcome.
  void EndUnstarted(Outcome outcome, const std::string& detail);

  // Adds the verdict of a check made after the cases, such as the log
  // check, as one more entry; `where` and `message` say why it failed.
  void AddCheck(const std::string& suite, const std::string& name, bool passed,
                const std::string& where, const std::string& message,
                int64_t start_epoch_ms, int64_t elapsed_ms);

  const std::vector<CaseVerdict>& cases() const { return cases_; }
  const std::vector<std::string>& failed_suites() const {
    return failed_suites_;
  }
  bool global_failed() const { return global_failed_; }
  // The deadline that the executable announced, or -1 before it did.
  int announced_timeout_s() const { return announced_timeout_s_; }
  // Cases started so far; a run that starts none makes no progress.
  size_t started_count() const { return started_count_; }
  // Hangs and crashes that the executable reported before it ended.
  size_t reported_end_count() const { return reported_end_count_; }
  // Failures recorded so far, cases and suites together.
  size_t failure_count() const;

  // googletest's verdict: no case failed, no suite and no global set-up.
  bool Passed() const;

 private:
  size_t Find(std::string_view full_name) const;

  std::vector<CaseVerdict> cases_;
  std::vector<std::string> failed_suites_;
  bool global_failed_ = false;
  int announced_timeout_s_ = -1;
  size_t running_ = kNone;
  size_t started_count_ = 0;
  size_t reported_end_count_ = 0;
};

struct ClosingStyle {
  bool brief = false;      // --gtest_brief
  bool print_time = true;  // --gtest_print_time
  bool also_run_disabled = false;
};

// The closing lines of googletest's report, from "[==========] ... ran."
// on, for the whole supervised run.
std::string FormatClosing(const VerdictBook& book, int64_t total_ms,
                          const ClosingStyle& style);

// One JUnit XML document in googletest's dialect for the whole run.
// Text that XML cannot carry (control characters, broken UTF-8) is
// replaced, so the document is always well-formed.
std::string FormatJUnitXml(const VerdictBook& book, int64_t total_ms,
                           int64_t start_epoch_ms);

// Parts of FormatJUnitXml, open for tests: an attribute value with its
// escapes, and the content of a CDATA section.
std::string XmlAttributeText(std::string_view text);
std::string XmlCData(std::string_view text);

}  // namespace runner
}  // namespace zov_vek_unit_test

#endif  // VEK_UT_RUNNER_VEK_UT_VERDICTS_H_
