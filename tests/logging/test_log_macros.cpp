// What the log statements write: exact priority, tag and text, and only
// when the group's mask enables the level.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logger_fixture.h"
#include "logging/vek_log.h"
#include "logging/vek_logger.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::LogScoped;
using zov_vek::PredefinedGroup;
using zov_vek::VekError;

constexpr PredefinedGroup kDiag = PredefinedGroup::kDiag;

TEST_F(LoggerTest, LevelsMapToPrioritiesAndOnlyErrorsNameTheFunction) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask(kDiag, kAll));
  LOG_VERBOSE(kDiag, "v %d", 1);
  LOG_DEBUG(kDiag, "d %s", "x");
  LOG_INFO(kDiag, "i");
  LOG_WARNING(kDiag, "w %u", 3u);
  LOG_ERROR(kDiag, "e %d", 4);
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_VERBOSE, "vek-diag", "v 1"},
      {ANDROID_LOG_DEBUG, "vek-diag", "d x"},
      {ANDROID_LOG_INFO, "vek-diag", "i"},
      {ANDROID_LOG_WARN, "vek-diag", "w 3"},
      {ANDROID_LOG_ERROR, "vek-diag", "TestBody() e 4"},
  };
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, ErrorOnlyMaskWritesOnlyTheErrorLine) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask(kDiag, Bit(Logger::kError)));
  LOG_INFO(kDiag, "x %u", 1u);
  LOG_ERROR(kDiag, "x %u", 1u);
  LOG_ERROR(PredefinedGroup::kIpc, "other group %u", 1u);
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_ERROR, "vek-diag", "TestBody() x 1"}};
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, CustomStatementsCreateTheirGroupAndUseItsMask) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", Bit(Logger::kWarning)));
  LOG_CUSTOM_WARNING("fresh-tag", "w %d", 1);
  LOG_CUSTOM_ERROR("fresh-tag", "e %d", 2);
  EXPECT_EQ(1u, logger_.CustomGroupCount());
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("fresh-tag", kAll));
  const std::string tag = "fresh-tag";
  LOG_CUSTOM_ERROR(tag, "e %d", 3);
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_WARN, "fresh-tag", "w 1"},
      {ANDROID_LOG_ERROR, "fresh-tag", "TestBody() e 3"},
  };
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, StatementsAreSingleStatements) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask(kDiag, kAll));
  const bool flag = false;
  if (flag)
    LOG_INFO(kDiag, "then");
  else
    LOG_INFO(kDiag, "else");
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-diag", "else"}};
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, EntryAndExitLines) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", Bit(Logger::kInfo)));
  LOG_ENTRY(kDiag);
  LOG_ENTRY_ARGS("VEK_UT_DIAG", "a=%d", 7);
  LOG_EXIT_ARGS(kDiag, "b=%s", "z");
  LOG_EXIT("VEK_UT_DIAG");
  LOG_EXIT_RET(kDiag, -3);
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-diag", ">> enter "},
      {ANDROID_LOG_INFO, "VEK_UT_DIAG", ">> enter a=7"},
      {ANDROID_LOG_INFO, "vek-diag", "<< exit b=z"},
      {ANDROID_LOG_INFO, "VEK_UT_DIAG", "<< exit "},
      {ANDROID_LOG_INFO, "vek-diag", "<< exit, returns -3"},
  };
  EXPECT_EQ(expected, capture_.lines());
}

int ReturnsThroughNullCheck(const int* ptr) {
  const int ret = -1;
  RETURN_VALUE_IF_NULL(PredefinedGroup::kOsal, ptr, ret);
  return *ptr;
}

bool reached_end = false;
void VoidNullCheck(const int* ptr) {
  RETURN_IF_NULL("VEK_UT_DIAG", ptr);
  reached_end = true;
}

TEST_F(LoggerTest, ReturnIfNullReturnsWhateverTheMaskSays) {
  const int value = 5;
  EXPECT_EQ(5, ReturnsThroughNullCheck(&value));
  EXPECT_EQ(-1, ReturnsThroughNullCheck(nullptr));  // mask 0: silent return
  reached_end = false;
  VoidNullCheck(&value);
  EXPECT_TRUE(reached_end);
  EXPECT_TRUE(capture_.lines().empty());

  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", Bit(Logger::kError)));
  EXPECT_EQ(-1, ReturnsThroughNullCheck(nullptr));
  reached_end = false;
  VoidNullCheck(nullptr);
  EXPECT_FALSE(reached_end);
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_ERROR, "vek-osal",
       "ReturnsThroughNullCheck() ptr is null. Returning: ret"},
      {ANDROID_LOG_ERROR, "VEK_UT_DIAG",
       "VoidNullCheck() ptr is null. Returning."},
  };
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, ScopedLinesNestAndFollowTheMaskOfTheMoment) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask(kDiag, Bit(Logger::kInfo)));
  ASSERT_EQ(VekError::kOk,
            logger_.SetLogLevelMask("scope", Bit(Logger::kInfo)));
  {
    LogScoped outer("Outer", kDiag);
    {
      LogScoped inner("Scoped log!", "scope");
      ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("scope", 0));
    }
  }
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-diag", ">> Outer()"},
      {ANDROID_LOG_INFO, "scope", ">> Scoped log!()"},
      {ANDROID_LOG_INFO, "vek-diag", "<< Outer()"},
  };
  EXPECT_EQ(expected, capture_.lines());
}

TEST_F(LoggerTest, ScopedLineOfAGroupPastTheTableWritesNothing) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", kAll));
  { LogScoped scope("Nowhere", static_cast<PredefinedGroup>(16)); }
  { LogScoped scope("Unassigned", PredefinedGroup::kUnassigned); }
  const std::vector<LogLine> expected = {
      {ANDROID_LOG_INFO, "vek-unassigned", ">> Unassigned()"},
      {ANDROID_LOG_INFO, "vek-unassigned", "<< Unassigned()"},
  };
  EXPECT_EQ(expected, capture_.lines());
}

}  // namespace
}  // namespace vek_test
