// Runs the logging suites with the system log captured and checks what an
// operator would otherwise check by eye: every "EXPECT: VISIBLE" sample
// line is written exactly as often as the cases claim, at the priority of
// its level letter and under its group's tag, and no "EXPECT: SUPPRESSED"
// line is written at all.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <tuple>

#include "vek_log_capture.h"

namespace {

using Key = std::tuple<int, std::string, std::string>;  // priority, tag, text

int PriorityOf(char letter) {
  switch (letter) {
    case 'V':
      return ANDROID_LOG_VERBOSE;
    case 'D':
      return ANDROID_LOG_DEBUG;
    case 'I':
      return ANDROID_LOG_INFO;
    case 'W':
      return ANDROID_LOG_WARN;
    default:
      return ANDROID_LOG_ERROR;
  }
}

std::string Sample(char letter, const std::string& place,
                   const std::string& kind, const std::string& function) {
  const std::string sep = (place == "hdr" && kind == "custom") ? ":" : "::";
  std::string text = "(EXPECT: VISIBLE /" + std::string(1, letter) +
                     ") Log from " + place + " with " + kind + " tag, val" +
                     sep + " 1234!";
  return letter == 'E' ? function + "() " + text : text;
}

// Adds `counts` (V, D, I, W, E) visible lines of one family under `tag`;
// error lines name `function`.
void Expect(std::map<Key, int>& expected, const std::string& tag,
            const std::string& place, const std::string& kind,
            const std::string& function, const int (&counts)[5]) {
  const char letters[] = {'V', 'D', 'I', 'W', 'E'};
  for (int i = 0; i < 5; ++i) {
    if (counts[i] == 0) continue;
    expected[Key(PriorityOf(letters[i]), tag,
                 Sample(letters[i], place, kind, function))] += counts[i];
  }
}

// What the cases claim, case by case, in their run order.
std::map<Key, int> ExpectedVisibleLines() {
  std::map<Key, int> e;
  // TestConfiguration: all groups at 31, then 16 with vek-ipc at 30.
  Expect(e, "vek-diag", "src", "predefined", "TestBody", {1, 1, 1, 1, 1});
  Expect(e, "vek-ipc", "src", "predefined", "TestBody", {1, 1, 1, 1, 1});
  Expect(e, "vek-sched", "src", "predefined", "TestBody", {1, 1, 1, 1, 1});
  Expect(e, "vek-diag", "src", "predefined", "TestBody", {0, 0, 0, 0, 1});
  Expect(e, "vek-ipc", "src", "predefined", "TestBody", {0, 1, 1, 1, 1});
  Expect(e, "vek-sched", "src", "predefined", "TestBody", {0, 0, 0, 0, 1});
  // TestConfigurationUpdate: vek-ipc updated to 24.
  Expect(e, "vek-diag", "src", "predefined", "TestBody", {0, 0, 0, 0, 1});
  Expect(e, "vek-ipc", "src", "predefined", "TestBody", {0, 0, 0, 1, 1});
  Expect(e, "vek-sched", "src", "predefined", "TestBody", {0, 0, 0, 0, 1});
  // TestMsgLogsInHdr and TestMsgLogsInSrc: each family at 31, then at 0.
  Expect(e, "vek-diag", "hdr", "predefined", "TestPredefGrpMsgLogsInHeader",
         {1, 1, 1, 1, 1});
  Expect(e, "VEK_UT_DIAG", "hdr", "custom", "TestCustGrpMsgLogsInHeader",
         {1, 1, 1, 1, 1});
  Expect(e, "vek-diag", "src", "predefined", "TestMsgLogs", {1, 1, 1, 1, 1});
  Expect(e, "VEK_UT_DIAG", "src", "custom", "TestMsgLogsCustom",
         {1, 1, 1, 1, 1});
  // TestCustomGroups: "VEK_UT_DIAG" exists, so seven more tags fit.
  for (int i = 0; i < 7; ++i) {
    Expect(e, "TAG_" + std::to_string(i), "src", "custom", "TestBody",
           {1, 1, 1, 1, 1});
  }
  // TestConfigurationCustom: 31, then 16, then 30.
  Expect(e, "VEK_UT_DIAG", "src", "custom", "TestBody", {1, 1, 1, 1, 1});
  Expect(e, "VEK_UT_DIAG", "src", "custom", "TestBody", {0, 0, 0, 0, 1});
  Expect(e, "VEK_UT_DIAG", "src", "custom", "TestBody", {0, 1, 1, 1, 1});
  // TestConfigurationUpdateCustom: updated to 24.
  Expect(e, "VEK_UT_DIAG", "src", "custom", "TestBody", {0, 0, 0, 1, 1});
  return e;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::map<Key, int> written;
  int suppressed = 0;
  int suites_result;
  {
    vek_test::LogCapture capture;
    suites_result = RUN_ALL_TESTS();
    for (const vek_test::LogLine& line : capture.lines()) {
      if (line.text.find("(EXPECT: SUPPRESSED") != std::string::npos) {
        std::printf("written although claimed suppressed: [%d %s] %s\n",
                    line.priority, line.tag.c_str(), line.text.c_str());
        ++suppressed;
      } else if (line.text.find("(EXPECT: ") != std::string::npos) {
        ++written[Key(line.priority, line.tag, line.text)];
      }
    }
  }

  const std::map<Key, int> expected = ExpectedVisibleLines();
  int wrong = 0;
  int visible = 0;
  for (const auto& [key, count] : expected) {
    visible += count;
    const auto found = written.find(key);
    const int seen = found == written.end() ? 0 : found->second;
    if (seen != count) {
      std::printf("expected %d, written %d: [%d %s] %s\n", count, seen,
                  std::get<0>(key), std::get<1>(key).c_str(),
                  std::get<2>(key).c_str());
      ++wrong;
    }
  }
  for (const auto& [key, count] : written) {
    if (expected.count(key) == 0) {
      std::printf("not claimed visible, written %d: [%d %s] %s\n", count,
                  std::get<0>(key), std::get<1>(key).c_str(),
                  std::get<2>(key).c_str());
      ++wrong;
    }
  }
  const bool ok = suites_result == 0 && wrong == 0 && suppressed == 0;
  std::printf(
      "claims: %d visible lines in %zu forms expected, %d wrong, %d "
      "suppressed lines written\n",
      visible, expected.size(), wrong, suppressed);
  std::printf("%d passed, %d failed\n", ok ? 1 : 0, ok ? 0 : 1);
  return ok ? 0 : 1;
}
