// WorkerThreadBase through many start/exit cycles while a producer keeps
// queueing work: nothing queued may be lost, processed twice or reordered,
// whether it arrives while a worker runs, while one starts or stops, or
// while none runs at all.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "stress_support.h"
#include "utils/vek_worker_thread_base.h"

namespace vek_stress {
namespace {

using namespace std::chrono_literals;
using zov_vek::VekError;

constexpr unsigned int kCycles = 2000;
constexpr unsigned int kStackSize = 16384;
// Most work the producer queues ahead of the worker.
constexpr size_t kBacklog = 1024;

// The owner's state, all of it guarded by `mutex` except the handles.
struct Owner {
  void* mutex = nullptr;
  void* cond = nullptr;
  std::deque<uint32_t> input;
  std::vector<uint32_t> output;
};

class DrainWorker : public zov_vek::WorkerThreadBase {
 public:
  explicit DrainWorker(Owner* owner) : owner_(owner) {}
  ~DrainWorker() override { Exit(); }

  std::atomic<unsigned int> wait_failures{0};

 protected:
  void ThreadFunction() override {
    zov_vek::OsalMutexLock(owner_->mutex);
    for (;;) {
      while (owner_->input.empty() && !ThreadShouldExit()) {
        if (zov_vek::OsalCondWait(owner_->cond, owner_->mutex) !=
            VekError::kOk) {
          wait_failures++;
        }
      }
      if (owner_->input.empty()) break;
      owner_->output.push_back(owner_->input.front());
      owner_->input.pop_front();
    }
    zov_vek::OsalMutexUnlock(owner_->mutex);
  }

 private:
  Owner* owner_;
};

TEST(WorkerStressTest, StartExitCyclesNeverLoseQueuedWork) {
  Deadline deadline("worker start/exit cycles", 300s);
  Owner owner;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalMutexInit(&owner.mutex));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalCondInit(&owner.cond));
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> produced{0};
  unsigned int start_failures = 0;
  unsigned int exit_failures = 0;

  {
    DrainWorker worker(&owner);
    // The producer runs for the whole test; the main thread cycles the
    // worker underneath it.
    void* attr = nullptr;
    ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrInit(&attr));
    ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetName(attr, "producer"));
    ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetStackSize(attr, 65536));
    struct Producer {
      Owner* owner;
      std::atomic<bool>* stop;
      std::atomic<uint32_t>* produced;
      static void Run(void* arg) {
        auto* p = static_cast<Producer*>(arg);
        uint32_t next = 0;
        while (!p->stop->load()) {
          zov_vek::OsalMutexLock(p->owner->mutex);
          if (p->owner->input.size() >= kBacklog) {
            // No worker is draining; wait for the next cycle.
            zov_vek::OsalMutexUnlock(p->owner->mutex);
            std::this_thread::sleep_for(50us);
            continue;
          }
          p->owner->input.push_back(next++);
          // Every other item comes without a signal: Exit() alone must be
          // enough to get it processed.
          if (next % 2 == 0) zov_vek::OsalCondSignal(p->owner->cond);
          zov_vek::OsalMutexUnlock(p->owner->mutex);
          p->produced->store(next);
        }
      }
    } producer{&owner, &stop, &produced};
    void* producer_thread = nullptr;
    ASSERT_EQ(VekError::kOk,
              zov_vek::OsalThreadCreate(&producer_thread, attr, &Producer::Run,
                                        &producer));

    for (unsigned int cycle = 0; cycle < kCycles; ++cycle) {
      // Alternate waiting for the thread's start-up and not.
      if (worker.Start(owner.mutex, owner.cond, "stress_worker", kStackSize,
                       cycle % 2 == 0) != VekError::kOk) {
        start_failures++;
      }
      if (worker.Exit() != VekError::kOk) exit_failures++;
    }
    stop = true;
    EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadJoin(producer_thread));
    EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadAttrDestroy(attr));

    // Whatever arrived after the last exit is taken by one more cycle.
    EXPECT_EQ(VekError::kOk, worker.Start(owner.mutex, owner.cond,
                                          "stress_worker", kStackSize, true));
    EXPECT_EQ(VekError::kOk, worker.Exit());
    EXPECT_EQ(0u, worker.wait_failures.load());
  }

  EXPECT_EQ(0u, start_failures);
  EXPECT_EQ(0u, exit_failures);
  EXPECT_TRUE(owner.input.empty());
  ASSERT_EQ(produced.load(), owner.output.size());
  unsigned int out_of_order = 0;
  for (uint32_t i = 0; i < owner.output.size(); ++i) {
    if (owner.output[i] != i) out_of_order++;
  }
  EXPECT_EQ(0u, out_of_order);
  RecordProperty("items", static_cast<int>(owner.output.size()));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalCondDestroy(owner.cond));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalMutexDestroy(owner.mutex));
}

}  // namespace
}  // namespace vek_stress
