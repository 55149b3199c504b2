// ScopedMutex: the mutex is free again after the scope, and other threads
// wait for it while the scope lasts.
#include <gtest/gtest.h>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "osal/vek_scoped_mutex.h"
#include "vek_ut_osal.h"

namespace zov_vek_unit_test {

using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;
using zov_vek::ScopedMutex;

class ScopedOsalMutexTest : public testing::Test {
 protected:
  static constexpr unsigned int kThreadStackSize = 16384;

  void SetUp() override {
    EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetName(attr_, "osalscopedmutex"), VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetStackSize(attr_, kThreadStackSize),
              VekError::kOk);
    EXPECT_EQ(OsalMutexInit(&mutex_), VekError::kOk);
  }

  void TearDown() override {
    EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
    EXPECT_EQ(OsalMutexDestroy(mutex_), VekError::kOk);
  }

  void* attr_ = nullptr;
  void* mutex_ = nullptr;
};

namespace {

constexpr int kInitial = 5;
constexpr int kMultiplier = 5;
constexpr int kIncrement = 1;
constexpr int kNumberOfThreads = 4;

struct SharedValue {
  void* mutex;
  int value;
};

void IncrementUnderScopedMutex(void* arg) {
  auto* record = static_cast<SharedValue*>(arg);
  ScopedMutex lock(record->mutex);
  record->value += kIncrement;
}

}  // namespace

TEST_F(ScopedOsalMutexTest, UnlockOnExit) {
  { ScopedMutex lock(mutex_); }
  EXPECT_EQ(OsalMutexLock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
}

TEST_F(ScopedOsalMutexTest, OtherThreadAccess) {
  SharedValue record = {mutex_, kInitial};
  void* threads[kNumberOfThreads] = {};
  {
    ScopedMutex lock(record.mutex);
    for (void*& thread : threads) {
      OsalThreadCreate(&thread, attr_, IncrementUnderScopedMutex, &record);
    }
    // Every worker waits for the mutex, so none has added anything yet.
    record.value *= kMultiplier;
    EXPECT_EQ(record.value, kInitial * kMultiplier);
  }
  for (void* thread : threads) {
    OsalThreadJoin(thread);
  }
  EXPECT_EQ(record.value,
            (kInitial * kMultiplier) + (kIncrement * kNumberOfThreads));
}

}  // namespace zov_vek_unit_test
