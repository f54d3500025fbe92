// clang's thread-safety analysis, under the names used here. The clang build treats a violation as
// an error; other compilers see nothing.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#if defined(__clang__)
#define LB_TSA(x) __attribute__((x))
#else
#define LB_TSA(x)
#endif

#define LB_CAPABILITY(name) LB_TSA(capability(name))
#define LB_SCOPED           LB_TSA(scoped_lockable)
#define LB_GUARDED_BY(lock) LB_TSA(guarded_by(lock))
#define LB_NEEDS(...)       LB_TSA(requires_capability(__VA_ARGS__))
#define LB_TAKES(...)       LB_TSA(acquire_capability(__VA_ARGS__))
#define LB_DROPS(...)       LB_TSA(release_capability(__VA_ARGS__))
#define LB_EXCLUDES(...)    LB_TSA(locks_excluded(__VA_ARGS__))
// For the list and hash modules alone: there a lock's result decides, which the analysis can't see.
#define LB_UNCHECKED_LOCKING LB_TSA(no_thread_safety_analysis)
