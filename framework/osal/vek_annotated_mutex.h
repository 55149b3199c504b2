// An OSAL mutex handle that clang's thread-safety analysis can follow.
//
// The OSAL hands out mutexes as bare void* handles, which the analysis
// cannot treat as locks. This wrapper holds exactly that handle (same size
// and layout) and routes locking through OsalMutexLock/OsalMutexUnlock, so
// members marked VEK_GUARDED_BY(the wrapper) are checked at every access.
#ifndef OSAL_VEK_ANNOTATED_MUTEX_H_
#define OSAL_VEK_ANNOTATED_MUTEX_H_

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "osal/vek_thread_annotations.h"

namespace zov_vek {

class VEK_CAPABILITY("mutex") AnnotatedOsalMutex {
 public:
  AnnotatedOsalMutex() = default;
  AnnotatedOsalMutex(const AnnotatedOsalMutex&) = delete;
  AnnotatedOsalMutex& operator=(const AnnotatedOsalMutex&) = delete;

  VekError Init() { return OsalMutexInit(&handle_); }

  // The analysis counts the lock as held after Lock() whatever the result:
  // a failed lock of a valid handle means a broken process, not a state
  // to reason about.
  VekError Lock() VEK_ACQUIRE() { return OsalMutexLock(handle_); }
  VekError Unlock() VEK_RELEASE() { return OsalMutexUnlock(handle_); }

 private:
  void* handle_ = nullptr;
};

}  // namespace zov_vek

#endif  // OSAL_VEK_ANNOTATED_MUTEX_H_
