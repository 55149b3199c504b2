// A pthread mutex for the port's own internal locks, annotated so that
// clang's thread-safety analysis checks what each one guards.
#ifndef OSAL_POSIX_VEK_POSIX_MUTEX_H_
#define OSAL_POSIX_VEK_POSIX_MUTEX_H_

#include <pthread.h>

#include "osal/vek_thread_annotations.h"

namespace zov_vek {
namespace posix {

// Results are pthreads' error numbers. Lock() counts as taken only when it
// returns 0, so a caller that returns on a failed lock is not held to an
// unlock it cannot do.
class VEK_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  int Init() { return pthread_mutex_init(&mutex_, nullptr); }
  // EBUSY while anyone holds it; it then stays usable.
  int Destroy() { return pthread_mutex_destroy(&mutex_); }
  int Lock() VEK_TRY_ACQUIRE(0) { return pthread_mutex_lock(&mutex_); }
  int Unlock() VEK_RELEASE() { return pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace posix
}  // namespace zov_vek

#endif  // OSAL_POSIX_VEK_POSIX_MUTEX_H_
