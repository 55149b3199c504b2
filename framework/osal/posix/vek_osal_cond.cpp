// Condition variables on pthread condition variables. The mutex handle of
// this library is a pthread_mutex_t*, so a wait hands it to
// pthread_cond_wait as it is, which releases it and starts waiting in one
// step.
#include <pthread.h>

#include <new>

#include "osal/posix/vek_posix_error.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

pthread_cond_t* AsCond(void* handle) {
  return static_cast<pthread_cond_t*>(handle);
}

}  // namespace

VekError OsalCondInit(void** cond) {
  if (cond == nullptr) return VekError::kErrParam;
  auto* created = new (std::nothrow) pthread_cond_t;
  if (created == nullptr) return VekError::kErrNoResource;
  const int rc = pthread_cond_init(created, nullptr);
  if (rc != 0) {
    delete created;
    return posix::FromErrno(rc);
  }
  *cond = created;
  return VekError::kOk;
}

VekError OsalCondDestroy(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  // Where the platform reports waiters (EBUSY), the variable stays usable
  // rather than being freed under them.
  const int rc = pthread_cond_destroy(AsCond(cond));
  if (rc != 0) return posix::FromErrno(rc);
  delete AsCond(cond);
  return VekError::kOk;
}

VekError OsalCondWait(void* cond, void* mutex) {
  if (cond == nullptr || mutex == nullptr) return VekError::kErrParam;
  return posix::FromErrno(
      pthread_cond_wait(AsCond(cond), static_cast<pthread_mutex_t*>(mutex)));
}

VekError OsalCondSignal(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  return posix::FromErrno(pthread_cond_signal(AsCond(cond)));
}

VekError OsalCondBroadcast(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  return posix::FromErrno(pthread_cond_broadcast(AsCond(cond)));
}

}  // namespace zov_vek
