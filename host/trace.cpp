// The call trace: every call of a routine whose name matches one of the
// trace patterns is reported before its body runs, with its object (for a
// method), its arguments in short form and its depth among the traced
// calls running, indented as a tree.  The trace knows routines only by
// name; it is the same for native routines, module methods, routines
// written in the language and built-ins.
#include <fnmatch.h>

#include <cinttypes>
#include <cstdio>

#include "dispatch.h"

namespace qvahost {

bool trace_enabled = false;

namespace {

struct TraceState {
  std::vector<std::string> patterns;  // upper case
  // Bumped whenever the patterns change, so that each routine's remembered
  // match (Routine::trace_generation) is known to be out of date.
  uint32_t generation = 1;
  int depth = 0;  // traced calls running
};

TraceState &state() {
  static TraceState s;
  return s;
}

bool name_matches(const std::string &name) {
  for (const std::string &p : state().patterns)
    if (fnmatch(p.c_str(), name.c_str(), 0) == 0) return true;
  return false;
}

// Longer texts are cut in the trace: it shows which call, not all data.
constexpr size_t kShortText = 24;

std::string quoted(const QVA_STRING &s) {
  std::string text(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
  if (text.size() > kShortText) text = text.substr(0, kShortText) + "...";
  return "'" + text + "'";
}

std::string object_text(QVA_HVID id) {
  if (id == 0) return "<NullObject>";
  HeapVar *h = heap_find(id);
  if (!h || !(h->hv.flags & QVA_HV_OBJECT)) return format("<ObjHeapVar%u(?)>", id);
  QVA_SDEF cls = object_class(h);
  return format("<ObjHeapVar%u(%s)>", id, cls ? cls->name_str.c_str() : "");
}

}  // namespace

std::string short_value(const QVA_VARIABLE *v) {
  if (!v || v->type == QVA_TYP_UNDEF) return "<Undefined>";
  if (v->flags & QVA_V_STRUCT) {
    const std::string &name = v->value.s.sdef->name_str;
    std::string shown = name.empty() ? "anonymous" : name;
    if (struct_count(v) == 1) return "{" + shown + "}";
    return format("%s[%" PRId64 "]", shown.c_str(), static_cast<int64_t>(struct_count(v)));
  }
  if (v->flags & QVA_V_ARR)
    return format("%s[%" PRId64 "]", type_name(v->type), static_cast<int64_t>(v->value.arr->n_elts));
  switch (v->type) {
    case QVA_TYP_BYTE: return format("%uB", static_cast<unsigned>(v->value.c));
    case QVA_TYP_INT: return format("%dS", static_cast<int>(v->value.i));
    case QVA_TYP_LONG: return format("%d", static_cast<int>(v->value.l));
    case QVA_TYP_LONG64: return format("%" PRId64 "LL", static_cast<int64_t>(v->value.l64));
    case QVA_TYP_DOUBLE: return format("%gD", v->value.d);
    case QVA_TYP_STRING: return quoted(v->value.str);
    case QVA_TYP_PTR:
      return v->value.hvid ? format("<PtrHeapVar%u>", v->value.hvid) : "<NullPointer>";
    case QVA_TYP_OBJREF: return object_text(v->value.hvid);
    default: return type_name(v->type);
  }
}

void set_trace(const std::vector<std::string> &patterns) {
  TraceState &s = state();
  std::vector<std::string> upper;
  for (const std::string &p : patterns)
    if (!p.empty()) upper.push_back(upper_name(p));
  s.patterns = std::move(upper);
  ++s.generation;
  trace_enabled = !s.patterns.empty();
}

std::vector<std::string> trace_patterns() { return state().patterns; }

TraceCall::TraceCall(Routine &r, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  TraceState &s = state();
  if (r.trace_generation != s.generation) {
    r.trace_match = name_matches(r.name_str);
    r.trace_generation = s.generation;
  }
  if (!r.trace_match) return;
  std::string line = "% " + std::string(2 * static_cast<size_t>(s.depth), ' ') +
                     format("[%d] ", s.depth + 1) + r.name_str;
  // A method's object is argument 0: it comes first, apart.
  int first = 0;
  if (r.class_len > 0 && argc > 0) {
    line += " " + short_value(argv[0]);
    first = 1;
  }
  std::string args;
  for (int i = first; i < argc; ++i) args += (args.empty() ? "" : ", ") + short_value(argv[i]);
  if (argk)
    for (const Keyword &k : argk->items)
      args += (args.empty() ? "" : ", ") + upper_name(k.name) + "=" + short_value(k.value);
  if (!args.empty()) line += ": " + args;
  emit(line);
  ++s.depth;
  counted_ = true;
}

TraceCall::~TraceCall() {
  if (counted_) --state().depth;
}

}  // namespace qvahost
