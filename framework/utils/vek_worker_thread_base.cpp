// The worker thread is built on the OSAL operations alone, so every port of
// the library gets it unchanged.
#include "utils/vek_worker_thread_base.h"

#include "logging/vek_log.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

const char* Printable(const char* name) {
  return name != nullptr ? name : "(null)";
}

}  // namespace

WorkerThreadBase::WorkerThreadBase() = default;

WorkerThreadBase::~WorkerThreadBase() {
  if (running_) {
    // Only the base's part of the object is left here; see the header for
    // what a subclass has to do before this point.
    LOG_WARNING(PredefinedGroup::kOsal,
                "worker thread still running at destruction, stopping it");
    Exit();
  }
}

void WorkerThreadBase::OnThreadStarted() {}

VekError WorkerThreadBase::Start(void*& mutex, void*& cond, const char* name,
                                 unsigned int stack_size, bool flag) {
  // Refused without a log line: the code says it, and a caller that
  // starts a running worker on purpose should not fill the log.
  if (running_) return VekError::kErrBusy;
  if (mutex == nullptr || cond == nullptr) {
    LOG_ERROR(PredefinedGroup::kOsal, "null handle, mutex=%p, cond=%p", mutex,
              cond);
    return VekError::kErrParam;
  }

  VekError err = OsalThreadAttrInit(&attr_);
  if (err == VekError::kOk) err = OsalThreadAttrSetName(attr_, name);
  if (err == VekError::kOk) err = OsalThreadAttrSetStackSize(attr_, stack_size);
  if (err == VekError::kOk && flag) err = OsalSemInit(&started_, 0);
  if (err != VekError::kOk) {
    LOG_ERROR(PredefinedGroup::kOsal,
              "cannot prepare worker thread %s, stack_size=%u, err=%d",
              Printable(name), stack_size, static_cast<int>(err));
    ReleaseStartResources();
    return err;
  }

  mutex_ = &mutex;
  cond_ = &cond;
  // No worker runs, so nobody reads the request while it is cleared; the
  // thread creation publishes it to the new thread.
  exit_requested_.store(false, std::memory_order_relaxed);
  void* thread = nullptr;
  err = OsalThreadCreate(&thread, attr_, &WorkerThreadBase::ThreadEntry, this);
  if (err != VekError::kOk) {
    LOG_ERROR(PredefinedGroup::kOsal, "cannot create worker thread %s, err=%d",
              Printable(name), static_cast<int>(err));
    ReleaseStartResources();
    mutex_ = nullptr;
    cond_ = nullptr;
    return err;
  }
  thread_ = thread;
  running_ = true;

  if (flag) {
    err = OsalSemWait(started_);
    if (err != VekError::kOk) {
      // The thread runs but its start cannot be confirmed: take it down
      // again so that a failed Start leaves nothing behind.
      LOG_ERROR(PredefinedGroup::kOsal,
                "cannot wait for worker thread %s to start, err=%d",
                Printable(name), static_cast<int>(err));
      Exit();
      return err;
    }
  }
  return VekError::kOk;
}

VekError WorkerThreadBase::Exit() {
  if (!running_) return VekError::kOk;

  // Set and wake under the owner's mutex: a worker that found no exit
  // request is then either not yet at its test (and will see the request)
  // or already waiting (and is woken). The condition variable is the
  // owner's and may have other waiters, so wake them all rather than risk
  // the one wake-up going to another thread.
  const VekError lock_err = OsalMutexLock(*mutex_);
  if (lock_err != VekError::kOk) {
    LOG_ERROR(PredefinedGroup::kOsal, "cannot lock owner's mutex, err=%d",
              static_cast<int>(lock_err));
  }
  exit_requested_.store(true, std::memory_order_relaxed);
  const VekError wake_err = OsalCondBroadcast(*cond_);
  if (wake_err != VekError::kOk) {
    LOG_ERROR(PredefinedGroup::kOsal, "cannot wake worker thread, err=%d",
              static_cast<int>(wake_err));
  }
  if (lock_err == VekError::kOk) OsalMutexUnlock(*mutex_);

  const VekError err = OsalThreadJoin(thread_);
  if (err != VekError::kOk) {
    LOG_ERROR(PredefinedGroup::kOsal, "cannot join worker thread, err=%d",
              static_cast<int>(err));
    return err;
  }
  thread_ = nullptr;
  running_ = false;
  ReleaseStartResources();
  mutex_ = nullptr;
  cond_ = nullptr;
  return VekError::kOk;
}

bool WorkerThreadBase::ThreadShouldExit() const {
  return exit_requested_.load(std::memory_order_relaxed);
}

void WorkerThreadBase::ThreadEntry(void* arg) {
  auto* self = static_cast<WorkerThreadBase*>(arg);
  self->OnThreadStarted();
  // Start() keeps the semaphore until the thread has been joined, so
  // posting cannot race its destruction.
  if (self->started_ != nullptr) OsalSemPost(self->started_);
  self->ThreadFunction();
}

void WorkerThreadBase::ReleaseStartResources() {
  if (started_ != nullptr) {
    OsalSemDestroy(started_);
    started_ = nullptr;
  }
  if (attr_ != nullptr) {
    OsalThreadAttrDestroy(attr_);
    attr_ = nullptr;
  }
}

}  // namespace zov_vek
