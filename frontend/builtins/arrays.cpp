// arrays.cpp - built-ins about arrays and types: element counts, SIZE,
// ISA, type conversions, array makers.
#include "builtins.h"

namespace qva {

namespace {

QVA_VPTR size_of(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("SIZE", argk, {"TYPE", "N_ELEMENTS", "N_DIMENSIONS", "DIMENSIONS", "TNAME"});
  QVA_VPTR v = argc > 0 ? argv[0] : nullptr;
  int type = v ? v->type : 0;
  QVA_MEMINT n = v ? qvahost::element_count(v) : 0;
  int ndim = v && !is_scalar(v) ? 1 : 0;
  if (keyword_set(kw[0])) return qvahost::make_long(type);
  if (keyword_set(kw[1])) return qvahost::make_long(static_cast<QVA_LONG>(n));
  if (keyword_set(kw[2])) return qvahost::make_long(ndim);
  if (keyword_set(kw[3])) return qvahost::make_long(ndim ? static_cast<QVA_LONG>(n) : 0);
  if (keyword_set(kw[4])) return qvahost::make_string(qvahost::type_name(type));
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
  if (keyword_set(kw[3])) return byte_result(!defined);
  if (!defined) return byte_result(false);
  bool ok = true;
  if (argc > 1) {
    std::string name = upper(qvahost::string_value(argv[1]));
    if (QVA_SDEF cls = class_of(v)) ok = class_has(cls, name) || name == "OBJREF";
    else if (v->flags & QVA_V_STRUCT) ok = class_has(v->value.s.sdef, name) || name == "STRUCT";
    else ok = name == qvahost::type_name(v->type) || (name == "POINTER" && v->type == QVA_TYP_PTR);
  }
  if (keyword_set(kw[0])) ok = ok && !is_scalar(v);
  if (keyword_set(kw[1])) ok = ok && is_numeric_type(v->type);
  if (keyword_set(kw[2])) ok = ok && is_scalar(v);
  return byte_result(ok);
}

// A type conversion function (BYTE, FIX, ...): the value converted element
// by element, keeping its shape.
Builtin conversion(const char *name, int type) {
  return {name, true, 1, 1, false, [type](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
            return qvahost::convert_value(argv[0], type);
          }};
}

}  // namespace

std::vector<Builtin> array_builtins() {
  return {
      {"N_ELEMENTS", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         return qvahost::make_long(static_cast<QVA_LONG>(qvahost::element_count(argv[0])));
       }},
      {"SIZE", true, 0, 1, true, size_of},
      {"ISA", true, 1, 2, true, isa},
      {"KEYWORD_SET", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_VPTR v = argv[0];
         bool yes = v->type != QVA_TYP_UNDEF &&
                    (!is_scalar(v) || (v->flags & QVA_V_STRUCT) ? true : nonzero(v));
         return byte_result(yes);
       }},
      {"N_TAGS", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_VPTR v = argv[0];
         if (!(v->flags & QVA_V_STRUCT)) return qvahost::make_long(0);
         return qvahost::make_long(static_cast<QVA_LONG>(qvahost::struct_field_info(v->value.s.sdef).size()));
       }},
      {"TAG_NAMES", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_VPTR v = argv[0];
         if (!(v->flags & QVA_V_STRUCT))
           qvahost::raise_error("Expression must be a structure in this context: " + var_name(v) + ".");
         std::vector<std::string> names;
         for (auto &fi : qvahost::struct_field_info(v->value.s.sdef)) names.push_back(fi.name);
         return qvahost::make_string_array(names);
       }},
      conversion("BYTE", QVA_TYP_BYTE),
      conversion("FIX", QVA_TYP_INT),
      conversion("LONG", QVA_TYP_LONG),
      conversion("LONG64", QVA_TYP_LONG64),
      conversion("DOUBLE", QVA_TYP_DOUBLE),
      {"LINDGEN", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_LONG64 n = qvahost::integer_value(Val::temp(qvahost::convert_value(argv[0], QVA_TYP_LONG64)).get());
         if (n <= 0) qvahost::raise_error("Array dimensions must be greater than 0.");
         std::vector<QVA_LONG> v(static_cast<size_t>(n));
         for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<QVA_LONG>(i);
         return qvahost::make_long_array(v);
       }},
  };
}

}  // namespace qva
