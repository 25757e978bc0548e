// sessions.cpp - built-ins about files and the session: HELP, MESSAGE,
// EXIT, the running routine's facts, SAVE, RESTORE, RESET_SESSION and
// TRACE.
#include <algorithm>

#include "builtins.h"

namespace qva {

namespace {

std::string pad(const std::string &s, size_t w) { return s.size() >= w ? s + " " : s + std::string(w - s.size(), ' '); }

// One line of HELP about a variable.
std::string help_line(const std::string &name, QVA_VPTR v) {
  std::string type = qvahost::type_name(v->type);
  std::string value;
  if (v->type == QVA_TYP_UNDEF) value = "<Undefined>";
  else if (v->flags & QVA_V_STRUCT) {
    std::string sn = qvahost::struct_name(v->value.s.sdef);
    value = "-> " + (sn.empty() ? std::string("<Anonymous>") : sn) + " Array[" +
            std::to_string(qvahost::element_count(v)) + "]";
  } else if (!is_scalar(v)) value = "Array" + dims_text(dims_of(v));
  else if (v->type == QVA_TYP_STRING) value = "'" + format_value(v) + "'";
  else value = format_value(v);
  return pad(name, 16) + pad(type, 10) + "= " + value;
}

void help_fields(Interp &in, QVA_SDEF sd, QVA_VPTR holder) {
  for (const qvahost::FieldInfo &fi : qvahost::struct_field_info(sd)) {
    Val fv = Val::temp(qvahost::field_value(holder, 0, fi.name));
    in.print("   " + help_line(fi.name, fv.get()));
  }
}

// The methods an object answers, nearest definition first: its kind, its
// name, the class that defines it and whether a module or QVA code does.
void help_methods(Interp &in, QVA_SDEF cls) {
  for (const qvahost::MethodInfo &m : qvahost::class_methods(cls))
    in.print("   " + pad(m.is_function ? "FUNCTION" : "PRO", 9) + pad(m.name, 20) + m.cls +
             (m.native ? " (native)" : " (QVA)"));
}

void help(Interp &in, int argc, QVA_VPTR argv[], bool methods) {
  if (argc == 0) {
    Frame &f = in.frame();
    std::vector<std::pair<std::string, QVA_VPTR>> vars;
    if (f.main) {
      for (const std::string &n : qvahost::main_variable_names())
        vars.emplace_back(n, qvahost::find_main_variable(n));
    } else {
      for (auto &[n, v] : f.vars) vars.emplace_back(n, v);
    }
    if (!f.main) in.print("% At " + f.routine);
    for (auto &[n, v] : vars) in.print(help_line(n, v));
    return;
  }
  for (int i = 0; i < argc; ++i) {
    QVA_VPTR v = argv[i];
    const char *name = v->name ? QVA_IdentName(v->name) : nullptr;
    in.print(help_line(name && *name ? name : "<Expression>", v));
    if (QVA_SDEF cls = class_of(v)) {
      std::string line = "** Object class " + qvahost::struct_name(cls);
      QVA_SDEF super = qvahost::struct_super(cls);
      if (super) line += ", inherits " + qvahost::struct_name(super);
      if (methods) {
        in.print(line + ", methods:");
        help_methods(in, cls);
        continue;
      }
      in.print(line + ", fields:");
      help_fields(in, cls, &QVA_HeapVarHashFind(v->value.hvid)->var);
    } else if ((v->flags & QVA_V_STRUCT) && qvahost::element_count(v) == 1) {
      std::string sn = qvahost::struct_name(v->value.s.sdef);
      in.print("** Structure " + (sn.empty() ? std::string("<Anonymous>") : sn) + ", fields:");
      help_fields(in, v->value.s.sdef, v);
    }
  }
}

QVA_VPTR save(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("SAVE", argk, {"FILENAME", "ALL", "VERBOSE"});
  std::string file = kw[0] ? qvahost::string_value(kw[0]) : "qvasave.sav";
  if (keyword_set(kw[1])) {
    qvahost::save_all(file);
    return nullptr;
  }
  std::vector<std::string> names;
  for (int i = 0; i < argc; ++i) {
    std::string n = var_name(argv[i]);
    if (qvahost::find_main_variable(n) != argv[i])
      qvahost::raise_error("Only main-level variables can be saved: " + n + ".");
    names.push_back(n);
  }
  if (names.empty()) qvahost::raise_error("Nothing to save: name variables or give /ALL.");
  qvahost::save_variables(file, names);
  return nullptr;
}

QVA_VPTR restore(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("RESTORE", argk, {"FILENAME", "VERBOSE"});
  QVA_VPTR f = argc > 0 ? argv[0] : kw[0];
  std::string file = f ? qvahost::string_value(f) : "qvasave.sav";
  std::vector<std::string> names = qvahost::restore(file);
  if (keyword_set(kw[1]))
    for (const std::string &n : names) current_interp().print("% RESTORE: Restored variable: " + n + ".");
  return nullptr;
}

// TRACE, pattern...: trace the calls of the routines whose names match
// (string arrays give several patterns); TRACE, /OFF stops; TRACE alone
// says what is traced.
QVA_VPTR trace(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("TRACE", argk, {"OFF"});
  if (keyword_set(kw[0])) {
    if (argc > 0) qvahost::raise_error("TRACE takes patterns or /OFF, not both.");
    qvahost::set_trace({});
    return nullptr;
  }
  if (argc == 0) {
    std::string now;
    for (const std::string &p : qvahost::trace_patterns()) now += (now.empty() ? "" : ", ") + p;
    current_interp().print("% TRACE: " + (now.empty() ? std::string("off") : now));
    return nullptr;
  }
  std::vector<std::string> patterns;
  for (int i = 0; i < argc; ++i) {
    if (argv[i]->type != QVA_TYP_STRING)
      qvahost::raise_error("TRACE patterns must be strings: " + var_name(argv[i]) + ".");
    QVA_MEMINT n = qvahost::element_count(argv[i]);
    for (QVA_MEMINT k = 0; k < n; ++k) {
      Val e = Val::temp(qvahost::element_values(argv[i], {k}, true));
      std::string p = qvahost::string_value(e.get());
      if (p.empty()) qvahost::raise_error("TRACE patterns must not be empty.");
      patterns.push_back(p);
    }
  }
  qvahost::set_trace(patterns);
  return nullptr;
}

}  // namespace

std::vector<Builtin> session_builtins() {
  return {
      {"HELP", false, 0, kManyArgs, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("HELP", argk, {"OBJECTS", "METHODS", "STRUCTURES"});  // fields are always shown
         help(current_interp(), argc, argv, keyword_set(kw[1]));
         return static_cast<QVA_VPTR>(nullptr);
       }},
      {"MESSAGE", false, 1, 1, true,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("MESSAGE", argk, {"INFORMATIONAL", "CONTINUE", "NONAME"});
         std::string text = format_value(argv[0]);
         const Frame &f = current_interp().frame();
         std::string routine = keyword_set(kw[2]) ? "" : f.main ? "$MAIN$" : f.routine;
         qvahost::HostError e{QVA_M_GENERIC, routine, text};
         if (keyword_set(kw[0]) || keyword_set(kw[1])) {
           qvahost::emit(e.report());
           return static_cast<QVA_VPTR>(nullptr);
         }
         throw e;
       }},
      {"EXIT", false, 0, 0, true,
       [](int, QVA_VPTR[], QVA_KW_ARGS *argk) -> QVA_VPTR {
         auto kw = take_keywords("EXIT", argk, {"STATUS"});
         throw ExitRequest{kw[0] ? static_cast<int>(qvahost::integer_value(kw[0])) : 0};
       }},
      {"ON_ERROR", false, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
         QVA_LONG64 mode = scalar_integer(argv[0]);
         if (mode < 0 || mode > 3)
           qvahost::raise_error("Value of ON_ERROR must be 0 to 3: " + var_name(argv[0]) + ".");
         current_interp().frame().on_error = static_cast<int>(mode);
         return nullptr;
       }},
      {"N_PARAMS", true, 0, 0, false,
       [](int, QVA_VPTR[], QVA_KW_ARGS *) { return qvahost::make_long(current_interp().frame().n_params); }},
      // ARG_PRESENT(param): 1 when the caller gave a variable for it, which
      // the routine can set; 0 for an expression or nothing.
      {"ARG_PRESENT", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         const Frame &f = current_interp().frame();
         QVA_VPTR v = argv[0];
         bool local = std::any_of(f.owned.begin(), f.owned.end(), [v](const auto &o) { return o.get() == v; });
         return byte_result(!f.main && !local && !(v->flags & QVA_V_TEMP));
       }},
      {"COMMAND_LINE_ARGS", true, 0, 0, false,
       [](int, QVA_VPTR[], QVA_KW_ARGS *) {
         if (current_interp().args().empty()) return QVA_Gettmp();
         return qvahost::make_string_array(current_interp().args());
       }},
      {"SAVE", false, 0, kManyArgs, true, save},
      {"RESTORE", false, 0, 1, true, restore},
      {"TRACE", false, 0, kManyArgs, true, trace},
      {"RESET_SESSION", false, 0, 0, false,
       [](int, QVA_VPTR[], QVA_KW_ARGS *) {
         qvahost::reset_session();
         return static_cast<QVA_VPTR>(nullptr);
       }},
  };
}

}  // namespace qva
