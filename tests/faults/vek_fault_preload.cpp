// A broken libvekosal: preloaded in front of the real one, this library
// takes over every exported operation and bends exactly one promise, the
// one that VEK_FAULT names. Every other call goes straight to the real
// library (dlsym(RTLD_NEXT, ...)), so with VEK_FAULT unset or "none" the
// conformance run must pass as it does without us.
//
// When a fault first changes what a call does, the library writes
// "vek-fault: injected <name>" to stderr, so that a run that passes can
// prove the fault was really in force. An unknown fault name ends the
// process at once (status 97): a misspelt test must not pass quietly.
//
// This library never links libvekosal; everything of it is reached through
// dlsym, so it also loads into processes without it (the runner).

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "utils/vek_worker_thread_base.h"

namespace vek_fault {

// One broken promise each; the comment says what the port does instead.
#define VEK_FAULT_LIST(X)                                                  \
  X(kNone, "none")                                                         \
  /* Init(nullptr) stores the new handle through the null pointer. */      \
  X(kMutexInitNullCrash, "mutex-init-null-crash")                          \
  X(kMutexDestroyNullAccepted, "mutex-destroy-null-accepted")              \
  X(kMutexLockNoop, "mutex-lock-noop")                                     \
  X(kMutexUnlockNullCrash, "mutex-unlock-null-crash")                      \
  /* Unlocks, then reports a failure. */                                   \
  X(kMutexUnlockReportsError, "mutex-unlock-reports-error")                \
  /* A recursive mutex: the holder's try-lock succeeds and counts. */      \
  X(kMutexTryLockRecursive, "mutex-trylock-recursive")                     \
  X(kMutexTryLockBlocks, "mutex-trylock-blocks")                           \
  /* A locker that has waited 10 ms sleeps; no unlock ever wakes it. */    \
  X(kMutexSleeperNeverWoken, "mutex-sleeper-never-woken")                  \
  X(kSemInitNullCrash, "sem-init-null-crash")                              \
  /* 65536 and above are clamped to the maximum instead of refused. */     \
  X(kSemInitAcceptsAboveMax, "sem-init-accepts-65536")                     \
  /* A refused count clears the caller's handle before it is refused. */   \
  X(kSemInitRefusedWritesHandle, "sem-init-refused-writes-handle")         \
  X(kSemDestroyNullAccepted, "sem-destroy-null-accepted")                  \
  X(kSemPostTwice, "sem-post-adds-two")                                    \
  /* Wakes a sleeper only when the count was 0 before the post. */         \
  X(kSemPostWakesOnlyFromZero, "sem-post-wakes-only-from-zero")            \
  /* Waits for a count above 0 but does not take one. */                   \
  X(kSemWaitKeepsCount, "sem-wait-keeps-count")                            \
  X(kSemTryWaitSucceedsAtZero, "sem-trywait-succeeds-at-zero")             \
  X(kSemTryWaitBlocks, "sem-trywait-blocks")                               \
  /* Returns kOk and leaves the caller's int as it was. */                 \
  X(kSemGetValueUnwritten, "sem-getvalue-unwritten")                       \
  /* At count 0, reports the threads asleep in OsalSemWait as minus. */    \
  X(kSemGetValueCountsSleepers, "sem-getvalue-counts-sleepers")            \
  X(kCondInitNullCrash, "cond-init-null-crash")                            \
  X(kCondDestroyNullAccepted, "cond-destroy-null-accepted")                \
  /* Releases the caller's mutex before it looks at the condition. */      \
  X(kCondWaitNullReleasesMutex, "cond-wait-null-releases-mutex")           \
  /* This one, the next and worker-exit-only-sets-flag show only when */   \
  /* a worker thread already waits as the main thread goes on; with */     \
  /* them, the main thread's semaphore waits return 50 ms late, as any */  \
  /* port's may. */                                                        \
  X(kCondWaitKeepsMutex, "cond-wait-keeps-mutex")                          \
  X(kCondSignalWakesNone, "cond-signal-wakes-none")                        \
  X(kCondBroadcastWakesOne, "cond-broadcast-wakes-one")                    \
  X(kAttrInitNullAccepted, "attr-init-null-accepted")                      \
  /* Frees a caller's stack along with the attribute. */                   \
  X(kAttrDestroyFreesStack, "attr-destroy-frees-stack")                    \
  X(kAttrGetStackUnwritten, "attr-getstack-unwritten")                     \
  /* SetStack(attr, nullptr, 8092) is taken as a library stack size. */    \
  X(kAttrSetStackAcceptsNullWithSize, "attr-setstack-accepts-null-8092")   \
  /* Caller stacks below 16384 bytes are refused when set. */              \
  X(kAttrSetStackRefusesSmall, "attr-setstack-refuses-8092")               \
  X(kAttrSetStackSizeRefusesSmall, "attr-setstacksize-refuses-1200")       \
  X(kAttrSetNameAcceptsEmpty, "attr-setname-accepts-empty")                \
  /* A 15-character name is kept as 14 characters. */                      \
  X(kAttrSetNameCutsLastChar, "attr-setname-cuts-15th-char")               \
  /* Clears all `len` bytes of the caller's buffer before checking len. */ \
  X(kAttrGetNameClearsWholeBuffer, "attr-getname-writes-past-16")          \
  X(kAttrGetNameAcceptsLongLength, "attr-getname-accepts-len-26")          \
  /* A refused SetStack clears the stack that was stored. */               \
  X(kAttrSetStackRefusedClears, "attr-setstack-refused-clears")            \
  /* Threads get the platform's smallest stack, whatever the size. */      \
  X(kAttrSetStackSizeIgnored, "attr-setstacksize-ignored")                 \
  /* A refused SetName leaves the attribute without a name. */             \
  X(kAttrSetNameRefusedClears, "attr-setname-refused-clears")              \
  /* Keeps the caller's pointer and reads the name through it later. */    \
  X(kAttrSetNameKeepsPointer, "attr-setname-keeps-pointer")                \
  /* With one out-parameter null, writes the other before refusing. */     \
  X(kAttrGetStackRefusedWrites, "attr-getstack-refused-writes")            \
  /* Copies the name into the buffer before it checks `len`. */            \
  X(kAttrGetNameRefusedWrites, "attr-getname-refused-writes")              \
  /* A null attribute means a default one. */                              \
  X(kCreateNullAttrAccepted, "create-null-attr-accepted")                  \
  X(kCreateAcceptsUnnamed, "create-ignores-missing-name")                  \
  /* The new thread keeps its creator's name. */                           \
  X(kCreateNameNotApplied, "create-name-not-applied")                      \
  /* An attribute whose stack was cleared gets a default stack. */         \
  X(kCreateAcceptsClearedStack, "create-accepts-cleared-stack")            \
  /* Runs the thread on a library stack of the caller's stack's size. */   \
  X(kCreateIgnoresCallerStack, "create-ignores-caller-stack")              \
  /* Writes a null handle when it refuses. */                              \
  X(kCreateRefusedWritesHandle, "create-refused-writes-handle")            \
  /* The creator names the thread only once its function runs. */          \
  X(kCreateNamesLate, "create-names-thread-late")                          \
  /* Keeps the name to itself: the thread keeps its creator's name, */     \
  /* and OsalThreadGetName answers from the library's copy. */             \
  X(kNameKeptInLibrary, "thread-name-kept-in-library")                     \
  /* Returns at once; a helper thread joins. Threads start 50 ms late, */  \
  /* as any port may start them, so that the missing wait shows in */      \
  /* every run rather than by the luck of the scheduler. */                \
  X(kJoinDoesNotWait, "join-does-not-wait")                                \
  X(kJoinNullCrash, "join-null-crash")                                     \
  X(kExitReturns, "exit-returns")                                          \
  /* Reads the calling thread's name, whatever the handle. */              \
  X(kThreadGetNameReadsCaller, "getname-reads-caller")                     \
  /* Returns the number of characters copied, not strlen(src). */          \
  X(kStrlcpyReturnsCopied, "strlcpy-returns-copied-length")                \
  X(kStrlcpyUnterminated, "strlcpy-unterminated")                          \
  /* Copies at most size - 2 characters. */                                \
  X(kStrlcpyOffByOne, "strlcpy-drops-last-char")                           \
  /* A new logger on every call. */                                        \
  X(kGetLoggerNotSingleton, "getlogger-not-singleton")                     \
  /* Returns kOk and changes no mask. */                                   \
  X(kLogConfigUpdateIgnored, "log-config-update-ignored")                  \
  /* Sets every predefined group's mask, not only the target's. */         \
  X(kLogConfigUpdateEveryGroup, "log-config-update-sets-every-group")      \
  /* A custom target: returns kOk and changes nothing. */                  \
  X(kLogConfigUpdateCustomIgnored, "log-config-update-custom-ignored")     \
  /* A custom target goes through the tag-addressed setter, which takes */ \
  /* a predefined tag for the predefined group. */                         \
  X(kLogConfigUpdateCustomByTag, "log-config-update-custom-by-tag")        \
  /* Sets the exit request under the mutex; neither wakes nor joins. */    \
  X(kWorkerExitFlagOnly, "worker-exit-only-sets-flag")                     \
  /* A Start while the worker runs reports kOk. */                         \
  X(kWorkerStartTwiceAccepted, "worker-start-accepts-second")              \
  /* Names every worker thread "vek_worker", whatever Start was given. */  \
  X(kWorkerNameIgnored, "worker-name-ignored")                             \
  X(kWorkerOnThreadStartedSkipped, "worker-on-thread-started-skipped")     \
  /* Start calls OnThreadStarted itself, on the caller's thread, once */   \
  /* the worker thread has begun ThreadFunction. */                        \
  X(kWorkerOnThreadStartedOnCaller, "worker-on-thread-started-on-caller")  \
  /* Exit returns once the worker has seen the request and let go of */    \
  /* the owner's mutex, without waiting for ThreadFunction to return. */   \
  X(kWorkerExitReturnsEarly, "worker-exit-returns-early")

enum class Fault : size_t {
#define VEK_FAULT_ENUM(id, name) id,
  VEK_FAULT_LIST(VEK_FAULT_ENUM)
#undef VEK_FAULT_ENUM
};

namespace {

// The faults by name; the index is the Fault value.
constexpr const char* kFaultNames[] = {
#define VEK_FAULT_NAME(id, name) name,
    VEK_FAULT_LIST(VEK_FAULT_NAME)
#undef VEK_FAULT_NAME
};
constexpr size_t kFaultCount = sizeof(kFaultNames) / sizeof(kFaultNames[0]);

constexpr int kUsageStatus = 97;

[[noreturn]] void Die(const char* what, const char* detail) {
  fprintf(stderr, "vek-fault: %s%s\n", what, detail);
  fflush(stderr);
  _exit(kUsageStatus);
}

Fault ReadFault() {
  const char* text = getenv("VEK_FAULT");
  if (text == nullptr || text[0] == '\0' || strcmp(text, "none") == 0) {
    return Fault::kNone;
  }
  for (size_t i = 1; i < kFaultCount; ++i) {
    if (strcmp(text, kFaultNames[i]) == 0) return static_cast<Fault>(i);
  }
  Die("unknown fault ", text);
}

// Read once: the environment may change later. A function-local static,
// because other libraries' constructors may call us before ours have run.
Fault Current() {
  static const Fault fault = ReadFault();
  return fault;
}

std::atomic<bool> g_announced{false};

bool Active(Fault fault) { return Current() == fault; }

void Injected() {
  if (g_announced.exchange(true)) return;
  const std::string line = std::string("vek-fault: injected ") +
                           kFaultNames[static_cast<size_t>(Current())] + "\n";
  // One write, so that the line is not torn by other threads' output.
  const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  static_cast<void>(written);
}

void* Next(const char* symbol) {
  void* found = dlsym(RTLD_NEXT, symbol);
  if (found == nullptr) Die("no definition after this library of ", symbol);
  return found;
}

}  // namespace
}  // namespace vek_fault

