// The routine registry: native routine tables (QVA_SysRtnAdd) and routines
// defined later by the front end, and the one place that calls them with
// the checks the language makes (argument count, keywords, the object of a
// method).
#include <cctype>
#include <map>
#include <memory>
#include <optional>

#include "dispatch.h"

namespace qvahost {
namespace {

using RoutineTable = std::map<std::string, std::unique_ptr<Routine>, std::less<>>;

struct Registry {
  RoutineTable functions;
  RoutineTable procedures;
  // Replaced routines stay alive: one of them may be running right now.
  std::vector<std::unique_ptr<Routine>> retired;

  RoutineTable &table(bool is_function) { return is_function ? functions : procedures; }
};

Registry &registry() {
  static Registry r;
  return r;
}

bool has_lower(std::string_view s) {
  for (char c : s)
    if (c >= 'a' && c <= 'z') return true;
  return false;
}

bool plain_name_ok(std::string_view s) {
  return !s.empty() && s.find(':') == std::string_view::npos && ident_valid(s.data(), s.size());
}

// A routine name is an identifier or CLASS::METHOD, both parts identifiers.
bool routine_name_ok(std::string_view name) {
  size_t sep = name.find("::");
  if (sep == std::string_view::npos) return plain_name_ok(name);
  return plain_name_ok(name.substr(0, sep)) && plain_name_ok(name.substr(sep + 2));
}

// Why a table row cannot be registered ("" when it can).
std::string row_problem(const QVA_SYSFUN_DEF &row) {
  if (!row.routine) return "no routine";
  if (!row.name) return "no name";
  std::string_view name = row.name;
  if (has_lower(name)) return "name not in upper case";
  if (!routine_name_ok(name)) return "name is not an identifier or CLASS::METHOD";
  if (row.arg_min > row.arg_max) return "minimum arguments above maximum";
  if (row.flags != 0 && row.flags != QVA_SYSFUN_KEYWORDS) return "unknown flags";
  if (row.extra != 0) return "extra field not 0";
  return {};
}

std::unique_ptr<Routine> make_routine(const std::string &name, bool is_function, int arg_min,
                                      int arg_max, uint32_t flags) {
  auto r = std::make_unique<Routine>();
  r->name_str = name;
  r->class_len = method_class_of(r->name_str).size();
  r->name = ident_of(name);
  r->is_function = is_function;
  r->arg_min = arg_min;
  r->arg_max = arg_max;
  r->flags = flags;
  return r;
}

void install(std::unique_ptr<Routine> r) {
  RoutineTable &table = registry().table(r->is_function);
  auto it = table.find(r->name_str);
  if (it == table.end()) {
    std::string key = r->name_str;
    table.emplace(std::move(key), std::move(r));
  } else {
    registry().retired.push_back(std::move(it->second));
    it->second = std::move(r);
  }
}

// A method runs only on a live object of its class or of a subclass.
void check_self(Routine &r, std::string_view cls, int argc, QVA_VPTR argv[]) {
  QVA_VPTR self = argc > 0 ? argv[0] : nullptr;
  if (!self) raise_fmt(M_BAD_ARG, "Method %s called without an object.", r.name_str.c_str());
  if (self->type != QVA_TYP_OBJREF || (self->flags & QVA_V_NOT_SCALAR))
    raise_fmt(M_REQOBJREF, "Object reference type required in this context: %s.",
              var_label(self).c_str());
  HeapVar *h = heap_find(self->value.hvid);
  if (!h || !(h->hv.flags & QVA_HV_OBJECT))
    raise_fmt(M_INVALID_OBJ, "Invalid object reference: <ObjHeapVar%u>.", self->value.hvid);
  QVA_SDEF self_class = object_class(h);
  if (self_class && self_class == r.self_class_ok) return;
  if (!class_chain_has(self_class, cls)) {
    std::string want(cls);
    raise_fmt(M_NOT_OF_CLASS, "Argument self must be an object of class %s.", want.c_str());
  }
  r.self_class_ok = self_class;
}

// Closes the keyword scope of a routine call; on unwinding it releases what
// the routine left pending.
class KeywordScope {
 public:
  KeywordScope() : old_floor_(keyword_scope_open()) {}
  ~KeywordScope() {
    if (open_) keyword_scope_close(old_floor_);
  }
  KeywordScope(const KeywordScope &) = delete;
  KeywordScope &operator=(const KeywordScope &) = delete;
  size_t close() {
    open_ = false;
    return keyword_scope_close(old_floor_);
  }

