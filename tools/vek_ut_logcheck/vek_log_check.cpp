#include "vek_ut_logcheck/vek_log_check.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "vek_ut_runner/vek_ut_verdicts.h"

namespace zov_vek_unit_test {
namespace logcheck {
namespace {

constexpr char kClaimSuppressed[] = "(EXPECT: SUPPRESSED";
constexpr char kClaimVisible[] = "(EXPECT: VISIBLE";
constexpr char kUnexpectedCase[] = "UnexpectedLines";
constexpr size_t kNone = static_cast<size_t>(-1);
// Past this many cells the log is not aligned with the recording; its
// problems are then told to the cases in the order they wrote the lines.
constexpr size_t kMaxAlignmentCells = size_t{1} << 26;

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

std::string Show(int priority, const std::string& tag,
                 const std::string& text) {
  return std::string(1, PriorityLetter(priority)) + " " + tag + " \"" + text +
         "\"";
}
std::string Show(const LineKey& key) {
  return Show(std::get<0>(key), std::get<1>(key), std::get<2>(key));
}
std::string Show(const LogEntry& entry) {
  return Show(entry.line.priority, entry.line.tag, entry.line.text) +
         " (line " + std::to_string(entry.line_number) + ")";
}

std::string Plural(size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

enum class Kind {
  kAbsent,
  kElsewhere,
  kClaimedSuppressed,
  kTooOften,
  kUnexpected
};

struct Problem {
  Kind kind;
  size_t case_index = kNoCase;
  const LineKey* expected = nullptr;
  const LogEntry* found = nullptr;
  size_t expected_count = 0;
  size_t found_count = 0;

  std::string Text() const {
    switch (kind) {
      case Kind::kAbsent:
        return "absent: " + Show(*expected);
      case Kind::kElsewhere: {
        std::string where;
        if (found->line.priority != std::get<0>(*expected)) {
          where += std::string(" at ") + PriorityLetter(found->line.priority);
        }
        if (found->line.tag != std::get<1>(*expected)) {
          where += " under tag " + found->line.tag;
        }
        return Show(*expected) + " found" + where + " instead (line " +
               std::to_string(found->line_number) + ")";
      }
      case Kind::kClaimedSuppressed:
        return "written although claimed suppressed: " + Show(*found);
      case Kind::kTooOften:
        return "found " + std::to_string(found_count) + " times, expected " +
               std::to_string(expected_count) + ": " + Show(*found);
      case Kind::kUnexpected:
        return "unexpected: " + Show(*found);
    }
    return "";
  }
};

// The longest common subsequence of the two id sequences: for each
// observed position, the expected position it is matched with, or kNone.
std::vector<size_t> Align(const std::vector<int>& expected,
                          const std::vector<int>& observed) {
  const size_t n = expected.size();
  const size_t m = observed.size();
  std::vector<size_t> match(m, kNone);
  if ((n + 1) * (m + 1) > kMaxAlignmentCells) return match;
  enum : uint8_t { kTake, kSkipExpected, kSkipObserved };
  std::vector<uint8_t> step((n + 1) * (m + 1));
  std::vector<uint32_t> below(m + 1, 0);
  std::vector<uint32_t> row(m + 1, 0);
  for (size_t i = n; i-- > 0;) {
    row[m] = 0;
    for (size_t j = m; j-- > 0;) {
      uint8_t& choice = step[i * (m + 1) + j];
      if (expected[i] == observed[j]) {
        row[j] = below[j + 1] + 1;
        choice = kTake;
      } else if (below[j] >= row[j + 1]) {
        row[j] = below[j];
        choice = kSkipExpected;
      } else {
        row[j] = row[j + 1];
        choice = kSkipObserved;
      }
    }
    std::swap(row, below);
  }
  for (size_t i = 0, j = 0; i < n && j < m;) {
    switch (step[i * (m + 1) + j]) {
      case kTake:
        match[j++] = i++;
        break;
      case kSkipExpected:
        ++i;
        break;
      default:
        ++j;
    }
  }
  return match;
}

struct RunChoice {
  bool found = false;
  long pid = 0;
  size_t other_processes = 0;
};

// The process whose lines are the run's: the one asked for, or among those
// that wrote at least half as many of the expected lines as the best, the
// one that started last.
RunChoice ChooseRun(const ParsedLog& log, const Expectation& expectation,
                    const CheckOptions& options) {
  struct Process {
    size_t first = 0;
    std::map<LineKey, size_t> seen;
  };
  std::map<long, Process> processes;
  for (size_t i = 0; i < log.entries.size(); ++i) {
    const LogEntry& entry = log.entries[i];
    auto [at, added] = processes.try_emplace(entry.pid);
    if (added) at->second.first = i;
    if (expectation.tags.count(entry.line.tag) != 0) {
      ++at->second.seen[KeyOf(entry.line)];
    }
  }
  RunChoice choice;
  if (options.has_pid) {
    choice.found = processes.count(options.pid) != 0;
    choice.pid = options.pid;
  } else {
    std::map<long, size_t> scores;
    size_t best = 0;
    for (const auto& [pid, process] : processes) {
      size_t& score = scores[pid];
      for (const auto& [key, count] : process.seen) {
        const auto expected = expectation.lines.find(key);
        if (expected != expectation.lines.end()) {
          score += std::min(count, expected->second.most);
        }
      }
      best = std::max(best, score);
    }
    for (const auto& [pid, score] : scores) {
      if (score == 0 || score * 2 < best) continue;
      if (!choice.found || processes[pid].first > processes[choice.pid].first) {
        choice.found = true;
        choice.pid = pid;
      }
    }
  }
  choice.other_processes = processes.size() - (choice.found ? 1 : 0);
  return choice;
}

std::string CaseName(const Expectation& expectation, size_t index) {
  return index == kNoCase ? "(outside the cases)" : expectation.cases[index];
}

std::string JUnitXml(const Expectation& expectation,
                     const std::vector<Problem>& problems) {
  using runner::XmlAttributeText;
  using runner::XmlCData;
  // A case is listed when it writes lines or a problem is told to it.
  std::vector<std::vector<const Problem*>> by_case(expectation.cases.size() +
                                                   1);
  std::vector<bool> listed(expectation.cases.size() + 1, false);
  listed.back() = true;  // the unexpected lines
  for (const auto& [key, line] : expectation.lines) {
    for (const size_t index : line.cases) {
      if (index != kNoCase) listed[index] = true;
    }
  }
  for (const Problem& problem : problems) {
    const size_t slot =
        problem.kind == Kind::kUnexpected || problem.case_index == kNoCase
            ? expectation.cases.size()
            : problem.case_index;
    by_case[slot].push_back(&problem);
    listed[slot] = true;
  }
  size_t tests = 0;
  size_t failures = 0;
  std::string cases;
  for (size_t slot = 0; slot < listed.size(); ++slot) {
    if (!listed[slot]) continue;
    ++tests;
    const std::string name = slot < expectation.cases.size()
                                 ? expectation.cases[slot]
                                 : kUnexpectedCase;
    cases += "    <testcase name=\"" + XmlAttributeText(name) +
             "\" classname=\"vek_ut_logcheck\" status=\"run\" "
             "result=\"completed\"";
    if (by_case[slot].empty()) {
      cases += " />\n";
      continue;
    }
    ++failures;
    std::string text;
    for (const Problem* problem : by_case[slot]) text += problem->Text() + "\n";
    cases += ">\n      <failure message=\"" + XmlAttributeText(text) +
             "\" type=\"\">" + XmlCData(text) + "</failure>\n    </testcase>\n";
  }
  const std::string counts = "tests=\"" + std::to_string(tests) +
                             "\" failures=\"" + std::to_string(failures) +
                             "\" errors=\"0\"";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites " + counts +
         " name=\"AllTests\">\n  <testsuite name=\"vek_ut_logcheck\" " +
         counts + ">\n" + cases + "  </testsuite>\n</testsuites>\n";
}

}  // namespace

LineKey KeyOf(const LogLine& line) {
  return LineKey(line.priority, line.tag, NormaliseAddresses(line.text));
}

bool Derive(const Recording& masks_off, const Recording& masks_on,
            const std::vector<std::string>& more_tags, Expectation* expectation,
            std::string* error) {
  for (const Recording* recording : {&masks_off, &masks_on}) {
    if (!recording->failures.empty()) {
      *error = "the reference run failed: " + recording->failures.front();
      return false;
    }
  }
  if (masks_off.cases != masks_on.cases) {
    *error = "the two recordings ran different cases";
    return false;
  }
  *expectation = Expectation();
  expectation->cases = masks_on.cases;
  expectation->registered = masks_on.registered;
  expectation->tags.insert(more_tags.begin(), more_tags.end());
  std::map<LineKey, size_t> off_counts;
  for (const RecordedLine& recorded : masks_off.lines) {
    ++off_counts[KeyOf(recorded.line)];
    expectation->tags.insert(recorded.line.tag);
  }
  for (const RecordedLine& recorded : masks_on.lines) {
    auto at = expectation->lines.try_emplace(KeyOf(recorded.line)).first;
    at->second.cases.push_back(recorded.case_index);
    expectation->sequence.emplace_back(&at->first, recorded.case_index);
    expectation->tags.insert(recorded.line.tag);
  }
  for (const auto& [key, count] : off_counts) {
    expectation->lines.try_emplace(key);
  }
  for (auto& [key, line] : expectation->lines) {
    const auto off = off_counts.find(key);
    const size_t in_off = off == off_counts.end() ? 0 : off->second;
    line.required = std::min(in_off, line.cases.size());
    line.most = std::max(in_off, line.cases.size());
    // The suites' claims hold for any initial masks; a reference run that
    // breaks one cannot tell a right log from a wrong one.
    const std::string& text = std::get<2>(key);
    if (Contains(text, kClaimSuppressed) ||
        (Contains(text, kClaimVisible) && line.required < line.most)) {
      *error = "the reference run breaks the claim of " + Show(key);
      return false;
    }
  }
  return true;
}

CheckResult Check(const ParsedLog& log, const Expectation& expectation,
                  const CheckOptions& options) {
  CheckResult result;
  const RunChoice run = ChooseRun(log, expectation, options);
  if (options.has_pid && !run.found) {
    result.exit_code = 2;
    result.report = "vek_ut_logcheck: no line of process " +
                    std::to_string(options.pid) + " in " + options.log_name +
                    "\n";
    return result;
  }

  // The run's lines under the suites' tags, in the order of the log.
  std::vector<const LogEntry*> observed;
  std::vector<LineKey> observed_keys;
  std::map<LineKey, size_t> seen;
  for (const LogEntry& entry : log.entries) {
    if (!run.found || entry.pid != run.pid ||
        expectation.tags.count(entry.line.tag) == 0) {
      continue;
    }
    observed.push_back(&entry);
    observed_keys.push_back(KeyOf(entry.line));
    ++seen[observed_keys.back()];
  }
  const auto seen_count = [&seen](const LineKey& key) {
    const auto at = seen.find(key);
    return at == seen.end() ? size_t{0} : at->second;
  };

  // Which case each line of the log belongs to: the case of the recorded
  // line it aligns with, or of the nearest aligned line before it.
  std::map<LineKey, int> ids;
  for (const auto& [key, line] : expectation.lines) {
    ids.emplace(key, static_cast<int>(ids.size()));
  }
  std::vector<int> expected_ids;
  for (const auto& [key, case_index] : expectation.sequence) {
    expected_ids.push_back(ids.at(*key));
  }
  std::vector<int> observed_ids;
  for (size_t j = 0; j < observed_keys.size(); ++j) {
    const auto at = ids.find(observed_keys[j]);
    observed_ids.push_back(at != ids.end() ? at->second
                                           : -1 - static_cast<int>(j));
  }
  const std::vector<size_t> match = Align(expected_ids, observed_ids);
  std::vector<bool> expected_matched(expectation.sequence.size(), false);
  std::vector<size_t> observed_case(observed.size(), kNoCase);
  size_t last_case = kNoCase;
  for (size_t j = 0; j < observed.size(); ++j) {
    if (match[j] != kNone) {
      expected_matched[match[j]] = true;
      last_case = expectation.sequence[match[j]].second;
    }
    observed_case[j] = last_case;
  }
  for (size_t j = 0; j < observed.size(); ++j) {
    if (match[j] == kNone) continue;
    std::fill(observed_case.begin(), observed_case.begin() + j,
              expectation.sequence[match[j]].second);
    break;
  }

  // Lines short of what is required, each told to a case that wrote it and
  // whose line found no partner in the log.
  std::vector<Problem> problems;
  size_t required = 0;
  std::map<std::pair<std::string, int>, std::pair<size_t, size_t>> by_group;
  for (const auto& [key, line] : expectation.lines) {
    const size_t count = seen_count(key);
    required += line.required;
    if (line.most > line.required) {
      const size_t extra = line.most - line.required;
      const size_t present =
          std::min(extra, count > line.required ? count - line.required : 0);
      auto& group = by_group[{std::get<1>(key), std::get<0>(key)}];
      group.first += present;
      group.second += extra;
    }
    if (count >= line.required) continue;
    size_t missing = line.required - count;
    for (size_t i = 0; i < expectation.sequence.size() && missing > 0; ++i) {
      if (expectation.sequence[i].first == &key && !expected_matched[i]) {
        problems.push_back(
            {Kind::kAbsent, expectation.sequence[i].second, &key});
        --missing;
      }
    }
    for (; missing > 0; --missing) {
      problems.push_back({Kind::kAbsent,
                          line.cases.empty() ? kNoCase : line.cases.back(),
                          &key});
    }
  }

  // Lines beyond what any initial masks would write: those that no
  // recorded line matched come first.
  std::map<LineKey, size_t> excess;
  for (const auto& [key, count] : seen) {
    const auto expected = expectation.lines.find(key);
    const size_t most =
        expected == expectation.lines.end() ? 0 : expected->second.most;
    if (count > most) excess[key] = count - most;
  }
  std::map<LineKey, std::vector<size_t>> surplus;
  for (const bool aligned : {false, true}) {
    for (size_t j = 0; j < observed.size(); ++j) {
      const auto at = excess.find(observed_keys[j]);
      if ((match[j] != kNone) != aligned || at == excess.end()) continue;
      std::vector<size_t>& extra = surplus[at->first];
      if (extra.size() < at->second) extra.push_back(j);
    }
  }
  std::vector<bool> told(observed.size(), false);
  for (Problem& problem : problems) {
    const LineKey& want = *problem.expected;
    for (const auto& [key, extra] : surplus) {
      if (std::get<2>(key) != std::get<2>(want) ||
          (std::get<0>(key) != std::get<0>(want) &&
           std::get<1>(key) != std::get<1>(want))) {
        continue;
      }
      for (const size_t j : extra) {
        if (told[j]) continue;
        told[j] = true;
        problem.kind = Kind::kElsewhere;
        problem.found = observed[j];
        break;
      }
      if (problem.found != nullptr) break;
    }
  }
  for (const auto& [key, extra] : surplus) {
    const auto expected = expectation.lines.find(key);
    bool reported = false;
    for (const size_t j : extra) {
      if (told[j]) continue;
      Problem problem{Kind::kUnexpected, observed_case[j], nullptr,
                      observed[j]};
      if (expected != expectation.lines.end() && expected->second.most > 0) {
        // One problem per line text: how often it came, and where first.
        if (reported) continue;
        reported = true;
        problem.kind = Kind::kTooOften;
        problem.expected_count = expected->second.most;
        problem.found_count = seen_count(key);
      } else if (Contains(std::get<2>(key), kClaimSuppressed)) {
        problem.kind = Kind::kClaimedSuppressed;
      }
      problems.push_back(problem);
    }
  }
  std::stable_sort(problems.begin(), problems.end(),
                   [](const Problem& a, const Problem& b) {
                     return a.case_index + 1 < b.case_index + 1;
                   });

  // googletest's style: what was checked, then the verdict and the problems.
  std::string& out = result.report;
  out = "[==========] " + options.log_name + ": ";
  if (run.found) {
    out += "process " + std::to_string(run.pid) + ", ";
  } else {
    out += "no process wrote a line of the run, ";
  }
  out += std::string(FormatName(log.format)) + " format; " +
         Plural(observed.size(), "line") + " of the run checked against " +
         Plural(expectation.cases.size(), "case") + ".\n";
  if (expectation.cases.size() < expectation.registered) {
    out += "[----------] filtered run: " +
           std::to_string(expectation.cases.size()) + " of " +
           std::to_string(expectation.registered) + " cases\n";
  }
  if (log.unfit_count > 0) {
    out += "[----------] " + Plural(log.unfit_count, "line") + " of " +
           std::to_string(log.line_count) +
           " in no known format (the first: line " +
           std::to_string(log.first_unfit) + ")\n";
  }
  if (run.other_processes > 0) {
    out += "[----------] lines of " + std::to_string(run.other_processes) +
           (run.other_processes == 1 ? " other process" : " other processes") +
           " not checked\n";
  }
  for (const auto& [group, counts] : by_group) {
    out += "[   INFO   ] " + std::to_string(counts.first) + " of " +
           std::to_string(counts.second) + " " + group.first + " " +
           PriorityLetter(group.second) +
           " lines present; they depend on the port's initial masks\n";
  }
  if (problems.empty()) {
    out += "[  PASSED  ] " + Plural(required, "required line") +
           " present, nothing else under the suites' tags.\n";
  } else {
    out += "[  FAILED  ] " + Plural(problems.size(), "problem") +
           ", listed below:\n";
    for (const Problem& problem : problems) {
      out += "[  FAILED  ] " + CaseName(expectation, problem.case_index) +
             ": " + problem.Text() + "\n";
    }
  }
  result.exit_code = problems.empty() ? 0 : 1;
  result.xml = JUnitXml(expectation, problems);
  return result;
}

}  // namespace logcheck
}  // namespace zov_vek_unit_test
