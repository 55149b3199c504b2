// ScopedMutex on a mutex it can neither lock nor unlock: its two error
// lines reach the system log exactly, under the kOsal group's error bit
// and no other. What it does with a working mutex the conformance suite
// holds.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_scoped_mutex.h"
#include "vek_log_capture.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::PredefinedGroup;
using zov_vek::VekError;

TEST(ScopedMutexTest, NullHandleWritesBothErrorLinesOnlyUnderTheErrorBit) {
  constexpr uint32_t kErrorOnly = 1u << Logger::kError;
  const std::vector<LogLine> both = {
      {ANDROID_LOG_ERROR, "vek-osal",
       "ScopedMutex() Failed to lock mutex in ScopedMutex constructor"},
      {ANDROID_LOG_ERROR, "vek-osal",
       "~ScopedMutex() Failed to unlock mutex in ScopedMutex destructor"}};
  Logger& logger = Logger::GetLogger();
  const uint32_t saved = logger.GetLogLevelMask(PredefinedGroup::kOsal);
  for (const uint32_t mask : {kErrorOnly, 31 & ~kErrorOnly}) {
    ASSERT_EQ(VekError::kOk,
              logger.SetLogLevelMask(PredefinedGroup::kOsal, mask));
    LogCapture capture;
    { zov_vek::ScopedMutex lock(nullptr); }
    EXPECT_EQ(capture.lines(),
              mask == kErrorOnly ? both : std::vector<LogLine>{})
        << "mask " << mask;
  }
  logger.SetLogLevelMask(PredefinedGroup::kOsal, saved);
}

}  // namespace
}  // namespace vek_test
