// What the conformance suites write to the system log, learnt by running
// them: the suites are linked into this program together with our
// reference port, and each recording runs the selected cases in a child
// process whose log lines are captured instead of written.
#ifndef VEK_UT_LOGCHECK_VEK_LOG_RECORDING_H_
#define VEK_UT_LOGCHECK_VEK_LOG_RECORDING_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vek_ut_logcheck/vek_log_lines.h"

namespace zov_vek_unit_test {
namespace logcheck {

inline constexpr size_t kNoCase = static_cast<size_t>(-1);

struct RecordedLine {
  size_t case_index = kNoCase;  // into Recording::cases; kNoCase outside
  LogLine line;
};

struct Recording {
  std::vector<std::string> cases;  // "Suite.Name" of the cases that ran
  size_t registered = 0;           // cases the suites register
  // Lines in the order liblog received them; lines of other threads are
  // interleaved as they happened to come.
  std::vector<RecordedLine> lines;
  std::vector<std::string> failures;  // of the reference run itself
};

// Runs the cases that `gtest_args` (googletest's options) select, in their
// order, in a child process. Before the first case every mask of the logger
// is `start_mask`, as a port's initial masks would be. False, with the
// reason in *error, when the child does not finish its run.
bool Record(uint32_t start_mask, const std::vector<std::string>& gtest_args,
            Recording* recording, std::string* error);

// The tags of the predefined groups.
std::vector<std::string> PredefinedTags();

}  // namespace logcheck
}  // namespace zov_vek_unit_test

#endif  // VEK_UT_LOGCHECK_VEK_LOG_RECORDING_H_
