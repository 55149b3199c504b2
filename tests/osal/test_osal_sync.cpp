// Semaphores, mutexes and condition variables of the POSIX port: the
// semaphore's bound under concurrent posts, what a failed try-lock leaves
// behind, the mutex a condition wait hands back, and refused arguments
// that must leave every object usable.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using zov_vek::kOsalSemaphoreMaxValue;
using zov_vek::kOsalThreadNameLengthMax;
using zov_vek::OsalCondBroadcast;
using zov_vek::OsalCondDestroy;
using zov_vek::OsalCondInit;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexTryLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemGetValue;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemTryWait;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadAttrDestroy;
using zov_vek::OsalThreadAttrGetName;
using zov_vek::OsalThreadAttrGetStack;
using zov_vek::OsalThreadAttrInit;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStack;
using zov_vek::OsalThreadAttrSetStackSize;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadGetName;
using zov_vek::OsalThreadJoin;
using zov_vek::VekError;

// Runs `func(arg)` on a thread of its own and waits for it.
void RunOnOtherThread(void (*func)(void*), void* arg) {
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, "sync_helper"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr, func, arg), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

// Starts `count` threads named `name`, each running func(arg).
void StartThreads(const char* name, void (*func)(void*), void* arg,
                  void** threads, int count) {
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, name), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(OsalThreadCreate(&threads[i], attr, func, arg), VekError::kOk);
  }
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

int ValueOf(void* sem) {
  int value = -1;
  EXPECT_EQ(OsalSemGetValue(sem, &value), VekError::kOk);
  return value;
}

TEST(OsalSemaphoreBoundTest, InitialCountsAroundTheMaximum) {
  for (unsigned int count :
       {0u, 1u, kOsalSemaphoreMaxValue - 1, kOsalSemaphoreMaxValue}) {
    void* sem = nullptr;
    ASSERT_EQ(OsalSemInit(&sem, count), VekError::kOk) << count;
    EXPECT_EQ(ValueOf(sem), static_cast<int>(count));
    EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
  }
  // Refused, and the out-parameter keeps what it held: nothing was made.
  int marker = 0;
  for (unsigned int count :
       {kOsalSemaphoreMaxValue + 1, 1u << 16 | 1u,
        static_cast<unsigned int>(INT_MAX) + 1u, UINT_MAX}) {
    void* sem = &marker;
    EXPECT_EQ(OsalSemInit(&sem, count), VekError::kErrOutOfRange) << count;
    EXPECT_EQ(sem, &marker);
  }
}

TEST(OsalSemaphoreBoundTest, PostAtTheMaximumIsRefusedAndChangesNothing) {
  void* sem = nullptr;
  ASSERT_EQ(OsalSemInit(&sem, kOsalSemaphoreMaxValue), VekError::kOk);
  EXPECT_EQ(OsalSemPost(sem), VekError::kErrOutOfRange);
  EXPECT_EQ(ValueOf(sem), static_cast<int>(kOsalSemaphoreMaxValue));
  EXPECT_EQ(OsalSemTryWait(sem), VekError::kOk);
  EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
  EXPECT_EQ(ValueOf(sem), static_cast<int>(kOsalSemaphoreMaxValue));
  EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
}

struct Sleepers {
  void* sem = nullptr;
  std::atomic<int> about_to_wait{0};
  std::atomic<int> woken{0};
};

void WaitOnce(void* arg) {
  auto* sleepers = static_cast<Sleepers*>(arg);
  sleepers->about_to_wait.fetch_add(1);
  EXPECT_EQ(OsalSemWait(sleepers->sem), VekError::kOk);
  sleepers->woken.fetch_add(1);
}

// Threads asleep on a semaphore are bookkeeping, not tokens: the count
// stays 0 and nothing can be taken, yet every post is accepted (a count
// that took the sleepers for tokens would refuse them as above the
// maximum, and the sleepers would never wake), wakes exactly one sleeper,
// and the semaphore cannot be destroyed under them.
TEST(OsalSemaphoreBoundTest, SleepersAreNotTokens) {
  constexpr int kThreads = 8;
  Sleepers sleepers;
  ASSERT_EQ(OsalSemInit(&sleepers.sem, 0), VekError::kOk);
  void* threads[kThreads] = {};
  ASSERT_NO_FATAL_FAILURE(
      StartThreads("sleeper", WaitOnce, &sleepers, threads, kThreads));
  while (sleepers.about_to_wait.load() != kThreads) std::this_thread::yield();
  // From the counter to the sleep is a few instructions; this is ample,
  // also under an emulator.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  EXPECT_EQ(ValueOf(sleepers.sem), 0);
  EXPECT_EQ(OsalSemTryWait(sleepers.sem), VekError::kErrBusy);
  EXPECT_EQ(OsalSemDestroy(sleepers.sem), VekError::kErrBusy);
  for (int posted = 1; posted <= kThreads; ++posted) {
    ASSERT_EQ(OsalSemPost(sleepers.sem), VekError::kOk) << "post " << posted;
    while (sleepers.woken.load() != posted) std::this_thread::yield();
  }
  for (void* thread : threads) EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(sleepers.woken.load(), kThreads);
  EXPECT_EQ(ValueOf(sleepers.sem), 0);
  EXPECT_EQ(OsalSemDestroy(sleepers.sem), VekError::kOk);
}

