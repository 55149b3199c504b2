// The OSAL beside the raw POSIX calls it wraps.
//
// Rows are named "<operation>/<implementation>": "vek" is ours, every other
// implementation is a reference, and a reference whose label reads
// "goal=<ratio>" carries the ratio ours must not exceed.
//
// The raw references' objects live on the heap, as every OSAL object does
// and as a component's members do. Placement alone moves an operation of
// 1.4 ns by up to a third either way: glibc's sem_trywait on a stack
// semaphore took 1.41 ns every time here, on a heap one 1.43 to 2.0 ns
// from one allocation to the next. With both sides on the heap, they draw
// from the same spread.
#include <benchmark/benchmark.h>
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "osal/vek_scoped_mutex.h"
#include "vek_bench_alloc_count.h"

#ifdef VEK_BENCH_HAVE_LIBBSD
#include <bsd/string.h>
#endif

namespace {

using zov_vek::VekError;

constexpr char kSyncGoal[] = "goal=1.15";
constexpr char kThreadGoal[] = "goal=1.2";

bool Failed(benchmark::State& state, VekError err, const char* what) {
  if (err == VekError::kOk) return false;
  state.SkipWithError(what);
  return true;
}

// === Mutex

void MutexLockUnlockVek(benchmark::State& state) {
  void* mutex = nullptr;
  if (Failed(state, zov_vek::OsalMutexInit(&mutex), "OsalMutexInit")) return;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    zov_vek::OsalMutexLock(mutex);
    zov_vek::OsalMutexUnlock(mutex);
  }
  zov_vek::OsalMutexDestroy(mutex);
}
BENCHMARK(MutexLockUnlockVek)->Name("mutex_lock_unlock/vek");

void MutexLockUnlockPthread(benchmark::State& state) {
  auto owned_mutex = std::make_unique<pthread_mutex_t>();
  pthread_mutex_t& mutex = *owned_mutex;
  pthread_mutex_init(&mutex, nullptr);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(MutexLockUnlockPthread)->Name("mutex_lock_unlock/pthread");

void MutexTryLockHeldVek(benchmark::State& state) {
  void* mutex = nullptr;
  if (Failed(state, zov_vek::OsalMutexInit(&mutex), "OsalMutexInit")) return;
  zov_vek::OsalMutexLock(mutex);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zov_vek::OsalMutexTryLock(mutex));
  }
  zov_vek::OsalMutexUnlock(mutex);
  zov_vek::OsalMutexDestroy(mutex);
}
BENCHMARK(MutexTryLockHeldVek)->Name("mutex_trylock_held/vek");

void MutexTryLockHeldPthread(benchmark::State& state) {
  auto owned_mutex = std::make_unique<pthread_mutex_t>();
  pthread_mutex_t& mutex = *owned_mutex;
  pthread_mutex_init(&mutex, nullptr);
  pthread_mutex_lock(&mutex);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_mutex_trylock(&mutex));
  }
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(MutexTryLockHeldPthread)->Name("mutex_trylock_held/pthread");

void ScopedMutexVek(benchmark::State& state) {
  void* mutex = nullptr;
  if (Failed(state, zov_vek::OsalMutexInit(&mutex), "OsalMutexInit")) return;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    zov_vek::ScopedMutex lock(mutex);
    benchmark::ClobberMemory();
  }
  zov_vek::OsalMutexDestroy(mutex);
}
BENCHMARK(ScopedMutexVek)->Name("scoped_mutex/vek");

void ScopedMutexStdLockGuard(benchmark::State& state) {
  auto owned_mutex = std::make_unique<std::mutex>();
  std::mutex& mutex = *owned_mutex;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    std::lock_guard<std::mutex> lock(mutex);
    benchmark::ClobberMemory();
  }
  state.SetLabel(kSyncGoal);
}
BENCHMARK(ScopedMutexStdLockGuard)->Name("scoped_mutex/std_lock_guard");