using vek_fault::Active;
using vek_fault::Fault;
using vek_fault::Injected;
using vek_fault::Next;
using zov_vek::VekError;

// The real operations, looked up on first use. The symbol names are checked
// against our own definitions when the library loads (below).
#define VEK_REAL(name, type, symbol) \
  static const auto name = reinterpret_cast<type>(Next(symbol))

namespace {

constexpr char kMutexInit[] = "_ZN7zov_vek13OsalMutexInitEPPv";
constexpr char kMutexDestroy[] = "_ZN7zov_vek16OsalMutexDestroyEPv";
constexpr char kMutexLock[] = "_ZN7zov_vek13OsalMutexLockEPv";
constexpr char kMutexUnlock[] = "_ZN7zov_vek15OsalMutexUnlockEPv";
constexpr char kMutexTryLock[] = "_ZN7zov_vek16OsalMutexTryLockEPv";
constexpr char kSemInit[] = "_ZN7zov_vek11OsalSemInitEPPvj";
constexpr char kSemDestroy[] = "_ZN7zov_vek14OsalSemDestroyEPv";
constexpr char kSemPost[] = "_ZN7zov_vek11OsalSemPostEPv";
constexpr char kSemWait[] = "_ZN7zov_vek11OsalSemWaitEPv";
constexpr char kSemTryWait[] = "_ZN7zov_vek14OsalSemTryWaitEPv";
constexpr char kSemGetValue[] = "_ZN7zov_vek15OsalSemGetValueEPvPi";
constexpr char kCondInit[] = "_ZN7zov_vek12OsalCondInitEPPv";
constexpr char kCondDestroy[] = "_ZN7zov_vek15OsalCondDestroyEPv";
constexpr char kCondWait[] = "_ZN7zov_vek12OsalCondWaitEPvS0_";
constexpr char kCondSignal[] = "_ZN7zov_vek14OsalCondSignalEPv";
constexpr char kCondBroadcast[] = "_ZN7zov_vek17OsalCondBroadcastEPv";
constexpr char kAttrInit[] = "_ZN7zov_vek18OsalThreadAttrInitEPPv";
constexpr char kAttrDestroy[] = "_ZN7zov_vek21OsalThreadAttrDestroyEPv";
constexpr char kAttrGetStack[] = "_ZN7zov_vek22OsalThreadAttrGetStackEPvPS0_Pj";
constexpr char kAttrSetStack[] = "_ZN7zov_vek22OsalThreadAttrSetStackEPvS0_j";
constexpr char kAttrSetStackSize[] =
    "_ZN7zov_vek26OsalThreadAttrSetStackSizeEPvj";
constexpr char kAttrSetName[] = "_ZN7zov_vek21OsalThreadAttrSetNameEPvPKc";
constexpr char kAttrGetName[] = "_ZN7zov_vek21OsalThreadAttrGetNameEPvPcj";
constexpr char kThreadCreate[] =
    "_ZN7zov_vek16OsalThreadCreateEPPvS0_PFvS0_ES0_";
constexpr char kThreadJoin[] = "_ZN7zov_vek14OsalThreadJoinEPv";
constexpr char kThreadExit[] = "_ZN7zov_vek14OsalThreadExitEv";
constexpr char kThreadGetName[] = "_ZN7zov_vek17OsalThreadGetNameEPvPcj";
constexpr char kStrlcpy[] = "_ZN7zov_vek11OsalStrlcpyEPcPKcm";
constexpr char kGetLogger[] = "_ZN7zov_vek6Logger9GetLoggerEv";
constexpr char kLoggerCtor[] = "_ZN7zov_vek6LoggerC1Ejj";
constexpr char kHandleUpdate[] =
    "_ZN7zov_vek21HandleLogConfigUpdateERSt4pairINS_"
    "15LogConfigUpdateENS_20LogConfigTargetGroupEE";
constexpr char kWorkerStart[] =
    "_ZN7zov_vek16WorkerThreadBase5StartERPvS2_PKcjb";
constexpr char kWorkerExit[] = "_ZN7zov_vek16WorkerThreadBase4ExitEv";
constexpr char kWorkerShouldExit[] =
    "_ZNK7zov_vek16WorkerThreadBase16ThreadShouldExitEv";

// Every name that this library defines, which must be the name of our own
// definition: a misspelt one would silently reach the real library.
constexpr const char* kOwnSymbols[] = {
    kMutexInit,        kMutexDestroy, kMutexLock,     kMutexUnlock,
    kMutexTryLock,     kSemInit,      kSemDestroy,    kSemPost,
    kSemWait,          kSemTryWait,   kSemGetValue,   kCondInit,
    kCondDestroy,      kCondWait,     kCondSignal,    kCondBroadcast,
    kAttrInit,         kAttrDestroy,  kAttrGetStack,  kAttrSetStack,
    kAttrSetStackSize, kAttrSetName,  kAttrGetName,   kThreadCreate,
    kThreadJoin,       kThreadExit,   kThreadGetName, kStrlcpy,
    kGetLogger,        kHandleUpdate, kWorkerStart,   kWorkerExit,
    kWorkerShouldExit,
};

__attribute__((constructor)) void CheckAtLoad() {
  // An unknown fault name ends every process that loads us, the runner too.
  static_cast<void>(vek_fault::Current());
  Dl_info self = {};
  if (dladdr(reinterpret_cast<void*>(&CheckAtLoad), &self) == 0) {
    vek_fault::Die("cannot find this library", "");
  }
  for (const char* symbol : kOwnSymbols) {
    void* found = dlsym(RTLD_DEFAULT, symbol);
    Dl_info where = {};
    if (found == nullptr || dladdr(found, &where) == 0 ||
        strcmp(where.dli_fname, self.dli_fname) != 0) {
      vek_fault::Die("not defined by this library: ", symbol);
    }
  }
}

// Crashes the way a port that trusts a null handle crashes.
[[noreturn]] void UseNull(const void* handle) {
  Injected();
  const volatile char* bytes = static_cast<const volatile char*>(handle);
  static_cast<void>(bytes[0]);
  abort();  // not reached on any platform that maps nothing at 0
}

void SleepMs(long ms) {
  const struct timespec delay = {0, ms * 1000 * 1000};
  nanosleep(&delay, nullptr);
}

bool OnMainThread() { return syscall(SYS_gettid) == getpid(); }

// Faults that show only when a worker thread gets to its wait before the
// main thread goes on.
bool WaitsReturnLate() {
  return Active(Fault::kCondWaitKeepsMutex) ||
         Active(Fault::kCondSignalWakesNone) ||
         Active(Fault::kWorkerExitFlagOnly);
}

// The mutexes this thread holds and how often, for the recursive try-lock.
thread_local std::unordered_map<void*, unsigned int> t_held;

// A mutex of our own, for a wait that keeps the caller's mutex.
void* PrivateMutex() {
  VEK_REAL(init, VekError(*)(void**), kMutexInit);
  static void* const mutex = [] {
    void* made = nullptr;
    if (init(&made) != VekError::kOk) {
      vek_fault::Die("cannot make a private mutex", "");
    }
    return made;
  }();
  return mutex;
}

// Per semaphore: the threads inside OsalSemWait that found it at 0, and the
// wake-ups that posts owe them.
struct SemSleepers {
  std::mutex mutex;
  std::condition_variable woken;
  std::unordered_map<void*, int> asleep;
  std::unordered_map<void*, int> wakes;
};

SemSleepers& Sleepers() {
  static auto* const sleepers = new SemSleepers;
  return *sleepers;
}

// Takes a token, or sleeps until a post that found the count at 0 wakes
// it; a post that finds tokens left wakes nobody. A woken thread runs 1 ms
// later, as any port's may under load, so that posts made meanwhile find
// the count above 0 in every run rather than by the luck of the scheduler.
VekError WaitForWakeFromZero(void* sem) {
  VEK_REAL(try_wait, VekError(*)(void*), kSemTryWait);
  SemSleepers& s = Sleepers();
  std::unique_lock<std::mutex> lock(s.mutex);
  ++s.asleep[sem];
  for (bool woken = false;; woken = true) {
    lock.unlock();
    if (woken) {
      const struct timespec delay = {0, 1000 * 1000};
      nanosleep(&delay, nullptr);
    }
    const bool took = try_wait(sem) == VekError::kOk;
    lock.lock();
    if (took) break;
    Injected();
    s.woken.wait(lock, [&] { return s.wakes[sem] > 0; });
    --s.wakes[sem];
  }
  if (--s.asleep[sem] == 0) {
    s.asleep.erase(sem);
    s.wakes.erase(sem);
  }
  return VekError::kOk;
}

// A real wait, counted among the sleepers when it finds the count at 0.
VekError CountedWait(void* sem) {
  VEK_REAL(real, VekError(*)(void*), kSemWait);
  VEK_REAL(try_wait, VekError(*)(void*), kSemTryWait);
  if (try_wait(sem) == VekError::kOk) return VekError::kOk;
  SemSleepers& s = Sleepers();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.asleep[sem];
  }
  const VekError err = real(sem);
  std::lock_guard<std::mutex> lock(s.mutex);
  if (--s.asleep[sem] == 0) s.asleep.erase(sem);
  return err;
}