 private:
  size_t old_floor_;
  bool open_ = true;
};

QVA_VPTR run_body(const Routine &r, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  if (!r.native) return r.user(argc, argv, argk);
  bool kw = r.flags & QVA_SYSFUN_KEYWORDS;
  if (r.is_function) {
    if (kw) return reinterpret_cast<QVA_SYSRTN_FUN_KW>(r.native)(argc, argv, argk);
    return reinterpret_cast<QVA_SYSRTN_FUN>(r.native)(argc, argv);
  }
  if (kw)
    reinterpret_cast<QVA_SYSRTN_PRO_KW>(r.native)(argc, argv, argk);
  else
    reinterpret_cast<QVA_SYSRTN_PRO>(r.native)(argc, argv);
  return nullptr;
}

}  // namespace

std::string upper_name(std::string_view s) {
  std::string u(s);
  for (char &c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

std::string_view method_class_of(std::string_view routine_name) {
  size_t sep = routine_name.find("::");
  return sep == std::string_view::npos ? std::string_view{} : routine_name.substr(0, sep);
}

Routine *routine_find_name(std::string_view name, bool is_function) {
  RoutineTable &table = registry().table(is_function);
  auto it = table.find(name);
  return it == table.end() ? nullptr : it->second.get();
}

namespace {
RoutineLoader &routine_loader() {
  static RoutineLoader loader;
  return loader;
}
}  // namespace

void set_routine_loader(RoutineLoader loader) { routine_loader() = std::move(loader); }

Routine *routine_find_or_load(const std::string &name, bool is_function) {
  if (Routine *r = routine_find_name(name, is_function)) return r;
  // A copy: the loader may replace itself while it runs.
  RoutineLoader loader = routine_loader();
  if (!loader || !loader(name, is_function)) return nullptr;
  return routine_find_name(name, is_function);
}

std::vector<const Routine *> class_routines(const std::string &cls, bool is_function) {
  std::string prefix = cls + "::";
  RoutineTable &table = registry().table(is_function);
  std::vector<const Routine *> out;
  for (auto it = table.lower_bound(prefix);
       it != table.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
    out.push_back(it->second.get());
  return out;
}

Routine *routine_find(QVA_IDENT name, bool is_function) {
  if (name == 0) return nullptr;
  return routine_find_name(ident_name(name), is_function);
}

QVA_VPTR routine_invoke(Routine &r, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk,
                        bool self_checked) {
  RoutineFrame frame(&r.name_str, argc, argv, argk, r.class_len ? 1 : 0);
  check_nesting();
  if (argc < r.arg_min || argc > r.arg_max)
    raise(M_WRONG_ARG_COUNT, "Incorrect number of arguments.");
  for (int i = 0; i < argc; ++i)
    if (!argv[i]) raise_fmt(M_BAD_ARG, "Argument %d of the call is missing.", i);
  if (argk && !argk->items.empty() && !(r.flags & QVA_SYSFUN_KEYWORDS))
    raise(M_KW_NOT_ALLOWED, "Keyword parameters not allowed in call.");
  std::string_view cls(r.name_str.data(), r.class_len);
  if (!cls.empty() && !self_checked) check_self(r, cls, argc, argv);

  std::optional<TraceCall> trace;
  if (trace_enabled) [[unlikely]] trace.emplace(r, argc, argv, argk);
  KeywordScope keywords;
  QVA_VPTR result = allocation_errors_raised([&] { return run_body(r, argc, argv, argk); });
  if (keywords.close() != 0)
    contract_violation(r.name_str + " returned without QVA_KWFree after keyword processing");
  if (!r.is_function) {
    if (result && is_pool_temp(result)) QVA_Deltmp(result);
    return nullptr;
  }
  if (!result || !is_pool_temp(result)) {
    contract_violation("function " + r.name_str + " returned no temporary");
    raise_fmt(M_BAD_ARG, "Function %s returned no value.", r.name_str.c_str());
  }
  return result;
}

void define_routine(const std::string &name, bool is_function, int arg_min, int arg_max,
                    bool keywords, UserRoutine body) {
  std::string upper = upper_name(name);
  if (!routine_name_ok(upper)) raise_fmt(M_BAD_IDENT, "Invalid identifier: '%s'.", name.c_str());
  if (arg_min < 0 || arg_min > arg_max)
    raise_fmt(M_BAD_ARG, "Routine %s: bad argument range %d..%d.", upper.c_str(), arg_min, arg_max);
  if (!body) raise_fmt(M_BAD_ARG, "Routine %s has no body.", upper.c_str());
  auto r = make_routine(upper, is_function, arg_min, arg_max, keywords ? QVA_SYSFUN_KEYWORDS : 0);
  r->user = std::move(body);
  install(std::move(r));
  method_cache_clear();
}

bool routine_exists(const std::string &name, bool is_function) {
  return routine_find_name(upper_name(name), is_function) != nullptr;
}

Keywords keywords_of(QVA_KW_ARGS *argk) { return argk ? argk->items : Keywords{}; }

std::vector<std::string> routine_names(bool is_function) {
  std::vector<std::string> names;
  for (const auto &entry : registry().table(is_function)) names.push_back(entry.first);
  return names;
}

std::vector<RoutineInfo> routine_rows(bool is_function) {
  std::vector<RoutineInfo> rows;
  for (const auto &[name, r] : registry().table(is_function))
    rows.push_back({name, r->arg_min, r->arg_max, r->flags});
  return rows;
}

}  // namespace qvahost

using namespace qvahost;

int QVA_SysRtnAdd(QVA_SYSFUN_DEF *defs, int is_function, int cnt) {
  if (cnt < 0 || (cnt > 0 && !defs)) {
    report(M_BAD_ARG, format("Routine table refused: %d rows at %p.", cnt, (void *)defs),
           QVA_MSG_RET);
    return 0;
  }
  // Every row is checked and built before any is registered, so that a bad
  // row leaves the registry as it was.
  std::vector<std::unique_ptr<Routine>> made;
  for (int i = 0; i < cnt; ++i) {
    const QVA_SYSFUN_DEF &row = defs[i];
    std::string problem = row_problem(row);
    if (!problem.empty()) {
      report(M_BAD_ARG,
             format("Routine table row %d (%s) refused: %s.", i, row.name ? row.name : "(null)",
                    problem.c_str()),
             QVA_MSG_RET);
      return 0;
    }
    try {
      auto r = make_routine(row.name, is_function != 0, row.arg_min, row.arg_max, row.flags);
      r->native = row.routine;
      made.push_back(std::move(r));
    } catch (const HostError &e) {
      report(e.code, e.text, QVA_MSG_RET);
      return 0;
    }
  }
  for (auto &r : made) install(std::move(r));
  method_cache_clear();
  return 1;
}
