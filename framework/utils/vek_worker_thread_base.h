// Base class of a long-lived worker thread that sleeps on a condition
// variable until work arrives and leaves when asked to.
//
// The owner keeps the work, a mutex and a condition variable of its own;
// the base starts and stops the thread and tells the loop when to leave.
// A subclass supplies the loop:
//
//   void ThreadFunction() override {
//     OsalMutexLock(mutex_);
//     for (;;) {
//       while (queue_.empty() && !ThreadShouldExit()) {
//         OsalCondWait(cond_, mutex_);
//       }
//       if (queue_.empty()) break;  // exit requested and nothing left
//       ... take one item, unlock, process it, lock again ...
//     }
//     OsalMutexUnlock(mutex_);
//   }
//
// Testing the queue before the exit request drains queued work before the
// thread leaves. The loop reads ThreadShouldExit() with the owner's mutex
// held: Exit() sets the request and signals under that mutex, so a worker
// cannot miss it between its test and its wait.
//
// Threading: Start(), Exit() and the destructor are called by the owner,
// one at a time (they are not meant to race each other), and never from
// the worker thread itself (Exit() joins the worker).
//
// Destruction: the destructor of a still-running worker requests exit and
// joins the thread, so no thread is leaked. By then the subclass's part of
// the object is already gone, and a loop that still runs would use it. A
// subclass whose loop touches its own members must therefore call Exit()
// in its own destructor; the owner's mutex and condition variable must
// outlive the running worker either way.
#ifndef UTILS_VEK_WORKER_THREAD_BASE_H_
#define UTILS_VEK_WORKER_THREAD_BASE_H_

#include <atomic>

#include "osal/vek_error.h"
#include "osal/vek_export.h"

namespace zov_vek {

class VEK_EXPORT WorkerThreadBase {
 public:
  WorkerThreadBase();
  virtual ~WorkerThreadBase();

  WorkerThreadBase(const WorkerThreadBase&) = delete;
  WorkerThreadBase& operator=(const WorkerThreadBase&) = delete;

  // Starts the worker thread, named `name`, on a library stack of
  // `stack_size` bytes. `mutex` and `cond` are the owner's handle
  // variables; they are remembered by reference and must hold valid
  // handles until Exit() has returned. With `flag` true, returns only
  // after the new thread has run OnThreadStarted(); with false, as soon as
  // the thread exists.
  //
  // kErrBusy while a worker of this object runs (nothing is started and
  // nothing changes); kErrParam for a null mutex or condition-variable
  // handle; the thread operations' own codes when the thread cannot be
  // created (a null or empty name, an unusable stack size).
  VekError Start(void*& mutex, void*& cond, const char* name,
                 unsigned int stack_size, bool flag);

  // Requests exit under the owner's mutex, wakes the worker through the
  // owner's condition variable, and joins the thread. kOk, also when no
  // worker runs.
  VekError Exit();

  // True once Exit() has requested exit, until the next Start(). The loop
  // reads it with the owner's mutex held.
  bool ThreadShouldExit() const;

 protected:
  // The body of the worker thread; returns when the thread is to end.
  virtual void ThreadFunction() = 0;
  // Runs once on the new thread before ThreadFunction(). The base's version
  // does nothing.
  virtual void OnThreadStarted();

 private:
  static void ThreadEntry(void* arg);
  // Releases the thread attribute and the start-up semaphore, if any.
  void ReleaseStartResources();

  // Opaque OSAL handles: the worker thread, its attribute, and the
  // semaphore through which the new thread reports that it has started.
  void* thread_ = nullptr;
  void* attr_ = nullptr;
  void* started_ = nullptr;
  // The owner's handle variables, as passed to Start().
  void** mutex_ = nullptr;
  void** cond_ = nullptr;
  bool running_ = false;
  // Written under the owner's mutex; atomic so that a read without it is
  // merely late, never undefined.
  std::atomic<bool> exit_requested_{false};
};

}  // namespace zov_vek

#endif  // UTILS_VEK_WORKER_THREAD_BASE_H_
