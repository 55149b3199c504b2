// Semaphores: refusals, exact counts, a semaphore of count 1 used as a lock
// by two threads, try-wait from the owner and from another thread, and the
// range of initial counts.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "logging/vek_log.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "vek_ut_osal.h"

namespace zov_vek_unit_test {

using zov_vek::kOsalSemaphoreMaxValue;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemGetValue;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemTryWait;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;

class OsalSemaphoreTest : public OsalThreadedTest {
 protected:
  void* sem_ = nullptr;
};

namespace {

constexpr unsigned int kStopThread2 = 1060;

struct WaitTryWaitParams {
  void* s1 = nullptr;
  void* s2 = nullptr;
  void* thread = nullptr;
  bool thread_started = false;
  bool thread_done = false;
};

void WaitTryWaitWorker(void* arg) {
  auto* p = static_cast<WaitTryWaitParams*>(arg);
  EXPECT_NE(OsalSemTryWait(p->s1), VekError::kOk);
  p->thread_started = true;
  EXPECT_EQ(OsalSemPost(p->s2), VekError::kOk);
  EXPECT_EQ(OsalSemWait(p->s1), VekError::kOk);
  p->thread_done = true;
}

struct SharedParams {
  void* sem = nullptr;
  void* thread1 = nullptr;
  void* thread2 = nullptr;
  std::vector<unsigned int> vec;
};

struct ThreadParams {
  unsigned int start;
  unsigned int stop;
  SharedParams* sp;
  void* sem;
};

// Announces itself on its own semaphore, then appends start..stop, each
// value under the shared semaphore used as a lock.
void AppendUnderSemaphore(void* arg) {
  auto* tp = static_cast<ThreadParams*>(arg);
  EXPECT_EQ(OsalSemPost(tp->sem), VekError::kOk);
  for (unsigned int i = tp->start; i <= tp->stop; ++i) {
    EXPECT_EQ(OsalSemWait(tp->sp->sem), VekError::kOk);
    tp->sp->vec.push_back(i);
    EXPECT_EQ(OsalSemPost(tp->sp->sem), VekError::kOk);
  }
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "worker is done, start=%u", tp->start);
}

}  // namespace

TEST_F(OsalSemaphoreTest, NullHandles) {
  EXPECT_NE(OsalSemInit(nullptr, 0), VekError::kOk);
  EXPECT_NE(OsalSemDestroy(nullptr), VekError::kOk);
  EXPECT_NE(OsalSemPost(nullptr), VekError::kOk);
  EXPECT_NE(OsalSemWait(nullptr), VekError::kOk);
  EXPECT_NE(OsalSemTryWait(nullptr), VekError::kOk);
  EXPECT_NE(OsalSemGetValue(nullptr, nullptr), VekError::kOk);
}

TEST_F(OsalSemaphoreTest, Basic) {
  int val = 0;
  EXPECT_EQ(OsalSemInit(&sem_, 1), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem_, &val), VekError::kOk);
  EXPECT_EQ(val, 1);

  EXPECT_EQ(OsalSemWait(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem_, &val), VekError::kOk);
  EXPECT_EQ(val, 0);

  EXPECT_EQ(OsalSemPost(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem_, &val), VekError::kOk);
  EXPECT_EQ(val, 1);

  EXPECT_EQ(OsalSemTryWait(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem_, &val), VekError::kOk);
  EXPECT_EQ(val, 0);

  EXPECT_EQ(OsalSemPost(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem_, &val), VekError::kOk);
  EXPECT_EQ(val, 1);

  EXPECT_EQ(OsalSemDestroy(sem_), VekError::kOk);
}

TEST_F(OsalSemaphoreTest, SyncDifferentThreads) {
  SharedParams sp;
  ThreadParams t1 = {1, 530, &sp, nullptr};
  ThreadParams t2 = {531, kStopThread2, &sp, nullptr};
  EXPECT_EQ(OsalSemInit(&sp.sem, 0), VekError::kOk);
  EXPECT_EQ(OsalSemInit(&t1.sem, 0), VekError::kOk);
  EXPECT_EQ(OsalSemInit(&t2.sem, 0), VekError::kOk);

  OsalThreadCreate(&sp.thread1, attr_, AppendUnderSemaphore, &t1);
  OsalThreadCreate(&sp.thread2, attr_, AppendUnderSemaphore, &t2);

  // Both threads run and block on sp.sem (count 0); one post opens the
  // lock, and from then on exactly one thread at a time holds it.
  EXPECT_EQ(OsalSemWait(t1.sem), VekError::kOk);
  EXPECT_EQ(OsalSemWait(t2.sem), VekError::kOk);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "posting to start test");
  EXPECT_EQ(OsalSemPost(sp.sem), VekError::kOk);

  OsalThreadJoin(sp.thread1);
  OsalThreadJoin(sp.thread2);
  EXPECT_EQ(sp.vec.size(), kStopThread2);
  const unsigned int sum = std::accumulate(sp.vec.begin(), sp.vec.end(), 0u);
  EXPECT_EQ(sum, (kStopThread2 * (kStopThread2 + 1)) / 2);

  EXPECT_EQ(OsalSemDestroy(t2.sem), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(t1.sem), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sp.sem), VekError::kOk);
}

TEST_F(OsalSemaphoreTest, TryWaitSameThread) {
  EXPECT_EQ(OsalSemInit(&sem_, 1), VekError::kOk);
  EXPECT_EQ(OsalSemWait(sem_), VekError::kOk);
  EXPECT_NE(OsalSemTryWait(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemPost(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemTryWait(sem_), VekError::kOk);
  EXPECT_NE(OsalSemTryWait(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemPost(sem_), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem_), VekError::kOk);
}

TEST_F(OsalSemaphoreTest, WaitTryWaitDifferentThreads) {
  WaitTryWaitParams params;
  EXPECT_EQ(OsalSemInit(&params.s1, 0), VekError::kOk);
  EXPECT_EQ(OsalSemInit(&params.s2, 0), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&params.thread, attr_, WaitTryWaitWorker, &params),
            VekError::kOk);

  EXPECT_EQ(OsalSemWait(params.s2), VekError::kOk);
  EXPECT_TRUE(params.thread_started);
  EXPECT_EQ(OsalSemPost(params.s1), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(params.thread), VekError::kOk);
  EXPECT_TRUE(params.thread_done);
  EXPECT_EQ(OsalSemDestroy(params.s1), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(params.s2), VekError::kOk);
}

TEST_F(OsalSemaphoreTest, InitialValue) {
  EXPECT_NE(OsalSemInit(&sem_, kOsalSemaphoreMaxValue + 1), VekError::kOk);

  EXPECT_EQ(OsalSemInit(&sem_, 0), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem_), VekError::kOk);

  EXPECT_EQ(OsalSemInit(&sem_, kOsalSemaphoreMaxValue), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem_), VekError::kOk);

  EXPECT_EQ(OsalSemInit(&sem_, kOsalSemaphoreMaxValue - 1), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem_), VekError::kOk);
}

}  // namespace zov_vek_unit_test