// === Semaphore

void SemPostWaitVek(benchmark::State& state) {
  void* sem = nullptr;
  if (Failed(state, zov_vek::OsalSemInit(&sem, 0), "OsalSemInit")) return;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    zov_vek::OsalSemPost(sem);
    zov_vek::OsalSemWait(sem);
  }
  zov_vek::OsalSemDestroy(sem);
}
BENCHMARK(SemPostWaitVek)->Name("sem_post_wait/vek");

void SemPostWaitPosix(benchmark::State& state) {
  auto owned_sem = std::make_unique<sem_t>();
  sem_t& sem = *owned_sem;
  sem_init(&sem, 0, 0);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    sem_post(&sem);
    sem_wait(&sem);
  }
  sem_destroy(&sem);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(SemPostWaitPosix)->Name("sem_post_wait/posix");

void SemTryWaitZeroVek(benchmark::State& state) {
  void* sem = nullptr;
  if (Failed(state, zov_vek::OsalSemInit(&sem, 0), "OsalSemInit")) return;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zov_vek::OsalSemTryWait(sem));
  }
  zov_vek::OsalSemDestroy(sem);
}
BENCHMARK(SemTryWaitZeroVek)->Name("sem_trywait_zero/vek");

void SemTryWaitZeroPosix(benchmark::State& state) {
  auto owned_sem = std::make_unique<sem_t>();
  sem_t& sem = *owned_sem;
  sem_init(&sem, 0, 0);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(sem_trywait(&sem));
  }
  sem_destroy(&sem);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(SemTryWaitZeroPosix)->Name("sem_trywait_zero/posix");

// A raw caller that wants to know why the try failed (would block, or
// something else) reads errno as well, as the OSAL must to pick its code.
void SemTryWaitZeroPosixErrno(benchmark::State& state) {
  auto owned_sem = std::make_unique<sem_t>();
  sem_t& sem = *owned_sem;
  sem_init(&sem, 0, 0);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(sem_trywait(&sem) == 0 || errno != EAGAIN);
  }
  sem_destroy(&sem);
}
BENCHMARK(SemTryWaitZeroPosixErrno)->Name("sem_trywait_zero/posix_errno");

// === Condition variable

void CondSignalNoWaiterVek(benchmark::State& state) {
  void* cond = nullptr;
  if (Failed(state, zov_vek::OsalCondInit(&cond), "OsalCondInit")) return;
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zov_vek::OsalCondSignal(cond));
  }
  zov_vek::OsalCondDestroy(cond);
}
BENCHMARK(CondSignalNoWaiterVek)->Name("cond_signal_no_waiter/vek");

void CondSignalNoWaiterPthread(benchmark::State& state) {
  auto owned_cond = std::make_unique<pthread_cond_t>();
  pthread_cond_t& cond = *owned_cond;
  pthread_cond_init(&cond, nullptr);
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_cond_signal(&cond));
  }
  pthread_cond_destroy(&cond);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(CondSignalNoWaiterPthread)->Name("cond_signal_no_waiter/pthread");

// === Two-thread ping-pong
// One round trip per iteration: the main thread hands the turn to a partner
// thread and waits until it comes back. Both threads block, so these rows
// are timed in wall-clock time.

void PingPongSemVek(benchmark::State& state) {
  void* ping = nullptr;
  void* pong = nullptr;
  if (Failed(state, zov_vek::OsalSemInit(&ping, 0), "OsalSemInit")) return;
  if (Failed(state, zov_vek::OsalSemInit(&pong, 0), "OsalSemInit")) {
    zov_vek::OsalSemDestroy(ping);
    return;
  }
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      zov_vek::OsalSemWait(ping);
      if (stop.load(std::memory_order_relaxed)) break;
      zov_vek::OsalSemPost(pong);
    }
  });
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    zov_vek::OsalSemPost(ping);
    zov_vek::OsalSemWait(pong);
  }
  stop.store(true, std::memory_order_relaxed);
  zov_vek::OsalSemPost(ping);
  partner.join();
  zov_vek::OsalSemDestroy(pong);
  zov_vek::OsalSemDestroy(ping);
}
BENCHMARK(PingPongSemVek)->Name("pingpong_sem/vek")->UseRealTime();

