// builtins.cpp - the language's built-in routines, registered with the host
// like any routine (so modules can call them by name too).
#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include "interp.h"

namespace qva {

namespace {

using qvahost::Keywords;

// Keyword values of a call by the names a built-in accepts (abbreviations
// allowed); nullptr for a keyword not given.
std::vector<QVA_VPTR> take_keywords(const std::string &routine, QVA_KW_ARGS *argk,
                                    const std::vector<std::string> &allowed) {
  std::vector<QVA_VPTR> out(allowed.size(), nullptr);
  for (const qvahost::Keyword &k : qvahost::keywords_of(argk)) {
    int i = match_keyword(k.name, allowed);
    if (i < 0) qvahost::raise_error("Keyword " + k.name + " not allowed in call to: " + routine);
    out[static_cast<size_t>(i)] = k.value;
  }
  return out;
}

bool set(QVA_VPTR kw) { return kw && kw->type != QVA_TYP_UNDEF && nonzero(kw); }

std::string upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string var_name(QVA_VPTR v) {
  const char *n = v->name ? QVA_IdentName(v->name) : nullptr;
  return n && *n ? n : "<Expression>";
}

QVA_VPTR byte_result(bool b) { return qvahost::make_byte(b ? 1 : 0); }

QVA_SDEF class_of(QVA_VPTR v) {
  if (v->type != QVA_TYP_OBJREF || !is_scalar(v) || !v->value.hvid) return nullptr;
  QVA_HVPTR hv = QVA_HeapVarHashFind(v->value.hvid);
  if (!hv || !(hv->flags & QVA_HV_OBJECT) || !(hv->var.flags & QVA_V_STRUCT)) return nullptr;
  return hv->var.value.s.sdef;
}

bool class_has(QVA_SDEF cls, const std::string &name) {
  for (QVA_SDEF c = cls; c; c = qvahost::struct_super(c))
    if (qvahost::struct_name(c) == upper(name)) return true;
  return false;
}

// Applies a text function to a string or to each element of a string array
// (numbers are first shown as PRINT shows them).
QVA_VPTR map_strings(QVA_VPTR v, const std::function<std::string(const std::string &)> &fn) {
  Val s = Val::temp(qvahost::convert_value(v, QVA_TYP_STRING));
  if (is_scalar(s.get())) return qvahost::make_string(fn(qvahost::string_value(s.get())));
  QVA_MEMINT n = qvahost::element_count(s.get());
  std::vector<std::string> out;
  for (QVA_MEMINT i = 0; i < n; ++i) {
    Val e = Val::temp(qvahost::element_values(s.get(), {i}, true));
    out.push_back(fn(qvahost::string_value(e.get())));
  }
  return qvahost::make_string_array(out);
}

// STRING() of a value: numbers as PRINT shows them.
QVA_VPTR string_of(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF)
    qvahost::raise_error("Variable is undefined: " + var_name(v) + ".");
  if (v->flags & QVA_V_STRUCT) return qvahost::make_string(format_value(v));
  if (is_scalar(v)) return qvahost::make_string(format_value(v));
  QVA_MEMINT n = qvahost::element_count(v);
  std::vector<std::string> out;
  for (QVA_MEMINT i = 0; i < n; ++i) {
    Val e = Val::temp(qvahost::element_values(v, {i}, true));
    out.push_back(format_value(e.get()));
  }
  return qvahost::make_string_array(out);
}

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
  } else if (!is_scalar(v)) value = "Array[" + std::to_string(qvahost::element_count(v)) + "]";
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

void help(Interp &in, int argc, QVA_VPTR argv[]) {
  if (argc == 0) {
    Frame &f = current_interp().frame();
    std::vector<std::pair<std::string, QVA_VPTR>> vars;
    if (f.main) {
      for (const std::string &n : qvahost::main_variable_names())
        vars.emplace_back(n, qvahost::find_main_variable(n));
    } else {
      for (auto &[n, v] : f.vars) vars.emplace_back(n, v);
    }
    if (!f.main) current_interp().print("% At " + f.routine);
    for (auto &[n, v] : vars) current_interp().print(help_line(n, v));
    return;
  }
  for (int i = 0; i < argc; ++i) {
    QVA_VPTR v = argv[i];
    current_interp().print(help_line(var_name(v), v));
    if (QVA_SDEF cls = class_of(v)) {
      std::string line = "** Object class " + qvahost::struct_name(cls);
      QVA_SDEF super = qvahost::struct_super(cls);
      if (super) line += ", inherits " + qvahost::struct_name(super);
      current_interp().print(line + ", fields:");
      help_fields(in, cls, &QVA_HeapVarHashFind(v->value.hvid)->var);
    } else if ((v->flags & QVA_V_STRUCT) && qvahost::element_count(v) == 1) {
      std::string sn = qvahost::struct_name(v->value.s.sdef);
      current_interp().print("** Structure " + (sn.empty() ? std::string("<Anonymous>") : sn) + ", fields:");
      help_fields(in, v->value.s.sdef, v);
    }
  }
}

