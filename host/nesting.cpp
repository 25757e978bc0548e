// How deeply the host may re-enter itself.  Every call of a routine (QVA
// code, native routines called by name, methods a module calls, INIT and
// CLEANUP run by object creation and destruction) counts one level, and
// passing the limit is an ordinary error that CATCH handles, whatever path
// the recursion takes.  As a second line, each call also measures the C
// stack left to this thread against a reserve, so that recursion the count
// does not see (or frames larger than expected) still ends in that error
// instead of an overflow.
#include <pthread.h>

#include <cstdint>

#include "internal.h"

namespace qvahost {
namespace {

constexpr size_t kMaxNesting = 400;

// Stack a routine call may need before the next check: the evaluator of
// one QVA statement, a module's own frames, the unwinder when an error is
// thrown.  Sanitizer builds have much larger frames.
// On a small stack, a share of it instead.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kReserve = 768 * 1024;
constexpr size_t kReserveShare = 2;  // half
#else
constexpr size_t kReserve = 256 * 1024;
constexpr size_t kReserveShare = 4;  // a quarter
#endif

struct StackBounds {
  uintptr_t low = 0;   // lowest usable address; 0 when unknown
  size_t reserve = 0;  // kReserve, or a share of a smaller stack
};

StackBounds this_thread_stack() {
  StackBounds b;
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return b;
  void *addr = nullptr;
  size_t size = 0;
  size_t guard = 0;
  if (pthread_attr_getstack(&attr, &addr, &size) == 0 && addr && size > 0) {
    pthread_attr_getguardsize(&attr, &guard);
    b.low = reinterpret_cast<uintptr_t>(addr) + guard;
    b.reserve = size / kReserveShare < kReserve ? size / kReserveShare : kReserve;
  }
  pthread_attr_destroy(&attr);
  return b;
}

// Measured on a thread's first check.  Constant-initialised, with the
// initial-exec model (the library is loaded with the program, never
// opened later), so that reading it is a plain load at a fixed offset
// rather than a call: every routine call reads it.
[[gnu::tls_model("initial-exec")]] thread_local StackBounds t_stack{};
[[gnu::tls_model("initial-exec")]] thread_local bool t_stack_measured = false;

}  // namespace

void check_nesting() {
  if (routine_depth() > kMaxNesting)
    raise_fmt(M_NESTING, "Routine calls nested too deeply (more than %zu).", kMaxNesting);
  check_stack();
}

namespace {

// A thread's first check measures its stack, and a check that fails
// raises, out of line, so that the check every call makes stays small
// enough to be inlined.
[[gnu::noinline, gnu::cold]] void measure_stack() {
  t_stack = this_thread_stack();
  t_stack_measured = true;
}

[[noreturn, gnu::noinline, gnu::cold]] void stack_nearly_full() {
  raise(M_NESTING, "Routine calls nested too deeply (the stack is nearly full).");
}

}  // namespace

void check_stack() {
  if (__builtin_expect(!t_stack_measured, 0)) measure_stack();
  const StackBounds &b = t_stack;
  auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (b.low && here - b.low < b.reserve) [[unlikely]]
    stack_nearly_full();
}

}  // namespace qvahost
