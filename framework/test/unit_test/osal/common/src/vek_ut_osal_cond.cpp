// Condition variables: refusals, a signal to one waiter, and a broadcast
// that must wake every waiter.
#include <gtest/gtest.h>

#include "logging/vek_log.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "vek_ut_osal.h"

namespace zov_vek_unit_test {

using zov_vek::OsalCondBroadcast;
using zov_vek::OsalCondDestroy;
using zov_vek::OsalCondInit;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;

class OsalCondTest : public OsalThreadedTest {
 protected:
  void* cond_ = nullptr;
};

namespace {

struct BasicParams {
  void* thread = nullptr;
  void* cond = nullptr;
  void* mutex = nullptr;
  void* sem = nullptr;
  bool condition_met = false;
};

void BasicWorker(void* arg) {
  auto* tp = static_cast<BasicParams*>(arg);
  EXPECT_EQ(OsalSemPost(tp->sem), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(tp->mutex), VekError::kOk);
  while (!tp->condition_met) {
    EXPECT_EQ(OsalCondWait(tp->cond, tp->mutex), VekError::kOk);
  }
  EXPECT_EQ(OsalMutexUnlock(tp->mutex), VekError::kOk);
}

struct SharedParams {
  void* mutex = nullptr;
  void* cond = nullptr;
  bool condition_met = false;
};

struct ThreadParams {
  SharedParams* sp = nullptr;
  void* sem = nullptr;
  void* thread = nullptr;
};

constexpr int kNumberOfThreads = 5;

void BroadcastWorker(void* arg) {
  auto* tp = static_cast<ThreadParams*>(arg);
  SharedParams* sp = tp->sp;
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "worker thread started, tp=%p", arg);
  EXPECT_EQ(OsalSemPost(tp->sem), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(sp->mutex), VekError::kOk);
  while (!sp->condition_met) {
    EXPECT_EQ(OsalCondWait(sp->cond, sp->mutex), VekError::kOk);
  }
  EXPECT_EQ(OsalMutexUnlock(sp->mutex), VekError::kOk);
}

}  // namespace

TEST_F(OsalCondTest, NullHandles) {
  EXPECT_NE(OsalCondInit(nullptr), VekError::kOk);
  EXPECT_NE(OsalCondDestroy(nullptr), VekError::kOk);
  EXPECT_NE(OsalCondWait(nullptr, nullptr), VekError::kOk);
  EXPECT_NE(OsalCondBroadcast(nullptr), VekError::kOk);
  EXPECT_NE(OsalCondSignal(nullptr), VekError::kOk);
}

TEST_F(OsalCondTest, Basic) {
  BasicParams tp;
  EXPECT_EQ(OsalCondInit(&cond_), VekError::kOk);
  // Nobody waits yet: both must still succeed.
  EXPECT_EQ(OsalCondSignal(cond_), VekError::kOk);
  EXPECT_EQ(OsalCondBroadcast(cond_), VekError::kOk);

  EXPECT_EQ(OsalMutexInit(&tp.mutex), VekError::kOk);
  EXPECT_EQ(OsalSemInit(&tp.sem, 0), VekError::kOk);
  tp.cond = cond_;
  EXPECT_EQ(OsalThreadCreate(&tp.thread, attr_, BasicWorker, &tp),
            VekError::kOk);

  EXPECT_EQ(OsalSemWait(tp.sem), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(tp.mutex), VekError::kOk);
  tp.condition_met = true;
  EXPECT_EQ(OsalCondSignal(cond_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(tp.mutex), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(tp.thread), VekError::kOk);

  EXPECT_EQ(OsalSemDestroy(tp.sem), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(tp.mutex), VekError::kOk);
  EXPECT_EQ(OsalCondDestroy(cond_), VekError::kOk);
}

TEST_F(OsalCondTest, BroadcastWakesAllThreads) {
  SharedParams sp;
  ThreadParams tps[kNumberOfThreads];
  ASSERT_EQ(OsalCondInit(&sp.cond), VekError::kOk);
  ASSERT_EQ(OsalMutexInit(&sp.mutex), VekError::kOk);

  // One at a time, each confirmed running before the next starts.
  for (ThreadParams& tp : tps) {
    tp.sp = &sp;
    EXPECT_EQ(OsalSemInit(&tp.sem, 0), VekError::kOk);
    LOG_CUSTOM_DEBUG(kOsalUtLogTag, "starting thread with tp=%p",
                     static_cast<void*>(&tp));
    EXPECT_EQ(OsalThreadCreate(&tp.thread, attr_, BroadcastWorker, &tp),
              VekError::kOk);
    EXPECT_EQ(OsalSemWait(tp.sem), VekError::kOk);
    LOG_CUSTOM_DEBUG(kOsalUtLogTag, "thread started");
  }

  EXPECT_EQ(OsalMutexLock(sp.mutex), VekError::kOk);
  sp.condition_met = true;
  EXPECT_EQ(OsalCondBroadcast(sp.cond), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(sp.mutex), VekError::kOk);

  // Every join returns only if the one broadcast woke every waiter.
  for (ThreadParams& tp : tps) {
    EXPECT_EQ(OsalThreadJoin(tp.thread), VekError::kOk);
    EXPECT_EQ(OsalSemDestroy(tp.sem), VekError::kOk);
  }

  ASSERT_EQ(OsalCondDestroy(sp.cond), VekError::kOk);
  ASSERT_EQ(OsalMutexDestroy(sp.mutex), VekError::kOk);
}

}  // namespace zov_vek_unit_test
