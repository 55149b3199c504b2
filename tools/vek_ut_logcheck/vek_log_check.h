// The lines a conformance run must write, and a saved log held to them.
#ifndef VEK_UT_LOGCHECK_VEK_LOG_CHECK_H_
#define VEK_UT_LOGCHECK_VEK_LOG_CHECK_H_

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "vek_ut_logcheck/vek_log_lines.h"
#include "vek_ut_logcheck/vek_log_recording.h"

namespace zov_vek_unit_test {
namespace logcheck {

// Priority, tag and the text with its addresses normalised.
using LineKey = std::tuple<int, std::string, std::string>;

LineKey KeyOf(const LogLine& line);

struct ExpectedLine {
  size_t required = 0;  // written whatever the port's initial masks are
  size_t most = 0;      // written with some initial masks
  // The case of each occurrence, in the recording with every level on.
  std::vector<size_t> cases;
};

struct Expectation {
  std::vector<std::string> cases;  // that ran, in order
  size_t registered = 0;           // cases the suites register
  std::map<LineKey, ExpectedLine> lines;
  std::set<std::string> tags;  // the suites' tags
  // The recording with every level on, in its order, for telling which
  // case a line of the log belongs to.
  std::vector<std::pair<const LineKey*, size_t>> sequence;
};

// From two recordings of the same cases, one with every initial mask 0
// and one with every initial mask 31: lines in both are required (as
// often as the fewer of the two wrote them), lines in one only depend on
// the port's initial masks. `more_tags` joins the tags the recordings
// wrote under. False, with the reason in *error, when the recordings
// cannot stand for a correct run.
bool Derive(const Recording& masks_off, const Recording& masks_on,
            const std::vector<std::string>& more_tags, Expectation* expectation,
            std::string* error);

struct CheckOptions {
  std::string log_name;  // for the report
  bool has_pid = false;  // check this process, not the one found
  long pid = 0;
};

struct CheckResult {
  int exit_code = 0;   // 0 the log is right, 1 it is not, 2 no such process
  std::string report;  // googletest's style
  std::string xml;     // JUnit
};

CheckResult Check(const ParsedLog& log, const Expectation& expectation,
                  const CheckOptions& options);

}  // namespace logcheck
}  // namespace zov_vek_unit_test

#endif  // VEK_UT_LOGCHECK_VEK_LOG_CHECK_H_