struct Posters {
  void* sem = nullptr;
  std::atomic<bool> go{false};
  std::atomic<int> accepted{0};
  std::atomic<int> highest{0};
};

// Posts into the one free place, notes the count it sees, and gives the
// place back, over and over, racing the other posters for that place.
void ChurnAtTheMaximum(void* arg) {
  auto* posters = static_cast<Posters*>(arg);
  while (!posters->go.load()) {
  }
  for (int i = 0; i < 20000; ++i) {
    const VekError err = OsalSemPost(posters->sem);
    if (err != VekError::kOk) {
      EXPECT_EQ(err, VekError::kErrOutOfRange);
      continue;
    }
    posters->accepted.fetch_add(1);
    int value = 0;
    EXPECT_EQ(OsalSemGetValue(posters->sem, &value), VekError::kOk);
    int highest = posters->highest.load();
    while (value > highest &&
           !posters->highest.compare_exchange_weak(highest, value)) {
    }
    EXPECT_EQ(OsalSemTryWait(posters->sem), VekError::kOk);
  }
}

TEST(OsalSemaphoreBoundTest, ConcurrentPostersNeverPassTheMaximum) {
  // One free place and four threads that all want it: a test of the count
  // and a post that are not one step lets two of them in. It is a race, so
  // such a fault shows often here, not every time.
  constexpr int kThreads = 4;
  Posters posters;
  ASSERT_EQ(OsalSemInit(&posters.sem, kOsalSemaphoreMaxValue - 1),
            VekError::kOk);
  void* threads[kThreads] = {};
  ASSERT_NO_FATAL_FAILURE(
      StartThreads("poster", ChurnAtTheMaximum, &posters, threads, kThreads));
  posters.go = true;
  for (void* thread : threads) EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_GT(posters.accepted.load(), 0);
  EXPECT_LE(posters.highest.load(), static_cast<int>(kOsalSemaphoreMaxValue));
  EXPECT_EQ(ValueOf(posters.sem), static_cast<int>(kOsalSemaphoreMaxValue - 1));
  EXPECT_EQ(OsalSemDestroy(posters.sem), VekError::kOk);
}

void TryLockFails(void* mutex) {
  EXPECT_EQ(OsalMutexTryLock(mutex), VekError::kErrBusy);
}

void TryLockSucceedsThenUnlocks(void* mutex) {
  EXPECT_EQ(OsalMutexTryLock(mutex), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(mutex), VekError::kOk);
}

TEST(OsalMutexHoldTest, FailedTryLocksLeaveTheHolderHoldingIt) {
  void* mutex = nullptr;
  ASSERT_EQ(OsalMutexInit(&mutex), VekError::kOk);
  ASSERT_EQ(OsalMutexLock(mutex), VekError::kOk);
  // Neither another thread's failed attempts nor the holder's own may
  // release, steal or double the hold.
  RunOnOtherThread(TryLockFails, mutex);
  EXPECT_EQ(OsalMutexTryLock(mutex), VekError::kErrBusy);
  RunOnOtherThread(TryLockFails, mutex);
  EXPECT_EQ(OsalMutexUnlock(mutex), VekError::kOk);
  // One unlock freed it: held once, never twice.
  RunOnOtherThread(TryLockSucceedsThenUnlocks, mutex);
  EXPECT_EQ(OsalMutexDestroy(mutex), VekError::kOk);
}

struct CondShared {
  void* mutex = nullptr;
  void* cond = nullptr;
  bool ready = false;
  std::atomic<bool> other_locked_during_wait{false};
};

void LockDuringWaitThenSignal(void* arg) {
  auto* shared = static_cast<CondShared*>(arg);
  // Blocks until the waiter has released the mutex inside OsalCondWait.
  EXPECT_EQ(OsalMutexLock(shared->mutex), VekError::kOk);
  shared->other_locked_during_wait = true;
  shared->ready = true;
  EXPECT_EQ(OsalCondSignal(shared->cond), VekError::kOk);
  EXPECT_EQ(OsalMutexUnlock(shared->mutex), VekError::kOk);
}

TEST(OsalCondHoldTest, WaitReleasesTheMutexAndReturnsHoldingIt) {
  CondShared shared;
  ASSERT_EQ(OsalMutexInit(&shared.mutex), VekError::kOk);
  ASSERT_EQ(OsalCondInit(&shared.cond), VekError::kOk);
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, "signaller"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);

  ASSERT_EQ(OsalMutexLock(shared.mutex), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr, LockDuringWaitThenSignal, &shared),
            VekError::kOk);
  while (!shared.ready) {
    ASSERT_EQ(OsalCondWait(shared.cond, shared.mutex), VekError::kOk);
  }
  EXPECT_TRUE(shared.other_locked_during_wait.load());
  // Back from the wait, this thread holds the mutex again.
  RunOnOtherThread(TryLockFails, shared.mutex);
  EXPECT_EQ(OsalMutexUnlock(shared.mutex), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);

  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
  EXPECT_EQ(OsalCondDestroy(shared.cond), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(shared.mutex), VekError::kOk);
}