int SleeperCount(void* sem) {
  SemSleepers& s = Sleepers();
  std::lock_guard<std::mutex> lock(s.mutex);
  const auto found = s.asleep.find(sem);
  return found == s.asleep.end() ? 0 : found->second;
}

// True while WorkerThreadBase::Exit runs on this thread.
thread_local bool t_in_worker_exit = false;

bool SkippedByWorkerExit() {
  if (!Active(Fault::kWorkerExitFlagOnly) || !t_in_worker_exit) return false;
  Injected();
  return true;
}

void* JoinLater(void* handle) {
  VEK_REAL(join, VekError(*)(void*), kThreadJoin);
  join(handle);
  return nullptr;
}

// Leaves the join of `thread` to a detached helper; false when there is
// none.
bool JoinInBackground(void* thread) {
  pthread_t joiner;
  pthread_attr_t detached;
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  const int rc = pthread_create(&joiner, &detached, &JoinLater, thread);
  pthread_attr_destroy(&detached);
  return rc == 0;
}

// The worker's own virtual functions, called as the library's thread entry
// calls them.
struct WorkerAccess : zov_vek::WorkerThreadBase {
  static void Started(WorkerThreadBase* worker) {
    (worker->*&WorkerAccess::OnThreadStarted)();
  }
  static void Body(WorkerThreadBase* worker) {
    (worker->*&WorkerAccess::ThreadFunction)();
  }
};

