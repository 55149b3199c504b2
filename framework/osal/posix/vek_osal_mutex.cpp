// Mutexes on the port's futex mutex (osal/posix/vek_futex_mutex.h).
#include <new>

#include "osal/posix/vek_futex_mutex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace posix {

void FutexMutex::LockContended() {
  // A short spin first: a holder that is running releases within a few
  // hundred cycles, far less than a sleep and a wake-up cost. The spin only
  // reads, so it does not fight the holder for the cache line.
  for (int spin = 0; spin < 100; ++spin) {
    uint32_t state = state_.load(std::memory_order_relaxed);
    if (state == kFree) {
      if (state_.compare_exchange_weak(state, kHeld, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return;
      }
    } else if (state == kContended) {
      break;  // others sleep already: queue up behind them
    }
    CpuRelax();
  }
  // Whoever takes the mutex from here on leaves the word at 2, because it
  // cannot know whether other sleepers remain; that costs one needless wake
  // at worst, never a lost one.
  while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
    FutexWait(&state_, kContended);
  }
}

}  // namespace posix

namespace {

posix::FutexMutex* AsMutex(void* handle) {
  return static_cast<posix::FutexMutex*>(handle);
}

}  // namespace

VekError OsalMutexInit(void** mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  auto* created = new (std::nothrow) posix::FutexMutex;
  if (created == nullptr) return VekError::kErrNoResource;
  *mutex = created;
  return VekError::kOk;
}

VekError OsalMutexDestroy(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  // A held mutex is refused and stays usable rather than being freed under
  // its owner.
  if (AsMutex(mutex)->IsHeld()) return VekError::kErrBusy;
  delete AsMutex(mutex);
  return VekError::kOk;
}

VekError OsalMutexLock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  AsMutex(mutex)->Lock();
  return VekError::kOk;
}

VekError OsalMutexUnlock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  // Unlocking a free mutex is a caller's error; it stays free.
  return AsMutex(mutex)->Unlock() ? VekError::kOk : VekError::kErrParam;
}

VekError OsalMutexTryLock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  return AsMutex(mutex)->TryLock() ? VekError::kOk : VekError::kErrBusy;
}

}  // namespace zov_vek
