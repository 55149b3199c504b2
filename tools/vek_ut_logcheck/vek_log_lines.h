// A saved system log, read line by line: liblog's host stderr format and
// logcat's threadtime and brief formats.
#ifndef VEK_UT_LOGCHECK_VEK_LOG_LINES_H_
#define VEK_UT_LOGCHECK_VEK_LOG_LINES_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zov_vek_unit_test {
namespace logcheck {

enum class LogFormat { kHostStderr, kThreadtime, kBrief };

const char* FormatName(LogFormat format);

// One line of the system log as a writer handed it over: Android priority
// (2 verbose to 7 fatal), tag and text, byte for byte.
struct LogLine {
  int priority = 0;
  std::string tag;
  std::string text;
};

struct LogEntry {
  LogLine line;
  long pid = 0;
  size_t line_number = 0;  // 1-based, in the log as read
};

struct ParsedLog {
  LogFormat format = LogFormat::kHostStderr;
  std::vector<LogEntry> entries;
  size_t line_count = 0;   // every line read, logcat's banners included
  size_t unfit_count = 0;  // lines that do not fit the log's format
  size_t first_unfit = 0;  // line number of the first of them, or 0
};

// Reads a whole log. Its format is the one that most lines fit; the lines
// that do not fit it are counted, logcat's "--------- beginning of ..."
// banners skipped.
// A carriage return before a newline is taken as part of the line ending.
ParsedLog ParseLog(std::string_view text);

// The letter that every one of the formats writes for a priority, '?' for
// none.
char PriorityLetter(int priority);

// Addresses differ from run to run: every 0x-prefixed hex number becomes
// "0x@", in the expected and the observed texts alike.
std::string NormaliseAddresses(std::string_view text);

}  // namespace logcheck
}  // namespace zov_vek_unit_test

#endif  // VEK_UT_LOGCHECK_VEK_LOG_LINES_H_