void PingPongSemPosix(benchmark::State& state) {
  sem_t ping;
  sem_t pong;
  sem_init(&ping, 0, 0);
  sem_init(&pong, 0, 0);
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      sem_wait(&ping);
      if (stop.load(std::memory_order_relaxed)) break;
      sem_post(&pong);
    }
  });
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    sem_post(&ping);
    sem_wait(&pong);
  }
  stop.store(true, std::memory_order_relaxed);
  sem_post(&ping);
  partner.join();
  sem_destroy(&pong);
  sem_destroy(&ping);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(PingPongSemPosix)->Name("pingpong_sem/posix")->UseRealTime();

// The turn is 1 while the partner holds it and 0 while the main thread
// does; -1 stops the partner.
void PingPongCondVek(benchmark::State& state) {
  void* mutex = nullptr;
  void* cond = nullptr;
  if (Failed(state, zov_vek::OsalMutexInit(&mutex), "OsalMutexInit")) return;
  if (Failed(state, zov_vek::OsalCondInit(&cond), "OsalCondInit")) {
    zov_vek::OsalMutexDestroy(mutex);
    return;
  }
  int turn = 0;
  std::thread partner([&] {
    zov_vek::OsalMutexLock(mutex);
    for (;;) {
      while (turn == 0) zov_vek::OsalCondWait(cond, mutex);
      if (turn < 0) break;
      turn = 0;
      zov_vek::OsalCondSignal(cond);
    }
    zov_vek::OsalMutexUnlock(mutex);
  });
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    zov_vek::OsalMutexLock(mutex);
    turn = 1;
    zov_vek::OsalCondSignal(cond);
    while (turn != 0) zov_vek::OsalCondWait(cond, mutex);
    zov_vek::OsalMutexUnlock(mutex);
  }
  zov_vek::OsalMutexLock(mutex);
  turn = -1;
  zov_vek::OsalCondSignal(cond);
  zov_vek::OsalMutexUnlock(mutex);
  partner.join();
  zov_vek::OsalCondDestroy(cond);
  zov_vek::OsalMutexDestroy(mutex);
}
BENCHMARK(PingPongCondVek)->Name("pingpong_cond/vek")->UseRealTime();

void PingPongCondPthread(benchmark::State& state) {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  pthread_mutex_init(&mutex, nullptr);
  pthread_cond_init(&cond, nullptr);
  int turn = 0;
  std::thread partner([&] {
    pthread_mutex_lock(&mutex);
    for (;;) {
      while (turn == 0) pthread_cond_wait(&cond, &mutex);
      if (turn < 0) break;
      turn = 0;
      pthread_cond_signal(&cond);
    }
    pthread_mutex_unlock(&mutex);
  });
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    turn = 1;
    pthread_cond_signal(&cond);
    while (turn != 0) pthread_cond_wait(&cond, &mutex);
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_lock(&mutex);
  turn = -1;
  pthread_cond_signal(&cond);
  pthread_mutex_unlock(&mutex);
  partner.join();
  pthread_cond_destroy(&cond);
  pthread_mutex_destroy(&mutex);
  state.SetLabel(kSyncGoal);
}
BENCHMARK(PingPongCondPthread)->Name("pingpong_cond/pthread")->UseRealTime();

// === Threads
// Create and join a thread that does nothing, on a 16 KiB stack that the
// library allocates or that the caller provides. The pthread references
// reuse one pthread attribute, as a careful user of the raw API would; the
// "pthread_named" references also name the thread (from inside, the cheap
// way), which is what every OSAL thread gets; "pthread_named_announced"
// also makes the creator wait until the name is in place, which
// OsalThreadCreate leaves to whoever asks for the name.

