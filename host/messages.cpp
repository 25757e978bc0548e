// Messages: raising and reporting errors, the host's message texts, the
// message blocks modules define, the output sink, and the stack of running
// routines that names the routine an error abandons.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <strings.h>

#include "dispatch.h"
#include "internal.h"

namespace qvahost {

// Constant-initialised: no first-use check on the path of every call.
constinit std::vector<RunningCall> g_routine_stack;

namespace {

std::function<void(const std::string &)> &output_sink() {
  static std::function<void(const std::string &)> sink;
  return sink;
}

inline std::vector<RunningCall> &routine_stack() { return g_routine_stack; }

// printf formats of the host's own message codes; the variadic arguments of
// QVA_Message are applied to them.  QVA_M_GENERIC takes its format first.
struct CodeText {
  int code;
  const char *format;
};
constexpr CodeText kCodeTexts[] = {
    {M_WRONG_TYPE, "Argument of the wrong type given to %s."},
    {M_NOT_OF_CLASS, "Argument %s must be an object of class %s."},
    {M_OBJREF_REQUIRED, "Object reference required in call to %s."},
    {M_NOMEM, "Unable to allocate memory: to make %s."},
    {M_WRONG_ARG_COUNT, "Incorrect number of arguments."},
    {M_KW_NOT_ALLOWED, "Keyword parameters not allowed in call."},
    {M_KW_UNKNOWN, "Keyword %s not allowed in call to: %s"},
    {M_KW_AMBIGUOUS, "Ambiguous keyword abbreviation: %s."},
    {M_UNDEF_PROC, "Attempt to call undefined procedure: '%s'."},
    {M_UNDEF_FUNC, "Variable is undefined / undefined function: '%s'."},
    {M_UNDEF_METHOD, "Attempt to call undefined method: '%s'."},
    {M_INVALID_OBJ, "Invalid object reference: <ObjHeapVar%u>."},
    {M_INVALID_PTR, "Invalid pointer: <PtrHeapVar%u>."},
    {M_REQSTR, "String expression required in this context: %s."},
    {M_REQPTR, "Pointer type required in this context: %s."},
    {M_REQOBJREF, "Object reference type required in this context: %s."},
    {M_NOTSCALAR, "Expression must be a scalar in this context: %s."},
    {M_UNDEFVAR, "Variable is undefined: %s."},
    {M_CONVERSION, "Type conversion error: Unable to convert given %s to %s."},
    {M_STRUCT_CONFLICT, "Conflicting data structures: %s."},
    {M_STRUCT_UNKNOWN, "Structure type not defined: %s."},
    {M_NO_TAG, "Tag name %s is undefined for structure %s."},
    {M_BAD_IDENT, "Invalid identifier: '%s'."},
    {M_CLASS_UNKNOWN, "Class not defined: %s."},
    {M_BAD_DIMS, "Array dimensions must be greater than 0."},
    {M_HEAP_FULL, "Heap identifiers exhausted."},
    {M_BAD_ARG, "%s"},
    {M_NESTING, "Routine calls nested too deeply (more than %zu)."},
};

const char *code_format(int code) {
  for (const CodeText &t : kCodeTexts)
    if (t.code == code) return t.format;
  return nullptr;
}

bool abandons(int action) { return action == QVA_MSG_LONGJMP; }

void variable_error(int code, QVA_VPTR v, int action) {
  std::string label = v ? var_label(v) : std::string("<Expression>");
  message(code, action, format(code_format(code), label.c_str()));
}

}  // namespace

std::string HostError::report() const {
  return routine.empty() ? "% " + text : "% " + routine + ": " + text;
}

void set_output(std::function<void(const std::string &line)> sink) {
  output_sink() = std::move(sink);
}

void emit(const std::string &line) {
  if (output_sink()) {
    output_sink()(line);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
  }
}

void pop_routine_unbalanced() { contract_violation("pop_routine with no routine running"); }

size_t routine_depth() { return routine_stack().size(); }

const std::string &current_routine() {
  static const std::string top_level;
  const auto &stack = routine_stack();
  return stack.empty() || !stack.back().name ? top_level : *stack.back().name;
}

std::string running_argument_label(const QVA_VARIABLE *v) {
  if (routine_stack().empty()) return {};
  const RunningCall &call = routine_stack().back();
  for (int i = 0; i < call.argc && call.argv; ++i) {
    if (call.argv[i] != v) continue;
    if (i < call.first_arg) return "SELF";
    return "argument " + std::to_string(i - call.first_arg + 1);
  }
  if (call.argk)
    for (const Keyword &k : call.argk->items)
      if (k.value == v) return upper_name(k.name);
  return {};
}

std::string vformat(const char *fmt, va_list ap) {
  if (!fmt) return {};
  char buf[512];
  va_list again;
  va_copy(again, ap);
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  if (n < 0) {
    va_end(again);
    return fmt;
  }
  if (static_cast<size_t>(n) < sizeof buf) {
    va_end(again);
    return std::string(buf, static_cast<size_t>(n));
  }
  std::string out(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), fmt, again);
  va_end(again);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = vformat(fmt, ap);
  va_end(ap);
  return s;
}

