#include "vek_ut_logcheck/vek_log_lines.h"

#include <cstdlib>
#include <iterator>

namespace zov_vek_unit_test {
namespace logcheck {
namespace {

constexpr char kPriorityLetters[] = "??VDIWEF";  // indexed by priority

int PriorityOf(char letter) {
  for (int priority = 2; priority <= 7; ++priority) {
    if (kPriorityLetters[priority] == letter) return priority;
  }
  return 0;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a fixed-width field such as "MM-DD" or "HH:MM:SS.mmm": digits where
// the pattern has '9', the same character elsewhere.
bool Take(std::string_view line, size_t* at, std::string_view pattern) {
  if (line.size() - *at < pattern.size()) return false;
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char c = line[*at + i];
    if (pattern[i] == '9' ? !IsDigit(c) : c != pattern[i]) return false;
  }
  *at += pattern.size();
  return true;
}

// Blanks (at least `least`), then a decimal number.
bool TakeNumber(std::string_view line, size_t* at, size_t least, long* value) {
  size_t i = *at;
  while (i < line.size() && line[i] == ' ') ++i;
  if (i - *at < least) return false;
  const size_t digits = i;
  while (i < line.size() && IsDigit(line[i])) ++i;
  if (i == digits || i - digits > 10) return false;
  *value = std::strtol(std::string(line.substr(digits, i - digits)).c_str(),
                       nullptr, 10);
  *at = i;
  return true;
}

bool TakePriority(std::string_view line, size_t* at, int* priority) {
  if (*at >= line.size()) return false;
  *priority = PriorityOf(line[*at]);
  ++*at;
  return *priority != 0;
}

std::string TrimmedTag(std::string_view tag) {
  while (!tag.empty() && tag.back() == ' ') tag.remove_suffix(1);
  return std::string(tag);
}

// "tag P MM-DD HH:MM:SS  pid  tid text"
bool ParseHost(std::string_view line, LogEntry* entry) {
  const size_t blank = line.find(' ');
  if (blank == 0 || blank == std::string_view::npos) return false;
  size_t at = blank + 1;
  long tid = 0;
  if (!TakePriority(line, &at, &entry->line.priority) ||
      !Take(line, &at, " 99-99 99:99:99") ||
      !TakeNumber(line, &at, 1, &entry->pid) ||
      !TakeNumber(line, &at, 1, &tid) || !Take(line, &at, " ")) {
    return false;
  }
  entry->line.tag = std::string(line.substr(0, blank));
  entry->line.text = std::string(line.substr(at));
  return true;
}

// "MM-DD HH:MM:SS.mmm  pid  tid P tag     : text"
bool ParseThreadtime(std::string_view line, LogEntry* entry) {
  size_t at = 0;
  long tid = 0;
  if (!Take(line, &at, "99-99 99:99:99.999") ||
      !TakeNumber(line, &at, 1, &entry->pid) ||
      !TakeNumber(line, &at, 1, &tid) || !Take(line, &at, " ") ||
      !TakePriority(line, &at, &entry->line.priority) ||
      !Take(line, &at, " ")) {
    return false;
  }
  const size_t colon = line.find(": ", at);
  if (colon == std::string_view::npos || colon == at) return false;
  entry->line.tag = TrimmedTag(line.substr(at, colon - at));
  entry->line.text = std::string(line.substr(colon + 2));
  return true;
}

// "P/tag     ( pid): text"
bool ParseBrief(std::string_view line, LogEntry* entry) {
  size_t at = 0;
  if (!TakePriority(line, &at, &entry->line.priority) ||
      !Take(line, &at, "/")) {
    return false;
  }
  for (size_t open = line.find('(', at); open != std::string_view::npos;
       open = line.find('(', open + 1)) {
    size_t after = open + 1;
    if (open > at && TakeNumber(line, &after, 0, &entry->pid) &&
        Take(line, &after, "): ")) {
      entry->line.tag = TrimmedTag(line.substr(at, open - at));
      entry->line.text = std::string(line.substr(after));
      return true;
    }
  }
  return false;
}

using Parser = bool (*)(std::string_view, LogEntry*);
constexpr Parser kParsers[] = {ParseHost, ParseThreadtime, ParseBrief};

}  // namespace

const char* FormatName(LogFormat format) {
  switch (format) {
    case LogFormat::kHostStderr:
      return "liblog host stderr";
    case LogFormat::kThreadtime:
      return "logcat threadtime";
    case LogFormat::kBrief:
      return "logcat brief";
  }
  return "";
}

char PriorityLetter(int priority) {
  return priority >= 0 && priority <= 7 ? kPriorityLetters[priority] : '?';
}

std::string NormaliseAddresses(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto is_hex = [](char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  };
  for (size_t i = 0; i < text.size();) {
    if (text.compare(i, 2, "0x") == 0 && i + 2 < text.size() &&
        is_hex(text[i + 2])) {
      out += "0x@";
      i += 2;
      while (i < text.size() && is_hex(text[i])) ++i;
    } else {
      out += text[i++];
    }
  }
  return out;
}

ParsedLog ParseLog(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    std::string_view line = text.substr(0, newline);
    text = newline == std::string_view::npos ? std::string_view()
                                             : text.substr(newline + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
  }

  std::vector<LogEntry> parsed[std::size(kParsers)];
  size_t best = 0;
  for (size_t format = 0; format < std::size(kParsers); ++format) {
    for (size_t i = 0; i < lines.size(); ++i) {
      LogEntry entry;
      entry.line_number = i + 1;
      if (kParsers[format](lines[i], &entry)) {
        parsed[format].push_back(std::move(entry));
      }
    }
    if (parsed[format].size() > parsed[best].size()) best = format;
  }

  ParsedLog log;
  log.format = static_cast<LogFormat>(best);
  log.line_count = lines.size();
  size_t next = 0;  // into parsed[best], which is in line order
  for (size_t i = 0; i < lines.size(); ++i) {
    if (next < parsed[best].size() && parsed[best][next].line_number == i + 1) {
      log.entries.push_back(std::move(parsed[best][next++]));
    } else if (lines[i].compare(0, 10, "--------- ") != 0) {
      if (log.unfit_count++ == 0) log.first_unfit = i + 1;
    }
  }
  return log;
}

}  // namespace logcheck
}  // namespace zov_vek_unit_test
