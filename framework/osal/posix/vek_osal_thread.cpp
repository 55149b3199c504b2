// Thread attributes, threads and thread names on pthreads.
//
// An attribute only records what the caller asked for; everything is
// handed to pthreads when a thread is created, from a pthread attribute
// that lives for that one call. So an attribute can be reused for any
// number of threads and destroyed while they still run.
//
// A thread names itself before its function runs (the name is the
// operating system's, so tools and logs see it), so the function sees it
// from its first statement on. The creator does not wait for that: a
// sleep and a wake-up on every creation would be a tenth of the cost of
// starting a thread. OsalThreadGetName, which reads the operating
// system's name and may be called the moment OsalThreadCreate returns,
// waits instead, and only in the rare case that it comes first.
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>

#include "osal/posix/vek_futex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace posix {
namespace {

// The framework code of an error number that pthreads returned.
VekError FromErrno(int rc) {
  switch (rc) {
    case 0:
      return VekError::kOk;
    case EBUSY:
    case EAGAIN:
      return VekError::kErrBusy;
    case EINVAL:
      return VekError::kErrParam;
    case ENOMEM:
      return VekError::kErrNoResource;
    case ENOSYS:
    case ENOTSUP:
      return VekError::kErrNotSupported;
    default:
      return VekError::kErr;
  }
}

}  // namespace
}  // namespace posix