constexpr unsigned int kStackSize = 16384;
constexpr char kThreadName[] = "vek_bench";

void NopThread(void*) {}
void* NopPthread(void*) { return nullptr; }
void* NamedNopPthread(void*) {
  pthread_setname_np(pthread_self(), kThreadName);
  return nullptr;
}
// Names itself, then tells the creator, who waits for that.
void* NamedAnnouncedNopPthread(void* started) {
  pthread_setname_np(pthread_self(), kThreadName);
  sem_post(static_cast<sem_t*>(started));
  return nullptr;
}

// The library rounds a requested stack up to the platform minimum; the
// reference asks for the same size.
size_t LibraryStackSize() {
  const long min = PTHREAD_STACK_MIN;
  return min > static_cast<long>(kStackSize) ? static_cast<size_t>(min)
                                             : kStackSize;
}

void RunOsalThreads(benchmark::State& state, void* stack) {
  void* attr = nullptr;
  if (Failed(state, zov_vek::OsalThreadAttrInit(&attr), "OsalThreadAttrInit")) {
    return;
  }
  VekError err = zov_vek::OsalThreadAttrSetName(attr, kThreadName);
  if (err == VekError::kOk) {
    err = stack != nullptr
              ? zov_vek::OsalThreadAttrSetStack(attr, stack, kStackSize)
              : zov_vek::OsalThreadAttrSetStackSize(attr, kStackSize);
  }
  if (!Failed(state, err, "thread attribute")) {
    vek_bench::AllocationCounter allocs(state);
    for (auto _ : state) {
      void* thread = nullptr;
      if (Failed(state,
                 zov_vek::OsalThreadCreate(&thread, attr, NopThread, nullptr),
                 "OsalThreadCreate")) {
        break;
      }
      zov_vek::OsalThreadJoin(thread);
    }
  }
  zov_vek::OsalThreadAttrDestroy(attr);
}

// With `announced`, the creator's create step ends only once the thread
// carries its name, which is what OsalThreadCreate promises.
void RunPthreads(benchmark::State& state, void* stack, void* (*func)(void*),
                 bool announced = false) {
  sem_t started;
  sem_init(&started, 0, 0);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  const int rc = stack != nullptr
                     ? pthread_attr_setstack(&attr, stack, kStackSize)
                     : pthread_attr_setstacksize(&attr, LibraryStackSize());
  if (rc != 0) {
    state.SkipWithError("pthread attribute");
  } else {
    vek_bench::AllocationCounter allocs(state);
    for (auto _ : state) {
      pthread_t thread;
      if (pthread_create(&thread, &attr, func, &started) != 0) {
        state.SkipWithError("pthread_create");
        break;
      }
      if (announced) sem_wait(&started);
      pthread_join(thread, nullptr);
    }
  }
  pthread_attr_destroy(&attr);
  sem_destroy(&started);
}

// A caller stack, aligned as the conformance suites align theirs.
class CallerStack {
 public:
  CallerStack() : stack_(memalign(4096, kStackSize)) {}
  ~CallerStack() { free(stack_); }
  CallerStack(const CallerStack&) = delete;
  CallerStack& operator=(const CallerStack&) = delete;
  void* get() const { return stack_; }

 private:
  void* stack_;
};

void ThreadLibraryStackVek(benchmark::State& state) {
  RunOsalThreads(state, nullptr);
}
BENCHMARK(ThreadLibraryStackVek)
    ->Name("thread_create_join_library_stack/vek")
    ->UseRealTime();

void ThreadLibraryStackPthread(benchmark::State& state) {
  RunPthreads(state, nullptr, NopPthread);
  state.SetLabel(kThreadGoal);
}
BENCHMARK(ThreadLibraryStackPthread)
    ->Name("thread_create_join_library_stack/pthread")
    ->UseRealTime();