void raise(int code, const std::string &text) {
  throw HostError{code, current_routine(), text};
}

void raise_fmt(int code, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  raise(code, text);
}

void report(int code, const std::string &text, int action) {
  (void)code;
  (void)action;  // QVA_MSG_RET and QVA_MSG_INFO print alike
  emit(HostError{code, current_routine(), text}.report());
}

void message(int code, int action, const std::string &text) {
  if (abandons(action)) raise(code, text);
  report(code, text, action);
}

}  // namespace qvahost

// ------------------------------------------------------------ module API

using namespace qvahost;

void QVA_Message(int code, int action, ...) {
  va_list ap;
  va_start(ap, action);
  std::string text;
  if (code == QVA_M_GENERIC) {
    const char *fmt = va_arg(ap, const char *);
    text = vformat(fmt, ap);
  } else if (const char *fmt = code_format(code)) {
    text = vformat(fmt, ap);
  } else {
    va_end(ap);
    contract_violation(format("QVA_Message with unknown message code %d", code));
    message(code, action, format("Unknown message code %d.", code));
    return;
  }
  va_end(ap);
  message(code, action, text);
}

void QVA_MessageVE_REQSTR(QVA_VPTR v, int action) { variable_error(M_REQSTR, v, action); }
void QVA_MessageVE_REQPTR(QVA_VPTR v, int action) { variable_error(M_REQPTR, v, action); }
void QVA_MessageVE_REQOBJREF(QVA_VPTR v, int action) { variable_error(M_REQOBJREF, v, action); }
void QVA_MessageVE_NOTSCALAR(QVA_VPTR v, int action) { variable_error(M_NOTSCALAR, v, action); }

// A module's message block: its name and its rows' names and formats,
// copied, kept for the life of the process.
struct QVA_MSG_BLOCK_S {
  std::string name;
  std::vector<std::pair<std::string, std::string>> rows;  // name, format
};

namespace {
std::vector<std::unique_ptr<QVA_MSG_BLOCK_S>> &blocks() {
  static std::vector<std::unique_ptr<QVA_MSG_BLOCK_S>> all;
  return all;
}
}  // namespace

QVA_MSG_BLOCK QVA_MessageDefineBlock(const char *name, int n, QVA_MSG_DEF *defs) {
  if (!name || !*name || n <= 0 || !defs) return nullptr;
  for (int i = 0; i < n; ++i)
    if (!defs[i].name || !defs[i].format) return nullptr;
  for (const auto &b : blocks())
    if (strcasecmp(b->name.c_str(), name) == 0) return nullptr;
  auto block = std::make_unique<QVA_MSG_BLOCK_S>();
  block->name = name;
  for (int i = 0; i < n; ++i) block->rows.emplace_back(defs[i].name, defs[i].format);
  blocks().push_back(std::move(block));
  return blocks().back().get();
}

void QVA_MessageFromBlock(QVA_MSG_BLOCK block, int code, int action, ...) {
  if (!block) {
    contract_violation("QVA_MessageFromBlock with no message block");
    message(code, action, format("Unknown message code %d.", code));
    return;
  }
  auto index = -static_cast<int64_t>(code);
  if (index < 0 || index >= static_cast<int64_t>(block->rows.size())) {
    contract_violation(format("QVA_MessageFromBlock: code %d is not in block %s", code,
                              block->name.c_str()));
    message(code, action, format("Unknown message code %d in block %s.", code, block->name.c_str()));
    return;
  }
  va_list ap;
  va_start(ap, action);
  std::string text = vformat(block->rows[static_cast<size_t>(index)].second.c_str(), ap);
  va_end(ap);
  message(code, action, text);
}
