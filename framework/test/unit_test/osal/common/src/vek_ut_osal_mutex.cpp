// Mutexes: refusals, lock and try-lock from one thread, mutual exclusion of
// two threads, and a try-lock that must fail while another thread holds
// the mutex.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "vek_ut_osal.h"

namespace zov_vek_unit_test {

using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexTryLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;

class OsalMutexTest : public OsalThreadedTest {
 protected:
  void* mutex_ = nullptr;
};

namespace {

constexpr unsigned int kStopThread2 = 1060;

struct SharedParams {
  void* mutex = nullptr;
  void* thread1 = nullptr;
  void* thread2 = nullptr;
  std::vector<unsigned int> vec;
};

struct ThreadParams {
  unsigned int start;
  unsigned int stop;
  SharedParams* sp;
};

// Appends start..stop, one value per hold of the mutex, so that the two
// threads interleave as much as the scheduler lets them.
void AppendUnderMutex(void* arg) {
  auto* tp = static_cast<ThreadParams*>(arg);
  for (unsigned int i = tp->start; i <= tp->stop; ++i) {
    EXPECT_EQ(OsalMutexLock(tp->sp->mutex), VekError::kOk);
    tp->sp->vec.push_back(i);
    EXPECT_EQ(OsalMutexUnlock(tp->sp->mutex), VekError::kOk);
  }
}

struct TryLockParams {
  void* sem = nullptr;
  void* mutex = nullptr;
  void* thread = nullptr;
  // Read by the main thread before its first wait, while the worker may
  // be writing it.
  std::atomic<bool> try_lock_done{false};
};

void TryLockHeldMutex(void* arg) {
  auto* p = static_cast<TryLockParams*>(arg);
  EXPECT_NE(OsalMutexTryLock(p->mutex), VekError::kOk);
  p->try_lock_done = true;
  EXPECT_EQ(OsalSemPost(p->sem), VekError::kOk);
}

}  // namespace

TEST_F(OsalMutexTest, NullHandles) {
  EXPECT_NE(OsalMutexInit(nullptr), VekError::kOk);
  EXPECT_NE(OsalMutexDestroy(nullptr), VekError::kOk);
  EXPECT_NE(OsalMutexLock(nullptr), VekError::kOk);
  EXPECT_NE(OsalMutexTryLock(nullptr), VekError::kOk);
  EXPECT_NE(OsalMutexUnlock(nullptr), VekError::kOk);
}

TEST_F(OsalMutexTest, Basic) {
  EXPECT_EQ(OsalMutexInit(&mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexTryLock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(mutex_), VekError::kOk);
}

TEST_F(OsalMutexTest, LockDifferentThread) {
  SharedParams sp;
  EXPECT_EQ(OsalMutexInit(&sp.mutex), VekError::kOk);
  ThreadParams tp1 = {1, 530, &sp};
  ThreadParams tp2 = {531, kStopThread2, &sp};

  OsalThreadCreate(&sp.thread1, attr_, AppendUnderMutex, &tp1);
  OsalThreadCreate(&sp.thread2, attr_, AppendUnderMutex, &tp2);
  OsalThreadJoin(sp.thread1);
  OsalThreadJoin(sp.thread2);

  // Any interleaving will do; a lost append shows in the count or the sum.
  EXPECT_EQ(sp.vec.size(), kStopThread2);
  const unsigned int sum = std::accumulate(sp.vec.begin(), sp.vec.end(), 0u);
  EXPECT_EQ(sum, (kStopThread2 * (kStopThread2 + 1)) / 2);
  EXPECT_EQ(OsalMutexDestroy(sp.mutex), VekError::kOk);
}

TEST_F(OsalMutexTest, TryLockSameThread) {
  EXPECT_EQ(OsalMutexInit(&mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(mutex_), VekError::kOk);
  // Not recursive: the holder itself cannot take it again.
  EXPECT_NE(OsalMutexTryLock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexTryLock(mutex_), VekError::kOk);
  EXPECT_NE(OsalMutexTryLock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(mutex_), VekError::kOk);
}

TEST_F(OsalMutexTest, TryLockDifferentThreads) {
  TryLockParams params;
  EXPECT_EQ(OsalSemInit(&params.sem, 0), VekError::kOk);
  EXPECT_EQ(OsalMutexInit(&params.mutex), VekError::kOk);
  EXPECT_EQ(OsalMutexLock(params.mutex), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&params.thread, attr_, TryLockHeldMutex, &params),
            VekError::kOk);
  while (!params.try_lock_done) {
    EXPECT_EQ(OsalSemWait(params.sem), VekError::kOk);
  }
  EXPECT_EQ(OsalMutexUnlock(params.mutex), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(params.thread), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(params.mutex), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(params.sem), VekError::kOk);
}

}  // namespace zov_vek_unit_test