// A worker thread's entry in place of the library's: it reports the start
// and runs ThreadFunction, but never calls OnThreadStarted.
struct WorkerBody {
  zov_vek::WorkerThreadBase* worker;
  void* started;  // the semaphore Start waits on, if any
  std::atomic<bool> began{false};
};

void RunWorkerBody(void* context) {
  VEK_REAL(post, VekError(*)(void*), kSemPost);
  auto* body = static_cast<WorkerBody*>(context);
  zov_vek::WorkerThreadBase* const worker = body->worker;
  if (body->started != nullptr) post(body->started);
  body->began.store(true);  // from here on Start owns `body`
  WorkerAccess::Body(worker);
}

bool ReplacesWorkerEntry() {
  return Active(Fault::kWorkerOnThreadStartedSkipped) ||
         Active(Fault::kWorkerOnThreadStartedOnCaller);
}

// While WorkerThreadBase::Start runs on this thread: the object, the
// semaphore it made for the start-up report, and the entry given in place
// of the library's.
thread_local zov_vek::WorkerThreadBase* t_starting_worker = nullptr;
thread_local void* t_worker_started = nullptr;
thread_local WorkerBody* t_worker_body = nullptr;

// Workers by address, with a wait for one to be added.
class WorkerSet {
 public:
  void Add(const void* worker) {
    pthread_mutex_lock(&mutex_);
    members_.insert(worker);
    pthread_cond_broadcast(&cond_);
    pthread_mutex_unlock(&mutex_);
  }
  void Remove(const void* worker) {
    pthread_mutex_lock(&mutex_);
    members_.erase(worker);
    pthread_mutex_unlock(&mutex_);
  }
  bool AwaitAdded(const void* worker, time_t seconds) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += seconds;
    pthread_mutex_lock(&mutex_);
    while (members_.count(worker) == 0 &&
           pthread_cond_timedwait(&cond_, &mutex_, &until) == 0) {
    }
    const bool found = members_.count(worker) != 0;
    pthread_mutex_unlock(&mutex_);
    return found;
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
  std::unordered_set<const void*> members_;
};

// Workers whose thread has seen the exit request and then let go of a
// mutex, for an Exit that returns at that point.
WorkerSet& LeavingWorkers() {
  static WorkerSet* const set = new WorkerSet;
  return *set;
}
// On a worker thread: the worker whose exit request it has just seen.
thread_local const void* t_saw_exit_request = nullptr;
// While WorkerThreadBase::Exit runs on this thread: the object.
thread_local const void* t_exiting_worker = nullptr;

// Hands a created thread the name of its creator before its function runs.
struct Renamed {
  void (*func)(void*);
  void* arg;
  char name[zov_vek::kOsalThreadNameLengthMax];
  sem_t ready;
  pthread_t self;
};

void RunRenamed(void* context) {
  auto* renamed = static_cast<Renamed*>(context);
  void (*const func)(void*) = renamed->func;
  void* const arg = renamed->arg;
  renamed->self = pthread_self();
  pthread_setname_np(pthread_self(), renamed->name);
  // The creator frees `renamed` once it is posted.
  sem_post(&renamed->ready);
  func(arg);
}

// Runs a thread function a little late.
struct LateStart {
  void (*func)(void*);
  void* arg;
};

void RunLate(void* context) {
  auto* late = static_cast<LateStart*>(context);
  void (*const func)(void*) = late->func;
  void* const arg = late->arg;
  delete late;
  SleepMs(50);
  func(arg);
}

// A name into a caller's buffer, refused as our port refuses it.
VekError CopyName(const char* name, char* buf, unsigned int len) {
  const size_t length = strlen(name);
  if (len > zov_vek::kOsalThreadNameLengthMax || len <= length) {
    return VekError::kErrOutOfRange;
  }
  memcpy(buf, name, length + 1);
  return VekError::kOk;
}

VekError CopyOwnName(char* buf, unsigned int len) {
  char name[zov_vek::kOsalThreadNameLengthMax] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) {
    return VekError::kErr;
  }
  return CopyName(name, buf, len);
}

// What the name faults remember: the caller's pointer that an attribute
// keeps, the attributes whose name a refusal cleared, and the names that
// threads keep inside the library.
std::mutex g_names_mutex;
std::unordered_map<void*, const char*> g_name_pointers;
std::unordered_set<void*> g_names_cleared;
std::unordered_map<void*, std::string> g_thread_names;

bool NameCleared(void* attr) {
  if (!Active(Fault::kAttrSetNameRefusedClears)) return false;
  std::lock_guard<std::mutex> lock(g_names_mutex);
  return g_names_cleared.count(attr) != 0;
}

// The attribute takes its name again from the caller's pointer.
void ReadNameThroughPointer(void* attr) {
  if (!Active(Fault::kAttrSetNameKeepsPointer)) return;
  const char* name = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    const auto kept = g_name_pointers.find(attr);
    if (kept == g_name_pointers.end()) return;
    name = kept->second;
  }
  VEK_REAL(set_name, VekError(*)(void*, const char*), kAttrSetName);
  Injected();
  set_name(attr, name);
}

// A new attribute with the name of `from` and a library stack of the size
// of its stack.
void* LibraryStackCopy(void* from) {
  VEK_REAL(init, VekError(*)(void**), kAttrInit);
  VEK_REAL(get_stack, VekError(*)(void*, void**, unsigned int*), kAttrGetStack);
  VEK_REAL(set_size, VekError(*)(void*, unsigned int), kAttrSetStackSize);
  VEK_REAL(get_name, VekError(*)(void*, char*, unsigned int), kAttrGetName);
  VEK_REAL(set_name, VekError(*)(void*, const char*), kAttrSetName);
  void* copy = nullptr;
  if (init(&copy) != VekError::kOk) vek_fault::Die("cannot copy", "");
  void* stack = nullptr;
  unsigned int size = 0;
  char name[zov_vek::kOsalThreadNameLengthMax] = {};
  get_stack(from, &stack, &size);
  set_size(copy, size);
  get_name(from, name, sizeof(name));
  set_name(copy, name);
  return copy;
}

}  // namespace

