// Counting semaphores on a futex word that holds the count itself.
//
// A post is one compare-and-swap that tests the maximum and adds one in the
// same step, so the count never exceeds kOsalSemaphoreMaxValue, also with
// many posters at once, and a port to a platform with 16-bit semaphores
// behaves the same. A wait or try-wait takes one with a compare-and-swap as
// long as the count is above 0; only a wait that finds 0 enters the kernel,
// and a post enters it only when the waiter count says someone may sleep.
#include <atomic>
#include <cstdint>
#include <new>

#include "osal/posix/vek_futex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

struct Semaphore {
  explicit Semaphore(uint32_t value) : count(value) { VEK_SYNC_CREATED(this); }
  ~Semaphore() { VEK_SYNC_DESTROYED(this); }

  // Takes one if there is one; never waits.
  bool TryTake() {
    uint32_t value = count.load(std::memory_order_relaxed);
    while (value != 0) {
      if (count.compare_exchange_weak(value, value - 1,
                                      std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        VEK_SYNC_HAPPENS_AFTER(this);
        return true;
      }
    }
    return false;
  }

  // The futex word: the count, 0 to kOsalSemaphoreMaxValue.
  std::atomic<uint32_t> count;
  // Threads inside OsalSemWait that found the count at 0.
  std::atomic<uint32_t> waiters{0};
};

Semaphore* AsSemaphore(void* handle) { return static_cast<Semaphore*>(handle); }

}  // namespace

VekError OsalSemInit(void** sem, unsigned int value) {
  if (sem == nullptr) return VekError::kErrParam;
  if (value > kOsalSemaphoreMaxValue) return VekError::kErrOutOfRange;
  auto* created = new (std::nothrow) Semaphore(value);
  if (created == nullptr) return VekError::kErrNoResource;
  *sem = created;
  return VekError::kOk;
}

VekError OsalSemDestroy(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  // A thread still inside OsalSemWait would wake on freed memory: refuse,
  // and the semaphore stays usable.
  if (AsSemaphore(sem)->waiters.load(std::memory_order_acquire) != 0) {
    return VekError::kErrBusy;
  }
  delete AsSemaphore(sem);
  return VekError::kOk;
}

VekError OsalSemPost(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  Semaphore* s = AsSemaphore(sem);
  VEK_SYNC_HAPPENS_BEFORE(s);
  uint32_t value = s->count.load(std::memory_order_relaxed);
  do {
    if (value >= kOsalSemaphoreMaxValue) return VekError::kErrOutOfRange;
  } while (!s->count.compare_exchange_weak(
      value, value + 1, std::memory_order_seq_cst, std::memory_order_relaxed));
  // Sequentially consistent with the waiter's increment of `waiters` and
  // its read of the count: either this read sees the waiter, or the waiter
  // sees the new count and does not sleep.
  if (s->waiters.load(std::memory_order_seq_cst) != 0) {
    posix::FutexWake(&s->count, 1);
  }
  return VekError::kOk;
}

VekError OsalSemWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  Semaphore* s = AsSemaphore(sem);
  if (__builtin_expect(s->TryTake(), 1)) return VekError::kOk;
  s->waiters.fetch_add(1, std::memory_order_seq_cst);
  // The kernel reads the count again, after a full barrier, before it lets
  // the thread sleep: a post whose read of `waiters` came too early to see
  // this thread has made its count visible by then. A wake may find the
  // count taken by a faster thread, and a signal handler may end the sleep
  // early: both just sleep again.
  while (!s->TryTake()) posix::FutexWait(&s->count, 0);
  s->waiters.fetch_sub(1, std::memory_order_release);
  return VekError::kOk;
}

VekError OsalSemTryWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  return AsSemaphore(sem)->TryTake() ? VekError::kOk : VekError::kErrBusy;
}

VekError OsalSemGetValue(void* sem, int* value) {
  if (sem == nullptr || value == nullptr) return VekError::kErrParam;
  *value =
      static_cast<int>(AsSemaphore(sem)->count.load(std::memory_order_relaxed));
  return VekError::kOk;
}

}  // namespace zov_vek
