// dispatch.h - pieces shared by the routine registry, the object system,
// keyword processing and the outside call entry points.
//
//   routines.cpp  registry, argument checks, routine_invoke, QVA_SysRtnAdd
//   objects.cpp   classes, method resolution, QVA_Obj*
//   keywords.cpp  QVA_KWProcessByOffset, QVA_KWFree, pending conversions
//   calls.cpp     call_*, try_call, QVA_InterpCallFromSysproc
//   modules.cpp   load_module*, modules_reset_session
//   trace.cpp     the call trace
#pragma once

#include <string>
#include <string_view>

#include "internal.h"

namespace qvahost {

// ---------------------------------------------------------------- routines

// A registered routine by its upper-case name; nullptr when none.
Routine *routine_find_name(std::string_view name, bool is_function);
// The same, after asking the routine loader (if any) to define it.
Routine *routine_find_or_load(const std::string &name, bool is_function);
// The methods registered for class `cls` (upper case): CLS::NAME, of one
// kind, by name.
std::vector<const Routine *> class_routines(const std::string &cls, bool is_function);
// The class part of a method name "CLASS::METHOD"; empty for a plain name.
std::string_view method_class_of(std::string_view routine_name);

// ----------------------------------------------------------------- objects

// The class of a live object record (nullptr when its value is not a
// named structure).
QVA_SDEF object_class(const HeapVar *h);
// True when `cls` is the class `name` (upper case) or inherits from it.
bool class_chain_has(QVA_SDEF cls, std::string_view name);
// Drops every cached method resolution (routines were added or replaced).
void method_cache_clear();
// Counts the clears, so that other memos of resolutions can tell when they
// are out of date.
uint64_t method_cache_generation();
// Runs CLEANUP (when the class chain has one) and deletes the object.
// Nothing happens for an identifier that names no live object or an object
// already being destroyed.
void object_destroy(QVA_HVID id, QVA_KW_ARGS *argk);

// ---------------------------------------------------------------- keywords

// Conversions made by QVA_KWProcessByOffset (texts made from numbers) wait
// for QVA_KWFree on a stack.  Each routine call owns the part above the
// floor it opened; QVA_KWFree releases only that part.
//
// Opens a scope: the floor moves to the current top; returns the old floor.
size_t keyword_scope_open();
// Closes a scope: releases what waits above its floor and restores the old
// floor.  Returns how many conversions were released.
size_t keyword_scope_close(size_t old_floor);
// Closes a scope, leaving what waits above its floor to the enclosing one.
void keyword_scope_leave(size_t old_floor);

// ------------------------------------------------------------------- calls

// Everything an outside call must undo when the routine it called is
// abandoned: temporaries made and keyword conversions pending since the
// boundary was set up.
class CallBoundary {
 public:
  CallBoundary();
  ~CallBoundary();
  CallBoundary(const CallBoundary &) = delete;
  CallBoundary &operator=(const CallBoundary &) = delete;
  // Releases what the abandoned call left behind.
  void abandon();

 private:
  uint64_t tmp_mark_;
  size_t keyword_floor_;
  bool closed_ = false;
};

// Pushes a routine call on the host's call stack for the guard's lifetime,
// so that errors raised while it runs (and unwinding) name it and its
// arguments.
class RoutineFrame {
 public:
  RoutineFrame(const std::string *name, int argc, QVA_VPTR *argv, QVA_KW_ARGS *argk,
               int first_arg) {
    push_routine(name, argc, argv, argk, first_arg);
  }
  ~RoutineFrame() { pop_routine(); }
  RoutineFrame(const RoutineFrame &) = delete;
  RoutineFrame &operator=(const RoutineFrame &) = delete;
};

// Releases a temporary when the guard goes out of scope (unless it was
// given away with release()).
class TempGuard {
 public:
  explicit TempGuard(QVA_VPTR v = nullptr) : v_(v) {}
  ~TempGuard() {
    if (v_) QVA_Deltmp(v_);
  }
  TempGuard(const TempGuard &) = delete;
  TempGuard &operator=(const TempGuard &) = delete;
  void reset(QVA_VPTR v) {
    if (v_) QVA_Deltmp(v_);
    v_ = v;
  }
  QVA_VPTR get() const { return v_; }
  QVA_VPTR release() {
    QVA_VPTR v = v_;
    v_ = nullptr;
    return v;
  }

 private:
  QVA_VPTR v_;
};

// ------------------------------------------------------------------- trace

// True while trace patterns are set: the one test routine calls make when
// no trace is on.
extern bool trace_enabled;

// Reports a call of `r` when its name matches the trace patterns, and
// counts it among the traced calls running for as long as it lives.
class TraceCall {
 public:
  TraceCall(Routine &r, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
  ~TraceCall();
  TraceCall(const TraceCall &) = delete;
  TraceCall &operator=(const TraceCall &) = delete;

 private:
  bool counted_ = false;
};

// Upper-case copy of an ASCII name.
std::string upper_name(std::string_view s);

}  // namespace qvahost
