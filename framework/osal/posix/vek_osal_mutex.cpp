// Mutexes on pthread mutexes of the default (normal, non-recursive) type,
// which keeps lock and unlock on the platform's fast path.
#include <pthread.h>

#include <new>

#include "osal/posix/vek_posix_error.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

pthread_mutex_t* AsMutex(void* handle) {
  return static_cast<pthread_mutex_t*>(handle);
}

}  // namespace

VekError OsalMutexInit(void** mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  auto* created = new (std::nothrow) pthread_mutex_t;
  if (created == nullptr) return VekError::kErrNoResource;
  const int rc = pthread_mutex_init(created, nullptr);
  if (rc != 0) {
    delete created;
    return posix::FromErrno(rc);
  }
  *mutex = created;
  return VekError::kOk;
}

VekError OsalMutexDestroy(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  // A held mutex is refused (EBUSY) and stays usable rather than being
  // freed under its owner. POSIX leaves destroying a held mutex undefined,
  // so the holder is detected by a try-lock first, which fails for the
  // owner too: the mutex is not recursive.
  const int busy = pthread_mutex_trylock(AsMutex(mutex));
  if (busy != 0) return posix::FromErrno(busy);
  pthread_mutex_unlock(AsMutex(mutex));
  const int rc = pthread_mutex_destroy(AsMutex(mutex));
  if (rc != 0) return posix::FromErrno(rc);
  delete AsMutex(mutex);
  return VekError::kOk;
}

VekError OsalMutexLock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  return posix::FromErrno(pthread_mutex_lock(AsMutex(mutex)));
}

VekError OsalMutexUnlock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  return posix::FromErrno(pthread_mutex_unlock(AsMutex(mutex)));
}

VekError OsalMutexTryLock(void* mutex) {
  if (mutex == nullptr) return VekError::kErrParam;
  // A normal mutex answers EBUSY to its own holder as well, so the caller's
  // hold survives untouched.
  return posix::FromErrno(pthread_mutex_trylock(AsMutex(mutex)));
}

}  // namespace zov_vek
