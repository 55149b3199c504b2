// The record stream through which the conformance executable tells a
// supervising runner (tools/vek_ut_runner) what became of each case. A
// port under construction hangs and crashes; the runner needs to know
// which case was running when the process ended, and what the cases before
// it reported, without parsing the human report.
//
// The runner hands the executable one end of a connected stream socket and
// names its descriptor in kEventFdEnv. Each record is one line; fields are
// separated by a tab, and free text is escaped so that it holds neither.
//
//   hello   <protocol> <deadline s>     the run starts
//   start   <case>                      a case starts
//   part    <failure|skip> <file> <line> <summary> <message>
//   end     <case> <passed|failed|skipped> <elapsed ms>
//   suite_failed <suite>                SetUpTestSuite/TearDownTestSuite
//   global_failed                       a failure outside every suite
//   hung    <case> <deadline s>         the process ends now
//   crashed <case> <signal name>        the process ends now
//
// <case> is "Suite.Name" as googletest prints it.
#ifndef UT_RUNNER_VEK_UT_CASE_EVENTS_H_
#define UT_RUNNER_VEK_UT_CASE_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zov_vek_unit_test {
namespace case_events {

inline constexpr char kEventFdEnv[] = "VEK_UT_EVENT_FD";
inline constexpr char kCaseTimeoutEnv[] = "VEK_UT_CASE_TIMEOUT_S";

// Long enough for the slowest healthy case on a loaded device; a port that
// hangs is still found within a minute.
inline constexpr unsigned int kDefaultCaseTimeoutS = 60;
// A deadline beyond a week is a typo, not a wish.
inline constexpr unsigned int kMaxCaseTimeoutS = 7 * 24 * 3600;

inline constexpr int kProtocol = 1;

inline constexpr char kHello[] = "hello";
inline constexpr char kStart[] = "start";
inline constexpr char kPart[] = "part";
inline constexpr char kEnd[] = "end";
inline constexpr char kSuiteFailed[] = "suite_failed";
inline constexpr char kGlobalFailed[] = "global_failed";
inline constexpr char kHung[] = "hung";
inline constexpr char kCrashed[] = "crashed";

inline constexpr char kPartFailure[] = "failure";
inline constexpr char kPartSkip[] = "skip";

inline constexpr char kPassed[] = "passed";
inline constexpr char kFailed[] = "failed";
inline constexpr char kSkipped[] = "skipped";

// Backslash, newline, carriage return and tab become two-character escapes.
inline std::string Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The inverse of Escape. An unknown or cut-off escape is kept as written:
// a record damaged by a dying writer still shows what it could.
inline std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    switch (text[i + 1]) {
      case '\\':
        out += '\\';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      default:
        out += text[i];
        out += text[i + 1];
    }
    ++i;
  }
  return out;
}

inline std::vector<std::string_view> SplitFields(std::string_view record) {
  std::vector<std::string_view> fields;
  size_t begin = 0;
  while (true) {
    const size_t tab = record.find('\t', begin);
    if (tab == std::string_view::npos) {
      fields.push_back(record.substr(begin));
      return fields;
    }
    fields.push_back(record.substr(begin, tab - begin));
    begin = tab + 1;
  }
}

// Reads a deadline in whole seconds: decimal digits only, at most
// kMaxCaseTimeoutS. 0 means no deadline.
inline bool ParseTimeoutSeconds(const char* text, unsigned int* seconds) {
  if (text == nullptr || *text == '\0') return false;
  uint64_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > kMaxCaseTimeoutS) return false;
  }
  *seconds = static_cast<unsigned int>(value);
  return true;
}

}  // namespace case_events
}  // namespace zov_vek_unit_test

#endif  // UT_RUNNER_VEK_UT_CASE_EVENTS_H_
