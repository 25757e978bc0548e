// Calls into the runtime: from outside (the front end, tests), where an
// abandoned routine's error ends and what it left behind is released, and
// from a module by name (QVA_InterpCallFromSysproc).
#include "dispatch.h"

namespace qvahost {
namespace {

// Runs `body` at a call boundary: on a host error, releases what the
// abandoned call made and throws the error on.
template <class F>
auto at_boundary(F &&body) {
  CallBoundary boundary;
  try {
    return allocation_errors_raised(body);
  } catch (const HostError &) {
    boundary.abandon();
    throw;
  }
}

void check_arguments(const std::vector<QVA_VPTR> &args, const Keywords &kw) {
  for (size_t i = 0; i < args.size(); ++i)
    if (!args[i]) raise_fmt(M_BAD_ARG, "Argument %zu of the call is missing.", i);
  for (const Keyword &k : kw)
    if (!k.value) raise_fmt(M_BAD_ARG, "Keyword %s was given no value.", k.name.c_str());
}

Routine &named_routine(const std::string &name, bool is_function) {
  std::string upper = upper_name(name);
  Routine *r = routine_find_or_load(upper, is_function);
  if (!r) {
    if (is_function) raise_fmt(M_UNDEF_FUNC, "Attempt to call undefined function: '%s'.", upper.c_str());
    raise_fmt(M_UNDEF_PROC, "Attempt to call undefined procedure: '%s'.", upper.c_str());
  }
  return *r;
}

struct ResolvedMethod {
  Routine *routine;
  QVA_HVID self;
};

// Successful resolutions by the method's text as the caller wrote it, so
// that a program calling the same methods over and over does not
// upper-case, split and intern the name every time.  Entries are replaced
// in turn and are out of date once routines change.
struct MethodMemo {
  QVA_SDEF cls = nullptr;
  bool is_function = false;
  uint64_t generation = 0;
  std::string text;
  Routine *routine = nullptr;
};
constexpr size_t kMethodMemos = 8;
MethodMemo g_method_memos[kMethodMemos];
size_t g_next_memo = 0;

Routine *memo_find(QVA_SDEF cls, const std::string &method, bool is_function) {
  uint64_t generation = method_cache_generation();
  for (const MethodMemo &m : g_method_memos)
    if (m.routine && m.cls == cls && m.is_function == is_function &&
        m.generation == generation && m.text == method)
      return m.routine;
  return nullptr;
}

void memo_add(QVA_SDEF cls, const std::string &method, bool is_function, Routine *r) {
  MethodMemo &m = g_method_memos[g_next_memo];
  g_next_memo = (g_next_memo + 1) % kMethodMemos;
  m.routine = nullptr;  // a failure to copy the text leaves the entry unused
  m.text = method;
  m.cls = cls;
  m.is_function = is_function;
  m.generation = method_cache_generation();
  m.routine = r;
}

// obj->METHOD through the object's class chain; obj->SUPER::METHOD from
// class SUPER (which must be in the chain) upward.
ResolvedMethod resolve_method(QVA_VPTR obj, const std::string &method, bool is_function) {
  if (obj && obj->type == QVA_TYP_OBJREF && (obj->flags & QVA_V_ARR))
    raise_fmt(M_NOTSCALAR, "Object reference must be scalar in this context: %s.",
              var_label(obj).c_str());
  if (!obj || obj->type != QVA_TYP_OBJREF || (obj->flags & QVA_V_NOT_SCALAR))
    raise_fmt(M_REQOBJREF, "Object reference type required in this context: %s.",
              obj ? var_label(obj).c_str() : "<none>");
  QVA_HVID self = obj->value.hvid;
  HeapVar *h = heap_find(self);
  if (!h || !(h->hv.flags & QVA_HV_OBJECT))
    raise_fmt(M_INVALID_OBJ, "Invalid object reference: <ObjHeapVar%u>.", self);
  QVA_SDEF cls = object_class(h);
  if (Routine *r = memo_find(cls, method, is_function)) return {r, self};
  QVA_SDEF start = cls;
  std::string name = upper_name(method);
  std::string super_name(method_class_of(name));
  if (!super_name.empty()) {
    while (start && start->name_str != super_name) start = start->super;
    if (!start)
      raise_fmt(M_NOT_OF_CLASS, "Object <ObjHeapVar%u> is not of class %s.", self,
                super_name.c_str());
    name.erase(0, super_name.size() + 2);
  }
  Routine *r = method_find(start, ident_of(name), is_function);
  if (!r) {
    std::string cls_name = start && !start->name_str.empty() ? start->name_str : "<anonymous>";
    raise_fmt(M_UNDEF_METHOD, "Attempt to call undefined method: '%s::%s'.", cls_name.c_str(),
              name.c_str());
  }
  memo_add(cls, method, is_function, r);
  return {r, self};
}

// A call without keywords hands on none, without a copy of the empty list.
QVA_VPTR call_routine(Routine &r, std::vector<QVA_VPTR> &args, const Keywords &kw) {
  const int argc = static_cast<int>(args.size());
  if (kw.empty()) return routine_invoke(r, argc, args.data(), nullptr);
  QVA_KW_ARGS block{kw};
  return routine_invoke(r, argc, args.data(), &block);
}

QVA_VPTR call_method(QVA_VPTR obj, const std::string &method, const std::vector<QVA_VPTR> &args,
                     const Keywords &kw, bool is_function) {
  check_arguments(args, kw);
  ResolvedMethod m = resolve_method(obj, method, is_function);
  // The array of argument pointers is the caller's; the host never writes it.
  auto *argv = const_cast<QVA_VPTR *>(args.data());
  const int argc = static_cast<int>(args.size());
  if (kw.empty()) return method_invoke(*m.routine, m.self, argc, argv, nullptr);
  QVA_KW_ARGS block{kw};
  return method_invoke(*m.routine, m.self, argc, argv, &block);
}

}  // namespace

CallBoundary::CallBoundary() : tmp_mark_(tmp_mark()), keyword_floor_(keyword_scope_open()) {}

CallBoundary::~CallBoundary() {
  if (!closed_) keyword_scope_leave(keyword_floor_);
}

void CallBoundary::abandon() {
  if (!closed_) {
    keyword_scope_close(keyword_floor_);
    closed_ = true;
  }
  tmp_release_since(tmp_mark_);
}

QVA_VPTR call_function(const std::string &name, std::vector<QVA_VPTR> args, const Keywords &kw) {
  return at_boundary([&] {
    check_arguments(args, kw);
    return call_routine(named_routine(name, true), args, kw);
  });
}

void call_procedure(const std::string &name, std::vector<QVA_VPTR> args, const Keywords &kw) {
  at_boundary([&] {
    check_arguments(args, kw);
    call_routine(named_routine(name, false), args, kw);
  });
}

QVA_VPTR call_method_function(QVA_VPTR obj, const std::string &method,
                              const std::vector<QVA_VPTR> &args, const Keywords &kw) {
  return at_boundary([&] { return call_method(obj, method, args, kw, true); });
}

void call_method_procedure(QVA_VPTR obj, const std::string &method,
                           const std::vector<QVA_VPTR> &args, const Keywords &kw) {
  at_boundary([&] { call_method(obj, method, args, kw, false); });
}

QVA_VPTR new_object(const std::string &cls, std::vector<QVA_VPTR> args, const Keywords &kw) {
  return at_boundary([&] {
    check_arguments(args, kw);
    QVA_VPTR name = make_string(cls);
    TempGuard name_guard(name);
    args.insert(args.begin(), name);
    QVA_KW_ARGS block{kw};
    return QVA_ObjNew(static_cast<int>(args.size()), args.data(), kw.empty() ? nullptr : &block);
  });
}

std::string try_call(const std::function<void()> &body) {
  CallBoundary boundary;
  try {
    allocation_errors_raised(body);
    return {};
  } catch (const HostError &e) {
    boundary.abandon();
    std::string text = e.report();
    emit(text);
    return text;
  }
}

}  // namespace qvahost

using namespace qvahost;

int QVA_InterpCallFromSysproc(QVA_CALL_RECORD *rec) {
  if (!rec) raise(M_BAD_ARG, "Call by name without a call record.");
  if (rec->kind > 1) raise_fmt(M_BAD_ARG, "Call record of unknown kind %d.", rec->kind);
  bool is_function = rec->kind == 1;
  if (!rec->name) raise(M_BAD_IDENT, "Invalid identifier: ''.");
  Routine *r = routine_find_or_load(ident_name(rec->name), is_function);
  if (!r) {
    const char *name = ident_name(rec->name).c_str();
    if (is_function) raise_fmt(M_UNDEF_FUNC, "Attempt to call undefined function: '%s'.", name);
    raise_fmt(M_UNDEF_PROC, "Attempt to call undefined procedure: '%s'.", name);
  }
  int argc = 0;
  if (rec->args)
    while (rec->args[argc]) ++argc;
  QVA_VPTR result = routine_invoke(*r, argc, rec->args, nullptr);
  if (result) QVA_Deltmp(result);
  return 1;
}
