// The operating-system abstraction of the framework's common layer,
// libvekosal. Every platform has a port of its own; each keeps the contract
// below, and the conformance and contract executables hold it to it.
//
// For every operation:
//  - Objects are opaque handles (void*). A creating operation takes a void**
//    out-parameter first; every other operation takes the handle first.
//  - Failures are returned, never thrown. A call refused for a null handle
//    or out-parameter returns a code other than kOk and has no effect; what
//    other refusals leave behind is said with each operation.
//  - Any thread may call any operation. Calls on one mutex, semaphore or
//    condition variable may overlap, except Destroy, which must be the
//    object's last use. A thread attribute is a plain record: it must not
//    change while another thread uses it.
//  - Only OsalMutexLock, OsalSemWait, OsalCondWait and OsalThreadJoin wait
//    for other threads; the rest return at once unless a port says so.
//
// Where the contract leaves a choice, "POSIX port:" says what our library
// (osal/posix/ with the portable sources) does; portable callers compare
// those results with kOk only.
// Wherever the contract refuses a null argument, our port returns
// kErrParam; when memory or threads run out, kErrNoResource. Its refusals
// change nothing, out-parameters and buffers included.
//
// POSIX port and fork(): the child can log, lock the mutexes that were free
// at the fork and create threads. The library holds its own locks (the
// logger's mutex and, on a host, liblog's line output) across the fork and
// releases them in both processes. The caller's objects that other threads
// were using at the fork keep that state in the child: a held mutex stays
// held, and a condition variable or semaphore still counts the parent's
// waiters.
#ifndef OSAL_VEK_OSAL_H_
#define OSAL_VEK_OSAL_H_

#include <cstddef>

#include "osal/vek_error.h"
#include "osal/vek_export.h"