QVA_VPTR size_of(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("SIZE", argk, {"TYPE", "N_ELEMENTS", "N_DIMENSIONS", "DIMENSIONS", "TNAME"});
  QVA_VPTR v = argc > 0 ? argv[0] : nullptr;
  int type = v ? v->type : 0;
  QVA_MEMINT n = v ? qvahost::element_count(v) : 0;
  int ndim = v && !is_scalar(v) ? 1 : 0;
  if (set(kw[0])) return qvahost::make_long(type);
  if (set(kw[1])) return qvahost::make_long(static_cast<QVA_LONG>(n));
  if (set(kw[2])) return qvahost::make_long(ndim);
  if (set(kw[3])) return qvahost::make_long(ndim ? static_cast<QVA_LONG>(n) : 0);
  if (set(kw[4])) return qvahost::make_string(qvahost::type_name(type));
  std::vector<QVA_LONG> out{ndim};
  if (ndim) out.push_back(static_cast<QVA_LONG>(n));
  out.push_back(type);
  out.push_back(static_cast<QVA_LONG>(n));
  return qvahost::make_long_array(out);
}

QVA_VPTR isa(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("ISA", argk, {"ARRAY", "NUMBER", "SCALAR", "NULL"});
  QVA_VPTR v = argv[0];
  bool defined = v->type != QVA_TYP_UNDEF;
  if (set(kw[3])) return byte_result(!defined);
  if (!defined) return byte_result(false);
  bool ok = true;
  if (argc > 1) {
    std::string name = upper(qvahost::string_value(argv[1]));
    if (QVA_SDEF cls = class_of(v)) ok = class_has(cls, name) || name == "OBJREF";
    else if (v->flags & QVA_V_STRUCT) ok = class_has(v->value.s.sdef, name) || name == "STRUCT";
    else ok = name == qvahost::type_name(v->type) || (name == "POINTER" && v->type == QVA_TYP_PTR);
  }
  if (set(kw[0])) ok = ok && !is_scalar(v);
  if (set(kw[1])) ok = ok && is_numeric_type(v->type);
  if (set(kw[2])) ok = ok && is_scalar(v);
  return byte_result(ok);
}

std::string strtrim(const std::string &s, int mode) {
  size_t b = 0, e = s.size();
  if (mode == 1 || mode == 2)
    while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  if (mode == 0 || mode == 2)
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return s.substr(b, e - b);
}

std::vector<QVA_HVID> ids_of(QVA_VPTR v, int type, const char *routine) {
  std::vector<QVA_HVID> ids;
  if (v->type == QVA_TYP_UNDEF) return ids;
  if (v->type != type)
    qvahost::raise_error(std::string(type == QVA_TYP_PTR ? "Pointer" : "Object reference") +
                         " type required in this context: " + var_name(v) + ".");
  (void)routine;
  char *data = nullptr;
  QVA_MEMINT n = 0;
  QVA_VarGetData(v, &n, &data, 1);
  for (QVA_MEMINT i = 0; i < n; ++i) {
    QVA_HVID id;
    std::memcpy(&id, data + i * sizeof id, sizeof id);
    ids.push_back(id);
  }
  return ids;
}

QVA_VPTR valid_each(QVA_VPTR v, int type, bool object) {
  std::vector<QVA_HVID> ids = ids_of(v, type, "");
  auto ok = [&](QVA_HVID id) {
    QVA_HVPTR hv = id ? QVA_HeapVarHashFind(id) : nullptr;
    return hv && ((hv->flags & QVA_HV_OBJECT) != 0) == object;
  };
  if (v->type == QVA_TYP_UNDEF) return byte_result(false);
  if (is_scalar(v)) return byte_result(ok(ids[0]));
  QVA_VPTR out = nullptr;
  char *d = QVA_MakeTempVector(QVA_TYP_BYTE, static_cast<QVA_MEMINT>(ids.size()), 1, &out);
  for (size_t i = 0; i < ids.size(); ++i) d[i] = ok(ids[i]) ? 1 : 0;
  return out;
}

}  // namespace

