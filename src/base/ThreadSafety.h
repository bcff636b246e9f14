// Clang's thread-safety marks under short names (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html).
// Other compilers see nothing. REQUIRES is not inherited: repeat it on overrides.
#pragma once

#if defined(__clang__)
#define QM_THREAD_MARK(x) __attribute__((x))
#else
#define QM_THREAD_MARK(x)
#endif

#define CAPABILITY(name) QM_THREAD_MARK(capability(name))
#define SCOPED_CAPABILITY QM_THREAD_MARK(scoped_lockable)
#define GUARDED_BY(lock) QM_THREAD_MARK(guarded_by(lock))
#define PT_GUARDED_BY(lock) QM_THREAD_MARK(pt_guarded_by(lock))
#define REQUIRES(...) QM_THREAD_MARK(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QM_THREAD_MARK(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QM_THREAD_MARK(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QM_THREAD_MARK(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) QM_THREAD_MARK(try_acquire_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(lock) QM_THREAD_MARK(assert_capability(lock))
#define RETURN_CAPABILITY(lock) QM_THREAD_MARK(lock_returned(lock))
#define NO_THREAD_SAFETY_ANALYSIS QM_THREAD_MARK(no_thread_safety_analysis)
