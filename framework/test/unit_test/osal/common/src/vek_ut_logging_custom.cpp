// Custom log groups: creation under any tag up to the limit of eight, the
// custom group manager, configuration updates aimed at a custom group, and
// the custom forms of the entry/exit and scoped lines.
//
// Every case starts with exactly one custom group, "VEK_UT_DIAG": SetUp
// creates it and TearDown clears all custom groups.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "vek_ut_logging.h"

namespace zov_vek_unit_test {

using zov_vek::CustomLogGroupManager;
using zov_vek::HandleLogConfigUpdate;
using zov_vek::LogConfigTargetGroup;
using zov_vek::LogConfigUpdate;
using zov_vek::Logger;
using zov_vek::LogScoped;
using zov_vek::VekError;

namespace {

void Info(const char* text) {
  __android_log_print(ANDROID_LOG_INFO, kCustomTag, "%s", text);
}

VekError TestLogEntryExit1() {
  LOG_ENTRY(kCustomTag);
  LOG_ENTRY_ARGS(kCustomTag, "Function entry log with args: %d", 1234);
  LOG_EXIT_ARGS(kCustomTag, "Function exit log with args: %dd", 1234);
  LOG_EXIT(kCustomTag);
  return VekError::kOk;
}

VekError TestLogEntryExit2() {
  LOG_EXIT_RET(kCustomTag, 0);
  LOG_EXIT(kCustomTag);
  return VekError::kOk;
}

int TestLogEntryExit3() {
  LOG_EXIT_RET(kCustomTag, 0);
  return 0;
}

VekError TestLogScoped() {
  LogScoped scope("TestLogScoped", kCustomTag);
  { LogScoped inner("Scoped log!", kCustomTag); }
  return VekError::kOk;
}

void TestLogRetIfNull1() {
  int* ptr = nullptr;
  RETURN_IF_NULL(kCustomTag, ptr);
  ADD_FAILURE() << "RETURN_IF_NULL did not return on a null pointer";
}

VekError TestLogRetIfNull2() {
  int* ptr = nullptr;
  const VekError ret = VekError::kOk;
  RETURN_VALUE_IF_NULL(kCustomTag, ptr, ret);
  return VekError::kErr;
}

}  // namespace

class DiagCustomTests : public testing::Test {
 protected:
  void SetUp() override {
    EXPECT_EQ(VekError::kOk,
              Logger::GetLogger().SetLogLevelMask(kCustomTag, 31));
  }
  void TearDown() override {
    EXPECT_EQ(VekError::kOk, Logger::GetLogger().ClearCustomGroups());
  }
};

TEST_F(DiagCustomTests, TestHelperFunctionsCustom) {
  EXPECT_EQ(VekError::kOk,
            Logger::GetLogger().SetLogLevelMask("VEK_UT_DIAG", 31));
  EXPECT_EQ(31u, Logger::GetLogger().GetLogLevelMask("VEK_UT_DIAG"));
  EXPECT_EQ(VekError::kOk, TestLogEntryExit1());
  EXPECT_EQ(VekError::kOk, TestLogEntryExit2());
  EXPECT_EQ(0, TestLogEntryExit3());
  EXPECT_EQ(VekError::kOk, TestLogScoped());
  TestLogRetIfNull1();
  EXPECT_EQ(VekError::kOk, TestLogRetIfNull2());
}

TEST_F(DiagCustomTests, TestCustomGroups) {
  Logger& logger = Logger::GetLogger();
  char tag_buf[32];
  unsigned int added = 0;
  while (logger.CustomGroupCount() < Logger::kMaxCustomLogGroups) {
    std::snprintf(tag_buf, sizeof(tag_buf), "TAG_%u", added);
    EXPECT_EQ(VekError::kOk, logger.SetLogLevelMask(tag_buf, 31));
    EXPECT_EQ(31u, logger.GetLogLevelMask(tag_buf));
    UT_SRC_CUSTOM(tag_buf, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                  UT_VISIBLE);
    ++added;
  }
  __android_log_print(ANDROID_LOG_INFO, kCustomTag,
                      "Custom groups added: %u, max: %u.", added,
                      Logger::kMaxCustomLogGroups);
  std::snprintf(tag_buf, sizeof(tag_buf), "TAG_%u", added);
  const VekError err = logger.SetLogLevelMask(tag_buf, 31);
  EXPECT_NE(VekError::kOk, err);
  if (err == VekError::kOk) {
    Info("Successfully added new custom group (unexpected result!)!");
  }
}

TEST_F(DiagCustomTests, TestConfigurationCustom) {
  Info("Updating custom group log masks...");
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMaskAllGroups(31));
  UT_SRC_CUSTOM(kCustomTag, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                UT_VISIBLE);

  Info("Updating custom group log masks...");
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMaskAllGroups(16));
  UT_SRC_CUSTOM(kCustomTag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                UT_SUPPRESSED, UT_VISIBLE);

  Info("Updating custom group log masks...");
  __android_log_print(ANDROID_LOG_INFO, kCustomTag,
                      "Updating log masks for custom group: %s.", kCustomTag);
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMask(kCustomTag, 30));
  UT_SRC_CUSTOM(kCustomTag, UT_SUPPRESSED, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                UT_VISIBLE);
}

TEST_F(DiagCustomTests, TestConfigurationUpdateCustom) {
  Info("Updating custom group log masks...");
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMaskAllGroups(16))
      << "Failed to update log masks!";
  static std::pair<LogConfigUpdate, LogConfigTargetGroup> config_pair =
      std::make_pair(LogConfigUpdate{0, 24, 0},
                     LogConfigTargetGroup{1, "VEK_UT_DIAG"});
  Info("Log config update!");
  EXPECT_EQ(VekError::kOk, HandleLogConfigUpdate(config_pair))
      << "Failed to update log config!";
  UT_SRC_CUSTOM(kCustomTag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                UT_VISIBLE, UT_VISIBLE);
}

}  // namespace zov_vek_unit_test
