// common.cpp - helpers shared by the built-ins, and their registration.
#include <cctype>

#include "builtins.h"

namespace qva {

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

bool keyword_set(QVA_VPTR kw) { return kw && kw->type != QVA_TYP_UNDEF && nonzero(kw); }

std::string upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string var_name(QVA_VPTR v) { return qvahost::argument_label(v); }

QVA_LONG64 scalar_integer(QVA_VPTR v) {
  Val l = Val::temp(qvahost::convert_value(v, QVA_TYP_LONG64));
  if (!is_scalar(l.get()))
    qvahost::raise_error("Expression must be a scalar in this context: " + var_name(v) + ".");
  return qvahost::integer_value(l.get());
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

void register_builtins() {
  for (auto table : {array_builtins, number_builtins, string_builtins, object_builtins,
                     session_builtins, file_builtins})
    for (Builtin &b : table())
      qvahost::define_routine(b.name, b.function, b.arg_min, b.arg_max, b.keywords, std::move(b.body));
}

}  // namespace qva
