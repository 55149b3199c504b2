#include "vek_ut_runner/vek_ut_verdicts.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

#include "test/unit_test/osal/common/runner/vek_ut_case_events.h"

namespace zov_vek_unit_test {
namespace runner {
namespace {

namespace events = case_events;

bool ParseInt(std::string_view text, int64_t* value) {
  const std::string copy(text);
  char* end = nullptr;
  const long long parsed = strtoll(copy.c_str(), &end, 10);  // NOLINT
  if (copy.empty() || *end != '\0') return false;
  *value = parsed;
  return true;
}

std::string Count(size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string Seconds(int64_t ms) {
  char text[32];
  snprintf(text, sizeof(text), "%.3f", static_cast<double>(ms) / 1000.0);
  return text;
}

// YYYY-MM-DDThh:mm:ss.sss in local time, as googletest writes it.
std::string Iso8601(int64_t epoch_ms) {
  const time_t seconds = static_cast<time_t>(epoch_ms / 1000);
  struct tm local = {};
  if (localtime_r(&seconds, &local) == nullptr) return "";
  char text[48];
  snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03d",
           local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
           local.tm_min, local.tm_sec, static_cast<int>(epoch_ms % 1000));
  return text;
}

const char* ResultName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kPassed:
    case Outcome::kFailed:
      return "completed";
    case Outcome::kSkipped:
      return "skipped";
    case Outcome::kDisabled:
      return "suppressed";
    case Outcome::kHung:
      return "hung";
    case Outcome::kCrashed:
      return "crashed";
    case Outcome::kExited:
      return "exited";
    case Outcome::kNotRun:
    case Outcome::kPending:
      return "not_run";
  }
  return "";
}

// Why the process, not a check, failed the case; empty for outcomes that
// the case's own parts explain.
std::string EndingMessage(const CaseVerdict& verdict) {
  switch (verdict.outcome) {
    case Outcome::kHung:
      return "hung: no end within " + verdict.detail;
    case Outcome::kCrashed:
      return "crashed: " + verdict.detail;
    case Outcome::kExited:
      return "exited during the case: " + verdict.detail;
    case Outcome::kNotRun:
      return "did not run: " + verdict.detail;
    default:
      return "";
  }
}

std::string Location(const PartReport& part) {
  if (part.file.empty()) return "unknown file";
  if (part.line < 0) return part.file;
  return part.file + ":" + std::to_string(part.line);
}

// Length of the valid UTF-8 sequence at text[i] that XML 1.0 may carry,
// or 0.
size_t XmlCharLength(std::string_view text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) {
    return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
  }
  size_t length = 0;
  uint32_t code = 0;
  uint32_t least = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, code = lead & 0x1F, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, code = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, code = lead & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  const bool non_character = code == 0xFFFE || code == 0xFFFF;
  if (code < least || code > 0x10FFFF || surrogate || non_character) return 0;
  return length;
}

// Control characters go (as googletest drops them); every other byte that
// is not valid UTF-8 becomes U+FFFD.
std::string CleanXmlText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = XmlCharLength(text, i);
    if (length > 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      if (static_cast<unsigned char>(text[i]) >= 0x80) out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

void AppendAttribute(std::string* xml, const char* name,
                     std::string_view value) {
  *xml += ' ';
  *xml += name;
  *xml += "=\"";
  *xml += XmlAttributeText(value);
  *xml += '"';
}

}  // namespace

bool IsFailure(Outcome outcome) {
  switch (outcome) {
    case Outcome::kFailed:
    case Outcome::kHung:
    case Outcome::kCrashed:
    case Outcome::kExited:
    case Outcome::kNotRun:
      return true;
    case Outcome::kPending:
    case Outcome::kDisabled:
    case Outcome::kPassed:
    case Outcome::kSkipped:
      return false;
  }
  return true;
}

VerdictBook::VerdictBook(const std::vector<PlannedCase>& planned,
                         bool also_run_disabled) {
  cases_.reserve(planned.size());
  for (const PlannedCase& one : planned) {
    CaseVerdict verdict;
    verdict.planned = one;
    if (one.Disabled() && !also_run_disabled) {
      verdict.outcome = Outcome::kDisabled;
    }
    cases_.push_back(std::move(verdict));
  }
}

size_t VerdictBook::Find(std::string_view full_name) const {
  for (size_t i = 0; i < cases_.size(); ++i) {
    const PlannedCase& planned = cases_[i].planned;
    if (full_name.size() == planned.suite.size() + 1 + planned.name.size() &&
        full_name.substr(0, planned.suite.size()) == planned.suite &&
        full_name[planned.suite.size()] == '.' &&
        full_name.substr(planned.suite.size() + 1) == planned.name) {
      return i;
    }
  }
  return kNone;
}

