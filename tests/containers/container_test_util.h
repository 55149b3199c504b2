// Shared pieces of the container tests: a fixture that owns the kOsal mask
// and a liblog capture for the length of a case, and the expected lines.
#ifndef TESTS_CONTAINERS_CONTAINER_TEST_UTIL_H_
#define TESTS_CONTAINERS_CONTAINER_TEST_UTIL_H_

#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "logging/vek_logger.h"
#include "vek_log_capture.h"

namespace vek_test {

constexpr uint32_t LevelBit(zov_vek::Logger::Level level) {
  return 1u << level;
}

inline std::string StringPrintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
inline std::string StringPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) vsnprintf(&text[0], text.size() + 1, format, args);
  va_end(args);
  return text;
}

// An error line of the containers' log group.
inline LogLine OsalError(const std::string& text) {
  return LogLine{ANDROID_LOG_ERROR, "vek-osal", text};
}
inline LogLine OsalInfo(const std::string& text) {
  return LogLine{ANDROID_LOG_INFO, "vek-osal", text};
}

// Captures liblog for the case and sets the kOsal mask to kMask, putting
// the previous mask back afterwards.
template <uint32_t kMask>
class OsalLogTestBase : public testing::Test {
 protected:
  void SetUp() override {
    saved_mask_ = logger().GetLogLevelMask(zov_vek::PredefinedGroup::kOsal);
    SetOsalMask(kMask);
  }
  void TearDown() override {
    logger().SetLogLevelMask(zov_vek::PredefinedGroup::kOsal, saved_mask_);
  }

  static zov_vek::Logger& logger() { return zov_vek::Logger::GetLogger(); }
  static void SetOsalMask(uint32_t mask) {
    ASSERT_EQ(zov_vek::VekError::kOk,
              logger().SetLogLevelMask(zov_vek::PredefinedGroup::kOsal, mask));
  }

  // The lines recorded since the last call, which clears them.
  std::vector<LogLine> TakeLines() {
    std::vector<LogLine> lines = capture_.lines();
    capture_.Clear();
    return lines;
  }

  LogCapture capture_;
  uint32_t saved_mask_ = 0;
};

using OsalErrorLogTest = OsalLogTestBase<LevelBit(zov_vek::Logger::kError)>;
using OsalInfoLogTest = OsalLogTestBase<LevelBit(zov_vek::Logger::kError) |
                                        LevelBit(zov_vek::Logger::kInfo)>;

}  // namespace vek_test

#endif  // TESTS_CONTAINERS_CONTAINER_TEST_UTIL_H_