namespace {

// The smallest caller stack accepted on every platform, so that an
// attribute that works on one port works on all of them. It is glibc's own
// minimum on x86-64 and bionic's on 64-bit Android.
constexpr size_t kMinCallerStackSize = 16384;

enum class StackKind { kNone, kCaller, kLibrary };

struct ThreadAttr {
  StackKind stack_kind = StackKind::kNone;
  void* stack_addr = nullptr;
  uint32_t stack_size = 0;
  // Empty while no name has been set: names are never empty.
  char name[kOsalThreadNameLengthMax] = {};
};

// Thread::naming: the thread has not named itself yet; it has not, and
// someone waits for it; it has tried, and name_rc says how that went.
constexpr uint32_t kUnnamed = 0;
constexpr uint32_t kNameAwaited = 1;
constexpr uint32_t kNamed = 2;

struct Thread {
  pthread_t id;
  void (*func)(void*);
  void* arg;
  char name[kOsalThreadNameLengthMax];
  // A futex word, so that a reader of the name can sleep on it.
  std::atomic<uint32_t> naming;
  // Written by the thread before `naming` becomes kNamed.
  int name_rc;
};

ThreadAttr* AsAttr(void* handle) { return static_cast<ThreadAttr*>(handle); }
Thread* AsThread(void* handle) { return static_cast<Thread*>(handle); }

// The platform's smallest thread stack. Newer glibc computes it at run time
// from the CPU's signal frame size, hence no constant expression here.
size_t PlatformStackMin() {
  const long min = PTHREAD_STACK_MIN;
  return min > 0 ? static_cast<size_t>(min) : kMinCallerStackSize;
}

// The size of a library-allocated stack for a request: at least what was
// asked, at least what the platform demands, in whole pages. False when
// that size cannot be represented.
bool LibraryStackSize(uint32_t requested, size_t* size) {
  const long page_size = sysconf(_SC_PAGESIZE);
  const size_t page = page_size > 0 ? static_cast<size_t>(page_size) : 4096;
  size_t wanted = requested;
  const size_t min = PlatformStackMin();
  if (wanted < min) wanted = min;
  if (wanted > SIZE_MAX - (page - 1)) return false;
  *size = (wanted + page - 1) / page * page;
  return true;
}

// The one place that hands a caller's stack to pthreads.
//
// glibc on aarch64 refuses stacks below its 128 KiB PTHREAD_STACK_MIN in
// pthread_attr_setstack, yet pthread_create runs threads on smaller caller
// stacks. Declaring a larger stack that ends where the caller's block ends
// would make the C library size its own stack use (alloca limits) and
// report the stack (pthread_getattr_np) for memory the thread does not
// have. So the attribute gets the caller's block exactly, by another way:
// two stacks of the minimum size and twice that, both ending where the
// caller's block ends, tell which word of the opaque attribute holds the
// size; that word then gets the caller's size. pthread_attr_getstack,
// which reads what pthread_create reads, must then report the caller's
// block, or the stack is refused (EINVAL) rather than guessed at.
int ApplyCallerStack(pthread_attr_t* attr, void* addr, size_t size) {
  const int rc = pthread_attr_setstack(attr, addr, size);
  const size_t min = PlatformStackMin();
  if (rc != EINVAL || size >= min) return rc;
  const uintptr_t top = reinterpret_cast<uintptr_t>(addr) + size;
  if (top < 2 * min) return EINVAL;
  pthread_attr_t probe;
  if (pthread_attr_init(&probe) != 0) return EINVAL;
  const int probe_rc = pthread_attr_setstack(
      &probe, reinterpret_cast<void*>(top - 2 * min), 2 * min);
  if (probe_rc != 0 ||
      pthread_attr_setstack(attr, reinterpret_cast<void*>(top - min), min) !=
          0) {
    pthread_attr_destroy(&probe);
    return EINVAL;
  }
  size_t offset = sizeof(pthread_attr_t);
  for (size_t at = 0; at + sizeof(size_t) <= sizeof(pthread_attr_t);
       at += sizeof(size_t)) {
    size_t small = 0;
    size_t large = 0;
    std::memcpy(&small, reinterpret_cast<const char*>(attr) + at,
                sizeof(small));
    std::memcpy(&large, reinterpret_cast<const char*>(&probe) + at,
                sizeof(large));
    if (small != min || large != 2 * min) continue;
    // More than one such word: ambiguous, so none is taken.
    offset = offset == sizeof(pthread_attr_t) ? at : sizeof(pthread_attr_t) + 1;
  }
  pthread_attr_destroy(&probe);
  if (offset >= sizeof(pthread_attr_t)) return EINVAL;
  std::memcpy(reinterpret_cast<char*>(attr) + offset, &size, sizeof(size));
  void* got_addr = nullptr;
  size_t got_size = 0;
  if (pthread_attr_getstack(attr, &got_addr, &got_size) != 0 ||
      got_addr != addr || got_size != size) {
    return EINVAL;
  }
  return 0;
}

// The stack setting of an attribute applied to a pthread attribute. kErr
// when this platform cannot run a thread on it.
VekError ApplyStack(pthread_attr_t* attr, const ThreadAttr& from) {
  int rc = 0;
  if (from.stack_kind == StackKind::kCaller) {
    if (from.stack_size < kMinCallerStackSize) return VekError::kErr;
    rc = ApplyCallerStack(attr, from.stack_addr, from.stack_size);
  } else {
    size_t size = 0;
    if (!LibraryStackSize(from.stack_size, &size)) return VekError::kErr;
    rc = pthread_attr_setstacksize(attr, size);
  }
  // Both calls fail only with EINVAL, for a stack that the platform will
  // not take.
  return rc == 0 ? VekError::kOk : VekError::kErr;
}

// Failures of pthread_create: EAGAIN is the process running out of threads
// or memory, not something that would block; EINVAL and EPERM refuse what
// the attribute asked for.
VekError FromCreateError(int rc) {
  switch (rc) {
    case EAGAIN:
      return VekError::kErrNoResource;
    case EINVAL:
    case EPERM:
      return VekError::kErr;
    default:
      return posix::FromErrno(rc);
  }
}

// Copies a name into a caller's buffer of `len` bytes. Lengths above
// kOsalThreadNameLengthMax are refused as well as those too short for the
// name: a caller that claims more room than any name needs has most
// likely passed the wrong length, and nothing is ever written at or past
// byte kOsalThreadNameLengthMax.
VekError CopyName(const char* name, char* buf, unsigned int len) {
  if (len > kOsalThreadNameLengthMax) return VekError::kErrOutOfRange;
  const size_t length = strlen(name);
  if (len <= length) return VekError::kErrOutOfRange;
  memcpy(buf, name, length + 1);
  return VekError::kOk;
}

void* RunThread(void* context) {
  Thread* thread = AsThread(context);
  // A name of at most 15 characters, set by the thread on itself, is
  // refused by no known platform. Were it refused, the thread still does
  // its work, and OsalThreadGetName reports the refusal.
  thread->name_rc = pthread_setname_np(pthread_self(), thread->name);
  VEK_SYNC_HAPPENS_BEFORE(&thread->naming);
  if (thread->naming.exchange(kNamed, std::memory_order_acq_rel) ==
      kNameAwaited) {
    posix::FutexWake(&thread->naming, posix::kFutexWakeAll);
  }
  thread->func(thread->arg);
  return nullptr;
}

// Returns once `thread` has tried to name itself.
void AwaitNaming(Thread* thread) {
  uint32_t state = thread->naming.load(std::memory_order_acquire);
  while (state != kNamed) {
    if (state == kNameAwaited ||
        thread->naming.compare_exchange_weak(state, kNameAwaited,
                                             std::memory_order_acquire)) {
      posix::FutexWait(&thread->naming, kNameAwaited);
    }
    state = thread->naming.load(std::memory_order_acquire);
  }
  VEK_SYNC_HAPPENS_AFTER(&thread->naming);
}

}  // namespace

