// Predefined log groups: masks, the group managers, configuration updates,
// entry/exit and scoped lines, and the sample lines of every level.
//
// The cases share the process-wide logger, so each starts from the masks
// that the previous one left; the claims of the sample lines hold for the
// order in which the cases are registered.
#include <android/log.h>
#include <gtest/gtest.h>

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
using zov_vek::PredefinedGroup;
using zov_vek::PredefinedLogGroupManager;
using zov_vek::VekError;

namespace {

constexpr PredefinedGroup kDiag = PredefinedGroup::kDiag;
constexpr PredefinedGroup kIpc = PredefinedGroup::kIpc;
constexpr PredefinedGroup kSched = PredefinedGroup::kSched;

void Info(const char* text) {
  __android_log_print(ANDROID_LOG_INFO, kPredefinedInfoTag, "%s", text);
}

VekError TestLogEntryExit1() {
  LOG_ENTRY(kDiag);
  LOG_ENTRY_ARGS(kDiag, "Function entry log with args: %d", 1234);
  LOG_EXIT_ARGS(kDiag, "Function exit log with args: %d", 1234);
  LOG_EXIT(kDiag);
  return VekError::kOk;
}

VekError TestLogEntryExit2() {
  LOG_EXIT_RET(kDiag, 0);
  LOG_EXIT(kDiag);
  return VekError::kOk;
}

int TestLogEntryExit3() {
  LOG_EXIT_RET(kDiag, 0);
  return 0;
}

VekError TestLogScoped() {
  LogScoped scope("TestLogScoped", kDiag);
  { LogScoped inner("Scoped log!", kDiag); }
  return VekError::kOk;
}

void TestLogRetIfNull1() {
  int* ptr = nullptr;
  RETURN_IF_NULL(kDiag, ptr);
  ADD_FAILURE() << "RETURN_IF_NULL did not return on a null pointer";
}

VekError TestLogRetIfNull2() {
  int* ptr = nullptr;
  const VekError ret = VekError::kOk;
  RETURN_VALUE_IF_NULL(kDiag, ptr, ret);
  return VekError::kErr;
}

}  // namespace

VekError LogSampleWriter::TestMsgLogs() {
  unsigned int failures = 0;
  auto set = [](uint32_t mask) {
    return Logger::GetLogger().SetLogLevelMask(kDiag, mask);
  };
  auto get = [] { return Logger::GetLogger().GetLogLevelMask(kDiag); };
  failures += SetAndCheck(kPredefinedInfoTag, kAllLevels, set, get);
  UT_SRC_PREDEFINED(kDiag, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                    UT_VISIBLE);
  failures += SetAndCheck(kPredefinedInfoTag, kNoLevels, set, get);
  UT_SRC_PREDEFINED(kDiag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_SUPPRESSED, UT_SUPPRESSED);
  return failures == 0 ? VekError::kOk : VekError::kErr;
}

VekError LogSampleWriter::TestMsgLogsCustom() {
  unsigned int failures = 0;
  const std::string tag(kCustomTag);
  auto set = [&tag](uint32_t mask) {
    return Logger::GetLogger().SetLogLevelMask(tag, mask);
  };
  auto get = [&tag] { return Logger::GetLogger().GetLogLevelMask(tag); };
  failures += SetAndCheck(kCustomTag, kAllLevels, set, get);
  UT_SRC_CUSTOM(kCustomTag, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                UT_VISIBLE);
  failures += SetAndCheck(kCustomTag, kNoLevels, set, get);
  UT_SRC_CUSTOM(kCustomTag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                UT_SUPPRESSED, UT_SUPPRESSED);
  return failures == 0 ? VekError::kOk : VekError::kErr;
}

TEST(DiagPredefTests, TestHelperFunctions) {
  EXPECT_EQ(VekError::kOk,
            Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kDiag, 31));
  EXPECT_EQ(31u, Logger::GetLogger().GetLogLevelMask(PredefinedGroup::kDiag));
  EXPECT_EQ(VekError::kOk, TestLogEntryExit1());
  EXPECT_EQ(VekError::kOk, TestLogEntryExit2());
  EXPECT_EQ(0, TestLogEntryExit3());
  EXPECT_EQ(VekError::kOk, TestLogScoped());
  TestLogRetIfNull1();
  EXPECT_EQ(VekError::kOk, TestLogRetIfNull2());
}

TEST(DiagPredefTests, TestConfiguration) {
  Info("Updating predefined group log masks...");
  EXPECT_EQ(VekError::kOk, PredefinedLogGroupManager::SetLogMaskAllGroups(31));
  UT_SRC_PREDEFINED(kDiag, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                    UT_VISIBLE);
  UT_SRC_PREDEFINED(kIpc, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                    UT_VISIBLE);
  UT_SRC_PREDEFINED(kSched, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                    UT_VISIBLE);

  Info("Updating predefined group log masks...");
  EXPECT_EQ(VekError::kOk, PredefinedLogGroupManager::SetLogMaskAllGroups(16));
  Info("Updating log mask for Ipc!");
  EXPECT_EQ(VekError::kOk,
            PredefinedLogGroupManager::SetLogMask(PredefinedGroup::kIpc, 30));
  UT_SRC_PREDEFINED(kDiag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_SUPPRESSED, UT_VISIBLE);
  UT_SRC_PREDEFINED(kIpc, UT_SUPPRESSED, UT_VISIBLE, UT_VISIBLE, UT_VISIBLE,
                    UT_VISIBLE);
  UT_SRC_PREDEFINED(kSched, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_SUPPRESSED, UT_VISIBLE);
}

TEST(DiagPredefTests, TestConfigurationUpdate) {
  Info("Updating predefined group log masks...");
  // The custom manager leaves the predefined masks as the previous case
  // set them.
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMaskAllGroups(16))
      << "Failed to update log masks!";
  static std::pair<LogConfigUpdate, LogConfigTargetGroup> config_pair =
      std::make_pair(LogConfigUpdate{0, 24, 0},
                     LogConfigTargetGroup{0, "vek-ipc"});
  Info("Log config update!");
  EXPECT_EQ(VekError::kOk, HandleLogConfigUpdate(config_pair))
      << "Failed to update log config!";
  UT_SRC_PREDEFINED(kDiag, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_SUPPRESSED, UT_VISIBLE);
  UT_SRC_PREDEFINED(kIpc, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_VISIBLE, UT_VISIBLE);
  UT_SRC_PREDEFINED(kSched, UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED,
                    UT_SUPPRESSED, UT_VISIBLE);
}

class VekDiagTest : public testing::Test {
 protected:
  LogSampleWriter common_test_obj_;
};

TEST_F(VekDiagTest, TestMsgLogsInHdr) {
  EXPECT_EQ(VekError::kOk, common_test_obj_.TestPredefGrpMsgLogsInHeader());
  EXPECT_EQ(VekError::kOk, common_test_obj_.TestCustGrpMsgLogsInHeader());
}

TEST_F(VekDiagTest, TestMsgLogsInSrc) {
  EXPECT_EQ(VekError::kOk, common_test_obj_.TestMsgLogs());
  EXPECT_EQ(VekError::kOk, common_test_obj_.TestMsgLogsCustom());
}

}  // namespace zov_vek_unit_test
