// Our port's choices for the logger, WorkerThreadBase and OsalStrlcpy,
// where their contracts leave one open: the initial masks, the codes of
// refused updates and starts, what Start's flag means, what the destructor
// does with a running worker, how Exit wakes its worker, and null strings.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "utils/vek_worker_thread_base.h"

namespace vek_test {
namespace {

using namespace zov_vek;
using namespace std::chrono_literals;

constexpr uint32_t kGroups = Logger::kPredefinedGroupCount;

// The masks that GetLogger starts from, read at load time, before any test
// could set one.
struct StartingMasks {
  uint32_t predefined[kGroups];
  uint32_t custom;
};
const StartingMasks kStarting = [] {
  StartingMasks masks = {};
  Logger& logger = Logger::GetLogger();
  for (uint32_t g = 0; g < kGroups; ++g) {
    masks.predefined[g] =
        logger.GetLogLevelMask(static_cast<PredefinedGroup>(g));
  }
  masks.custom = logger.GetLogLevelMask("starting-default");
  logger.ClearCustomGroups();
  return masks;
}();

TEST(PortLogger, StartsWithWarningAndErrorInEveryGroup) {
  for (uint32_t g = 0; g < kGroups; ++g) {
    EXPECT_EQ(kStarting.predefined[g], 24u) << g;
  }
  EXPECT_EQ(kStarting.custom, 24u);
}

// Predefined statements reach the logger through the address the library
// publishes; it must be the singleton.
TEST(PortLogger, PublishesTheSingletonForStatements) {
  EXPECT_EQ(log_internal::published_logger, &Logger::GetLogger());
}

TEST(PortLogger, ConfigUpdateCodesAndMissingCustomTargets) {
  struct Row {
    uint32_t type;
    uint32_t target;
    const char* name;
    VekError code;
  };
  const Row kRows[] = {
      {7, 0, "vek-ipc", VekError::kErrNotSupported},  // only type 0 exists
      {0, 0, "VEK_UT_DIAG", VekError::kErrParam},     // no such predefined tag
      {0, 2, "vek-ipc", VekError::kErrParam},         // no such kind of target
      {0, 1, "made-by-update", VekError::kOk},        // created, then set
  };
  Logger& logger = Logger::GetLogger();
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(logger.ClearCustomGroups(), VekError::kOk);
    ASSERT_EQ(logger.SetLogLevelMask("*", 1), VekError::kOk);
    // param is ignored, and the update left as it is.
    std::pair<LogConfigUpdate, LogConfigTargetGroup> update{
        {row.type, 30, 77}, {row.target, row.name}};
    EXPECT_EQ(HandleLogConfigUpdate(update), row.code);
    EXPECT_EQ(update.first.type, row.type);
    EXPECT_EQ(update.first.log_mask, 30u);
    EXPECT_EQ(update.first.param, 77u);
    EXPECT_EQ(update.second.type, row.target);
    EXPECT_EQ(update.second.name, row.name);
    EXPECT_EQ(logger.CustomGroupCount(), row.code == VekError::kOk ? 1u : 0u);
    if (row.code == VekError::kOk) {
      EXPECT_EQ(logger.GetLogLevelMask(row.name), 30u);
    }
    for (uint32_t g = 0; g < kGroups; ++g) {
      EXPECT_EQ(logger.GetLogLevelMask(static_cast<PredefinedGroup>(g)), 1u);
    }
  }
  // No room for a ninth custom group.
  ASSERT_EQ(logger.ClearCustomGroups(), VekError::kOk);
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(logger.SetLogLevelMask("TAG_" + std::to_string(i), 1),
              VekError::kOk);
  }
  std::pair<LogConfigUpdate, LogConfigTargetGroup> update{{0, 30, 0},
                                                          {1, "ninth"}};
  EXPECT_EQ(HandleLogConfigUpdate(update), VekError::kErrParam);
  EXPECT_EQ(logger.CustomGroupCount(), 8u);
  EXPECT_EQ(logger.ClearCustomGroups(), VekError::kOk);
}

// The owner's side of a worker and the worker itself: it drains `input`
// into `output` and leaves when the input is empty and exit was requested.
// Start waits `start_delay` in OnThreadStarted.
struct Owner {
  Owner() {
    EXPECT_EQ(OsalMutexInit(&mutex), VekError::kOk);
    EXPECT_EQ(OsalCondInit(&cond), VekError::kOk);
  }
  ~Owner() {
    EXPECT_EQ(OsalCondDestroy(cond), VekError::kOk);
    EXPECT_EQ(OsalMutexDestroy(mutex), VekError::kOk);
  }
  void Push(unsigned int value) {
    OsalMutexLock(mutex);
    input.push_back(value);
    OsalMutexUnlock(mutex);
  }
  // Spins until `count` threads wait on `cond`.
  void AwaitWaiters(int count) {
    for (bool all = false; !all; std::this_thread::yield()) {
      OsalMutexLock(mutex);
      all = waiting == count;
      OsalMutexUnlock(mutex);
    }
  }
  void* mutex = nullptr;
  void* cond = nullptr;
  std::deque<unsigned int> input;
  std::vector<unsigned int> output;
  int waiting = 0;
};

class Drain : public WorkerThreadBase {
 public:
  explicit Drain(Owner* owner, std::chrono::milliseconds start_delay = 0ms)
      : owner_(owner), start_delay_(start_delay) {}
  VekError Start(const char* name, bool flag = true) {
    return WorkerThreadBase::Start(owner_->mutex, owner_->cond, name, 16384,
                                   flag);
  }
  std::atomic<int> started{0};
  // The Exit it calls on item 0.
  std::atomic<bool> exited_itself{false};
  VekError own_exit = VekError::kOk;

