// Base class of a long-lived worker thread that sleeps on a condition
// variable until work arrives and leaves when asked to. Exported by
// libvekosal; where its contract leaves a choice, "Our library:" says what
// this tree's libvekosal does (utils/vek_worker_thread_base.cpp, built into
// every port).
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
// held: Exit() sets the request and wakes the worker under that mutex, so
// the worker cannot miss it between its test and its wait.
//
// Threading: Start(), Exit() and the destructor are called by the owner,
// one at a time, never from the worker thread itself (Exit() joins it).
// The owner's mutex and condition variable must outlive the running worker.
#ifndef UTILS_VEK_WORKER_THREAD_BASE_H_
#define UTILS_VEK_WORKER_THREAD_BASE_H_

#include <atomic>

#include "osal/vek_error.h"
#include "osal/vek_export.h"

namespace zov_vek {

class VEK_EXPORT WorkerThreadBase {
 public:
  WorkerThreadBase();
  // Our library: with a worker still running, logs a warning line in kOsal
  // and calls Exit(). By then the subclass's part of the object is gone: a
  // loop that still runs would use it, and a worker that has not yet
  // entered ThreadFunction() would call a pure virtual function. A subclass
  // whose worker may still run when it is destroyed therefore calls Exit()
  // in its own destructor.
  virtual ~WorkerThreadBase();

  WorkerThreadBase(const WorkerThreadBase&) = delete;
  WorkerThreadBase& operator=(const WorkerThreadBase&) = delete;

  // Starts the worker thread, named `name`, on a library stack of
  // `stack_size` bytes; it runs OnThreadStarted(), then ThreadFunction().
  // `mutex` and `cond` are the owner's handle variables, remembered by
  // reference; they must hold valid handles until Exit() has returned.
  // While a worker of this object runs, Start is refused and starts
  // nothing; after Exit() it works again. With `flag` true, kOk means the
  // worker runs. Our library: with `flag` true, blocks until the new thread
  // has run OnThreadStarted(); with false, returns as soon as the thread
  // exists. Refused while running: kErrBusy, with no log line and nothing
  // changed. A null mutex or condition-variable handle: kErrParam. A
  // thread that cannot be made (a name or stack size the OSAL refuses, no
  // memory): the OSAL's code. Those log one error line in kOsal and release
  // what the call made.
  VekError Start(void*& mutex, void*& cond, const char* name,
                 unsigned int stack_size, bool flag);

  // Requests exit under the owner's mutex, wakes the worker through the
  // owner's condition variable, and blocks until the thread has ended; kOk,
  // also when no worker runs. Our library: wakes every waiter of the
  // condition variable, not one; a join that fails returns its code, and
  // the worker still counts as running, so a later Exit() tries again.
  VekError Exit();

  // True once Exit() has requested exit, until the next Start(). The loop
  // reads it with the owner's mutex held.
  bool ThreadShouldExit() const;

 protected:
  // The body of the worker thread; returns when the thread is to end.
  virtual void ThreadFunction() = 0;
  // Runs once on the new thread before ThreadFunction(). Our library: the
  // base's version does nothing.
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
