#include "vek_ut_runner/vek_ut_case_list.h"

#include <cstddef>

namespace zov_vek_unit_test {
namespace runner {
namespace {

constexpr std::string_view kTypeParamMark = "  # TypeParam = ";
constexpr std::string_view kValueParamMark = "  # GetParam() = ";
constexpr std::string_view kDisabledPrefix = "DISABLED_";

bool IsDisabledName(std::string_view name) {
  return name.substr(0, kDisabledPrefix.size()) == kDisabledPrefix ||
         name.find("/DISABLED_") != std::string_view::npos;
}

// Splits "text<mark>param" into text and param.
std::string_view TakeParam(std::string_view line, std::string_view mark,
                           std::string* param) {
  const size_t at = line.find(mark);
  if (at == std::string_view::npos) return line;
  *param = std::string(line.substr(at + mark.size()));
  return line.substr(0, at);
}

}  // namespace

std::string PlannedCase::ParamComment() const {
  if (type_param.empty() && value_param.empty()) return "";
  std::string comment = ", where ";
  if (!type_param.empty()) {
    comment += "TypeParam = " + type_param;
    if (!value_param.empty()) comment += " and ";
  }
  if (!value_param.empty()) comment += "GetParam() = " + value_param;
  return comment;
}

bool PlannedCase::Disabled() const {
  return IsDisabledName(suite) || IsDisabledName(name);
}

std::vector<PlannedCase> ParseCaseList(std::string_view listing) {
  std::vector<PlannedCase> cases;
  std::string suite;
  std::string type_param;
  bool in_suite = false;
  while (!listing.empty()) {
    const size_t newline = listing.find('\n');
    std::string_view line = listing.substr(0, newline);
    listing = newline == std::string_view::npos ? std::string_view()
                                                : listing.substr(newline + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.substr(0, 2) == "  ") {
      if (!in_suite) continue;
      PlannedCase planned;
      planned.suite = suite;
      planned.type_param = type_param;
      const std::string_view name =
          TakeParam(line.substr(2), kValueParamMark, &planned.value_param);
      if (name.empty() || name.find(' ') != std::string_view::npos) continue;
      planned.name = std::string(name);
      cases.push_back(std::move(planned));
      continue;
    }
    // A suite line is "Suite." and perhaps its type parameter; anything
    // else ends the suite.
    std::string param;
    const std::string_view head = TakeParam(line, kTypeParamMark, &param);
    in_suite = head.size() > 1 && head.back() == '.' &&
               head.find(' ') == std::string_view::npos;
    if (in_suite) {
      suite = std::string(head.substr(0, head.size() - 1));
      type_param = param;
    }
  }
  return cases;
}

std::string FilterFor(const std::vector<const PlannedCase*>& cases) {
  std::string filter;
  for (const PlannedCase* planned : cases) {
    if (!filter.empty()) filter += ':';
    filter += planned->FullName();
  }
  return filter;
}

}  // namespace runner
}  // namespace zov_vek_unit_test
