// Counting semaphores on POSIX unnamed semaphores (sem_t), which both glibc
// and bionic implement on a futex: waits and try-waits never take a lock,
// and sem_getvalue reads the count exactly.
//
// The count never exceeds kOsalSemaphoreMaxValue, so that a port to a
// platform with 16-bit semaphores behaves the same. sem_t cannot test and
// post in one step, so posts are serialised by a small mutex: with every
// poster excluded, the count can only fall between the test and the post.
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>

#include <new>

#include "osal/posix/vek_posix_error.h"
#include "osal/posix/vek_posix_mutex.h"
#include "osal/vek_osal.h"
#include "osal/vek_thread_annotations.h"

namespace zov_vek {

namespace {

struct Semaphore {
  sem_t sem;
  posix::Mutex post_lock;
};

Semaphore* AsSemaphore(void* handle) { return static_cast<Semaphore*>(handle); }

// sem_* report failures through errno rather than their return value.
VekError LastError() { return posix::FromErrno(errno); }

// The test and the post of OsalSemPost, which only hold together while no
// other poster runs.
VekError PostBelowMax(Semaphore* s) VEK_REQUIRES(s->post_lock) {
  int count = 0;
  if (sem_getvalue(&s->sem, &count) != 0) return LastError();
  if (count >= static_cast<int>(kOsalSemaphoreMaxValue)) {
    return VekError::kErrOutOfRange;
  }
  if (sem_post(&s->sem) != 0) return LastError();
  return VekError::kOk;
}

}  // namespace

VekError OsalSemInit(void** sem, unsigned int value) {
  if (sem == nullptr) return VekError::kErrParam;
  if (value > kOsalSemaphoreMaxValue) return VekError::kErrOutOfRange;
  auto* created = new (std::nothrow) Semaphore;
  if (created == nullptr) return VekError::kErrNoResource;
  const int rc = created->post_lock.Init();
  if (rc != 0) {
    delete created;
    return posix::FromErrno(rc);
  }
  if (sem_init(&created->sem, /*pshared=*/0, value) != 0) {
    const VekError err = LastError();
    created->post_lock.Destroy();
    delete created;
    return err;
  }
  *sem = created;
  return VekError::kOk;
}

VekError OsalSemDestroy(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  Semaphore* s = AsSemaphore(sem);
  // A poster still inside OsalSemPost holds post_lock: refuse, and the
  // semaphore stays usable.
  const int rc = s->post_lock.Destroy();
  if (rc != 0) return posix::FromErrno(rc);
  // sem_destroy fails only for memory that is not a semaphore, which a
  // handle from OsalSemInit never is; the object goes either way.
  const VekError err = sem_destroy(&s->sem) == 0 ? VekError::kOk : LastError();
  delete s;
  return err;
}

VekError OsalSemPost(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  Semaphore* s = AsSemaphore(sem);
  int rc = s->post_lock.Lock();
  if (rc != 0) return posix::FromErrno(rc);
  VekError err = PostBelowMax(s);
  rc = s->post_lock.Unlock();
  if (err == VekError::kOk && rc != 0) err = posix::FromErrno(rc);
  return err;
}

VekError OsalSemWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  // A signal handler that runs while the thread waits interrupts sem_wait;
  // the caller asked to wait for a post, not for a signal.
  while (sem_wait(&AsSemaphore(sem)->sem) != 0) {
    if (errno != EINTR) return LastError();
  }
  return VekError::kOk;
}

VekError OsalSemTryWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  while (sem_trywait(&AsSemaphore(sem)->sem) != 0) {
    // EAGAIN (count 0) maps to kErrBusy: taking it would block.
    if (errno != EINTR) return LastError();
  }
  return VekError::kOk;
}

VekError OsalSemGetValue(void* sem, int* value) {
  if (sem == nullptr || value == nullptr) return VekError::kErrParam;
  int count = 0;
  if (sem_getvalue(&AsSemaphore(sem)->sem, &count) != 0) return LastError();
  // POSIX lets an implementation report waiters as a negative count; the
  // framework's count is never below 0.
  *value = count < 0 ? 0 : count;
  return VekError::kOk;
}

}  // namespace zov_vek