namespace zov_vek {

// Largest count of a semaphore.
constexpr unsigned int kOsalSemaphoreMaxValue = 65535;
// Size of a thread name in bytes, terminating NUL included (15 characters),
// matching what the operating system keeps for a running thread.
constexpr unsigned int kOsalThreadNameLengthMax = 16;

// Mutex: plain and non-recursive. Lock and Unlock order memory: what a
// holder wrote is seen by the next one. POSIX port: no owner is recorded,
// so Unlock by a thread that does not hold the mutex releases it, and Lock
// by its holder never returns.
//
// Creates a free mutex.
VEK_EXPORT VekError OsalMutexInit(void** mutex);
// Releases a free mutex. POSIX port: a held mutex, kErrBusy (it stays held
// and usable).
VEK_EXPORT VekError OsalMutexDestroy(void* mutex);
// Blocks until the caller holds the mutex.
VEK_EXPORT VekError OsalMutexLock(void* mutex);
// Releases the mutex the caller holds. POSIX port: a mutex nobody holds,
// kErrParam (it stays free).
VEK_EXPORT VekError OsalMutexUnlock(void* mutex);
// Takes a free mutex; never blocks. Refused, leaving it as it was, when it
// is held, by the caller too. POSIX port: held, kErrBusy.
VEK_EXPORT VekError OsalMutexTryLock(void* mutex);

// Counting semaphore, 0 to kOsalSemaphoreMaxValue. A post and the wait that
// takes its count order memory.
//
// Creates a semaphore at `value`; above kOsalSemaphoreMaxValue refused,
// nothing created. POSIX port: above the maximum, kErrOutOfRange.
VEK_EXPORT VekError OsalSemInit(void** sem, unsigned int value);
// Releases a semaphore nobody waits on. POSIX port: while a thread is
// blocked in OsalSemWait, woken or not, until it has taken its count,
// kErrBusy (it stays usable).
VEK_EXPORT VekError OsalSemDestroy(void* sem);
// Adds one to the count, waking one waiter if any. POSIX port: at the
// maximum, kErrOutOfRange (count unchanged).
VEK_EXPORT VekError OsalSemPost(void* sem);
// Blocks until the count is above 0, then takes one.
VEK_EXPORT VekError OsalSemWait(void* sem);
// Takes one if the count is above 0; never blocks. At 0 refused, count
// unchanged. POSIX port: at 0, kErrBusy.
VEK_EXPORT VekError OsalSemTryWait(void* sem);
// Stores the count, which other threads may change at any moment. A null
// handle or pointer is refused.
VEK_EXPORT VekError OsalSemGetValue(void* sem, int* value);

// Condition variable, waited on with a mutex of this library that the
// waiter holds. It keeps no count: a signal with nobody waiting is lost.
// Wake-ups may be spurious, so waiters test their predicate in a loop.
//
// Creates a condition variable.
VEK_EXPORT VekError OsalCondInit(void** cond);
// Releases a condition variable nobody waits on. POSIX port: succeeds as
// soon as no thread is blocked on it. A thread is blocked from its entry
// into OsalCondWait until a signal or broadcast releases it, so Destroy
// also succeeds right after a broadcast, or one signal per waiter, before
// the woken threads have returned (it waits the few instructions they need
// to leave, never for a blocked thread). While one is blocked, kErrBusy
// (it stays usable).
VEK_EXPORT VekError OsalCondDestroy(void* cond);
// Releases `mutex` and starts waiting as one step, so a signal sent by a
// thread that takes the mutex next is not missed; holds the mutex again
// when it returns. POSIX port: a null argument leaves the mutex held; a
// mutex nobody holds, kErrParam (it stays free).
VEK_EXPORT VekError OsalCondWait(void* cond, void* mutex);
// Wakes at least one waiter; kOk with none too. POSIX port: it may wake
// more than one (a waiter between its release of the mutex and its sleep
// returns as well).
VEK_EXPORT VekError OsalCondSignal(void* cond);
// Wakes every waiter; kOk with none too.
VEK_EXPORT VekError OsalCondBroadcast(void* cond);

// Thread attributes: a name, and a stack setting that is one of none
// (fresh, or cleared by SetStack(attr, nullptr, 0)), a caller's stack
// (address and size) or a library stack of a size. Setting a stack only
// records it; the caller owns that memory and keeps it alive until every
// thread made on it has been joined. POSIX port: an attribute may be
// reused, changed or destroyed while threads made from it run.
//
// Creates an attribute with no name and no stack.
VEK_EXPORT VekError OsalThreadAttrInit(void** attr);
// Releases the attribute, never the caller's stack.
VEK_EXPORT VekError OsalThreadAttrDestroy(void* attr);
// Writes the stack address and size (null and 0 when there is none). Any
// null argument refused, nothing written. POSIX port: a library stack reads
// as a null address and its size.
VEK_EXPORT VekError OsalThreadAttrGetStack(void* attr, void** addr,
                                           unsigned int* size);
// Records a caller's stack, or clears the setting with (nullptr, 0). A null
// address with a size, or an address with size 0, is refused. POSIX port:
// either, kErrParam; sizes below 16 KiB are taken here and refused by
// OsalThreadCreate.
VEK_EXPORT VekError OsalThreadAttrSetStack(void* attr, void* addr,
                                           unsigned int size);
// Asks for a library stack of `size` bytes; sizes such as 1200 are taken
// here. POSIX port: size 0, kErrParam; replaces a caller's stack (whose
// memory stays the caller's); the stack gets at least the platform's
// minimum (PTHREAD_STACK_MIN), in whole pages.
VEK_EXPORT VekError OsalThreadAttrSetStackSize(void* attr, unsigned int size);
// Copies the name. A null or empty name is refused with kErrParam. POSIX
// port: 16 characters or more, kErrOutOfRange (no truncation).
VEK_EXPORT VekError OsalThreadAttrSetName(void* attr, const char* name);
// Copies the name and its NUL into `buf` of `len` bytes. len 16 is taken;
// len 1, too short for a 15-character name, and len 26, above
// kOsalThreadNameLengthMax, are refused with kErrOutOfRange; other lengths
// are the port's choice. Nothing is ever written at buf[16] or beyond, and
// a refused call writes nothing past byte 16. POSIX port: takes any len from
// the name's length + 1 to 16 and refuses every other with kErrOutOfRange,
// writing nothing; no name reads as the empty name.
VEK_EXPORT VekError OsalThreadAttrGetName(void* attr, char* buf,
                                          unsigned int len);

// Threads run func(arg) on the stack and under the name of their attribute,
// named before func runs; they are joinable and must be joined, once.
//
// Starts a thread and writes its handle. Refused, starting nothing: a null
// handle, attribute or function, an attribute whose stack was cleared and
// not set again; without a name and with a 1200-byte stack size the code
// is kErr. POSIX port: no name, no stack (fresh or cleared), a caller's
// stack below 16 KiB, or a stack the platform refuses, kErr. Returns
// without waiting for the new thread to run.
VEK_EXPORT VekError OsalThreadCreate(void** thread, void* attr,
                                     void (*func)(void*), void* arg);
// Blocks until the thread has ended (its function returned or it called
// OsalThreadExit), then releases the handle. POSIX port: the calling thread
// itself, kErr; a refused join leaves the handle valid.
VEK_EXPORT VekError OsalThreadJoin(void* thread);
// Ends the calling thread at once; it does not return.
[[noreturn]] VEK_EXPORT void OsalThreadExit();
// Reads the operating system's name of the running thread behind the handle
// (the caller's own too) into `buf` of `len` bytes; len 16 is taken. The
// handle must not have been joined. POSIX port: len above 16 or not above
// the name's length, kErrOutOfRange; a name the platform refused when the
// thread set it, that refusal's code; right after OsalThreadCreate it waits
// until the new thread has named itself.
VEK_EXPORT VekError OsalThreadGetName(void* thread, char* buf,
                                      unsigned int len);

// BSD strlcpy: copies at most size - 1 characters and a NUL when size is at
// least 1, and returns strlen(src), so a result >= size means truncation.
// Nothing is written at dst[size] or beyond. POSIX port: a null src returns
// 0, a null dst or size 0 returns strlen(src), and neither writes anything;
// dst and src must not overlap.
VEK_EXPORT size_t OsalStrlcpy(char* dst, const char* src, size_t size);

}  // namespace zov_vek

#endif  // OSAL_VEK_OSAL_H_
