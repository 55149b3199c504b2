// When a condition variable may be destroyed: never while a thread is
// blocked on it (kErrBusy, and it keeps working), always once every waiter
// has been released, even before the woken waiters have left OsalCondWait.
// Under the asan preset a waiter that touched the variable after destroy
// freed it would be reported.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <thread>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using namespace zov_vek;

constexpr int kWaiters = 4;
constexpr int kRounds = 200;

// Waiters that each round take a start token, register under the mutex and
// wait on that round's variable until the main thread says the round is
// over.
struct Rounds {
  void* mutex = nullptr;
  void* start = nullptr;
  void* cond = nullptr;  // this round's; written before the start tokens
  int waiting = 0;
  int finished_round = -1;
  std::atomic<bool> failed{false};

  void Waiter() {
    for (int round = 0; round < kRounds; ++round) {
      if (OsalSemWait(start) != VekError::kOk) failed = true;
      OsalMutexLock(mutex);
      ++waiting;
      while (finished_round < round) {
        if (OsalCondWait(cond, mutex) != VekError::kOk) failed = true;
      }
      OsalMutexUnlock(mutex);
    }
  }
};

struct WakeCase {
  const char* name;
  bool broadcast;  // else one signal per waiter
};

TEST(CondDestroyTest, RefusedWhileBlockedAndAllowedOnceAllAreReleased) {
  for (const WakeCase& wake :
       {WakeCase{"broadcast", true}, WakeCase{"signal per waiter", false}}) {
    SCOPED_TRACE(wake.name);
    Rounds r;
    ASSERT_EQ(VekError::kOk, OsalMutexInit(&r.mutex));
    ASSERT_EQ(VekError::kOk, OsalSemInit(&r.start, 0));
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
      waiters.emplace_back([&r] { r.Waiter(); });

    int refused = 0;
    int destroyed = 0;
    for (int round = 0; round < kRounds; ++round) {
      ASSERT_EQ(VekError::kOk, OsalCondInit(&r.cond));
      for (int i = 0; i < kWaiters; ++i) OsalSemPost(r.start);
      // Once every waiter has registered and let the mutex go, all are
      // blocked: nobody has signalled yet.
      OsalMutexLock(r.mutex);
      while (r.waiting < kWaiters) {
        OsalMutexUnlock(r.mutex);
        sched_yield();
        OsalMutexLock(r.mutex);
      }
      r.waiting = 0;
      if (OsalCondDestroy(r.cond) == VekError::kErrBusy) ++refused;
      // The refused variable still wakes them all.
      r.finished_round = round;
      if (wake.broadcast) {
        OsalCondBroadcast(r.cond);
      } else {
        for (int i = 0; i < kWaiters; ++i) OsalCondSignal(r.cond);
      }
      OsalMutexUnlock(r.mutex);
      // The woken waiters are mostly still inside OsalCondWait here.
      if (OsalCondDestroy(r.cond) == VekError::kOk) ++destroyed;
    }
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(kRounds, refused);
    EXPECT_EQ(kRounds, destroyed);
    EXPECT_FALSE(r.failed);
    EXPECT_EQ(VekError::kOk, OsalSemDestroy(r.start));
    EXPECT_EQ(VekError::kOk, OsalMutexDestroy(r.mutex));
  }
}

}  // namespace
}  // namespace vek_test
