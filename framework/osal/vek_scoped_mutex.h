// Holds an OSAL mutex for the life of a scope.
#ifndef OSAL_VEK_SCOPED_MUTEX_H_
#define OSAL_VEK_SCOPED_MUTEX_H_

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace zov_vek {

// Locks the mutex when constructed and unlocks it when destroyed. The
// mutex is neither created nor destroyed here. A failed lock or unlock is
// written to the log of the kOsal group and otherwise ignored: a scope has
// no way to report it, and after a failed lock the destructor still tries
// to unlock.
class ScopedMutex {
 public:
  explicit ScopedMutex(void* mutex) : mutex_(mutex) {
    if (OsalMutexLock(mutex_) != VekError::kOk) {
      LOG_ERROR(PredefinedGroup::kOsal,
                "Failed to lock mutex in ScopedMutex constructor");
    }
  }

  ~ScopedMutex() {
    if (OsalMutexUnlock(mutex_) != VekError::kOk) {
      LOG_ERROR(PredefinedGroup::kOsal,
                "Failed to unlock mutex in ScopedMutex destructor");
    }
  }

  // A copy would unlock the mutex a second time.
  ScopedMutex(const ScopedMutex&) = delete;
  ScopedMutex& operator=(const ScopedMutex&) = delete;

 private:
  void* mutex_;
};

}  // namespace zov_vek

#endif  // OSAL_VEK_SCOPED_MUTEX_H_
