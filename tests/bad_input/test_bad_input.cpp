// Every OSAL operation given null and out-of-range arguments: it must
// return an error code, write nothing through its out-parameters (they are
// poisoned beforehand and must come back untouched), start or create
// nothing, and leave the object it was given usable.
//
// The codes checked are this port's; the README's reliability table lists
// them.
#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using namespace zov_vek;

void* const kPoisonHandle = reinterpret_cast<void*>(uintptr_t{0x5a5a5a5a});
constexpr int kPoisonInt = -12345;
constexpr char kPoisonChar = '~';
constexpr size_t kBufferSize = 64;

// A byte buffer filled with kPoisonChar, with a check that it still is.
struct PoisonedBuffer {
  char bytes[kBufferSize];
  PoisonedBuffer() { std::memset(bytes, kPoisonChar, sizeof(bytes)); }
  bool Untouched() const {
    for (char c : bytes) {
      if (c != kPoisonChar) return false;
    }
    return true;
  }
};

TEST(BadInputTest, Mutex) {
  EXPECT_EQ(VekError::kErrParam, OsalMutexInit(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalMutexDestroy(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalMutexLock(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalMutexUnlock(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalMutexTryLock(nullptr));

  void* mutex = nullptr;
  ASSERT_EQ(VekError::kOk, OsalMutexInit(&mutex));
  ASSERT_EQ(VekError::kOk, OsalMutexLock(mutex));
  // Held: try-lock is refused and so is destruction; the hold survives
  // both, so one unlock frees it.
  EXPECT_EQ(VekError::kErrBusy, OsalMutexTryLock(mutex));
  EXPECT_EQ(VekError::kErrBusy, OsalMutexDestroy(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));
  // Free: an unlock is refused and the mutex stays free, not "unlocked
  // twice" into a state that lets two takers in.
  EXPECT_EQ(VekError::kErrParam, OsalMutexUnlock(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexTryLock(mutex));
  EXPECT_EQ(VekError::kErrBusy, OsalMutexTryLock(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexDestroy(mutex));
}

TEST(BadInputTest, Semaphore) {
  EXPECT_EQ(VekError::kErrParam, OsalSemInit(nullptr, 0));
  EXPECT_EQ(VekError::kErrParam, OsalSemInit(nullptr, kOsalSemaphoreMaxValue));
  EXPECT_EQ(VekError::kErrParam, OsalSemDestroy(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalSemPost(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalSemWait(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalSemTryWait(nullptr));
  int value = kPoisonInt;
  EXPECT_EQ(VekError::kErrParam, OsalSemGetValue(nullptr, &value));
  EXPECT_EQ(kPoisonInt, value);
  EXPECT_EQ(VekError::kErrParam, OsalSemGetValue(nullptr, nullptr));

  // Initial counts past the maximum create nothing.
  for (unsigned int too_big :
       {kOsalSemaphoreMaxValue + 1, static_cast<unsigned int>(INT_MAX) + 1u,
        UINT_MAX}) {
    void* sem = kPoisonHandle;
    EXPECT_EQ(VekError::kErrOutOfRange, OsalSemInit(&sem, too_big)) << too_big;
    EXPECT_EQ(kPoisonHandle, sem);
  }

  void* sem = nullptr;
  ASSERT_EQ(VekError::kOk, OsalSemInit(&sem, 0));
  EXPECT_EQ(VekError::kErrParam, OsalSemGetValue(sem, nullptr));
  // Empty: try-wait is refused and takes nothing.
  EXPECT_EQ(VekError::kErrBusy, OsalSemTryWait(sem));
  value = kPoisonInt;
  EXPECT_EQ(VekError::kOk, OsalSemGetValue(sem, &value));
  EXPECT_EQ(0, value);
  EXPECT_EQ(VekError::kOk, OsalSemPost(sem));
  EXPECT_EQ(VekError::kOk, OsalSemWait(sem));
  EXPECT_EQ(VekError::kOk, OsalSemDestroy(sem));

  // Full: a post past the maximum is refused and the count stays there.
  ASSERT_EQ(VekError::kOk, OsalSemInit(&sem, kOsalSemaphoreMaxValue));
  EXPECT_EQ(VekError::kErrOutOfRange, OsalSemPost(sem));
  EXPECT_EQ(VekError::kOk, OsalSemGetValue(sem, &value));
  EXPECT_EQ(static_cast<int>(kOsalSemaphoreMaxValue), value);
  EXPECT_EQ(VekError::kOk, OsalSemTryWait(sem));
  EXPECT_EQ(VekError::kOk, OsalSemPost(sem));
  EXPECT_EQ(VekError::kOk, OsalSemGetValue(sem, &value));
  EXPECT_EQ(static_cast<int>(kOsalSemaphoreMaxValue), value);
  EXPECT_EQ(VekError::kOk, OsalSemDestroy(sem));
}

TEST(BadInputTest, ConditionVariable) {
  void* mutex = nullptr;
  void* cond = nullptr;
  ASSERT_EQ(VekError::kOk, OsalMutexInit(&mutex));
  ASSERT_EQ(VekError::kOk, OsalCondInit(&cond));

  EXPECT_EQ(VekError::kErrParam, OsalCondInit(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalCondDestroy(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalCondSignal(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalCondBroadcast(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalCondWait(nullptr, nullptr));
  ASSERT_EQ(VekError::kOk, OsalMutexLock(mutex));
  // Refused waits return at once and leave the caller's mutex held.
  EXPECT_EQ(VekError::kErrParam, OsalCondWait(nullptr, mutex));
  EXPECT_EQ(VekError::kErrParam, OsalCondWait(cond, nullptr));
  EXPECT_EQ(VekError::kErrBusy, OsalMutexTryLock(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));
  // A wait with a mutex nobody holds is refused at once; the mutex stays
  // free.
  EXPECT_EQ(VekError::kErrParam, OsalCondWait(cond, mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexTryLock(mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));

  // Both objects still work together, and the variable cannot be destroyed
  // under the thread that waits on it.
  struct Shared {
    void* mutex;
    void* cond;
    bool ready = false;
    VekError destroy_while_waited_on = VekError::kOk;
  } shared{mutex, cond};
  void* attr = nullptr;
  void* thread = nullptr;
  ASSERT_EQ(VekError::kOk, OsalThreadAttrInit(&attr));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr, "bad_input"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr, 65536));
  // Held before the thread starts, so that the thread gets it only once
  // this thread waits.
  ASSERT_EQ(VekError::kOk, OsalMutexLock(mutex));
  ASSERT_EQ(VekError::kOk, OsalThreadCreate(
                               &thread, attr,
                               [](void* arg) {
                                 auto* s = static_cast<Shared*>(arg);
                                 OsalMutexLock(s->mutex);
                                 // The main thread waits: it registered
                                 // before it let go of the mutex.
                                 s->destroy_while_waited_on =
                                     OsalCondDestroy(s->cond);
                                 s->ready = true;
                                 OsalCondSignal(s->cond);
                                 OsalMutexUnlock(s->mutex);
                               },
                               &shared));
  while (!shared.ready) ASSERT_EQ(VekError::kOk, OsalCondWait(cond, mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));
  EXPECT_EQ(VekError::kOk, OsalThreadJoin(thread));
  EXPECT_EQ(VekError::kErrBusy, shared.destroy_while_waited_on);
  EXPECT_EQ(VekError::kOk, OsalThreadAttrDestroy(attr));
  EXPECT_EQ(VekError::kOk, OsalCondDestroy(cond));
  EXPECT_EQ(VekError::kOk, OsalMutexDestroy(mutex));
}

}  // namespace
}  // namespace vek_test