 protected:
  void OnThreadStarted() override {
    std::this_thread::sleep_for(start_delay_);
    started++;
  }
  void ThreadFunction() override {
    Owner* const owner = owner_;
    OsalMutexLock(owner->mutex);
    for (;;) {
      while (owner->input.empty() && !ThreadShouldExit()) {
        owner->waiting++;
        OsalCondWait(owner->cond, owner->mutex);
        owner->waiting--;
      }
      if (owner->input.empty()) break;
      owner->output.push_back(owner->input.front());
      owner->input.pop_front();
      if (owner->output.back() == 0) {
        OsalMutexUnlock(owner->mutex);
        own_exit = Exit();
        exited_itself = true;
        OsalMutexLock(owner->mutex);
      }
    }
    OsalMutexUnlock(owner->mutex);
  }

 private:
  Owner* owner_;
  std::chrono::milliseconds start_delay_;
};

TEST(PortWorker, RefusesBusyStartsNullHandlesAndBadNamesWithTheirCodes) {
  Owner owner;
  Drain worker(&owner);
  void* null_handle = nullptr;
  EXPECT_EQ(
      worker.WorkerThreadBase::Start(null_handle, owner.cond, "w", 16384, true),
      VekError::kErrParam);
  EXPECT_EQ(worker.WorkerThreadBase::Start(owner.mutex, null_handle, "w", 16384,
                                           true),
            VekError::kErrParam);
  EXPECT_EQ(worker.Start(""), VekError::kErrParam);
  EXPECT_EQ(worker.Start(nullptr), VekError::kErrParam);
  EXPECT_EQ(worker.started.load(), 0);
  ASSERT_EQ(worker.Start("first"), VekError::kOk);
  EXPECT_EQ(worker.Start("second"), VekError::kErrBusy);
  EXPECT_EQ(worker.Exit(), VekError::kOk);
  EXPECT_EQ(worker.started.load(), 1);
}

// With the flag, Start returns once OnThreadStarted has run; without it, at
// once, and the worker still runs and drains.
TEST(PortWorker, FlagSaysWhetherStartWaitsForOnThreadStarted) {
  for (const bool flag : {true, false}) {
    SCOPED_TRACE(flag ? "flag" : "no flag");
    Owner owner;
    Drain worker(&owner, 50ms);
    ASSERT_EQ(worker.Start("flagged", flag), VekError::kOk);
    EXPECT_EQ(worker.started.load(), flag ? 1 : 0);
    owner.Push(7);
    EXPECT_EQ(worker.Exit(), VekError::kOk);
    EXPECT_EQ(worker.started.load(), 1);
    EXPECT_EQ(owner.output, std::vector<unsigned int>{7});
  }
}

TEST(PortWorker, DestroyingARunningWorkerDrainsAndJoinsIt) {
  Owner owner;
  auto worker = std::make_unique<Drain>(&owner);
  ASSERT_EQ(worker->Start("doomed"), VekError::kOk);
  // Only once the loop runs: before, the destructor would leave the thread
  // to call a ThreadFunction that is gone.
  owner.AwaitWaiters(1);
  owner.Push(1);
  owner.Push(2);
  worker.reset();
  EXPECT_EQ(owner.output, (std::vector<unsigned int>{1, 2}));
}

// Exit on the worker's own thread cannot join it: it returns the join's
// code, the worker still runs, and the owner's Exit stops it.
TEST(PortWorker, AFailedJoinLeavesTheWorkerRunningForTheNextExit) {
  Owner owner;
  Drain worker(&owner);
  ASSERT_EQ(worker.Start("self_exit"), VekError::kOk);
  owner.Push(0);
  OsalCondBroadcast(owner.cond);
  while (!worker.exited_itself.load()) std::this_thread::yield();
  EXPECT_EQ(worker.own_exit, VekError::kErr);
  EXPECT_EQ(worker.Start("again"), VekError::kErrBusy);
  EXPECT_EQ(worker.Exit(), VekError::kOk);
  EXPECT_EQ(worker.Start("again"), VekError::kOk);
  EXPECT_EQ(worker.Exit(), VekError::kOk);
}

// The owner's condition variable may have other waiters: Exit wakes them
// all, so that its wake-up cannot go to one of them instead of the worker.
TEST(PortWorker, ExitReachesTheWorkerAmongOtherWaiters) {
  Owner owner;
  bool release = false;
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&] {
      OsalMutexLock(owner.mutex);
      owner.waiting++;
      while (!release) OsalCondWait(owner.cond, owner.mutex);
      owner.waiting--;
      OsalMutexUnlock(owner.mutex);
    });
  }
  Drain worker(&owner);
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(worker.Start("crowd"), VekError::kOk);
    owner.AwaitWaiters(4);
    EXPECT_EQ(worker.Exit(), VekError::kOk);
  }
  OsalMutexLock(owner.mutex);
  release = true;
  OsalCondBroadcast(owner.cond);
  OsalMutexUnlock(owner.mutex);
  for (std::thread& t : others) t.join();
}

TEST(PortStrlcpy, NullStringsCopyNothing) {
  struct Row {
    bool dst;
    const char* src;
    size_t size;
    size_t result;
  };
  const Row kRows[] = {
      {true, nullptr, 16, 0},   // no source: no string
      {false, "abcde", 16, 5},  // nowhere to copy: the length still comes back
      {true, "abcde", 0, 5},
  };
  for (const Row& row : kRows) {
    char buffer[32];
    std::memset(buffer, '~', sizeof(buffer));
    EXPECT_EQ(OsalStrlcpy(row.dst ? buffer : nullptr, row.src, row.size),
              row.result);
    EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string(32, '~'));
  }
}

}  // namespace
}  // namespace vek_test
