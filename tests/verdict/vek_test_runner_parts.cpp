// The runner's readers on their own: listings with typed and parameterised
// cases, records damaged by a dying writer, and deadline values.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/unit_test/osal/common/runner/vek_ut_case_events.h"
#include "vek_ut_runner/vek_ut_case_list.h"
#include "vek_ut_runner/vek_ut_verdicts.h"

namespace zov_vek_unit_test {
namespace runner {
namespace {

TEST(CaseListTest, ReadsTypedParameterisedAndDisabledCases) {
  const std::vector<PlannedCase> cases = ParseCaseList(
      "Running main() from ./googletest/src/gtest_main.cc\n"
      "Plain.\n"
      "  One\n"
      "  DISABLED_Two\n"
      "Typed/0.  # TypeParam = std::pair<int, char>\n"
      "  Case\n"
      "Values/Param.\n"
      "  Case/0  # GetParam() = (1, \"a b\")\n"
      "  Case/1  # GetParam() = 2\n");

  ASSERT_EQ(cases.size(), 5u);
  EXPECT_EQ(cases[0].FullName(), "Plain.One");
  EXPECT_FALSE(cases[0].Disabled());
  EXPECT_TRUE(cases[1].Disabled());
  EXPECT_EQ(cases[2].FullName(), "Typed/0.Case");
  EXPECT_EQ(cases[2].ParamComment(),
            ", where TypeParam = std::pair<int, char>");
  EXPECT_EQ(cases[3].FullName(), "Values/Param.Case/0");
  EXPECT_EQ(cases[3].type_param, "");
  EXPECT_EQ(cases[3].ParamComment(), ", where GetParam() = (1, \"a b\")");
  EXPECT_EQ(FilterFor({&cases[0], &cases[4]}), "Plain.One:Values/Param.Case/1");
}

TEST(CaseEventsTest, EscapedTextCarriesNoSeparatorAndComesBackWhole) {
  const std::string text = "tab\there\nnewline \\n literal\\ back\r";
  const std::string escaped = case_events::Escape(text);
  EXPECT_EQ(escaped.find('\t'), std::string::npos);
  EXPECT_EQ(escaped.find('\n'), std::string::npos);
  EXPECT_EQ(case_events::Unescape(escaped), text);
  // A record cut after its backslash keeps what it has.
  EXPECT_EQ(case_events::Unescape("cut\\"), "cut\\");
}

TEST(CaseEventsTest, DeadlineIsWholeSecondsWithinAWeek) {
  unsigned int seconds = 99;
  EXPECT_TRUE(case_events::ParseTimeoutSeconds("0", &seconds));
  EXPECT_EQ(seconds, 0u);
  EXPECT_TRUE(case_events::ParseTimeoutSeconds("604800", &seconds));
  EXPECT_EQ(seconds, 604800u);
  for (const char* bad :
       {"", "-1", "1.5", "1s", " 1", "604801", "99999999999999999999"}) {
    seconds = 7;
    EXPECT_FALSE(case_events::ParseTimeoutSeconds(bad, &seconds)) << bad;
    EXPECT_EQ(seconds, 7u) << bad;
  }
}

TEST(VerdictBookTest, DamagedRecordsChangeNothing) {
  VerdictBook book(ParseCaseList("S.\n  A\n  B\n"), false);
  ASSERT_TRUE(book.Apply("start\tS.A", 1000));
  for (const char* damaged :
       {"", "start", "start\tS.Nope", "end\tS.A\tpassed", "hung\tS.A",
        "crashed\tS.B\tSIGSEGV\textra", "hello\t1\tsoon", "surprise\tS.A"}) {
    EXPECT_FALSE(book.Apply(damaged, 2000)) << damaged;
  }
  EXPECT_EQ(book.running(), 0u);
  EXPECT_EQ(book.cases()[0].outcome, Outcome::kPending);
  EXPECT_EQ(book.cases()[1].outcome, Outcome::kPending);
  EXPECT_EQ(book.reported_end_count(), 0u);

  ASSERT_TRUE(book.Apply("crashed\tS.A\tSIGBUS", 2500));
  EXPECT_EQ(book.running(), VerdictBook::kNone);
  EXPECT_EQ(book.cases()[0].outcome, Outcome::kCrashed);
  EXPECT_EQ(book.cases()[0].elapsed_ms, 1500);
  EXPECT_EQ(book.Unstarted(), std::vector<size_t>{1});
}

}  // namespace
}  // namespace runner
}  // namespace zov_vek_unit_test
