// Symbol visibility of the OS-abstraction library. The library is built
// with hidden visibility so that only the framework's interface is
// exported, which keeps another port's job (and symbol interposition by a
// test harness) limited to exactly these names.
#ifndef OSAL_VEK_EXPORT_H_
#define OSAL_VEK_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define VEK_EXPORT __attribute__((visibility("default")))
#else
#define VEK_EXPORT
#endif

#endif  // OSAL_VEK_EXPORT_H_