bool VerdictBook::Apply(std::string_view record, int64_t now_epoch_ms) {
  const std::vector<std::string_view> fields = events::SplitFields(record);
  const std::string_view kind = fields[0];
  int64_t number = 0;

  if (kind == events::kHello && fields.size() == 3) {
    if (!ParseInt(fields[2], &number) || number < 0) return false;
    announced_timeout_s_ = static_cast<int>(number);
    return true;
  }
  if (kind == events::kGlobalFailed && fields.size() == 1) {
    global_failed_ = true;
    return true;
  }
  if (kind == events::kSuiteFailed && fields.size() == 2) {
    for (const std::string& suite : failed_suites_) {
      if (suite == fields[1]) return true;
    }
    failed_suites_.emplace_back(fields[1]);
    return true;
  }
  if (kind == events::kPart && fields.size() == 6) {
    // Parts outside a case belong to a suite's or the program's set-up;
    // their failure arrives as its own record.
    if (running_ == kNone) return true;
    PartReport part;
    part.skip = fields[1] == events::kPartSkip;
    part.file = events::Unescape(fields[2]);
    if (ParseInt(fields[3], &number)) part.line = static_cast<int>(number);
    part.summary = events::Unescape(fields[4]);
    part.message = events::Unescape(fields[5]);
    cases_[running_].parts.push_back(std::move(part));
    return true;
  }

  if (fields.size() < 2) return false;
  const size_t index = Find(fields[1]);
  if (index == kNone) return false;
  CaseVerdict& verdict = cases_[index];

  if (kind == events::kStart && fields.size() == 2) {
    if (!verdict.started) ++started_count_;
    verdict.started = true;
    verdict.start_epoch_ms = now_epoch_ms;
    verdict.parts.clear();
    running_ = index;
    return true;
  }
  if (kind == events::kEnd && fields.size() == 4) {
    if (fields[2] == events::kPassed) {
      verdict.outcome = Outcome::kPassed;
    } else if (fields[2] == events::kSkipped) {
      verdict.outcome = Outcome::kSkipped;
    } else {
      verdict.outcome = Outcome::kFailed;
    }
    if (ParseInt(fields[3], &number)) verdict.elapsed_ms = number;
  } else if (kind == events::kHung && fields.size() == 3) {
    verdict.outcome = Outcome::kHung;
    verdict.detail = std::string(fields[2]) + " s";
    ++reported_end_count_;
    verdict.elapsed_ms = now_epoch_ms - verdict.start_epoch_ms;
  } else if (kind == events::kCrashed && fields.size() == 3) {
    verdict.outcome = Outcome::kCrashed;
    verdict.detail = std::string(fields[2]);
    ++reported_end_count_;
    verdict.elapsed_ms = now_epoch_ms - verdict.start_epoch_ms;
  } else {
    return false;
  }
  if (running_ == index) running_ = kNone;
  return true;
}

void VerdictBook::EndRunning(Outcome outcome, std::string detail,
                             int64_t now_epoch_ms) {
  if (running_ == kNone) return;
  CaseVerdict& verdict = cases_[running_];
  verdict.outcome = outcome;
  verdict.detail = std::move(detail);
  verdict.elapsed_ms = now_epoch_ms - verdict.start_epoch_ms;
  running_ = kNone;
}

std::vector<size_t> VerdictBook::Unstarted() const {
  std::vector<size_t> unstarted;
  for (size_t i = 0; i < cases_.size(); ++i) {
    if (cases_[i].outcome == Outcome::kPending && !cases_[i].started) {
      unstarted.push_back(i);
    }
  }
  return unstarted;
}

void VerdictBook::EndUnstarted(Outcome outcome, const std::string& detail) {
  for (const size_t i : Unstarted()) {
    cases_[i].outcome = outcome;
    cases_[i].detail = detail;
  }
}

void VerdictBook::AddCheck(const std::string& suite, const std::string& name,
                           bool passed, const std::string& where,
                           const std::string& message, int64_t start_epoch_ms,
                           int64_t elapsed_ms) {
  CaseVerdict verdict;
  verdict.planned.suite = suite;
  verdict.planned.name = name;
  verdict.outcome = passed ? Outcome::kPassed : Outcome::kFailed;
  verdict.started = true;
  verdict.start_epoch_ms = start_epoch_ms;
  verdict.elapsed_ms = elapsed_ms;
  if (!passed) verdict.parts.push_back({false, where, -1, message, message});
  cases_.push_back(std::move(verdict));
  ++started_count_;
}

