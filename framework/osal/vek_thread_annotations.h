// Lock annotations for clang's thread-safety analysis (-Wthread-safety).
//
// They let the compiler prove that data guarded by a lock is only touched
// with that lock held and that every lock taken on a path is released on
// it. Compilers without the attributes (gcc) see empty macros, so the
// annotations cost nothing there.
#ifndef OSAL_VEK_THREAD_ANNOTATIONS_H_
#define OSAL_VEK_THREAD_ANNOTATIONS_H_

#if defined(__clang__) && defined(__has_attribute)
#if __has_attribute(capability)
#define VEK_THREAD_ANNOTATION(x) __attribute__((x))
#endif
#endif

#ifndef VEK_THREAD_ANNOTATION
#define VEK_THREAD_ANNOTATION(x)
#endif

// A type whose objects are locks ("mutex" names the kind in diagnostics).
#define VEK_CAPABILITY(kind) VEK_THREAD_ANNOTATION(capability(kind))
// An RAII type that holds a lock for its lifetime.
#define VEK_SCOPED_CAPABILITY VEK_THREAD_ANNOTATION(scoped_lockable)

// Data members that may only be read or written with the lock held.
#define VEK_GUARDED_BY(lock) VEK_THREAD_ANNOTATION(guarded_by(lock))
// Pointer members whose pointee is guarded (the pointer itself is not).
#define VEK_PT_GUARDED_BY(lock) VEK_THREAD_ANNOTATION(pt_guarded_by(lock))

// Functions that take or give up a lock; without arguments on a method of
// a capability type they name the object itself.
#define VEK_ACQUIRE(...) VEK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEK_TRY_ACQUIRE(...) \
  VEK_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VEK_RELEASE(...) VEK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// Functions whose callers must (or must not) hold the lock.
#define VEK_REQUIRES(...) \
  VEK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEK_EXCLUDES(...) VEK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// Functions that return a reference to a lock.
#define VEK_RETURN_CAPABILITY(lock) VEK_THREAD_ANNOTATION(lock_returned(lock))

// For the rare function whose locking the analysis cannot follow; say why
// next to every use.
#define VEK_NO_THREAD_SAFETY_ANALYSIS \
  VEK_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // OSAL_VEK_THREAD_ANNOTATIONS_H_
