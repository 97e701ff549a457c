// Lock annotations that clang checks at compile time (-Wthread-safety, the thread-safety
// preset): which mutex guards which member, which functions expect a lock to be held or not
// held, and the order in which locks are taken. Other compilers ignore them, so they cost
// nothing and only document.
//
//   class Account {
//     void deposit(int amount) CORVANE_EXCLUDES(mutex_);
//     void addLocked(int amount) CORVANE_REQUIRES(mutex_);
//     Mutex mutex_;
//     int balance_ CORVANE_GUARDED_BY(mutex_) = 0;
//   };
//
// The names follow clang's capability attributes
// (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html).
#pragma once

#if defined(__clang__) && !defined(SWIG)
#define CORVANE_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define CORVANE_THREAD_ANNOTATION_(x)
#endif

// A class whose instances are locks (or other capabilities), named `name` in diagnostics.
#define CORVANE_CAPABILITY(name) CORVANE_THREAD_ANNOTATION_(capability(name))
// An RAII class that acquires a capability in its constructor and releases it in its destructor.
#define CORVANE_SCOPED_CAPABILITY CORVANE_THREAD_ANNOTATION_(scoped_lockable)

// The member may be read or written only while the given lock is held.
#define CORVANE_GUARDED_BY(x) CORVANE_THREAD_ANNOTATION_(guarded_by(x))
// What the pointer member points to may be touched only while the given lock is held (the
// pointer itself is not guarded).
#define CORVANE_PT_GUARDED_BY(x) CORVANE_THREAD_ANNOTATION_(pt_guarded_by(x))

// Lock order: this lock is taken before (or after) the listed ones when both are held.
#define CORVANE_ACQUIRED_BEFORE(...) CORVANE_THREAD_ANNOTATION_(acquired_before(__VA_ARGS__))
#define CORVANE_ACQUIRED_AFTER(...) CORVANE_THREAD_ANNOTATION_(acquired_after(__VA_ARGS__))

// The caller must hold the lock (exclusively, or at least shared) when calling the function.
#define CORVANE_REQUIRES(...) CORVANE_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define CORVANE_REQUIRES_SHARED(...) CORVANE_THREAD_ANNOTATION_(requires_shared_capability(__VA_ARGS__))
// The caller must not hold the lock: the function takes it itself (deadlock otherwise).
#define CORVANE_EXCLUDES(...) CORVANE_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))

// The function acquires (releases) the lock and returns with it held (released). Without an
// argument inside a capability class, the lock is the object itself.
#define CORVANE_ACQUIRE(...) CORVANE_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define CORVANE_ACQUIRE_SHARED(...) CORVANE_THREAD_ANNOTATION_(acquire_shared_capability(__VA_ARGS__))
#define CORVANE_RELEASE(...) CORVANE_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define CORVANE_RELEASE_SHARED(...) CORVANE_THREAD_ANNOTATION_(release_shared_capability(__VA_ARGS__))
#define CORVANE_RELEASE_GENERIC(...) CORVANE_THREAD_ANNOTATION_(release_generic_capability(__VA_ARGS__))
// The function tries to acquire the lock and returns `result` (true) when it succeeded.
#define CORVANE_TRY_ACQUIRE(...) CORVANE_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
#define CORVANE_TRY_ACQUIRE_SHARED(...) CORVANE_THREAD_ANNOTATION_(try_acquire_shared_capability(__VA_ARGS__))

// The function checks at run time that the lock is held (and stops the program if not); the
// analysis trusts it from there on.
#define CORVANE_ASSERT_CAPABILITY(x) CORVANE_THREAD_ANNOTATION_(assert_capability(x))
#define CORVANE_ASSERT_SHARED_CAPABILITY(x) CORVANE_THREAD_ANNOTATION_(assert_shared_capability(x))

// The function returns a reference to the given lock (an accessor such as `mutex()`).
#define CORVANE_RETURN_CAPABILITY(x) CORVANE_THREAD_ANNOTATION_(lock_returned(x))

// Turns the analysis off for one function whose locking it cannot follow (say why at the use).
#define CORVANE_NO_THREAD_SAFETY_ANALYSIS CORVANE_THREAD_ANNOTATION_(no_thread_safety_analysis)
