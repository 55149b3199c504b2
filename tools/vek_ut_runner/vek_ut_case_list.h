// The cases of a googletest executable as its --gtest_list_tests names
// them, and the filter that selects some of them again.
#ifndef VEK_UT_RUNNER_VEK_UT_CASE_LIST_H_
#define VEK_UT_RUNNER_VEK_UT_CASE_LIST_H_

#include <string>
#include <string_view>
#include <vector>

namespace zov_vek_unit_test {
namespace runner {

struct PlannedCase {
  std::string suite;
  std::string name;
  std::string type_param;   // empty unless the suite is typed
  std::string value_param;  // empty unless the case is parameterised

  // "Suite.Name", as the report and the filter spell it.
  std::string FullName() const { return suite + "." + name; }

  // What googletest appends to a failed case's name in its report:
  // ", where TypeParam = int and GetParam() = 3", or nothing.
  std::string ParamComment() const;

  // googletest runs a DISABLED_ suite or case only when asked to.
  bool Disabled() const;
};

// Reads a --gtest_list_tests listing in its order (the registration order).
// Lines that belong to no listing, such as "Running main() from ...", are
// skipped.
std::vector<PlannedCase> ParseCaseList(std::string_view listing);

// A --gtest_filter value that selects exactly these cases.
std::string FilterFor(const std::vector<const PlannedCase*>& cases);

}  // namespace runner
}  // namespace zov_vek_unit_test

#endif  // VEK_UT_RUNNER_VEK_UT_CASE_LIST_H_