size_t VerdictBook::failure_count() const {
  size_t failures = failed_suites_.size() + (global_failed_ ? 1 : 0);
  for (const CaseVerdict& verdict : cases_) {
    if (IsFailure(verdict.outcome)) ++failures;
  }
  return failures;
}

bool VerdictBook::Passed() const { return failure_count() == 0; }

std::string FormatClosing(const VerdictBook& book, int64_t total_ms,
                          const ClosingStyle& style) {
  size_t selected = 0;
  size_t passed = 0;
  size_t disabled = 0;
  std::set<std::string> suites;
  std::vector<const CaseVerdict*> skipped;
  std::vector<const CaseVerdict*> failed;
  for (const CaseVerdict& verdict : book.cases()) {
    if (verdict.outcome == Outcome::kDisabled) {
      ++disabled;
      continue;
    }
    ++selected;
    suites.insert(verdict.planned.suite);
    if (verdict.outcome == Outcome::kPassed) ++passed;
    if (verdict.outcome == Outcome::kSkipped) skipped.push_back(&verdict);
    if (IsFailure(verdict.outcome)) failed.push_back(&verdict);
  }

  std::string out = "[==========] " + Count(selected, "test") + " from " +
                    Count(suites.size(), "test suite") + " ran.";
  if (style.print_time) {
    out += " (" + std::to_string(total_ms) + " ms total)";
  }
  out += "\n[  PASSED  ] " + Count(passed, "test") + ".\n";

  if (!skipped.empty()) {
    out += "[  SKIPPED ] " + Count(skipped.size(), "test");
    if (style.brief) {
      out += ".\n";
    } else {
      out += ", listed below:\n";
      for (const CaseVerdict* verdict : skipped) {
        out += "[  SKIPPED ] " + verdict->planned.FullName() + "\n";
      }
    }
  }

  if (!style.brief && !book.Passed()) {
    out += "[  FAILED  ] " + Count(failed.size(), "test") + ", listed below:\n";
    for (const CaseVerdict* verdict : failed) {
      out += "[  FAILED  ] " + verdict->planned.FullName() +
             verdict->planned.ParamComment() + "\n";
    }
    char banner[64];
    snprintf(banner, sizeof(banner), "\n%2d FAILED %s\n",
             static_cast<int>(failed.size()),
             failed.size() == 1 ? "TEST" : "TESTS");
    out += banner;
    for (const std::string& suite : book.failed_suites()) {
      out +=
          "[  FAILED  ] " + suite + ": SetUpTestSuite or TearDownTestSuite\n";
    }
    if (!book.failed_suites().empty()) {
      const size_t count = book.failed_suites().size();
      snprintf(banner, sizeof(banner), "\n%2d FAILED TEST %s\n",
               static_cast<int>(count), count == 1 ? "SUITE" : "SUITES");
      out += banner;
    }
  }

  if (disabled > 0 && !style.also_run_disabled) {
    if (book.Passed()) out += "\n";
    char banner[64];
    snprintf(banner, sizeof(banner), "  YOU HAVE %d DISABLED %s\n\n",
             static_cast<int>(disabled), disabled == 1 ? "TEST" : "TESTS");
    out += banner;
  }
  return out;
}

std::string XmlAttributeText(std::string_view text) {
  std::string out;
  for (const char c : CleanXmlText(text)) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      // Kept as characters, a parser would fold them into spaces.
      case '\t':
        out += "&#x09;";
        break;
      case '\n':
        out += "&#x0A;";
        break;
      case '\r':
        out += "&#x0D;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string XmlCData(std::string_view text) {
  const std::string clean = CleanXmlText(text);
  std::string out = "<![CDATA[";
  size_t begin = 0;
  while (true) {
    const size_t end = clean.find("]]>", begin);
    if (end == std::string::npos) break;
    // "]]>" would close the section early: close it after "]]" and open a
    // new one for ">".
    out.append(clean, begin, end + 2 - begin);
    out += "]]><![CDATA[";
    begin = end + 2;
  }
  out.append(clean, begin, std::string::npos);
  out += "]]>";
  return out;
}

