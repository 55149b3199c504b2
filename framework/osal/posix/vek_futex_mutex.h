// The mutex behind an OSAL mutex handle, shared by the mutex operations and
// by the condition variable, which releases and re-takes it around a wait.
//
// One 32-bit word: 0 free, 1 held, 2 held with sleepers possible. Taking a
// free mutex is one compare-and-swap, releasing one exchange; the kernel is
// entered only when the word says someone sleeps. A thread that finds the
// mutex held spins briefly (most holds last nanoseconds), then marks the
// word 2 and sleeps, and every later taker keeps it at 2 so that the
// release wakes the next sleeper. This is the classic three-state futex
// mutex (Drepper, "Futexes Are Tricky"), which glibc's and bionic's normal
// mutexes also use under their type and owner bookkeeping.
#ifndef OSAL_POSIX_VEK_FUTEX_MUTEX_H_
#define OSAL_POSIX_VEK_FUTEX_MUTEX_H_

#include <atomic>
#include <cstdint>

#include "osal/posix/vek_futex.h"

namespace zov_vek {
namespace posix {

class FutexMutex {
 public:
  FutexMutex() { VEK_SYNC_CREATED(this); }
  ~FutexMutex() { VEK_SYNC_DESTROYED(this); }
  FutexMutex(const FutexMutex&) = delete;
  FutexMutex& operator=(const FutexMutex&) = delete;

  void Lock() {
    uint32_t expected = kFree;
    if (__builtin_expect(!state_.compare_exchange_strong(
                             expected, kHeld, std::memory_order_acquire,
                             std::memory_order_relaxed),
                         0)) {
      LockContended();
    }
    VEK_SYNC_HAPPENS_AFTER(this);
  }

  // Never waits. A held mutex, by another thread or by the caller (it is
  // not recursive), is refused without writing the word: a plain load does
  // not take the cache line away from the owner, a failed compare-and-swap
  // would.
  bool TryLock() {
    uint32_t expected = kFree;
    if (state_.load(std::memory_order_relaxed) != kFree ||
        !state_.compare_exchange_strong(expected, kHeld,
                                        std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      return false;
    }
    VEK_SYNC_HAPPENS_AFTER(this);
    return true;
  }

  // False, with nothing changed, when the mutex was not held.
  bool Unlock() {
    VEK_SYNC_HAPPENS_BEFORE(this);
    const uint32_t previous = state_.exchange(kFree, std::memory_order_release);
    if (__builtin_expect(previous == kContended, 0)) FutexWake(&state_, 1);
    return previous != kFree;
  }

  bool IsHeld() const {
    return state_.load(std::memory_order_relaxed) != kFree;
  }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kContended = 2;

  // Out of line: the fast paths stay small enough to inline into each
  // operation.
  void LockContended();

  std::atomic<uint32_t> state_{kFree};
};

}  // namespace posix
}  // namespace zov_vek

#endif  // OSAL_POSIX_VEK_FUTEX_MUTEX_H_
