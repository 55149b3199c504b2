// The operating-system abstraction of the framework's common layer.
//
// Every object is an opaque handle (void*). Creating operations take a
// void** out-parameter first; all others take the handle first. A null
// handle or out-parameter returns a code other than kOk and has no effect.
// Nothing here throws.
#ifndef OSAL_VEK_OSAL_H_
#define OSAL_VEK_OSAL_H_

#include <cstddef>

#include "osal/vek_error.h"
#include "osal/vek_export.h"

namespace zov_vek {

// Largest initial count of a semaphore.
constexpr unsigned int kOsalSemaphoreMaxValue = 65535;
// Size of a thread name in bytes, terminating NUL included (15 characters),
// matching what the operating system keeps for a running thread.
constexpr unsigned int kOsalThreadNameLengthMax = 16;

// Mutex: plain and non-recursive. TryLock fails on a mutex that anyone,
// the caller included, holds, and leaves it held.
VEK_EXPORT VekError OsalMutexInit(void** mutex);
VEK_EXPORT VekError OsalMutexDestroy(void* mutex);
VEK_EXPORT VekError OsalMutexLock(void* mutex);
VEK_EXPORT VekError OsalMutexUnlock(void* mutex);
VEK_EXPORT VekError OsalMutexTryLock(void* mutex);

// Counting semaphore; initial counts 0 to kOsalSemaphoreMaxValue.
VEK_EXPORT VekError OsalSemInit(void** sem, unsigned int value);
VEK_EXPORT VekError OsalSemDestroy(void* sem);
VEK_EXPORT VekError OsalSemPost(void* sem);
VEK_EXPORT VekError OsalSemWait(void* sem);
// Never blocks: at count 0 it fails at once and changes nothing.
VEK_EXPORT VekError OsalSemTryWait(void* sem);
VEK_EXPORT VekError OsalSemGetValue(void* sem, int* value);

// Condition variable, used with a mutex of this library that the waiter
// holds. Signal and broadcast succeed with no waiter.
VEK_EXPORT VekError OsalCondInit(void** cond);
VEK_EXPORT VekError OsalCondDestroy(void* cond);
VEK_EXPORT VekError OsalCondWait(void* cond, void* mutex);
VEK_EXPORT VekError OsalCondSignal(void* cond);
VEK_EXPORT VekError OsalCondBroadcast(void* cond);

// Thread attributes. The stack setting is one of: none (fresh, or cleared
// by SetStack(attr, nullptr, 0)), a caller stack (address and size), or a
// library stack of a size (SetStackSize). Setting a stack only records it;
// the caller owns that memory and keeps it alive until the join.
VEK_EXPORT VekError OsalThreadAttrInit(void** attr);
VEK_EXPORT VekError OsalThreadAttrDestroy(void* attr);
VEK_EXPORT VekError OsalThreadAttrGetStack(void* attr, void** addr,
                                           unsigned int* size);
VEK_EXPORT VekError OsalThreadAttrSetStack(void* attr, void* addr,
                                           unsigned int size);
VEK_EXPORT VekError OsalThreadAttrSetStackSize(void* attr, unsigned int size);
// Null or empty names are refused with kErrParam.
VEK_EXPORT VekError OsalThreadAttrSetName(void* attr, const char* name);
// Never writes buf[kOsalThreadNameLengthMax] or beyond.
VEK_EXPORT VekError OsalThreadAttrGetName(void* attr, char* buf,
                                          unsigned int len);

// Threads are created joinable, named after their attribute before the
// thread function runs, and must be joined.
VEK_EXPORT VekError OsalThreadCreate(void** thread, void* attr,
                                     void (*func)(void*), void* arg);
VEK_EXPORT VekError OsalThreadJoin(void* thread);
// Ends the calling thread at once; it does not return.
[[noreturn]] VEK_EXPORT void OsalThreadExit();
// Reads the name of the running thread behind the handle from the
// operating system.
VEK_EXPORT VekError OsalThreadGetName(void* thread, char* buf,
                                      unsigned int len);

// BSD strlcpy: copies at most size - 1 characters, terminates when size is
// at least 1, and returns strlen(src) so that truncation can be detected.
VEK_EXPORT size_t OsalStrlcpy(char* dst, const char* src, size_t size);

}  // namespace zov_vek

#endif  // OSAL_VEK_OSAL_H_
