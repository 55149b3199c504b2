// What the entry, exit, scoped and return-if-null statements write, as it
// reaches liblog: priority, tag and text, and only while the group's mask
// enables their level at that moment. The plain statements, the group
// table and the managers are held to a model by the logger's fuzz target,
// whose corpus runs as a test; the contract executable holds the masks.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "vek_log_capture.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::LogScoped;
using zov_vek::PredefinedGroup;
using zov_vek::VekError;

constexpr PredefinedGroup kDiag = PredefinedGroup::kDiag;
constexpr uint32_t kInfoAndError =
    (1u << Logger::kInfo) | (1u << Logger::kError);

// Every case starts and ends with no custom groups and every mask 0.
class LogStatementTest : public testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    ASSERT_EQ(VekError::kOk, Logger::GetLogger().ClearCustomGroups());
    ASSERT_EQ(VekError::kOk, Logger::GetLogger().SetLogLevelMask("*", 0));
  }
};

int ValueOrMinusOne(const int* ptr) {
  RETURN_VALUE_IF_NULL(PredefinedGroup::kOsal, ptr, -1);
  return *ptr;
}

bool reached_end = false;
void SetsFlagUnlessNull(const int* ptr) {
  RETURN_IF_NULL("VEK_UT_DIAG", ptr);
  reached_end = true;
}

// Each kind of statement once, predefined and custom groups mixed. The
// null checks return whatever the mask says.
void WriteEveryKind() {
  LOG_ENTRY(kDiag);
  LOG_ENTRY_ARGS("VEK_UT_DIAG", "a=%d", 7);
  LOG_EXIT_ARGS(kDiag, "b=%s", "z");
  LOG_EXIT("VEK_UT_DIAG");
  LOG_EXIT_RET(kDiag, -3);
  const int five = 5;
  EXPECT_EQ(5, ValueOrMinusOne(&five));
  EXPECT_EQ(-1, ValueOrMinusOne(nullptr));
  reached_end = false;
  SetsFlagUnlessNull(nullptr);
  EXPECT_FALSE(reached_end);
  {
    LogScoped outer("Outer", kDiag);
    LogScoped inner("Inner", "scope");
    // The exit line follows the mask as it is when the scope ends.
    ASSERT_EQ(VekError::kOk, Logger::GetLogger().SetLogLevelMask("scope", 0));
  }
  // A value past the group table has no mask, and the last group is in it.
  { LogScoped nowhere("Nowhere", static_cast<PredefinedGroup>(16)); }
  { LogScoped last("Last", PredefinedGroup::kUnassigned); }
}

TEST_F(LogStatementTest, EachKindWritesItsLineOnlyWhileItsLevelIsEnabled) {
  LogCapture capture;
  WriteEveryKind();
  EXPECT_TRUE(capture.lines().empty());

  ASSERT_EQ(VekError::kOk,
            Logger::GetLogger().SetLogLevelMask("*", kInfoAndError));
  capture.Take();
  WriteEveryKind();
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-diag", ">> enter "},
      {ANDROID_LOG_INFO, "VEK_UT_DIAG", ">> enter a=7"},
      {ANDROID_LOG_INFO, "vek-diag", "<< exit b=z"},
      {ANDROID_LOG_INFO, "VEK_UT_DIAG", "<< exit "},
      {ANDROID_LOG_INFO, "vek-diag", "<< exit, returns -3"},
      {ANDROID_LOG_ERROR, "vek-osal",
       "ValueOrMinusOne() ptr is null. Returning: -1"},
      {ANDROID_LOG_ERROR, "VEK_UT_DIAG",
       "SetsFlagUnlessNull() ptr is null. Returning."},
      {ANDROID_LOG_INFO, "vek-diag", ">> Outer()"},
      {ANDROID_LOG_INFO, "scope", ">> Inner()"},
      {ANDROID_LOG_INFO, "vek-diag", "<< Outer()"},
      {ANDROID_LOG_INFO, "vek-unassigned", ">> Last()"},
      {ANDROID_LOG_INFO, "vek-unassigned", "<< Last()"},
  };
  EXPECT_EQ(expected, capture.lines());
}

TEST_F(LogStatementTest, StatementsAreSingleStatements) {
  ASSERT_EQ(VekError::kOk, Logger::GetLogger().SetLogLevelMask(kDiag, 31));
  LogCapture capture;
  const bool flag = false;
  if (flag)
    LOG_INFO(kDiag, "then");
  else
    LOG_INFO(kDiag, "else");
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-diag", "else"}};
  EXPECT_EQ(expected, capture.lines());
}

// Only a tag equal to a predefined one reaches its group; near misses are
// custom groups of their own.
TEST_F(LogStatementTest, TagsThatResembleAPredefinedTagAreCustomGroups) {
  for (const char* tag : {"vek-ip", "vek-ipc ", "VEK-IPC", "vek-"}) {
    EXPECT_EQ(VekError::kOk, Logger::GetLogger().SetLogLevelMask(tag, 3))
        << tag;
  }
  EXPECT_EQ(0u, Logger::GetLogger().GetLogLevelMask(PredefinedGroup::kIpc));
  EXPECT_EQ(4u, Logger::GetLogger().CustomGroupCount());
}

}  // namespace
}  // namespace vek_test