VekError OsalThreadAttrInit(void** attr) {
  if (attr == nullptr) return VekError::kErrParam;
  auto* created = new (std::nothrow) ThreadAttr;
  if (created == nullptr) return VekError::kErrNoResource;
  *attr = created;
  return VekError::kOk;
}

VekError OsalThreadAttrDestroy(void* attr) {
  if (attr == nullptr) return VekError::kErrParam;
  // A caller's stack stays the caller's: it is never freed here.
  delete AsAttr(attr);
  return VekError::kOk;
}

VekError OsalThreadAttrGetStack(void* attr, void** addr, unsigned int* size) {
  if (attr == nullptr || addr == nullptr || size == nullptr) {
    return VekError::kErrParam;
  }
  const ThreadAttr* from = AsAttr(attr);
  *addr = from->stack_addr;
  *size = from->stack_size;
  return VekError::kOk;
}

VekError OsalThreadAttrSetStack(void* attr, void* addr, unsigned int size) {
  if (attr == nullptr) return VekError::kErrParam;
  if ((addr == nullptr) != (size == 0)) return VekError::kErrParam;
  ThreadAttr* to = AsAttr(attr);
  // Only recorded: the memory may not even be a stack yet, and it is not
  // ours to look at.
  to->stack_kind = addr == nullptr ? StackKind::kNone : StackKind::kCaller;
  to->stack_addr = addr;
  to->stack_size = size;
  return VekError::kOk;
}

VekError OsalThreadAttrSetStackSize(void* attr, unsigned int size) {
  if (attr == nullptr) return VekError::kErrParam;
  // A stack of no size is no stack; clearing is SetStack(attr, nullptr, 0).
  if (size == 0) return VekError::kErrParam;
  // Replaces a caller stack, if any: the thread gets a stack of its own,
  // and the caller's memory stays the caller's.
  ThreadAttr* to = AsAttr(attr);
  to->stack_kind = StackKind::kLibrary;
  to->stack_addr = nullptr;
  to->stack_size = size;
  return VekError::kOk;
}

VekError OsalThreadAttrSetName(void* attr, const char* name) {
  if (attr == nullptr || name == nullptr || name[0] == '\0') {
    return VekError::kErrParam;
  }
  // A longer name is refused rather than cut: two threads whose names
  // differ only past the limit would otherwise look the same.
  const size_t length = strnlen(name, kOsalThreadNameLengthMax);
  if (length >= kOsalThreadNameLengthMax) return VekError::kErrOutOfRange;
  memcpy(AsAttr(attr)->name, name, length + 1);
  return VekError::kOk;
}

