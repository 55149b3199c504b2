// The logger's group table: tags, the limit of eight custom groups, the
// tag-addressed getter that sees custom groups only, and the managers.
#include <gtest/gtest.h>

#include <string>

#include "logger_fixture.h"
#include "logging/vek_log.h"
#include "logging/vek_logger.h"

namespace vek_test {
namespace {

using zov_vek::CustomLogGroupManager;
using zov_vek::Logger;
using zov_vek::PredefinedGroup;
using zov_vek::PredefinedLogGroupManager;
using zov_vek::VekError;

PredefinedGroup Group(uint32_t value) {
  return static_cast<PredefinedGroup>(value);
}

void FillCustomGroups(Logger& logger) {
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(VekError::kOk,
              logger.SetLogLevelMask("TAG_" + std::to_string(i), 1));
  }
  ASSERT_EQ(8u, logger.CustomGroupCount());
}

TEST_F(LoggerTest, TagsFollowTheTableAndEndInUnassigned) {
  EXPECT_STREQ("vek-dependency", Logger::GetTag(Group(0)));
  EXPECT_STREQ("vek-ipc", Logger::GetTag(Group(7)));
  EXPECT_STREQ("vek-osal", Logger::GetTag(PredefinedGroup::kOsal));
  EXPECT_STREQ("vek-txn-data", Logger::GetTag(Group(14)));
  for (uint32_t value : {15u, 16u, 17u, 1000u, 0xffffffffu}) {
    EXPECT_STREQ("vek-unassigned", Logger::GetTag(Group(value))) << value;
  }
}

TEST_F(LoggerTest, TagAddressedGetterLooksAtCustomGroupsOnly) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("vek-ipc", 30));
  // The tag-addressed read looks only at custom groups: this makes a custom
  // group named "vek-ipc" with the default mask.
  EXPECT_EQ(kStartMask, logger_.GetLogLevelMask("vek-ipc"));
  EXPECT_EQ(1u, logger_.CustomGroupCount());
  EXPECT_EQ(30u, logger_.GetLogLevelMask(PredefinedGroup::kIpc));
  // Near misses of a predefined tag are custom groups.
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("vek-ip", 3));
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("vek-ipc ", 3));
  EXPECT_EQ(30u, logger_.GetLogLevelMask(PredefinedGroup::kIpc));
  EXPECT_EQ(3u, logger_.CustomGroupCount());
}

TEST_F(LoggerTest, PredefinedSetterRefusesValuesPastTheTable) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", 7));
  EXPECT_EQ(VekError::kErrParam, logger_.SetLogLevelMask(Group(16), 31));
  EXPECT_EQ(VekError::kErrParam, logger_.SetLogLevelMask(Group(1u << 30), 31));
  EXPECT_EQ(0u, logger_.GetLogLevelMask(Group(16)));
  for (uint32_t value = 0; value < 16; ++value) {
    EXPECT_EQ(7u, logger_.GetLogLevelMask(Group(value))) << value;
  }
}

TEST_F(LoggerTest, NinthCustomGroupIsRefusedOnSetReadAndLog) {
  FillCustomGroups(logger_);
  EXPECT_EQ(VekError::kErrParam, logger_.SetLogLevelMask("ninth", 31));
  EXPECT_EQ(0u, logger_.GetLogLevelMask("ninth"));
  LOG_CUSTOM_ERROR("ninth", "must not appear %d", 1);
  EXPECT_EQ(8u, logger_.CustomGroupCount());
  EXPECT_TRUE(capture_.lines().empty());
  // Existing groups still take new masks, predefined tags still work.
  EXPECT_EQ(VekError::kOk, logger_.SetLogLevelMask("TAG_3", 16));
  EXPECT_EQ(16u, logger_.GetLogLevelMask("TAG_3"));
  EXPECT_EQ(VekError::kOk, logger_.SetLogLevelMask("vek-rm", 16));
  EXPECT_EQ(16u, logger_.GetLogLevelMask(PredefinedGroup::kRm));
  // "*" is not a group and needs no room.
  EXPECT_EQ(VekError::kOk, logger_.SetLogLevelMask("*", 2));
  EXPECT_EQ(2u, logger_.GetLogLevelMask("TAG_7"));
}

TEST_F(LoggerTest, CustomManagerNeverCreatesGroups) {
  EXPECT_EQ(VekError::kErrParam,
            CustomLogGroupManager::SetLogMask("VEK_UT_DIAG", 31));
  EXPECT_EQ(0u, logger_.CustomGroupCount());
  EXPECT_EQ(kStartMask, logger_.GetLogLevelMask("VEK_UT_DIAG"));
  EXPECT_EQ(VekError::kOk,
            CustomLogGroupManager::SetLogMask("VEK_UT_DIAG", 31));
  EXPECT_EQ(31u, logger_.GetLogLevelMask("VEK_UT_DIAG"));

  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("other", 1));
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask(PredefinedGroup::kFw, 5));
  EXPECT_EQ(VekError::kOk, CustomLogGroupManager::SetLogMaskAllGroups(12));
  EXPECT_EQ(12u, logger_.GetLogLevelMask("VEK_UT_DIAG"));
  EXPECT_EQ(12u, logger_.GetLogLevelMask("other"));
  EXPECT_EQ(5u, logger_.GetLogLevelMask(PredefinedGroup::kFw));
  // The default for later groups is untouched.
  EXPECT_EQ(kStartMask, logger_.GetLogLevelMask("later"));
}

TEST_F(LoggerTest, PredefinedManagerSetsEveryPredefinedGroupOnly) {
  ASSERT_EQ(VekError::kOk, logger_.SetLogLevelMask("custom", 1));
  EXPECT_EQ(VekError::kOk, PredefinedLogGroupManager::SetLogMaskAllGroups(24));
  for (uint32_t value = 0; value < 16; ++value) {
    EXPECT_EQ(24u, logger_.GetLogLevelMask(Group(value))) << value;
  }
  EXPECT_EQ(1u, logger_.GetLogLevelMask("custom"));
  EXPECT_EQ(VekError::kOk,
            PredefinedLogGroupManager::SetLogMask(PredefinedGroup::kTxn, 3));
  EXPECT_EQ(3u, logger_.GetLogLevelMask(PredefinedGroup::kTxn));
  EXPECT_EQ(24u, logger_.GetLogLevelMask(PredefinedGroup::kTxnData));
}

}  // namespace
}  // namespace vek_test