// Every operation given a null handle, out-parameter or buffer: kErrParam,
// nothing written, and the object it was offered still works afterwards.
TEST(OsalNullArgumentTest, SemaphoreStaysUsable) {
  void* sem = nullptr;
  ASSERT_EQ(OsalSemInit(&sem, 1), VekError::kOk);
  EXPECT_EQ(OsalSemGetValue(sem, nullptr), VekError::kErrParam);
  int value = -7;
  EXPECT_EQ(OsalSemGetValue(nullptr, &value), VekError::kErrParam);
  EXPECT_EQ(value, -7);
  EXPECT_EQ(OsalSemPost(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalSemWait(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalSemTryWait(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalSemDestroy(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalSemInit(nullptr, 0), VekError::kErrParam);
  EXPECT_EQ(ValueOf(sem), 1);
  EXPECT_EQ(OsalSemWait(sem), VekError::kOk);
  EXPECT_EQ(OsalSemTryWait(sem), VekError::kErrBusy);
  EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
}

TEST(OsalNullArgumentTest, MutexAndConditionStayUsable) {
  void* mutex = nullptr;
  void* cond = nullptr;
  ASSERT_EQ(OsalMutexInit(&mutex), VekError::kOk);
  ASSERT_EQ(OsalCondInit(&cond), VekError::kOk);
  EXPECT_EQ(OsalMutexInit(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalMutexLock(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalMutexTryLock(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalMutexUnlock(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalMutexDestroy(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalCondInit(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalCondSignal(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalCondBroadcast(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalCondDestroy(nullptr), VekError::kErrParam);

  // A wait refused for either null argument returns at once, and the
  // caller still holds the mutex it came with.
  ASSERT_EQ(OsalMutexLock(mutex), VekError::kOk);
  EXPECT_EQ(OsalCondWait(cond, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalCondWait(nullptr, mutex), VekError::kErrParam);
  RunOnOtherThread(TryLockFails, mutex);
  EXPECT_EQ(OsalMutexUnlock(mutex), VekError::kOk);

  EXPECT_EQ(OsalCondSignal(cond), VekError::kOk);
  EXPECT_EQ(OsalCondBroadcast(cond), VekError::kOk);
  EXPECT_EQ(OsalCondDestroy(cond), VekError::kOk);
  EXPECT_EQ(OsalMutexDestroy(mutex), VekError::kOk);
}

void WaitOnSem(void* sem) { EXPECT_EQ(OsalSemWait(sem), VekError::kOk); }

TEST(OsalNullArgumentTest, AttributeAndThreadStayUsable) {
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, "kept_name"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);

  EXPECT_EQ(OsalThreadAttrInit(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrDestroy(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStackSize(nullptr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStack(nullptr, &attr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(nullptr, "x"), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(attr, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(attr, ""), VekError::kErrParam);
  // Refused pairs: a size without an address, an address without a size.
  EXPECT_EQ(OsalThreadAttrSetStack(attr, nullptr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStack(attr, &attr, 0), VekError::kErrParam);
  // A size of 0 is no stack.
  EXPECT_EQ(OsalThreadAttrSetStackSize(attr, 0), VekError::kErrParam);

  // Out-parameters of refused reads keep what they held.
  int marker = 0;
  void* addr = &marker;
  unsigned int size = 777;
  EXPECT_EQ(OsalThreadAttrGetStack(attr, nullptr, &size), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetStack(attr, &addr, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetStack(nullptr, &addr, &size), VekError::kErrParam);
  EXPECT_EQ(addr, &marker);
  EXPECT_EQ(size, 777u);
  char name[kOsalThreadNameLengthMax];
  memset(name, 'c', sizeof(name));
  EXPECT_EQ(OsalThreadAttrGetName(nullptr, name, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetName(attr, nullptr, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(name[0], 'c');

  // Nothing of the above changed the attribute.
  EXPECT_EQ(OsalThreadAttrGetStack(attr, &addr, &size), VekError::kOk);
  EXPECT_EQ(addr, nullptr);
  EXPECT_EQ(size, 65536u);
  EXPECT_EQ(OsalThreadAttrGetName(attr, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "kept_name");

  // A running thread: refused name reads leave it and the buffer alone.
  void* sem = nullptr;
  ASSERT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr, WaitOnSem, sem), VekError::kOk);
  memset(name, 'c', sizeof(name));
  EXPECT_EQ(OsalThreadGetName(nullptr, name, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(name[0], 'c');
  EXPECT_EQ(OsalThreadGetName(thread, nullptr, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadJoin(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadGetName(thread, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "kept_name");
  EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);

  EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

}  // namespace
}  // namespace vek_test