void ThreadLibraryStackPthreadNamed(benchmark::State& state) {
  RunPthreads(state, nullptr, NamedNopPthread);
}
BENCHMARK(ThreadLibraryStackPthreadNamed)
    ->Name("thread_create_join_library_stack/pthread_named")
    ->UseRealTime();

void ThreadLibraryStackPthreadAnnounced(benchmark::State& state) {
  RunPthreads(state, nullptr, NamedAnnouncedNopPthread, true);
}
BENCHMARK(ThreadLibraryStackPthreadAnnounced)
    ->Name("thread_create_join_library_stack/pthread_named_announced")
    ->UseRealTime();

void ThreadCallerStackVek(benchmark::State& state) {
  CallerStack stack;
  RunOsalThreads(state, stack.get());
}
BENCHMARK(ThreadCallerStackVek)
    ->Name("thread_create_join_caller_stack/vek")
    ->UseRealTime();

void ThreadCallerStackPthread(benchmark::State& state) {
  CallerStack stack;
  RunPthreads(state, stack.get(), NopPthread);
  state.SetLabel(kThreadGoal);
}
BENCHMARK(ThreadCallerStackPthread)
    ->Name("thread_create_join_caller_stack/pthread")
    ->UseRealTime();

void ThreadCallerStackPthreadNamed(benchmark::State& state) {
  CallerStack stack;
  RunPthreads(state, stack.get(), NamedNopPthread);
}
BENCHMARK(ThreadCallerStackPthreadNamed)
    ->Name("thread_create_join_caller_stack/pthread_named")
    ->UseRealTime();

void ThreadCallerStackPthreadAnnounced(benchmark::State& state) {
  CallerStack stack;
  RunPthreads(state, stack.get(), NamedAnnouncedNopPthread, true);
}
BENCHMARK(ThreadCallerStackPthreadAnnounced)
    ->Name("thread_create_join_caller_stack/pthread_named_announced")
    ->UseRealTime();

// === Bounded string copy
// A short copy that truncates (the conformance suite's 7-byte buffer) and a
// long one that fits.

constexpr char kShortSource[] = "abcdefgh";
constexpr char kLongSource[] =
    "a source of two hundred characters, long enough for the word-at-a-time "
    "string functions of the C library to pull ahead of a byte loop, and for "
    "a second pass over the source to show";

template <size_t kSize>
void RunStrlcpyVek(benchmark::State& state, const char* source) {
  char dst[kSize];
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(source);
    benchmark::DoNotOptimize(zov_vek::OsalStrlcpy(dst, source, sizeof(dst)));
    benchmark::ClobberMemory();
  }
}

void StrlcpyShortVek(benchmark::State& state) {
  RunStrlcpyVek<7>(state, kShortSource);
}
BENCHMARK(StrlcpyShortVek)->Name("strlcpy_short_truncated/vek");

void StrlcpyLongVek(benchmark::State& state) {
  RunStrlcpyVek<256>(state, kLongSource);
}
BENCHMARK(StrlcpyLongVek)->Name("strlcpy_long/vek");

#ifdef VEK_BENCH_HAVE_LIBBSD
template <size_t kSize>
void RunStrlcpyBsd(benchmark::State& state, const char* source) {
  char dst[kSize];
  vek_bench::AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(source);
    benchmark::DoNotOptimize(strlcpy(dst, source, sizeof(dst)));
    benchmark::ClobberMemory();
  }
}

void StrlcpyShortBsd(benchmark::State& state) {
  RunStrlcpyBsd<7>(state, kShortSource);
}
BENCHMARK(StrlcpyShortBsd)->Name("strlcpy_short_truncated/libbsd");

void StrlcpyLongBsd(benchmark::State& state) {
  RunStrlcpyBsd<256>(state, kLongSource);
}
BENCHMARK(StrlcpyLongBsd)->Name("strlcpy_long/libbsd");
#endif

}  // namespace