namespace zov_vek {

// --- Mutex ----------------------------------------------------------------

VekError OsalMutexInit(void** mutex) {
  VEK_REAL(real, VekError(*)(void**), kMutexInit);
  if (mutex == nullptr && Active(Fault::kMutexInitNullCrash)) {
    void* made = nullptr;
    real(&made);
    UseNull(mutex);
  }
  return real(mutex);
}

VekError OsalMutexDestroy(void* mutex) {
  VEK_REAL(real, VekError(*)(void*), kMutexDestroy);
  if (mutex == nullptr && Active(Fault::kMutexDestroyNullAccepted)) {
    Injected();
    return VekError::kOk;
  }
  if (Active(Fault::kMutexTryLockRecursive)) t_held.erase(mutex);
  return real(mutex);
}

VekError OsalMutexLock(void* mutex) {
  VEK_REAL(real, VekError(*)(void*), kMutexLock);
  if (mutex != nullptr && Active(Fault::kMutexLockNoop)) {
    Injected();
    return VekError::kOk;
  }
  if (mutex != nullptr && Active(Fault::kMutexSleeperNeverWoken)) {
    VEK_REAL(try_lock, VekError(*)(void*), kMutexTryLock);
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(10);
    while (try_lock(mutex) != VekError::kOk) {
      if (std::chrono::steady_clock::now() > until) {
        Injected();
        for (;;) pause();
      }
      sched_yield();
    }
    return VekError::kOk;
  }
  const VekError err = real(mutex);
  if (err == VekError::kOk && Active(Fault::kMutexTryLockRecursive)) {
    t_held[mutex] = 1;
  }
  return err;
}

VekError OsalMutexUnlock(void* mutex) {
  VEK_REAL(real, VekError(*)(void*), kMutexUnlock);
  if (mutex == nullptr && Active(Fault::kMutexUnlockNullCrash)) {
    UseNull(mutex);
  }
  if (Active(Fault::kMutexTryLockRecursive)) {
    const auto held = t_held.find(mutex);
    if (held != t_held.end() && --held->second > 0) return VekError::kOk;
    if (held != t_held.end()) t_held.erase(held);
  }
  const VekError err = real(mutex);
  if (err == VekError::kOk && Active(Fault::kMutexUnlockReportsError)) {
    Injected();
    return VekError::kErr;
  }
  if (err == VekError::kOk && t_saw_exit_request != nullptr) {
    LeavingWorkers().Add(t_saw_exit_request);
    t_saw_exit_request = nullptr;
  }
  return err;
}

VekError OsalMutexTryLock(void* mutex) {
  VEK_REAL(real, VekError(*)(void*), kMutexTryLock);
  VEK_REAL(lock, VekError(*)(void*), kMutexLock);
  if (Active(Fault::kMutexTryLockRecursive)) {
    const auto held = t_held.find(mutex);
    if (held != t_held.end()) {
      Injected();
      ++held->second;
      return VekError::kOk;
    }
    const VekError err = real(mutex);
    if (err == VekError::kOk) t_held[mutex] = 1;
    return err;
  }
  const VekError err = real(mutex);
  if (err != VekError::kOk && mutex != nullptr &&
      Active(Fault::kMutexTryLockBlocks)) {
    Injected();
    return lock(mutex);
  }
  return err;
}

// --- Semaphore ------------------------------------------------------------

VekError OsalSemInit(void** sem, unsigned int value) {
  VEK_REAL(real, VekError(*)(void**, unsigned int), kSemInit);
  if (sem == nullptr && Active(Fault::kSemInitNullCrash)) {
    void* made = nullptr;
    real(&made, value);
    UseNull(sem);
  }
  if (sem != nullptr && value > kOsalSemaphoreMaxValue &&
      Active(Fault::kSemInitRefusedWritesHandle)) {
    Injected();
    *sem = nullptr;
  }
  if (value > kOsalSemaphoreMaxValue &&
      Active(Fault::kSemInitAcceptsAboveMax)) {
    Injected();
    return real(sem, kOsalSemaphoreMaxValue);
  }
  const VekError err = real(sem, value);
  if (err == VekError::kOk && t_starting_worker != nullptr) {
    t_worker_started = *sem;
  }
  return err;
}

VekError OsalSemDestroy(void* sem) {
  VEK_REAL(real, VekError(*)(void*), kSemDestroy);
  if (sem == nullptr && Active(Fault::kSemDestroyNullAccepted)) {
    Injected();
    return VekError::kOk;
  }
  return real(sem);
}

VekError OsalSemPost(void* sem) {
  VEK_REAL(real, VekError(*)(void*), kSemPost);
  if (sem != nullptr && Active(Fault::kSemPostWakesOnlyFromZero)) {
    VEK_REAL(get_value, VekError(*)(void*, int*), kSemGetValue);
    int before = -1;
    get_value(sem, &before);
    const VekError err = real(sem);
    SemSleepers& s = Sleepers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (err == VekError::kOk && before == 0 && s.asleep.count(sem) != 0) {
      ++s.wakes[sem];
      s.woken.notify_all();
    }
    return err;
  }
  const VekError err = real(sem);
  if (err == VekError::kOk && Active(Fault::kSemPostTwice)) {
    Injected();
    return real(sem);
  }
  return err;
}

VekError OsalSemWait(void* sem) {
  VEK_REAL(real, VekError(*)(void*), kSemWait);
  VEK_REAL(post, VekError(*)(void*), kSemPost);
  if (sem != nullptr && Active(Fault::kSemPostWakesOnlyFromZero)) {
    return WaitForWakeFromZero(sem);
  }
  if (sem != nullptr && Active(Fault::kSemGetValueCountsSleepers)) {
    return CountedWait(sem);
  }
  const VekError err = real(sem);
  if (err == VekError::kOk && Active(Fault::kSemWaitKeepsCount)) {
    Injected();
    return post(sem);
  }
  if (err == VekError::kOk && WaitsReturnLate() && OnMainThread()) SleepMs(50);
  return err;
}

VekError OsalSemTryWait(void* sem) {
  VEK_REAL(real, VekError(*)(void*), kSemTryWait);
  VEK_REAL(wait, VekError(*)(void*), kSemWait);
  const VekError err = real(sem);
  if (err == VekError::kOk || sem == nullptr) return err;
  if (Active(Fault::kSemTryWaitSucceedsAtZero)) {
    Injected();
    return VekError::kOk;
  }
  if (Active(Fault::kSemTryWaitBlocks)) {
    Injected();
    return wait(sem);
  }
  return err;
}

VekError OsalSemGetValue(void* sem, int* value) {
  VEK_REAL(real, VekError(*)(void*, int*), kSemGetValue);
  if (sem != nullptr && value != nullptr &&
      Active(Fault::kSemGetValueUnwritten)) {
    Injected();
    return VekError::kOk;
  }
  const VekError err = real(sem, value);
  if (err == VekError::kOk && value != nullptr && *value == 0 &&
      Active(Fault::kSemGetValueCountsSleepers)) {
    const int asleep = SleeperCount(sem);
    if (asleep != 0) {
      Injected();
      *value = -asleep;
    }
  }
  return err;
}

// --- Condition variable ---------------------------------------------------

VekError OsalCondInit(void** cond) {
  VEK_REAL(real, VekError(*)(void**), kCondInit);
  if (cond == nullptr && Active(Fault::kCondInitNullCrash)) {
    void* made = nullptr;
    real(&made);
    UseNull(cond);
  }
  return real(cond);
}

VekError OsalCondDestroy(void* cond) {
  VEK_REAL(real, VekError(*)(void*), kCondDestroy);
  if (cond == nullptr && Active(Fault::kCondDestroyNullAccepted)) {
    Injected();
    return VekError::kOk;
  }
  return real(cond);
}

VekError OsalCondWait(void* cond, void* mutex) {
  VEK_REAL(real, VekError(*)(void*, void*), kCondWait);
  VEK_REAL(lock, VekError(*)(void*), kMutexLock);
  VEK_REAL(unlock, VekError(*)(void*), kMutexUnlock);
  if (cond == nullptr && mutex != nullptr &&
      Active(Fault::kCondWaitNullReleasesMutex)) {
    Injected();
    unlock(mutex);
    return real(cond, mutex);
  }
  if (cond != nullptr && mutex != nullptr &&
      Active(Fault::kCondWaitKeepsMutex)) {
    // Waits on a mutex of its own: the caller's stays locked throughout.
    Injected();
    void* const own = PrivateMutex();
    lock(own);
    const VekError err = real(cond, own);
    unlock(own);
    return err;
  }
  return real(cond, mutex);
}

VekError OsalCondSignal(void* cond) {
  VEK_REAL(real, VekError(*)(void*), kCondSignal);
  if (cond != nullptr && Active(Fault::kCondSignalWakesNone)) {
    Injected();
    return VekError::kOk;
  }
  if (cond != nullptr && SkippedByWorkerExit()) return VekError::kOk;
  return real(cond);
}

VekError OsalCondBroadcast(void* cond) {
  VEK_REAL(real, VekError(*)(void*), kCondBroadcast);
  VEK_REAL(signal, VekError(*)(void*), kCondSignal);
  if (cond != nullptr && Active(Fault::kCondBroadcastWakesOne)) {
    Injected();
    return signal(cond);
  }
  if (cond != nullptr && SkippedByWorkerExit()) return VekError::kOk;
  return real(cond);
}

// --- Thread attributes ----------------------------------------------------

VekError OsalThreadAttrInit(void** attr) {
  VEK_REAL(real, VekError(*)(void**), kAttrInit);
  if (attr == nullptr && Active(Fault::kAttrInitNullAccepted)) {
    Injected();
    return VekError::kOk;
  }
  return real(attr);
}

VekError OsalThreadAttrDestroy(void* attr) {
  VEK_REAL(real, VekError(*)(void*), kAttrDestroy);
  VEK_REAL(get_stack, VekError(*)(void*, void**, unsigned int*), kAttrGetStack);
  if (attr != nullptr) {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    g_name_pointers.erase(attr);
    g_names_cleared.erase(attr);
  }
  if (attr != nullptr && Active(Fault::kAttrDestroyFreesStack)) {
    void* addr = nullptr;
    unsigned int size = 0;
    if (get_stack(attr, &addr, &size) == VekError::kOk && addr != nullptr) {
      Injected();
      free(addr);
    }
  }
  return real(attr);
}

VekError OsalThreadAttrGetStack(void* attr, void** addr, unsigned int* size) {
  VEK_REAL(real, VekError(*)(void*, void**, unsigned int*), kAttrGetStack);
  if (attr != nullptr && addr != nullptr && size != nullptr &&
      Active(Fault::kAttrGetStackUnwritten)) {
    Injected();
    return VekError::kOk;
  }
  if (attr != nullptr && (addr == nullptr) != (size == nullptr) &&
      Active(Fault::kAttrGetStackRefusedWrites)) {
    void* stored = nullptr;
    unsigned int stored_size = 0;
    real(attr, &stored, &stored_size);
    if (addr != nullptr) *addr = stored;
    if (size != nullptr) *size = stored_size;
    Injected();
  }
  return real(attr, addr, size);
}

VekError OsalThreadAttrSetStack(void* attr, void* addr, unsigned int size) {
  VEK_REAL(real, VekError(*)(void*, void*, unsigned int), kAttrSetStack);
  VEK_REAL(set_size, VekError(*)(void*, unsigned int), kAttrSetStackSize);
  if (attr != nullptr && addr == nullptr && size != 0 &&
      Active(Fault::kAttrSetStackAcceptsNullWithSize)) {
    // Takes a null address as "allocate it yourself".
    Injected();
    return set_size(attr, size);
  }
  if (attr != nullptr && addr != nullptr && size < 16384 &&
      Active(Fault::kAttrSetStackRefusesSmall)) {
    Injected();
    return VekError::kErrParam;
  }
  const VekError err = real(attr, addr, size);
  if (err != VekError::kOk && attr != nullptr &&
      Active(Fault::kAttrSetStackRefusedClears)) {
    Injected();
    real(attr, nullptr, 0);
  }
  return err;
}

VekError OsalThreadAttrSetStackSize(void* attr, unsigned int size) {
  VEK_REAL(real, VekError(*)(void*, unsigned int), kAttrSetStackSize);
  if (attr != nullptr && size < 16384 &&
      Active(Fault::kAttrSetStackSizeRefusesSmall)) {
    Injected();
    return VekError::kErrParam;
  }
  if (attr != nullptr && size != 0 && Active(Fault::kAttrSetStackSizeIgnored)) {
    // The smallest size there is; the library rounds it up to the
    // platform's minimum.
    Injected();
    return real(attr, 1);
  }
  return real(attr, size);
}

VekError OsalThreadAttrSetName(void* attr, const char* name) {
  VEK_REAL(real, VekError(*)(void*, const char*), kAttrSetName);
  if (attr != nullptr && name != nullptr && name[0] != '\0' &&
      t_starting_worker != nullptr && Active(Fault::kWorkerNameIgnored)) {
    Injected();
    return real(attr, "vek_worker");
  }
  if (attr != nullptr && name != nullptr && name[0] == '\0' &&
      Active(Fault::kAttrSetNameAcceptsEmpty)) {
    Injected();
    return VekError::kOk;
  }
  if (attr != nullptr && name != nullptr &&
      strlen(name) >= kOsalThreadNameLengthMax - 1 &&
      Active(Fault::kAttrSetNameCutsLastChar)) {
    // Keeps one character less than fits, as a port that reserves a byte
    // too many for the NUL does.
    char cut[kOsalThreadNameLengthMax] = {};
    memcpy(cut, name, kOsalThreadNameLengthMax - 2);
    Injected();
    return real(attr, cut);
  }
  const VekError err = real(attr, name);
  if (attr == nullptr) return err;
  std::lock_guard<std::mutex> lock(g_names_mutex);
  if (err == VekError::kOk) {
    g_names_cleared.erase(attr);
    if (Active(Fault::kAttrSetNameKeepsPointer)) g_name_pointers[attr] = name;
  } else if (Active(Fault::kAttrSetNameRefusedClears)) {
    Injected();
    g_names_cleared.insert(attr);
  }
  return err;
}

VekError OsalThreadAttrGetName(void* attr, char* buf, unsigned int len) {
  VEK_REAL(real, VekError(*)(void*, char*, unsigned int), kAttrGetName);
  if (attr != nullptr && buf != nullptr && len > kOsalThreadNameLengthMax) {
    if (Active(Fault::kAttrGetNameClearsWholeBuffer)) {
      // Trusts the caller's length and clears that much first.
      Injected();
      memset(buf, 0, len);
    } else if (Active(Fault::kAttrGetNameAcceptsLongLength)) {
      Injected();
      return real(attr, buf, kOsalThreadNameLengthMax);
    }
  }
  if (attr == nullptr || buf == nullptr) return real(attr, buf, len);
  if (NameCleared(attr)) {
    // Answers as a fresh attribute, which has no name.
    VEK_REAL(init, VekError(*)(void**), kAttrInit);
    VEK_REAL(destroy, VekError(*)(void*), kAttrDestroy);
    void* fresh = nullptr;
    if (init(&fresh) != VekError::kOk) return VekError::kErr;
    const VekError err = real(fresh, buf, len);
    destroy(fresh);
    return err;
  }
  ReadNameThroughPointer(attr);
  char name[kOsalThreadNameLengthMax] = {};
  const VekError err = real(attr, buf, len);
  if (err != VekError::kOk && Active(Fault::kAttrGetNameRefusedWrites) &&
      real(attr, name, sizeof(name)) == VekError::kOk) {
    Injected();
    memcpy(buf, name, strlen(name) + 1);
  }
  return err;
}

// --- Threads --------------------------------------------------------------

VekError OsalThreadCreate(void** thread, void* attr, void (*func)(void*),
                          void* arg) {
  using Create = VekError (*)(void**, void*, void (*)(void*), void*);
  VEK_REAL(real, Create, kThreadCreate);
  VEK_REAL(attr_init, VekError(*)(void**), kAttrInit);
  VEK_REAL(attr_destroy, VekError(*)(void*), kAttrDestroy);
  VEK_REAL(set_name, VekError(*)(void*, const char*), kAttrSetName);
  VEK_REAL(get_name, VekError(*)(void*, char*, unsigned int), kAttrGetName);
  VEK_REAL(set_size, VekError(*)(void*, unsigned int), kAttrSetStackSize);
  VEK_REAL(set_stack, VekError(*)(void*, void*, unsigned int), kAttrSetStack);
  VEK_REAL(get_stack, VekError(*)(void*, void**, unsigned int*), kAttrGetStack);

  if (attr != nullptr && thread != nullptr && func != nullptr &&
      t_starting_worker != nullptr && ReplacesWorkerEntry()) {
    auto* body = new WorkerBody{t_starting_worker, t_worker_started};
    const VekError err = real(thread, attr, &RunWorkerBody, body);
    if (err == VekError::kOk) {
      t_worker_body = body;
    } else {
      delete body;
    }
    return err;
  }

  if (attr == nullptr && thread != nullptr && func != nullptr &&
      Active(Fault::kCreateNullAttrAccepted)) {
    // Falls back to a default attribute.
    void* fallback = nullptr;
    if (attr_init(&fallback) != VekError::kOk) return VekError::kErr;
    set_name(fallback, "vek_default");
    set_size(fallback, 16384);
    Injected();
    const VekError err = real(thread, fallback, func, arg);
    attr_destroy(fallback);
    return err;
  }

  if (attr != nullptr && thread != nullptr && func != nullptr &&
      Active(Fault::kJoinDoesNotWait)) {
    auto* late = new LateStart{func, arg};
    const VekError err = real(thread, attr, &RunLate, late);
    // A refused creation runs nothing; a started thread frees it.
    if (err != VekError::kOk) delete late;
    return err;
  }

  const bool usable = attr != nullptr && thread != nullptr && func != nullptr;
  if (usable) ReadNameThroughPointer(attr);

  if (usable &&
      (Active(Fault::kCreateNameNotApplied) ||
       Active(Fault::kCreateNamesLate) || Active(Fault::kNameKeptInLibrary))) {
    char attr_name[kOsalThreadNameLengthMax] = {};
    get_name(attr, attr_name, sizeof(attr_name));
    auto* renamed = new Renamed{func, arg, {}, {}, {}};
    pthread_getname_np(pthread_self(), renamed->name, sizeof(renamed->name));
    sem_init(&renamed->ready, 0, 0);
    const VekError err = real(thread, attr, &RunRenamed, renamed);
    if (err == VekError::kOk) {
      Injected();
      while (sem_wait(&renamed->ready) != 0 && errno == EINTR) {
      }
      if (Active(Fault::kCreateNamesLate)) {
        // The function has started by now.
        SleepMs(10);
        pthread_setname_np(renamed->self, attr_name);
      }
      if (Active(Fault::kNameKeptInLibrary)) {
        std::lock_guard<std::mutex> lock(g_names_mutex);
        g_thread_names[*thread] = attr_name;
      }
    }
    sem_destroy(&renamed->ready);
    delete renamed;
    return err;
  }

  void* stack = nullptr;
  unsigned int stack_size = 0;
  if (usable && Active(Fault::kCreateIgnoresCallerStack) &&
      get_stack(attr, &stack, &stack_size) == VekError::kOk &&
      stack != nullptr) {
    void* copy = LibraryStackCopy(attr);
    Injected();
    const VekError err = real(thread, copy, func, arg);
    attr_destroy(copy);
    return err;
  }

  const VekError err = real(thread, attr, func, arg);
  if (err != VekError::kOk && thread != nullptr &&
      Active(Fault::kCreateRefusedWritesHandle)) {
    Injected();
    *thread = nullptr;
  }
  if (err == VekError::kOk || !usable) return err;
  char name[kOsalThreadNameLengthMax] = {};
  const bool named =
      get_name(attr, name, sizeof(name)) == VekError::kOk && name[0] != '\0';
  if (!named && Active(Fault::kCreateAcceptsUnnamed)) {
    // Starts the thread anyway, under a name of its own choosing.
    if (set_name(attr, "unnamed") != VekError::kOk) return err;
    const VekError retried = real(thread, attr, func, arg);
    if (retried == VekError::kOk) Injected();
    return retried;
  }
  if (named && Active(Fault::kCreateAcceptsClearedStack) &&
      get_stack(attr, &stack, &stack_size) == VekError::kOk &&
      stack == nullptr && stack_size == 0) {
    // Starts the thread on a default stack, and leaves the attribute
    // without one as it found it.
    set_size(attr, 16384);
    const VekError retried = real(thread, attr, func, arg);
    set_stack(attr, nullptr, 0);
    if (retried == VekError::kOk) Injected();
    return retried;
  }
  return err;
}

VekError OsalThreadJoin(void* thread) {
  VEK_REAL(real, VekError(*)(void*), kThreadJoin);
  if (thread == nullptr && Active(Fault::kJoinNullCrash)) UseNull(thread);
  if (thread != nullptr && Active(Fault::kJoinDoesNotWait)) {
    // Somebody has to release the handle; the caller does not wait for it.
    if (!JoinInBackground(thread)) return real(thread);
    Injected();
    return VekError::kOk;
  }
  if (thread != nullptr && t_exiting_worker != nullptr &&
      Active(Fault::kWorkerExitReturnsEarly) &&
      LeavingWorkers().AwaitAdded(t_exiting_worker, 2) &&
      JoinInBackground(thread)) {
    Injected();
    return VekError::kOk;
  }
  if (thread != nullptr && SkippedByWorkerExit()) return VekError::kOk;
  const VekError err = real(thread);
  if (err == VekError::kOk && Active(Fault::kNameKeptInLibrary)) {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    g_thread_names.erase(thread);
  }
  return err;
}

VekError OsalThreadGetName(void* thread, char* buf, unsigned int len) {
  VEK_REAL(real, VekError(*)(void*, char*, unsigned int), kThreadGetName);
  if (thread != nullptr && buf != nullptr &&
      Active(Fault::kThreadGetNameReadsCaller)) {
    Injected();
    return CopyOwnName(buf, len);
  }
  if (thread != nullptr && buf != nullptr &&
      Active(Fault::kNameKeptInLibrary)) {
    std::string kept;
    {
      std::lock_guard<std::mutex> lock(g_names_mutex);
      const auto found = g_thread_names.find(thread);
      if (found != g_thread_names.end()) kept = found->second;
    }
    if (!kept.empty()) {
      Injected();
      return CopyName(kept.c_str(), buf, len);
    }
  }
  return real(thread, buf, len);
}

// --- Bounded string copy --------------------------------------------------

size_t OsalStrlcpy(char* dst, const char* src, size_t size) {
  VEK_REAL(real, size_t(*)(char*, const char*, size_t), kStrlcpy);
  const size_t length = strlen(src);
  if (Active(Fault::kStrlcpyReturnsCopied) && size > 0 && length >= size) {
    Injected();
    real(dst, src, size);
    return size - 1;
  }
  if (Active(Fault::kStrlcpyUnterminated) && size > 0 && length >= size) {
    // strncpy's habit: a source that does not fit leaves no NUL.
    Injected();
    memcpy(dst, src, size);
    return length;
  }
  if (Active(Fault::kStrlcpyOffByOne) && size > 1 && length >= size - 1) {
    Injected();
    memcpy(dst, src, size - 2);
    dst[size - 2] = '\0';
    return length;
  }
  return real(dst, src, size);
}

// --- Logger ---------------------------------------------------------------

Logger& Logger::GetLogger() {
  VEK_REAL(real, Logger & (*)(), kGetLogger);
  if (!Active(Fault::kGetLoggerNotSingleton)) return real();
  // A new logger on every call, made by the library's own constructor with
  // the masks that our port starts from.
  VEK_REAL(construct, void (*)(Logger*, uint32_t, uint32_t), kLoggerCtor);
  constexpr uint32_t kInitialMask = (1u << kWarning) | (1u << kError);
  void* memory = ::operator new(sizeof(Logger));
  construct(static_cast<Logger*>(memory), kInitialMask, kInitialMask);
  Injected();
  return *static_cast<Logger*>(memory);
}

VekError HandleLogConfigUpdate(
    std::pair<LogConfigUpdate, LogConfigTargetGroup>& update) {
  using Handle =
      VekError (*)(std::pair<LogConfigUpdate, LogConfigTargetGroup>&);
  VEK_REAL(real, Handle, kHandleUpdate);
  const uint32_t mask = update.first.log_mask;
  const uint32_t target = update.second.type;
  const std::string& tag = update.second.name;
  if (Active(Fault::kLogConfigUpdateIgnored) ||
      (target == 1 && Active(Fault::kLogConfigUpdateCustomIgnored))) {
    Injected();
    return VekError::kOk;
  }
  if (update.first.type == 0 && target == 1 &&
      Active(Fault::kLogConfigUpdateCustomByTag)) {
    Injected();
    return Logger::GetLogger().SetLogLevelMask(tag, mask);
  }
  const VekError err = real(update);
  if (err == VekError::kOk && update.first.type == 0 && target == 0 &&
      Active(Fault::kLogConfigUpdateEveryGroup)) {
    Injected();
    for (uint32_t value = 0; value < Logger::kPredefinedGroupCount; ++value) {
      Logger::GetLogger().SetLogLevelMask(static_cast<PredefinedGroup>(value),
                                          mask);
    }
  }
  return err;
}

// --- Worker thread --------------------------------------------------------

VekError WorkerThreadBase::Start(void*& mutex, void*& cond, const char* name,
                                 unsigned int stack_size, bool flag) {
  using StartFn = VekError (*)(WorkerThreadBase*, void*&, void*&, const char*,
                               unsigned int, bool);
  VEK_REAL(real, StartFn, kWorkerStart);
  t_starting_worker = this;
  t_worker_started = nullptr;
  t_worker_body = nullptr;
  const VekError err = real(this, mutex, cond, name, stack_size, flag);
  t_starting_worker = nullptr;
  if (WorkerBody* const body = t_worker_body) {
    t_worker_body = nullptr;
    while (!body->began.load()) sched_yield();
    delete body;
    Injected();
    if (Active(Fault::kWorkerOnThreadStartedOnCaller)) {
      WorkerAccess::Started(this);
    }
  }
  if (err == VekError::kErrBusy && Active(Fault::kWorkerStartTwiceAccepted)) {
    Injected();
    return VekError::kOk;
  }
  return err;
}

VekError WorkerThreadBase::Exit() {
  VEK_REAL(real, VekError(*)(WorkerThreadBase*), kWorkerExit);
  // With the fault, the library's Exit sets the request under the mutex but
  // neither wakes nor joins the worker (see SkippedByWorkerExit).
  const bool outer = !t_in_worker_exit;
  t_in_worker_exit = true;
  t_exiting_worker = this;
  LeavingWorkers().Remove(this);
  const VekError err = real(this);
  t_exiting_worker = nullptr;
  if (outer) t_in_worker_exit = false;
  return err;
}

bool WorkerThreadBase::ThreadShouldExit() const {
  VEK_REAL(real, bool (*)(const WorkerThreadBase*), kWorkerShouldExit);
  const bool requested = real(this);
  if (requested && Active(Fault::kWorkerExitReturnsEarly)) {
    t_saw_exit_request = this;
  }
  return requested;
}

}  // namespace zov_vek

// Defined under OsalThreadExit's symbol but not as that function: its
// declaration forbids returning, and one fault returns.
namespace vek_fault {

__attribute__((visibility("default"))) void ThreadExit() __asm__(
    "_ZN7zov_vek14OsalThreadExitEv");

void ThreadExit() {
  VEK_REAL(real, void (*)(), kThreadExit);
  if (Active(Fault::kExitReturns)) {
    Injected();
    return;
  }
  real();
  abort();  // the real one does not return
}

}  // namespace vek_fault