void register_builtins() {
  using qvahost::define_routine;
  constexpr int kMany = 64;

  // ---------------------------------------------------------- output
  define_routine("PRINT", false, 0, kMany, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    take_keywords("PRINT", argk, {});
    std::string line;
    for (int i = 0; i < argc; ++i) {
      if (argv[i]->type == QVA_TYP_UNDEF)
        qvahost::raise_error("Variable is undefined: " + var_name(argv[i]) + ".");
      line += format_value(argv[i]);
    }
    current_interp().print(line);
    return nullptr;
  });
  define_routine("HELP", false, 0, kMany, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    take_keywords("HELP", argk, {"OBJECTS"});
    help(current_interp(), argc, argv);
    return nullptr;
  });
  define_routine("MESSAGE", false, 1, 1, true, [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("MESSAGE", argk, {"INFORMATIONAL", "CONTINUE", "NONAME"});
    std::string text = format_value(argv[0]);
    std::string routine = set(kw[2]) ? "" : current_interp().frame().routine;
    qvahost::HostError e{QVA_M_GENERIC, routine, text};
    if (set(kw[0]) || set(kw[1])) {
      qvahost::emit(e.report());
      return static_cast<QVA_VPTR>(nullptr);
    }
    throw e;
  });
  define_routine("EXIT", false, 0, 0, true, [](int, QVA_VPTR[], QVA_KW_ARGS *argk) -> QVA_VPTR {
    auto kw = take_keywords("EXIT", argk, {"STATUS"});
    throw ExitRequest{kw[0] ? static_cast<int>(qvahost::integer_value(kw[0])) : 0};
  });

  // ----------------------------------------------------- information
  define_routine("N_ELEMENTS", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    return qvahost::make_long(static_cast<QVA_LONG>(qvahost::element_count(argv[0])));
  });
  define_routine("SIZE", true, 0, 1, true, size_of);
  define_routine("ISA", true, 1, 2, true, isa);
  define_routine("KEYWORD_SET", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    QVA_VPTR v = argv[0];
    bool yes = v->type != QVA_TYP_UNDEF &&
               (!is_scalar(v) || (v->flags & QVA_V_STRUCT) ? true : nonzero(v));
    return byte_result(yes);
  });
  define_routine("N_PARAMS", true, 0, 0, false, [](int, QVA_VPTR[], QVA_KW_ARGS *) {
    return qvahost::make_long(current_interp().frame().n_params);
  });
  define_routine("N_TAGS", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    QVA_VPTR v = argv[0];
    if (!(v->flags & QVA_V_STRUCT)) return qvahost::make_long(0);
    return qvahost::make_long(static_cast<QVA_LONG>(qvahost::struct_field_info(v->value.s.sdef).size()));
  });
  define_routine("TAG_NAMES", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    QVA_VPTR v = argv[0];
    if (!(v->flags & QVA_V_STRUCT)) qvahost::raise_error("Expression must be a structure in this context: " + var_name(v) + ".");
    std::vector<std::string> names;
    for (auto &fi : qvahost::struct_field_info(v->value.s.sdef)) names.push_back(fi.name);
    return qvahost::make_string_array(names);
  });
  define_routine("COMMAND_LINE_ARGS", true, 0, 0, false, [](int, QVA_VPTR[], QVA_KW_ARGS *) {
    if (current_interp().args().empty()) return QVA_Gettmp();
    return qvahost::make_string_array(current_interp().args());
  });

  // ---------------------------------------------------- conversions
  define_routine("STRING", true, 1, kMany, false, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
    if (argc == 1) return string_of(argv[0]);
    std::string s;
    for (int i = 0; i < argc; ++i) s += format_value(argv[i]);
    return qvahost::make_string(s);
  });
  define_routine("STRTRIM", true, 1, 2, false, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
    int mode = argc > 1 ? static_cast<int>(qvahost::integer_value(argv[1])) : 0;
    Val s = Val::temp(string_of(argv[0]));
    return map_strings(s.get(), [mode](const std::string &t) { return strtrim(t, mode); });
  });
  define_routine("STRUPCASE", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    return map_strings(argv[0], [](const std::string &t) { return upper(t); });
  });
  define_routine("STRLOWCASE", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    return map_strings(argv[0], [](std::string t) {
      for (char &c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      return t;
    });
  });
  define_routine("STRLEN", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    Val s = Val::temp(string_of(argv[0]));
    if (!is_scalar(s.get())) qvahost::raise_error("STRLEN takes a scalar.");
    return qvahost::make_long(static_cast<QVA_LONG>(qvahost::string_value(s.get()).size()));
  });
  struct Conv {
    const char *name;
    int type;
  };
  for (Conv c : {Conv{"BYTE", QVA_TYP_BYTE}, Conv{"FIX", QVA_TYP_INT}, Conv{"LONG", QVA_TYP_LONG},
                 Conv{"LONG64", QVA_TYP_LONG64}, Conv{"DOUBLE", QVA_TYP_DOUBLE}}) {
    int type = c.type;
    define_routine(c.name, true, 1, 1, false, [type](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
      return qvahost::convert_value(argv[0], type);
    });
  }
  define_routine("LINDGEN", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    QVA_LONG64 n = qvahost::integer_value(Val::temp(qvahost::convert_value(argv[0], QVA_TYP_LONG64)).get());
    if (n <= 0) qvahost::raise_error("Array dimensions must be greater than 0.");
    std::vector<QVA_LONG> v(static_cast<size_t>(n));
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<QVA_LONG>(i);
    return qvahost::make_long_array(v);
  });

  // --------------------------------------------------------- objects
  define_routine("OBJ_NEW", true, 0, kMany, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    if (argc == 0) return qvahost::make_objref(0);
    return QVA_ObjNew(argc, argv, argk);
  });
  define_routine("OBJ_DESTROY", false, 0, kMany, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    QVA_ObjDestroy(argc, argv, argk);
    return static_cast<QVA_VPTR>(nullptr);
  });
  define_routine("OBJ_VALID", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    return valid_each(argv[0], QVA_TYP_OBJREF, true);
  });
  define_routine("OBJ_ISA", true, 2, 2, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    QVA_SDEF cls = class_of(argv[0]);
    return byte_result(cls && class_has(cls, qvahost::string_value(argv[1])));
  });
  define_routine("OBJ_CLASS", true, 1, 1, true, [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("OBJ_CLASS", argk, {"SUPERCLASS"});
    QVA_VPTR v = argv[0];
    QVA_SDEF cls = nullptr;
    if (v->type == QVA_TYP_STRING) cls = qvahost::find_struct(qvahost::string_value(v));
    else cls = class_of(v);
    if (set(kw[0])) {
      QVA_SDEF super = cls ? qvahost::struct_super(cls) : nullptr;
      return qvahost::make_string(super ? qvahost::struct_name(super) : "");
    }
    return qvahost::make_string(cls ? qvahost::struct_name(cls) : "");
  });
  define_routine("PTR_NEW", true, 0, 1, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("PTR_NEW", argk, {"NO_COPY", "ALLOCATE_HEAP"});
    if (argc == 0 && !set(kw[1])) return qvahost::make_ptr(0);
    QVA_VPTR src = argc > 0 ? argv[0] : nullptr;
    Val none = undefined_value();
    if (!src) src = none.get();
    QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_PTR, src, set(kw[0]) ? 1 : 0, QVA_MSG_LONGJMP);
    if (set(kw[0]) && !(src->flags & QVA_V_TEMP)) QVA_Delvar(src);
    return qvahost::make_ptr(hv->hash_id);
  });
  define_routine("PTR_FREE", false, 0, kMany, false, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
    std::vector<QVA_HVID> ids;
    for (int i = 0; i < argc; ++i)
      for (QVA_HVID id : ids_of(argv[i], QVA_TYP_PTR, "PTR_FREE")) ids.push_back(id);
    for (QVA_HVID id : ids) {
      QVA_HVPTR hv = id ? QVA_HeapVarHashFind(id) : nullptr;
      if (hv && !(hv->flags & QVA_HV_OBJECT)) QVA_HeapVarDelete(id, 0, QVA_MSG_LONGJMP);
    }
    return static_cast<QVA_VPTR>(nullptr);
  });
  define_routine("PTR_VALID", true, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
    return valid_each(argv[0], QVA_TYP_PTR, false);
  });
  define_routine("HEAP_GC", false, 0, 0, true, [](int, QVA_VPTR[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("HEAP_GC", argk, {"VERBOSE"});
    size_t n = qvahost::heap_gc();
    if (set(kw[0])) current_interp().print("% HEAP_GC: " + std::to_string(n) + " heap variables freed.");
    return static_cast<QVA_VPTR>(nullptr);
  });

  // --------------------------------------------------------- session
  define_routine("SAVE", false, 0, kMany, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("SAVE", argk, {"FILENAME", "ALL", "VERBOSE"});
    std::string file = kw[0] ? qvahost::string_value(kw[0]) : "qvasave.sav";
    if (set(kw[1])) {
      qvahost::save_all(file);
      return static_cast<QVA_VPTR>(nullptr);
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
    return static_cast<QVA_VPTR>(nullptr);
  });
  define_routine("RESTORE", false, 0, 1, true, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
    auto kw = take_keywords("RESTORE", argk, {"FILENAME", "VERBOSE"});
    QVA_VPTR f = argc > 0 ? argv[0] : kw[0];
    std::string file = f ? qvahost::string_value(f) : "qvasave.sav";
    std::vector<std::string> names = qvahost::restore(file);
    if (set(kw[1]))
      for (const std::string &n : names) current_interp().print("% RESTORE: Restored variable: " + n + ".");
    return static_cast<QVA_VPTR>(nullptr);
  });
  define_routine("RESET_SESSION", false, 0, 0, false, [](int, QVA_VPTR[], QVA_KW_ARGS *) {
    qvahost::reset_session();
    return static_cast<QVA_VPTR>(nullptr);
  });
}

}  // namespace qva