std::string FormatJUnitXml(const VerdictBook& book, int64_t total_ms,
                           int64_t start_epoch_ms) {
  const std::vector<CaseVerdict>& cases = book.cases();

  // Suites in the order of their first case.
  std::vector<std::string> suites;
  for (const CaseVerdict& verdict : cases) {
    bool known = false;
    for (const std::string& suite : suites)
      known |= suite == verdict.planned.suite;
    if (!known) suites.push_back(verdict.planned.suite);
  }

  size_t failures = 0;
  size_t disabled = 0;
  for (const CaseVerdict& verdict : cases) {
    failures += IsFailure(verdict.outcome) ? 1 : 0;
    disabled += verdict.outcome == Outcome::kDisabled ? 1 : 0;
  }

  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites";
  AppendAttribute(&xml, "tests", std::to_string(cases.size()));
  AppendAttribute(&xml, "failures", std::to_string(failures));
  AppendAttribute(&xml, "disabled", std::to_string(disabled));
  AppendAttribute(&xml, "errors", "0");
  AppendAttribute(&xml, "time", Seconds(total_ms));
  AppendAttribute(&xml, "timestamp", Iso8601(start_epoch_ms));
  AppendAttribute(&xml, "name", "AllTests");
  xml += ">\n";

  for (const std::string& suite : suites) {
    size_t tests = 0;
    size_t suite_failures = 0;
    size_t suite_disabled = 0;
    size_t suite_skipped = 0;
    int64_t suite_ms = 0;
    int64_t suite_start = 0;
    for (const CaseVerdict& verdict : cases) {
      if (verdict.planned.suite != suite) continue;
      ++tests;
      suite_failures += IsFailure(verdict.outcome) ? 1 : 0;
      suite_disabled += verdict.outcome == Outcome::kDisabled ? 1 : 0;
      suite_skipped += verdict.outcome == Outcome::kSkipped ? 1 : 0;
      suite_ms += verdict.elapsed_ms;
      if (suite_start == 0) suite_start = verdict.start_epoch_ms;
    }
    bool suite_failed = false;
    for (const std::string& name : book.failed_suites()) {
      suite_failed |= name == suite;
    }
    xml += "  <testsuite";
    AppendAttribute(&xml, "name", suite);
    AppendAttribute(&xml, "tests", std::to_string(tests));
    AppendAttribute(&xml, "failures",
                    std::to_string(suite_failures + (suite_failed ? 1 : 0)));
    AppendAttribute(&xml, "disabled", std::to_string(suite_disabled));
    AppendAttribute(&xml, "skipped", std::to_string(suite_skipped));
    AppendAttribute(&xml, "errors", "0");
    AppendAttribute(&xml, "time", Seconds(suite_ms));
    AppendAttribute(&xml, "timestamp",
                    Iso8601(suite_start != 0 ? suite_start : start_epoch_ms));
    xml += ">\n";

    for (const CaseVerdict& verdict : cases) {
      if (verdict.planned.suite != suite) continue;
      xml += "    <testcase";
      AppendAttribute(&xml, "name", verdict.planned.name);
      if (!verdict.planned.value_param.empty()) {
        AppendAttribute(&xml, "value_param", verdict.planned.value_param);
      }
      if (!verdict.planned.type_param.empty()) {
        AppendAttribute(&xml, "type_param", verdict.planned.type_param);
      }
      AppendAttribute(&xml, "status", verdict.started ? "run" : "notrun");
      AppendAttribute(&xml, "result", ResultName(verdict.outcome));
      AppendAttribute(&xml, "time", Seconds(verdict.elapsed_ms));
      AppendAttribute(
          &xml, "timestamp",
          Iso8601(verdict.started ? verdict.start_epoch_ms : start_epoch_ms));
      AppendAttribute(&xml, "classname", suite);

      const std::string ending = EndingMessage(verdict);
      if (verdict.parts.empty() && ending.empty()) {
        xml += " />\n";
        continue;
      }
      xml += ">\n";
      for (const PartReport& part : verdict.parts) {
        const std::string location = Location(part);
        const char* element = part.skip ? "skipped" : "failure";
        xml += "      <";
        xml += element;
        AppendAttribute(&xml, "message", location + "\n" + part.summary);
        if (!part.skip) AppendAttribute(&xml, "type", "");
        xml += ">" + XmlCData(location + "\n" + part.message) + "</" + element +
               ">\n";
      }
      if (!ending.empty()) {
        xml += "      <failure";
        AppendAttribute(&xml, "message", ending);
        AppendAttribute(&xml, "type", ResultName(verdict.outcome));
        xml += ">" + XmlCData(ending) + "</failure>\n";
      }
      xml += "    </testcase>\n";
    }
    xml += "  </testsuite>\n";
  }
  xml += "</testsuites>\n";
  return xml;
}

}  // namespace runner
}  // namespace zov_vek_unit_test
