// What the mutex, semaphore and condition-variable cases share: objects of
// the port that live for one case, and a look at a mutex from a thread that
// holds nothing.
#ifndef UT_CONTRACT_VEK_CONTRACT_SYNC_H_
#define UT_CONTRACT_VEK_CONTRACT_SYNC_H_

#include <gtest/gtest.h>

#include <atomic>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "vek_contract.h"

namespace zov_vek_contract {

// One object of the port, destroyed when the case ends. Declare it before
// the threads that use it, so that they are joined first: every case
// destroys its objects only when nobody uses them, the one time every port
// must accept.
class Owned {
 public:
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() {
    if (handle_ != nullptr) {
      EXPECT_EQ(destroy_(handle_), VekError::kOk);
    }
  }

  void* get() const { return handle_; }

 protected:
  explicit Owned(VekError (*destroy)(void*)) : destroy_(destroy) {}

  void* handle_ = nullptr;

 private:
  VekError (*const destroy_)(void*);
};

class Mutex : public Owned {
 public:
  Mutex() : Owned(&zov_vek::OsalMutexDestroy) {
    EXPECT_EQ(zov_vek::OsalMutexInit(&handle_), VekError::kOk);
  }
};

class Semaphore : public Owned {
 public:
  explicit Semaphore(unsigned int count) : Owned(&zov_vek::OsalSemDestroy) {
    EXPECT_EQ(zov_vek::OsalSemInit(&handle_, count), VekError::kOk) << count;
  }
};

class Cond : public Owned {
 public:
  Cond() : Owned(&zov_vek::OsalCondDestroy) {
    EXPECT_EQ(zov_vek::OsalCondInit(&handle_), VekError::kOk);
  }
};

// Whether the calling thread takes `mutex` at once with TryLock; if it
// does, it gives it back.
inline bool TakeAndGiveBack(void* mutex) {
  if (zov_vek::OsalMutexTryLock(mutex) != VekError::kOk) return false;
  EXPECT_EQ(zov_vek::OsalMutexUnlock(mutex), VekError::kOk);
  return true;
}

// Whether `mutex` is free: a thread that holds nothing takes it at once.
inline bool FreeForAnotherThread(void* mutex) {
  std::atomic<bool> taken{false};
  ThreadGroup("probe").Run(1, [&](int) { taken = TakeAndGiveBack(mutex); });
  return taken.load();
}

}  // namespace zov_vek_contract

#endif  // UT_CONTRACT_VEK_CONTRACT_SYNC_H_
