// ScopedMutex's two error lines, exactly as they reach the system log, and
// its behaviour on a working mutex.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "osal/vek_scoped_mutex.h"
#include "vek_log_capture.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexTryLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalThreadAttrDestroy;
using zov_vek::OsalThreadAttrInit;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStackSize;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;
using zov_vek::PredefinedGroup;
using zov_vek::ScopedMutex;
using zov_vek::VekError;

const LogLine kLockFailed = {
    ANDROID_LOG_ERROR, "vek-osal",
    "ScopedMutex() Failed to lock mutex in ScopedMutex constructor"};
const LogLine kUnlockFailed = {
    ANDROID_LOG_ERROR, "vek-osal",
    "~ScopedMutex() Failed to unlock mutex in ScopedMutex destructor"};

// Sets the kOsal group's mask for one test and puts the old one back.
class OsalMask {
 public:
  explicit OsalMask(uint32_t mask)
      : saved_(Logger::GetLogger().GetLogLevelMask(PredefinedGroup::kOsal)) {
    Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kOsal, mask);
  }
  ~OsalMask() {
    Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kOsal, saved_);
  }

 private:
  uint32_t saved_;
};

constexpr uint32_t kErrorOnly = 1u << Logger::kError;
constexpr uint32_t kAllButError = 0x1f & ~kErrorOnly;

TEST(ScopedMutexTest, NullHandleWritesBothLinesInOrder) {
  OsalMask mask(kErrorOnly);
  LogCapture capture;
  { ScopedMutex lock(nullptr); }
  const std::vector<LogLine> expected = {kLockFailed, kUnlockFailed};
  EXPECT_EQ(capture.lines(), expected);
}

TEST(ScopedMutexTest, NullHandleIsSilentWithoutTheErrorLevel) {
  // Every other level enabled: the lines are error lines and nothing else.
  OsalMask mask(kAllButError);
  LogCapture capture;
  { ScopedMutex lock(nullptr); }
  EXPECT_TRUE(capture.lines().empty());
}

void TryLockFails(void* mutex) {
  EXPECT_NE(OsalMutexTryLock(mutex), VekError::kOk);
}

void TryLockOnOtherThread(void* mutex, void (*func)(void*)) {
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, "scoped_probe"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr, func, mutex), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

TEST(ScopedMutexTest, HoldsAWorkingMutexForTheScopeAndLogsNothing) {
  OsalMask mask(kErrorOnly);
  void* mutex = nullptr;
  ASSERT_EQ(OsalMutexInit(&mutex), VekError::kOk);
  LogCapture capture;
  {
    ScopedMutex lock(mutex);
    TryLockOnOtherThread(mutex, TryLockFails);
  }
  EXPECT_EQ(OsalMutexTryLock(mutex), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex), VekError::kOk);
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(OsalMutexDestroy(mutex), VekError::kOk);
}

}  // namespace
}  // namespace vek_test
