// WorkerThreadBase: starting and stopping a worker that sleeps on the
// fixture's condition variable, with work queued before, with and without a
// wake-up. The worker turns each value v of input_ into v + 1 in receiver_
// and drains input_ before it honours an exit request, so every value
// queued before Exit() shows up in receiver_, in order.
#include <gtest/gtest.h>

#include <queue>

#include "logging/vek_log.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "utils/vek_worker_thread_base.h"

namespace zov_vek_unit_test {

using zov_vek::OsalCondDestroy;
using zov_vek::OsalCondInit;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::VekError;
using zov_vek::WorkerThreadBase;

namespace {

constexpr char kLogTag[] = "vek-ut-osal";
constexpr unsigned int kWorkerStackSize = 16384;

}  // namespace

class WorkerThreadBaseTest : public testing::Test {
 protected:
  class WorkerThread : public WorkerThreadBase {
   public:
    explicit WorkerThread(WorkerThreadBaseTest* test) : test_(test) {}
    ~WorkerThread() override {}

   protected:
    void ThreadFunction() override;

   private:
    WorkerThreadBaseTest* test_;
  };

  WorkerThreadBaseTest() : worker_(this) {}

  void SetUp() override {
    VekError err = OsalMutexInit(&mutex_);
    ASSERT_EQ(VekError::kOk, err);
    err = OsalCondInit(&cond_);
    ASSERT_EQ(VekError::kOk, err);
  }

  void TearDown() override {
    // A case that ended early on a failed check may have left the worker
    // waiting on the mutex and condition variable destroyed below.
    worker_.Exit();
    ASSERT_EQ(VekError::kOk, OsalMutexDestroy(mutex_));
    ASSERT_EQ(VekError::kOk, OsalCondDestroy(cond_));
  }

  VekError StartWorker(const char* name) {
    return worker_.Start(mutex_, cond_, name, kWorkerStackSize, true);
  }

  void QueueValue(unsigned int value) {
    OsalMutexLock(mutex_);
    input_.push(value);
    OsalMutexUnlock(mutex_);
  }

  WorkerThread worker_;
  void* mutex_ = nullptr;
  void* cond_ = nullptr;
  std::queue<unsigned int> input_;
  std::queue<unsigned int> receiver_;
  std::queue<unsigned int> expected_;
};

void WorkerThreadBaseTest::WorkerThread::ThreadFunction() {
  for (;;) {
    OsalMutexLock(test_->mutex_);
    while (test_->input_.empty()) {
      if (ThreadShouldExit()) break;
      const VekError err = OsalCondWait(test_->cond_, test_->mutex_);
      if (err != VekError::kOk) {
        LOG_CUSTOM_ERROR(kLogTag,
                         "failed to wait on cond var, err=%d, dispatcher=%p",
                         static_cast<int>(err), static_cast<void*>(this));
      }
    }
    if (test_->input_.empty()) {
      OsalMutexUnlock(test_->mutex_);
      LOG_CUSTOM_INFO(kLogTag, "WorkerThreadBaseTest worker thread is exiting");
      return;
    }
    const unsigned int value = test_->input_.front();
    test_->input_.pop();
    test_->receiver_.push(value + 1);
    OsalMutexUnlock(test_->mutex_);
  }
}

TEST_F(WorkerThreadBaseTest, BasicFunctionality) {
  VekError err = StartWorker("basic_thread");
  ASSERT_EQ(VekError::kOk, err);

  OsalMutexLock(mutex_);
  input_.push(1);
  input_.push(2);
  input_.push(3);
  OsalMutexUnlock(mutex_);
  err = OsalCondSignal(cond_);
  ASSERT_EQ(VekError::kOk, err);

  worker_.Exit();

  expected_.push(2);
  expected_.push(3);
  expected_.push(4);
  EXPECT_EQ(expected_, receiver_);
}

TEST_F(WorkerThreadBaseTest, StartExitStart) {
  VekError err = StartWorker("start_thread1");
  ASSERT_EQ(VekError::kOk, err);
  // Queued without a wake-up: only Exit() wakes the worker, which must
  // still drain the value before it leaves.
  QueueValue(1);
  worker_.Exit();
  expected_.push(2);
  EXPECT_EQ(expected_, receiver_);

  err = StartWorker("stat_thread2");
  ASSERT_EQ(VekError::kOk, err);
  QueueValue(3);
  worker_.Exit();
  expected_.push(4);
  EXPECT_EQ(expected_, receiver_);
}

TEST_F(WorkerThreadBaseTest, StartExitTwice) {
  VekError err = StartWorker("start_thread1");
  ASSERT_EQ(VekError::kOk, err);
  err = StartWorker("start_thread2");
  ASSERT_NE(VekError::kOk, err);

  QueueValue(3);

  err = worker_.Exit();
  ASSERT_EQ(VekError::kOk, err);
  err = worker_.Exit();
  ASSERT_EQ(VekError::kOk, err);

  expected_.push(4);
  EXPECT_EQ(expected_, receiver_);
}

}  // namespace zov_vek_unit_test