VekError OsalThreadAttrGetName(void* attr, char* buf, unsigned int len) {
  if (attr == nullptr || buf == nullptr) return VekError::kErrParam;
  // An attribute without a name reads as the empty name.
  return CopyName(AsAttr(attr)->name, buf, len);
}

VekError OsalThreadCreate(void** thread, void* attr, void (*func)(void*),
                          void* arg) {
  if (thread == nullptr || attr == nullptr || func == nullptr) {
    return VekError::kErrParam;
  }
  const ThreadAttr* from = AsAttr(attr);
  // Every framework thread is named and has a stack it was given or asked
  // for; an attribute that says neither cannot start one.
  if (from->name[0] == '\0' || from->stack_kind == StackKind::kNone) {
    return VekError::kErr;
  }

  auto* created = new (std::nothrow) Thread;
  if (created == nullptr) return VekError::kErrNoResource;
  created->func = func;
  created->arg = arg;
  memcpy(created->name, from->name, sizeof(created->name));
  created->naming.store(kUnnamed, std::memory_order_relaxed);
  created->name_rc = 0;
  VEK_SYNC_CREATED(&created->naming);

  pthread_attr_t pthread_attr;
  int rc = pthread_attr_init(&pthread_attr);
  if (rc != 0) {
    VEK_SYNC_DESTROYED(&created->naming);
    delete created;
    return posix::FromErrno(rc);
  }
  // Joinable whatever the process-wide default: every thread is joined.
  rc = pthread_attr_setdetachstate(&pthread_attr, PTHREAD_CREATE_JOINABLE);
  VekError err =
      rc == 0 ? ApplyStack(&pthread_attr, *from) : posix::FromErrno(rc);
  if (err == VekError::kOk) {
    rc = pthread_create(&created->id, &pthread_attr, &RunThread, created);
    if (rc != 0) err = FromCreateError(rc);
  }
  // pthread_attr_destroy cannot fail on an initialised attribute, and a
  // thread that already runs could not be taken back anyway.
  pthread_attr_destroy(&pthread_attr);
  if (err != VekError::kOk) {
    VEK_SYNC_DESTROYED(&created->naming);
    delete created;
    return err;
  }
  *thread = created;
  return VekError::kOk;
}

VekError OsalThreadJoin(void* thread) {
  if (thread == nullptr) return VekError::kErrParam;
  Thread* joined = AsThread(thread);
  // A thread joining itself would wait forever. POSIX lets pthread_join
  // detect that (EDEADLK) but does not require it, so it is refused here
  // on every C library; the handle stays valid for the real joiner.
  if (pthread_equal(joined->id, pthread_self())) return VekError::kErr;
  // A failed join leaves the handle valid.
  const int rc = pthread_join(joined->id, nullptr);
  if (rc != 0) return posix::FromErrno(rc);
  VEK_SYNC_DESTROYED(&joined->naming);
  delete joined;
  return VekError::kOk;
}

void OsalThreadExit() { pthread_exit(nullptr); }

VekError OsalThreadGetName(void* thread, char* buf, unsigned int len) {
  if (thread == nullptr || buf == nullptr) return VekError::kErrParam;
  // Asked of the operating system, not of our copy: the name is what tools
  // see, whoever set it last. The thread must not have been joined yet.
  Thread* named = AsThread(thread);
  AwaitNaming(named);
  if (named->name_rc != 0) return posix::FromErrno(named->name_rc);
  char name[kOsalThreadNameLengthMax] = {};
  const int rc = pthread_getname_np(named->id, name, sizeof(name));
  if (rc != 0) return posix::FromErrno(rc);
  return CopyName(name, buf, len);
}

}  // namespace zov_vek
