// Every logging test starts from the same process-wide state: no custom
// groups, every mask and the custom default at `kStartMask`, log captured.
#ifndef TESTS_LOGGING_LOGGER_FIXTURE_H_
#define TESTS_LOGGING_LOGGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>

#include "logging/vek_logger.h"
#include "vek_log_capture.h"

namespace vek_test {

constexpr uint32_t Bit(zov_vek::Logger::Level level) { return 1u << level; }
constexpr uint32_t kAll = 31;

class LoggerTest : public testing::Test {
 protected:
  static constexpr uint32_t kStartMask = 0;

  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    zov_vek::Logger& logger = zov_vek::Logger::GetLogger();
    ASSERT_EQ(zov_vek::VekError::kOk, logger.ClearCustomGroups());
    ASSERT_EQ(zov_vek::VekError::kOk, logger.SetLogLevelMask("*", kStartMask));
  }

  zov_vek::Logger& logger_ = zov_vek::Logger::GetLogger();
  LogCapture capture_;
};

}  // namespace vek_test

#endif  // TESTS_LOGGING_LOGGER_FIXTURE_H_
