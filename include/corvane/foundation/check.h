// CORVANE_DCHECK(condition) — a check of an internal contract (which thread may call a method,
// which lock must be held) that debug builds make and release builds compile away. A failed
// check prints where and what, then aborts: the contract was broken by the caller, and going on
// could corrupt what is saved.
//
// CORVANE_ASSERT_MAIN_THREAD() (run_loop.h) checks the most common contract, "on the main run
// loop".
#pragma once

namespace corvane {

// Prints "<file>:<line>: check failed: <condition>" on standard error and aborts.
[[noreturn]] void dcheckFailed(const char* file, int line, const char* condition);

}  // namespace corvane

#ifdef NDEBUG
// Still compiled (so that it cannot rot), never evaluated.
#define CORVANE_DCHECK(condition) \
  do {                            \
    if (false) (void)(condition); \
  } while (false)
#else
#define CORVANE_DCHECK(condition)                                              \
  do {                                                                         \
    if (!(condition)) ::corvane::dcheckFailed(__FILE__, __LINE__, #condition); \
  } while (false)
#endif
