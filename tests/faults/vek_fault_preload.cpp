// A broken libvekosal: preloaded in front of the real one, this library
// takes over every exported operation and bends exactly one promise, the
// one that VEK_FAULT names (tests/faults/CMakeLists.txt says what each
// variant does). Every other call goes straight to the real library
// (dlsym(RTLD_NEXT, ...)), so with VEK_FAULT unset or "none" the
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
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "utils/vek_worker_thread_base.h"

using namespace zov_vek;

namespace {

// The variants that tests/faults/CMakeLists.txt declares, by name; the
// index is what the code compares.
constexpr const char* kFaults[] = {
    "none",
#include "vek_fault_names.inc"
};

// Evaluated at compile time (FAULT below): a name that is not in kFaults
// does not compile.
constexpr size_t Index(std::string_view name) {
  for (size_t i = 0; i < std::size(kFaults); ++i) {
    if (name == kFaults[i]) return i;
  }
  throw "not a fault of this library";
}

[[noreturn]] void Die(const char* what, const char* detail) {
  fprintf(stderr, "vek-fault: %s%s\n", what, detail);
  fflush(stderr);
  _exit(97);
}

size_t ReadFault() {
  const char* text = getenv("VEK_FAULT");
  if (text == nullptr || text[0] == '\0') return 0;
  for (size_t i = 0; i < std::size(kFaults); ++i) {
    if (strcmp(text, kFaults[i]) == 0) return i;
  }
  Die("unknown fault ", text);
}

// Read once: the environment may change later. A function-local static,
// because other libraries' constructors may call us before ours have run.
size_t Current() {
  static const size_t fault = ReadFault();
  return fault;
}

// An unknown fault name ends every process that loads us, the runner too.
__attribute__((constructor)) void CheckAtLoad() { Current(); }

bool Active(size_t fault) { return Current() == fault; }

// Announces the fault once; true, so that it can end a condition.
bool Injected() {
  static std::atomic<bool> announced{false};
  if (announced.exchange(true)) return true;
  const std::string line =
      std::string("vek-fault: injected ") + kFaults[Current()] + "\n";
  // One write, so that the line is not torn by other threads' output.
  const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  static_cast<void>(written);
  return true;
}

// Whether the fault `name` is in force.
#define FAULT(name) Active(std::integral_constant<size_t, Index(name)>())
// The same, announcing it: for a bend that follows at once.
#define BEND(name) (FAULT(name) && Injected())

// The definition after this library of an exported symbol.
void* Next(const char* symbol) {
  void* found = dlsym(RTLD_NEXT, symbol);
  if (found == nullptr) Die("no definition after this library of ", symbol);
  return found;
}

// The real library's definition of our function `Ours`, found once by the
// name under which we export it.
template <auto Ours>
decltype(Ours) Real() {
  static const auto real = [] {
    void* const address = reinterpret_cast<void*>(Ours);
    Dl_info info = {};
    if (dladdr(address, &info) == 0 || info.dli_saddr != address) {
      Die("cannot name a function of this library", "");
    }
    return reinterpret_cast<decltype(Ours)>(Next(info.dli_sname));
  }();
  return real;
}
#define REAL(function) Real<&function>()

void SleepMs(long ms) {
  const struct timespec delay = {0, ms * 1000 * 1000};
  nanosleep(&delay, nullptr);
}

// Stores or loads through a null pointer, as a port that trusts a null
// handle does: the process dies of SIGSEGV.
[[noreturn]] void ThroughNull(bool store) {
  Injected();
  void* volatile* where = nullptr;
  asm volatile("" : "+r"(where));  // the compiler may not assume it null
  if (store) {
    *where = &where;
  } else {
    static_cast<void>(*where);
  }
  abort();
}

// An Init that makes its object, then stores the handle through the
// caller's null pointer.
template <typename Init, typename... Args>
void InitThroughNull(void** out, Init init, Args... args) {
  if (out != nullptr) return;
  void* made = nullptr;
  init(&made, args...);
  ThroughNull(true);
}

// A refusal that writes a null handle all the same.
VekError NullOnRefusal(VekError err, void** out, bool fault) {
  if (err != VekError::kOk && out != nullptr && fault && Injected()) {
    *out = nullptr;
  }
  return err;
}

// Faults that show only when a worker thread gets to its wait before the
// main thread goes on; with them, the main thread's semaphore waits return
// 50 ms late, as any port's may.
bool WaitsReturnLate() {
  return FAULT("cond-wait-keeps-mutex") || FAULT("cond-signal-wakes-none") ||
         FAULT("worker-exit-only-sets-flag");
}

// The mutexes this thread holds and how often, for the recursive try-lock.
thread_local std::unordered_map<void*, unsigned int> t_held;

// A mutex of our own, for a wait that keeps the caller's mutex.
void* PrivateMutex() {
  static void* const mutex = [] {
    void* made = nullptr;
    if (REAL(OsalMutexInit)(&made) != VekError::kOk) {
      Die("cannot make a private mutex", "");
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
  SemSleepers& s = Sleepers();
  std::unique_lock<std::mutex> lock(s.mutex);
  ++s.asleep[sem];
  for (bool woken = false;; woken = true) {
    lock.unlock();
    if (woken) SleepMs(1);
    const bool took = REAL(OsalSemTryWait)(sem) == VekError::kOk;
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
  if (REAL(OsalSemTryWait)(sem) == VekError::kOk) return VekError::kOk;
  SemSleepers& s = Sleepers();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.asleep[sem];
  }
  const VekError err = REAL(OsalSemWait)(sem);
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

// While WorkerThreadBase::Exit runs on this thread: the object.
thread_local const void* t_exiting_worker = nullptr;
// On a worker thread: the worker whose exit request it has just seen.
thread_local const void* t_saw_exit_request = nullptr;

// Inside WorkerThreadBase::Exit, the wake-up and the join do nothing.
bool SkippedByWorkerExit() {
  return t_exiting_worker != nullptr && BEND("worker-exit-only-sets-flag");
}

// Leaves the join of `thread` to a detached helper; false when there is
// none.
bool JoinInBackground(void* thread) {
  pthread_t joiner;
  if (pthread_create(
          &joiner, nullptr,
          [](void* handle) -> void* {
            REAL(OsalThreadJoin)(handle);
            return nullptr;
          },
          thread) != 0) {
    return false;
  }
  pthread_detach(joiner);
  return true;
}

// The worker whose thread has seen the exit request and then let go of a
// mutex, for an Exit that returns at that point.
std::atomic<const void*> g_left_worker{nullptr};

bool AwaitLeft(const void* worker) {
  for (int ms = 0; ms < 2000 && g_left_worker.load() != worker; ++ms) {
    SleepMs(1);
  }
  return g_left_worker.load() == worker;
}

// The worker's own virtual functions, called as the library's thread entry
// calls them.
struct WorkerAccess : WorkerThreadBase {
  static void Started(WorkerThreadBase* worker) {
    (worker->*&WorkerAccess::OnThreadStarted)();
  }
  static void Body(WorkerThreadBase* worker) {
    (worker->*&WorkerAccess::ThreadFunction)();
  }
};

// While WorkerThreadBase::Start runs on this thread: the object, the
// semaphore it made for the start-up report, whether its thread runs our
// entry in place of the library's, and the flag that entry sets once it is
// about to call ThreadFunction.
thread_local WorkerThreadBase* t_starting_worker = nullptr;
thread_local void* t_worker_started = nullptr;
thread_local bool t_worker_replaced = false;
thread_local std::atomic<bool>* t_worker_began = nullptr;

bool ReplacesWorkerEntry() {
  return FAULT("worker-on-thread-started-skipped") ||
         FAULT("worker-on-thread-started-on-caller");
}

// Starts a thread from `attr` that runs `body` instead of a function of
// the caller's.
VekError StartRunning(void** thread, void* attr, std::function<void()> body) {
  auto* const moved = new std::function<void()>(std::move(body));
  const VekError err = REAL(OsalThreadCreate)(
      thread, attr,
      [](void* context) {
        auto* const on_heap = static_cast<std::function<void()>*>(context);
        const std::function<void()> run = std::move(*on_heap);
        delete on_heap;
        run();
      },
      moved);
  if (err != VekError::kOk) delete moved;  // no thread will run it
  return err;
}

// What the name faults remember: the caller's pointer that an attribute
// keeps, the attributes whose name a refusal cleared, and the names that
// threads keep inside the library.
std::mutex g_names_mutex;
std::unordered_map<void*, const char*> g_name_pointers;
std::unordered_set<void*> g_names_cleared;
std::unordered_map<void*, std::string> g_thread_names;

bool NameCleared(void* attr) {
  if (!FAULT("attr-setname-refused-clears")) return false;
  std::lock_guard<std::mutex> lock(g_names_mutex);
  return g_names_cleared.count(attr) != 0;
}

// The attribute takes its name again from the caller's pointer.
void ReadNameThroughPointer(void* attr) {
  if (!FAULT("attr-setname-keeps-pointer")) return;
  const char* name = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    const auto kept = g_name_pointers.find(attr);
    if (kept == g_name_pointers.end()) return;
    name = kept->second;
  }
  Injected();
  REAL(OsalThreadAttrSetName)(attr, name);
}

// A name into a caller's buffer, refused as our port refuses it.
VekError CopyName(const char* name, char* buf, unsigned int len) {
  const size_t length = strlen(name);
  if (len > kOsalThreadNameLengthMax || len <= length) {
    return VekError::kErrOutOfRange;
  }
  memcpy(buf, name, length + 1);
  return VekError::kOk;
}

// Creates the thread, which then takes its creator's name before its
// function runs: the library's naming is undone. The creator may name it
// again later, or keep the name to itself.
VekError CreateUnderCreatorsName(void** thread, void* attr, void (*func)(void*),
                                 void* arg) {
  char attr_name[kOsalThreadNameLengthMax] = {};
  REAL(OsalThreadAttrGetName)(attr, attr_name, sizeof(attr_name));
  char creator[kOsalThreadNameLengthMax] = {};
  pthread_getname_np(pthread_self(), creator, sizeof(creator));
  sem_t renamed;
  sem_init(&renamed, 0, 0);
  pthread_t self = {};
  const VekError err =
      StartRunning(thread, attr, [func, arg, creator, &renamed, &self] {
        self = pthread_self();
        pthread_setname_np(self, creator);
        sem_post(&renamed);  // from here on the creator's locals are gone
        func(arg);
      });
  if (err == VekError::kOk) {
    Injected();
    while (sem_wait(&renamed) != 0 && errno == EINTR) {
    }
    if (FAULT("create-names-thread-late")) {
      SleepMs(10);  // the function has started by now
      pthread_setname_np(self, attr_name);
    }
    if (FAULT("thread-name-kept-in-library")) {
      std::lock_guard<std::mutex> lock(g_names_mutex);
      g_thread_names[*thread] = attr_name;
    }
  }
  sem_destroy(&renamed);
  return err;
}

// Starts the thread from an attribute of its own, named `name` with a
// library stack of `size` bytes.
VekError CreateFromNewAttr(void** thread, const char* name, unsigned int size,
                           void (*func)(void*), void* arg) {
  void* made = nullptr;
  if (REAL(OsalThreadAttrInit)(&made) != VekError::kOk) return VekError::kErr;
  REAL(OsalThreadAttrSetName)(made, name);
  REAL(OsalThreadAttrSetStackSize)(made, size);
  const VekError err = REAL(OsalThreadCreate)(thread, made, func, arg);
  REAL(OsalThreadAttrDestroy)(made);
  return err;
}

}  // namespace

// The definitions below are qualified, so that each must match its
// declaration in the headers: only then does it take the real one's place.

// --- Mutex ----------------------------------------------------------------

VekError zov_vek::OsalMutexInit(void** mutex) {
  if (FAULT("mutex-init-null-crash"))
    InitThroughNull(mutex, REAL(OsalMutexInit));
  return REAL(OsalMutexInit)(mutex);
}

VekError zov_vek::OsalMutexDestroy(void* mutex) {
  if (mutex == nullptr && BEND("mutex-destroy-null-accepted")) {
    return VekError::kOk;
  }
  if (FAULT("mutex-trylock-recursive")) t_held.erase(mutex);
  return REAL(OsalMutexDestroy)(mutex);
}

VekError zov_vek::OsalMutexLock(void* mutex) {
  if (mutex != nullptr && BEND("mutex-lock-noop")) return VekError::kOk;
  if (mutex != nullptr && FAULT("mutex-sleeper-never-woken")) {
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(10);
    while (REAL(OsalMutexTryLock)(mutex) != VekError::kOk) {
      if (std::chrono::steady_clock::now() > until && Injected()) {
        for (;;) pause();
      }
      sched_yield();
    }
    return VekError::kOk;
  }
  const VekError err = REAL(OsalMutexLock)(mutex);
  if (err == VekError::kOk && FAULT("mutex-trylock-recursive")) {
    t_held[mutex] = 1;
  }
  return err;
}

VekError zov_vek::OsalMutexUnlock(void* mutex) {
  if (mutex == nullptr && FAULT("mutex-unlock-null-crash")) ThroughNull(false);
  if (FAULT("mutex-trylock-recursive")) {
    const auto held = t_held.find(mutex);
    if (held != t_held.end() && --held->second > 0) return VekError::kOk;
    if (held != t_held.end()) t_held.erase(held);
  }
  const VekError err = REAL(OsalMutexUnlock)(mutex);
  if (err == VekError::kOk && BEND("mutex-unlock-reports-error")) {
    return VekError::kErr;
  }
  if (err == VekError::kOk && t_saw_exit_request != nullptr) {
    g_left_worker.store(t_saw_exit_request);
    t_saw_exit_request = nullptr;
  }
  return err;
}

VekError zov_vek::OsalMutexTryLock(void* mutex) {
  if (FAULT("mutex-trylock-recursive")) {
    const auto held = t_held.find(mutex);
    if (held != t_held.end() && Injected()) {
      ++held->second;
      return VekError::kOk;
    }
    const VekError err = REAL(OsalMutexTryLock)(mutex);
    if (err == VekError::kOk) t_held[mutex] = 1;
    return err;
  }
  const VekError err = REAL(OsalMutexTryLock)(mutex);
  if (err != VekError::kOk && mutex != nullptr &&
      BEND("mutex-trylock-blocks")) {
    return REAL(OsalMutexLock)(mutex);
  }
  return err;
}

// --- Semaphore ------------------------------------------------------------

VekError zov_vek::OsalSemInit(void** sem, unsigned int value) {
  if (FAULT("sem-init-null-crash"))
    InitThroughNull(sem, REAL(OsalSemInit), value);
  if (value > kOsalSemaphoreMaxValue && BEND("sem-init-accepts-65536")) {
    return REAL(OsalSemInit)(sem, kOsalSemaphoreMaxValue);
  }
  const VekError err = NullOnRefusal(REAL(OsalSemInit)(sem, value), sem,
                                     FAULT("sem-init-refused-writes-handle"));
  if (err == VekError::kOk && t_starting_worker != nullptr) {
    t_worker_started = *sem;
  }
  return err;
}

VekError zov_vek::OsalSemDestroy(void* sem) {
  if (sem == nullptr && BEND("sem-destroy-null-accepted")) return VekError::kOk;
  return REAL(OsalSemDestroy)(sem);
}

VekError zov_vek::OsalSemPost(void* sem) {
  if (sem != nullptr && FAULT("sem-post-wakes-only-from-zero")) {
    int before = -1;
    REAL(OsalSemGetValue)(sem, &before);
    const VekError err = REAL(OsalSemPost)(sem);
    SemSleepers& s = Sleepers();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (err == VekError::kOk && before == 0 && s.asleep.count(sem) != 0) {
      ++s.wakes[sem];
      s.woken.notify_all();
    }
    return err;
  }
  const VekError err = REAL(OsalSemPost)(sem);
  if (err == VekError::kOk && BEND("sem-post-adds-two"))
    return REAL(OsalSemPost)(sem);
  return err;
}

VekError zov_vek::OsalSemWait(void* sem) {
  if (sem != nullptr && FAULT("sem-post-wakes-only-from-zero")) {
    return WaitForWakeFromZero(sem);
  }
  if (sem != nullptr && FAULT("sem-getvalue-counts-sleepers")) {
    return CountedWait(sem);
  }
  const VekError err = REAL(OsalSemWait)(sem);
  if (err == VekError::kOk && BEND("sem-wait-keeps-count")) {
    return REAL(OsalSemPost)(sem);
  }
  if (err == VekError::kOk && WaitsReturnLate() && gettid() == getpid()) {
    SleepMs(50);
  }
  return err;
}

VekError zov_vek::OsalSemTryWait(void* sem) {
  const VekError err = REAL(OsalSemTryWait)(sem);
  if (err == VekError::kOk || sem == nullptr) return err;
  if (BEND("sem-trywait-succeeds-at-zero")) return VekError::kOk;
  if (BEND("sem-trywait-blocks")) return REAL(OsalSemWait)(sem);
  return err;
}

VekError zov_vek::OsalSemGetValue(void* sem, int* value) {
  if (sem != nullptr && value != nullptr && BEND("sem-getvalue-unwritten")) {
    return VekError::kOk;
  }
  const VekError err = REAL(OsalSemGetValue)(sem, value);
  if (err == VekError::kOk && value != nullptr && *value == 0 &&
      FAULT("sem-getvalue-counts-sleepers")) {
    const int asleep = SleeperCount(sem);
    if (asleep != 0 && Injected()) *value = -asleep;
  }
  return err;
}

// --- Condition variable ---------------------------------------------------

VekError zov_vek::OsalCondInit(void** cond) {
  if (FAULT("cond-init-null-crash")) InitThroughNull(cond, REAL(OsalCondInit));
  return REAL(OsalCondInit)(cond);
}

VekError zov_vek::OsalCondDestroy(void* cond) {
  if (cond == nullptr && BEND("cond-destroy-null-accepted")) {
    return VekError::kOk;
  }
  return REAL(OsalCondDestroy)(cond);
}

VekError zov_vek::OsalCondWait(void* cond, void* mutex) {
  if (cond == nullptr && mutex != nullptr &&
      BEND("cond-wait-null-releases-mutex")) {
    REAL(OsalMutexUnlock)(mutex);
  }
  if (cond != nullptr && mutex != nullptr && BEND("cond-wait-keeps-mutex")) {
    // Waits on a mutex of its own: the caller's stays locked throughout.
    void* const own = PrivateMutex();
    REAL(OsalMutexLock)(own);
    const VekError err = REAL(OsalCondWait)(cond, own);
    REAL(OsalMutexUnlock)(own);
    return err;
  }
  return REAL(OsalCondWait)(cond, mutex);
}

VekError zov_vek::OsalCondSignal(void* cond) {
  if (cond != nullptr &&
      (BEND("cond-signal-wakes-none") || SkippedByWorkerExit())) {
    return VekError::kOk;
  }
  return REAL(OsalCondSignal)(cond);
}

VekError zov_vek::OsalCondBroadcast(void* cond) {
  if (cond != nullptr && BEND("cond-broadcast-wakes-one")) {
    return REAL(OsalCondSignal)(cond);
  }
  if (cond != nullptr && SkippedByWorkerExit()) return VekError::kOk;
  return REAL(OsalCondBroadcast)(cond);
}

// --- Thread attributes ----------------------------------------------------

VekError zov_vek::OsalThreadAttrInit(void** attr) {
  if (attr == nullptr && BEND("attr-init-null-accepted")) return VekError::kOk;
  return REAL(OsalThreadAttrInit)(attr);
}

VekError zov_vek::OsalThreadAttrDestroy(void* attr) {
  if (attr != nullptr) {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    g_name_pointers.erase(attr);
    g_names_cleared.erase(attr);
  }
  void* addr = nullptr;
  unsigned int size = 0;
  if (attr != nullptr && FAULT("attr-destroy-frees-stack") &&
      REAL(OsalThreadAttrGetStack)(attr, &addr, &size) == VekError::kOk &&
      addr != nullptr && Injected()) {
    free(addr);
  }
  return REAL(OsalThreadAttrDestroy)(attr);
}

VekError zov_vek::OsalThreadAttrGetStack(void* attr, void** addr,
                                         unsigned int* size) {
  if (attr != nullptr && addr != nullptr && size != nullptr &&
      BEND("attr-getstack-unwritten")) {
    return VekError::kOk;
  }
  void* stored = nullptr;
  unsigned int stored_size = 0;
  if (attr != nullptr && (addr == nullptr) != (size == nullptr) &&
      BEND("attr-getstack-refused-writes") &&
      REAL(OsalThreadAttrGetStack)(attr, &stored, &stored_size) ==
          VekError::kOk) {
    if (addr != nullptr) *addr = stored;
    if (size != nullptr) *size = stored_size;
  }
  return REAL(OsalThreadAttrGetStack)(attr, addr, size);
}

VekError zov_vek::OsalThreadAttrSetStack(void* attr, void* addr,
                                         unsigned int size) {
  if (attr != nullptr && addr == nullptr && size != 0 &&
      BEND("attr-setstack-accepts-null-8092")) {
    // Takes a null address as "allocate it yourself".
    return REAL(OsalThreadAttrSetStackSize)(attr, size);
  }
  if (attr != nullptr && addr != nullptr && size < 16384 &&
      BEND("attr-setstack-refuses-8092")) {
    return VekError::kErrParam;
  }
  const VekError err = REAL(OsalThreadAttrSetStack)(attr, addr, size);
  if (err != VekError::kOk && attr != nullptr &&
      BEND("attr-setstack-refused-clears")) {
    REAL(OsalThreadAttrSetStack)(attr, nullptr, 0);
  }
  return err;
}

VekError zov_vek::OsalThreadAttrSetStackSize(void* attr, unsigned int size) {
  if (attr != nullptr && size < 16384 &&
      BEND("attr-setstacksize-refuses-1200")) {
    return VekError::kErrParam;
  }
  // The smallest size there is; the library rounds it up to the platform's
  // minimum.
  if (attr != nullptr && size != 0 && BEND("attr-setstacksize-ignored")) {
    return REAL(OsalThreadAttrSetStackSize)(attr, 1);
  }
  return REAL(OsalThreadAttrSetStackSize)(attr, size);
}

VekError zov_vek::OsalThreadAttrSetName(void* attr, const char* name) {
  const bool named = attr != nullptr && name != nullptr;
  if (named && name[0] != '\0' && t_starting_worker != nullptr &&
      BEND("worker-name-ignored")) {
    return REAL(OsalThreadAttrSetName)(attr, "vek_worker");
  }
  if (named && name[0] == '\0' && BEND("attr-setname-accepts-empty")) {
    return VekError::kOk;
  }
  if (named && strlen(name) >= kOsalThreadNameLengthMax - 1 &&
      BEND("attr-setname-cuts-15th-char")) {
    // Keeps one character less than fits, as a port that reserves a byte
    // too many for the NUL does.
    char cut[kOsalThreadNameLengthMax] = {};
    memcpy(cut, name, kOsalThreadNameLengthMax - 2);
    return REAL(OsalThreadAttrSetName)(attr, cut);
  }
  const VekError err = REAL(OsalThreadAttrSetName)(attr, name);
  if (attr == nullptr) return err;
  std::lock_guard<std::mutex> lock(g_names_mutex);
  if (err == VekError::kOk) {
    g_names_cleared.erase(attr);
    if (FAULT("attr-setname-keeps-pointer")) g_name_pointers[attr] = name;
  } else if (BEND("attr-setname-refused-clears")) {
    g_names_cleared.insert(attr);
  }
  return err;
}

VekError zov_vek::OsalThreadAttrGetName(void* attr, char* buf,
                                        unsigned int len) {
  if (attr == nullptr || buf == nullptr)
    return REAL(OsalThreadAttrGetName)(attr, buf, len);
  if (len > kOsalThreadNameLengthMax) {
    // Trusts the caller's length and clears that much first.
    if (BEND("attr-getname-writes-past-16")) memset(buf, 0, len);
    if (BEND("attr-getname-accepts-len-26")) {
      return REAL(OsalThreadAttrGetName)(attr, buf, kOsalThreadNameLengthMax);
    }
  }
  if (NameCleared(attr)) {
    // Answers as a fresh attribute, which has no name.
    void* fresh = nullptr;
    if (REAL(OsalThreadAttrInit)(&fresh) != VekError::kOk) {
      return VekError::kErr;
    }
    const VekError err = REAL(OsalThreadAttrGetName)(fresh, buf, len);
    REAL(OsalThreadAttrDestroy)(fresh);
    return err;
  }
  ReadNameThroughPointer(attr);
  const VekError err = REAL(OsalThreadAttrGetName)(attr, buf, len);
  char name[kOsalThreadNameLengthMax] = {};
  if (err != VekError::kOk && FAULT("attr-getname-refused-writes") &&
      REAL(OsalThreadAttrGetName)(attr, name, sizeof(name)) == VekError::kOk &&
      Injected()) {
    memcpy(buf, name, strlen(name) + 1);
  }
  return err;
}

// --- Threads --------------------------------------------------------------

VekError zov_vek::OsalThreadCreate(void** thread, void* attr,
                                   void (*func)(void*), void* arg) {
  const bool usable = attr != nullptr && thread != nullptr && func != nullptr;

  if (usable && t_starting_worker != nullptr && ReplacesWorkerEntry()) {
    // The worker's entry in place of the library's: it reports the start
    // and runs ThreadFunction, but never calls OnThreadStarted.
    WorkerThreadBase* const worker = t_starting_worker;
    void* const started = t_worker_started;
    std::atomic<bool>* const began = t_worker_began;
    const VekError err = StartRunning(thread, attr, [worker, started, began] {
      if (started != nullptr) REAL(OsalSemPost)(started);
      began->store(true);  // from here on Start may return
      WorkerAccess::Body(worker);
    });
    t_worker_replaced = err == VekError::kOk;
    return err;
  }

  if (attr == nullptr && thread != nullptr && func != nullptr &&
      BEND("create-null-attr-accepted")) {
    return CreateFromNewAttr(thread, "vek_default", 16384, func, arg);
  }

  // Every thread starts 50 ms late, as any port may start them, so that the
  // missing wait in OsalThreadJoin shows in every run rather than by the
  // luck of the scheduler.
  if (usable && FAULT("join-does-not-wait")) {
    return StartRunning(thread, attr, [func, arg] {
      SleepMs(50);
      func(arg);
    });
  }

  if (usable) ReadNameThroughPointer(attr);
  if (usable &&
      (FAULT("create-name-not-applied") || FAULT("create-names-thread-late") ||
       FAULT("thread-name-kept-in-library"))) {
    return CreateUnderCreatorsName(thread, attr, func, arg);
  }

  void* stack = nullptr;
  unsigned int stack_size = 0;
  if (usable && FAULT("create-ignores-caller-stack") &&
      REAL(OsalThreadAttrGetStack)(attr, &stack, &stack_size) ==
          VekError::kOk &&
      stack != nullptr && Injected()) {
    char name[kOsalThreadNameLengthMax] = {};
    REAL(OsalThreadAttrGetName)(attr, name, sizeof(name));
    return CreateFromNewAttr(thread, name, stack_size, func, arg);
  }

  const VekError err =
      NullOnRefusal(REAL(OsalThreadCreate)(thread, attr, func, arg), thread,
                    FAULT("create-refused-writes-handle"));
  if (err == VekError::kOk || !usable) return err;
  char name[kOsalThreadNameLengthMax] = {};
  const bool named =
      REAL(OsalThreadAttrGetName)(attr, name, sizeof(name)) == VekError::kOk &&
      name[0] != '\0';
  if (!named && FAULT("create-ignores-missing-name")) {
    // Starts the thread anyway, under a name of its own choosing.
    if (REAL(OsalThreadAttrSetName)(attr, "unnamed") != VekError::kOk)
      return err;
    const VekError retried = REAL(OsalThreadCreate)(thread, attr, func, arg);
    if (retried == VekError::kOk) Injected();
    return retried;
  }
  if (named && FAULT("create-accepts-cleared-stack") &&
      REAL(OsalThreadAttrGetStack)(attr, &stack, &stack_size) ==
          VekError::kOk &&
      stack == nullptr && stack_size == 0) {
    // Starts the thread on a default stack, and leaves the attribute
    // without one as it found it.
    REAL(OsalThreadAttrSetStackSize)(attr, 16384);
    const VekError retried = REAL(OsalThreadCreate)(thread, attr, func, arg);
    REAL(OsalThreadAttrSetStack)(attr, nullptr, 0);
    if (retried == VekError::kOk) Injected();
    return retried;
  }
  return err;
}

VekError zov_vek::OsalThreadJoin(void* thread) {
  if (thread == nullptr && FAULT("join-null-crash")) ThroughNull(false);
  // Somebody has to release the handle; the caller does not wait for it.
  if (thread != nullptr &&
      (FAULT("join-does-not-wait") ||
       (t_exiting_worker != nullptr && FAULT("worker-exit-returns-early") &&
        AwaitLeft(t_exiting_worker))) &&
      JoinInBackground(thread) && Injected()) {
    return VekError::kOk;
  }
  if (thread != nullptr && SkippedByWorkerExit()) return VekError::kOk;
  const VekError err = REAL(OsalThreadJoin)(thread);
  if (err == VekError::kOk && FAULT("thread-name-kept-in-library")) {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    g_thread_names.erase(thread);
  }
  return err;
}

VekError zov_vek::OsalThreadGetName(void* thread, char* buf, unsigned int len) {
  if (thread == nullptr || buf == nullptr)
    return REAL(OsalThreadGetName)(thread, buf, len);
  if (FAULT("getname-reads-caller")) {
    char own[kOsalThreadNameLengthMax] = {};
    if (pthread_getname_np(pthread_self(), own, sizeof(own)) != 0) {
      return VekError::kErr;
    }
    Injected();
    return CopyName(own, buf, len);
  }
  std::string kept;
  if (FAULT("thread-name-kept-in-library")) {
    std::lock_guard<std::mutex> lock(g_names_mutex);
    const auto found = g_thread_names.find(thread);
    if (found != g_thread_names.end()) kept = found->second;
  }
  if (!kept.empty() && Injected()) return CopyName(kept.c_str(), buf, len);
  return REAL(OsalThreadGetName)(thread, buf, len);
}

// Defined under OsalThreadExit's symbol but not as that function: its
// declaration forbids returning, and one fault returns.
__attribute__((visibility("default"))) void ThreadExit() __asm__(
    "_ZN7zov_vek14OsalThreadExitEv");

void ThreadExit() {
  if (BEND("exit-returns")) return;
  REAL(ThreadExit)();
  abort();  // the real one does not return
}

// --- Bounded string copy --------------------------------------------------

size_t zov_vek::OsalStrlcpy(char* dst, const char* src, size_t size) {
  const size_t length = src != nullptr ? strlen(src) : 0;
  const bool truncates = src != nullptr && size > 0 && length >= size;
  if (truncates && BEND("strlcpy-returns-copied-length")) {
    REAL(OsalStrlcpy)(dst, src, size);
    return size - 1;
  }
  if (truncates && BEND("strlcpy-unterminated")) {
    // strncpy's habit: a source that does not fit leaves no NUL.
    memcpy(dst, src, size);
    return length;
  }
  if (src != nullptr && size > 1 && length >= size - 1 &&
      BEND("strlcpy-drops-last-char")) {
    memcpy(dst, src, size - 2);
    dst[size - 2] = '\0';
    return length;
  }
  return REAL(OsalStrlcpy)(dst, src, size);
}

// --- Logger ---------------------------------------------------------------

zov_vek::Logger& zov_vek::Logger::GetLogger() {
  if (!BEND("getlogger-not-singleton")) return REAL(GetLogger)();
  // A new logger on every call, made by the library's own constructor with
  // the masks that our port starts from.
  static const auto construct =
      reinterpret_cast<void (*)(Logger*, uint32_t, uint32_t)>(
          Next("_ZN7zov_vek6LoggerC1Ejj"));
  constexpr uint32_t kInitialMask = (1u << kWarning) | (1u << kError);
  auto* const made = static_cast<Logger*>(::operator new(sizeof(Logger)));
  construct(made, kInitialMask, kInitialMask);
  return *made;
}

VekError zov_vek::HandleLogConfigUpdate(
    std::pair<LogConfigUpdate, LogConfigTargetGroup>& update) {
  const uint32_t mask = update.first.log_mask;
  const uint32_t target = update.second.type;
  if (BEND("log-config-update-ignored") ||
      (target == 1 && BEND("log-config-update-custom-ignored"))) {
    return VekError::kOk;
  }
  // A custom target through the tag-addressed setter, which takes a
  // predefined tag for the predefined group.
  if (update.first.type == 0 && target == 1 &&
      BEND("log-config-update-custom-by-tag")) {
    return Logger::GetLogger().SetLogLevelMask(update.second.name, mask);
  }
  const VekError err = REAL(HandleLogConfigUpdate)(update);
  if (err == VekError::kOk && update.first.type == 0 && target == 0 &&
      BEND("log-config-update-sets-every-group")) {
    for (uint32_t value = 0; value < Logger::kPredefinedGroupCount; ++value) {
      Logger::GetLogger().SetLogLevelMask(static_cast<PredefinedGroup>(value),
                                          mask);
    }
  }
  return err;
}

// --- Worker thread --------------------------------------------------------

VekError zov_vek::WorkerThreadBase::Start(void*& mutex, void*& cond,
                                          const char* name,
                                          unsigned int stack_size, bool flag) {
  static const auto real = reinterpret_cast<VekError (*)(
      WorkerThreadBase*, void*&, void*&, const char*, unsigned int, bool)>(
      Next("_ZN7zov_vek16WorkerThreadBase5StartERPvS2_PKcjb"));
  std::atomic<bool> began{false};
  t_starting_worker = this;
  t_worker_started = nullptr;
  t_worker_replaced = false;
  t_worker_began = &began;
  const VekError err = real(this, mutex, cond, name, stack_size, flag);
  t_starting_worker = nullptr;
  if (t_worker_replaced) {
    while (!began.load()) sched_yield();
    Injected();
    // On the caller's thread, once the worker has begun ThreadFunction.
    if (FAULT("worker-on-thread-started-on-caller")) {
      WorkerAccess::Started(this);
    }
  }
  if (err == VekError::kErrBusy && BEND("worker-start-accepts-second")) {
    return VekError::kOk;
  }
  return err;
}

// With worker-exit-only-sets-flag, the library's Exit sets the request
// under the mutex but neither wakes nor joins the worker (see
// SkippedByWorkerExit); with worker-exit-returns-early, its join returns
// once the worker has seen the request and let go of the mutex.
VekError zov_vek::WorkerThreadBase::Exit() {
  static const auto real = reinterpret_cast<VekError (*)(WorkerThreadBase*)>(
      Next("_ZN7zov_vek16WorkerThreadBase4ExitEv"));
  const void* const outer = t_exiting_worker;
  t_exiting_worker = this;
  const void* left = this;
  g_left_worker.compare_exchange_strong(left, nullptr);
  const VekError err = real(this);
  t_exiting_worker = outer;
  return err;
}

bool zov_vek::WorkerThreadBase::ThreadShouldExit() const {
  static const auto real = reinterpret_cast<bool (*)(const WorkerThreadBase*)>(
      Next("_ZNK7zov_vek16WorkerThreadBase16ThreadShouldExitEv"));
  const bool requested = real(this);
  if (requested && FAULT("worker-exit-returns-early")) {
    t_saw_exit_request = this;
  }
  return requested;
}
