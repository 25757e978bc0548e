// arrays.cpp - built-ins about arrays and types: element counts, SIZE,
// ISA, type conversions, array makers.
#include <cstring>
#include <iterator>

#include "builtins.h"

namespace qva {

namespace {

// SIZE: [dimension count, each dimension, type code, element count], or
// one of these by keyword.
QVA_VPTR size_of(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("SIZE", argk, {"TYPE", "N_ELEMENTS", "N_DIMENSIONS", "DIMENSIONS", "TNAME"});
  QVA_VPTR v = argc > 0 ? argv[0] : nullptr;
  int type = v ? v->type : 0;
  QVA_MEMINT n = v ? qvahost::element_count(v) : 0;
  Dims dims = v && !is_scalar(v) ? dims_of(v) : Dims{};
  auto ndim = static_cast<QVA_LONG>(dims.size());
  if (keyword_set(kw[0])) return qvahost::make_long(type);
  if (keyword_set(kw[1])) return qvahost::make_long(static_cast<QVA_LONG>(n));
  if (keyword_set(kw[2])) return qvahost::make_long(ndim);
  if (keyword_set(kw[3])) {
    if (dims.empty()) return qvahost::make_long(0);
    return qvahost::make_long_array(std::vector<QVA_LONG>(dims.begin(), dims.end()));
  }
  if (keyword_set(kw[4])) return qvahost::make_string(type == QVA_TYP_OBJREF ? "OBJREF" : qvahost::type_name(type));
  std::vector<QVA_LONG> out{ndim};
  for (QVA_MEMINT d : dims) out.push_back(static_cast<QVA_LONG>(d));
  out.push_back(type);
  out.push_back(static_cast<QVA_LONG>(n));
  return qvahost::make_long_array(out);
}

}  // namespace

Dims dims_from(int argc, QVA_VPTR argv[], int first, bool trim) {
  Dims dims;
  for (int i = first; i < argc; ++i) {
    Val l = Val::temp(qvahost::convert_value(argv[i], QVA_TYP_LONG64));
    View w = view_of(l.get());
    if (w.array && argc - first > 1)
      qvahost::raise_error("Dimensions must be scalars or one array: " + var_name(argv[i]) + ".");
    for (QVA_MEMINT k = 0; k < w.n; ++k) dims.push_back(get_int(QVA_TYP_LONG64, w.data + k * 8));
  }
  if (dims.empty()) qvahost::raise_error("Incorrect number of arguments.");
  if (dims.size() > QVA_MAX_ARRAY_DIM)
    qvahost::raise_error("Arrays have at most 8 dimensions.");
  return trim ? trim_dims(dims) : dims;  // FLTARR(3, 1) is a vector
}

namespace {

// BYTARR, FLTARR, ...: a zeroed array (an array of empty strings, null
// references).
Builtin array_maker(const char *name, int type) {
  return {name, true, 1, QVA_MAX_ARRAY_DIM, true, [name, type](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
            take_keywords(name, argk, {"NOZERO"});
            return make_array(type, dims_from(argc, argv, 0)).give_temp();
          }};
}

// PTRARR(dims, /ALLOCATE_HEAP): null pointers, or each a pointer to a new
// heap variable, undefined until assigned through it.
QVA_VPTR ptrarr(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("PTRARR", argk, {"NOZERO", "ALLOCATE_HEAP"});
  Dims dims = dims_from(argc, argv, 0);
  Val out = make_array(QVA_TYP_PTR, dims);
  if (!keyword_set(kw[1])) return out.give_temp();
  auto *ids = reinterpret_cast<QVA_HVID *>(data_of(out.get()));
  QVA_MEMINT n = count_of(dims), made = 0;
  Val none = undefined_value();
  try {
    for (; made < n; ++made) ids[made] = QVA_HeapVarNew(QVA_TYP_PTR, none.get(), 0, QVA_MSG_LONGJMP)->hash_id;
  } catch (...) {
    for (QVA_MEMINT i = 0; i < made; ++i) QVA_HeapVarDelete(ids[i], 0, QVA_MSG_RET);
    throw;
  }
  return out.give_temp();
}

// INDGEN, FINDGEN, ...: each element its own index, in the type.
Val index_array(int type, const Dims &dims) {
  Val v = make_array(type, dims);
  char *d = data_of(v.get());
  size_t size = elt_size(type);
  QVA_MEMINT n = count_of(dims);
  for (QVA_MEMINT i = 0; i < n; ++i) {
    put_int(type, d + i * size, i);
  }
  return v;
}

Builtin index_maker(const char *name, int type) {
  return {name, true, 1, QVA_MAX_ARRAY_DIM, false, [type](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
            return index_array(type, dims_from(argc, argv, 0)).give_temp();
          }};
}

// MAKE_ARRAY(dims..., TYPE= or /FLOAT..., VALUE=, /INDEX, DIMENSION=).
QVA_VPTR make_array_fn(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  static const std::vector<std::string> names = {"TYPE", "VALUE", "INDEX", "DIMENSION", "NOZERO",
                                                 "BYTE", "INTEGER", "LONG", "L64", "FLOAT",
                                                 "DOUBLE", "STRING", "OBJ", "PTR"};
  static const int flag_types[] = {QVA_TYP_BYTE, QVA_TYP_INT, QVA_TYP_LONG, QVA_TYP_LONG64, QVA_TYP_FLOAT,
                                   QVA_TYP_DOUBLE, QVA_TYP_STRING, QVA_TYP_OBJREF, QVA_TYP_PTR};
  auto kw = take_keywords("MAKE_ARRAY", argk, names);
  Dims dims = kw[3] ? dims_from(1, &kw[3], 0) : dims_from(argc, argv, 0);
  int type = kw[1] && kw[1]->type != QVA_TYP_UNDEF ? kw[1]->type : QVA_TYP_FLOAT;
  if (kw[0]) type = static_cast<int>(qvahost::integer_value(kw[0]));
  for (size_t i = 0; i < std::size(flag_types); ++i)
    if (keyword_set(kw[5 + i])) type = flag_types[i];
  if (!(is_numeric_type(type) || type == QVA_TYP_STRING || type == QVA_TYP_PTR || type == QVA_TYP_OBJREF))
    qvahost::raise_error("Illegal type code " + std::to_string(type) + ": TYPE.");
  if (keyword_set(kw[2]) && !is_numeric_type(type))
    qvahost::raise_error("Expression must be numeric in this context: INDEX.");
  Val v = keyword_set(kw[2]) ? index_array(type, dims) : make_array(type, dims);
  if (kw[1] && kw[1]->type != QVA_TYP_UNDEF) {
    std::vector<QVA_MEMINT> all(static_cast<size_t>(count_of(dims)));
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<QVA_MEMINT>(i);
    Val one = Val::temp(qvahost::element_values(kw[1], {0}, true));
    qvahost::store_elements(v.get(), all, one.get());
  }
  return v.give_temp();
}

// REPLICATE(value, dims...): the scalar (or one-element structure) in
// every element.
QVA_VPTR replicate(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  QVA_VPTR v = argv[0];
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Variable is undefined: " + var_name(v) + ".");
  if (qvahost::element_count(v) != 1) qvahost::raise_error("Expression must be a scalar in this context: " + var_name(v) + ".");
  Dims dims = dims_from(argc, argv, 1);
  Val out = make_array(v->type, dims, (v->flags & QVA_V_STRUCT) ? v->value.s.sdef : nullptr);
  std::vector<QVA_MEMINT> all(static_cast<size_t>(count_of(dims)));
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<QVA_MEMINT>(i);
  qvahost::store_elements(out.get(), all, v);
  return out.give_temp();
}

// REFORM(a, dims...): the same elements with new dimensions; without
// dimensions, those of size 1 dropped.
QVA_VPTR reform(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  QVA_VPTR v = argv[0];
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Variable is undefined: " + var_name(v) + ".");
  Dims dims;
  if (argc > 1) {
    dims = dims_from(argc, argv, 1, false);
  } else {
    for (QVA_MEMINT d : dims_of(v))
      if (d != 1) dims.push_back(d);
    if (dims.empty()) dims = {1};
  }
  if (count_of(dims) != qvahost::element_count(v))
    qvahost::raise_error("New subscripts must not change the number elements in " + var_name(v) + ".");
  Val out = copy_of(v);
  if (is_scalar(v)) {
    // A scalar becomes a one-element array.
    Val arr = make_array(v->type, dims);
    qvahost::store_elements(arr.get(), {0}, v);
    return arr.give_temp();
  }
  reshape(out.get(), dims);
  return out.give_temp();
}

// TRANSPOSE(a [, order]): dimensions permuted (reversed by default; a
// vector becomes a 1 x n array).
QVA_VPTR transpose(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  QVA_VPTR v = argv[0];
  if (v->type == QVA_TYP_UNDEF || is_scalar(v))
    qvahost::raise_error("Expression must be an array in this context: " + var_name(v) + ".");
  Dims dims = dims_of(v);
  if (dims.size() == 1) dims.push_back(1);
  size_t r = dims.size();
  std::vector<size_t> order(r);
  for (size_t k = 0; k < r; ++k) order[k] = r - 1 - k;
  if (argc > 1) {
    Dims p = dims_from(argc, argv, 1, false);
    std::vector<bool> seen(r, false);
    if (p.size() != r) qvahost::raise_error("The permutation must name every dimension once: " + var_name(argv[1]) + ".");
    for (size_t k = 0; k < r; ++k) {
      if (p[k] < 0 || p[k] >= static_cast<QVA_MEMINT>(r) || seen[static_cast<size_t>(p[k])])
        qvahost::raise_error("The permutation must name every dimension once: " + var_name(argv[1]) + ".");
      seen[static_cast<size_t>(p[k])] = true;
      order[k] = static_cast<size_t>(p[k]);
    }
  }
  Dims out_dims(r);
  for (size_t k = 0; k < r; ++k) out_dims[k] = dims[order[k]];
  std::vector<QVA_MEMINT> stride(r, 1);
  for (size_t k = 1; k < r; ++k) stride[k] = stride[k - 1] * dims[k - 1];
  // Output element at position (j0, j1, ...) is input element with
  // subscript order[k] equal to jk.
  QVA_MEMINT n = count_of(dims);
  std::vector<QVA_MEMINT> from(static_cast<size_t>(n));
  std::vector<QVA_MEMINT> j(r, 0);
  for (QVA_MEMINT i = 0; i < n; ++i) {
    QVA_MEMINT at = 0;
    for (size_t k = 0; k < r; ++k) at += j[k] * stride[order[k]];
    from[static_cast<size_t>(i)] = at;
    for (size_t k = 0; k < r && ++j[k] == out_dims[k]; ++k) j[k] = 0;
  }
  Val out = Val::temp(qvahost::element_values(v, from, false));
  reshape(out.get(), out_dims);
  return out.give_temp();
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

// Numbers converted to an integer type wrap to its width, as the family's
// conversions do (BYTE(300) is 44); a scalar string given to BYTE gives its
// characters' codes.  Everything else converts as the host does.
QVA_VPTR integer_conversion(QVA_VPTR v, int type) {
  if (type == QVA_TYP_BYTE && v->type == QVA_TYP_STRING && is_scalar(v) && !(v->flags & QVA_V_STRUCT)) {
    std::string text = qvahost::string_value(v);
    if (text.empty()) return qvahost::make_byte(0);
    Val out = make_array(type, {static_cast<QVA_MEMINT>(text.size())});
    std::copy(text.begin(), text.end(), data_of(out.get()));
    return out.give_temp();
  }
  if ((v->flags & QVA_V_STRUCT) || !is_numeric_type(v->type)) return qvahost::convert_value(v, type);
  View w = view_of(v);
  Val out = make_array(type, w.array ? dims_of(v) : Dims{});
  char *d = data_of(out.get());
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    const char *p = w.data + i * static_cast<QVA_MEMINT>(w.size);
    char *q = d + i * static_cast<QVA_MEMINT>(elt_size(type));
    if (is_real_type(w.type)) put_real(type, q, get_real(w.type, p));
    else put_int(type, q, get_int(w.type, p));
  }
  return out.give_temp();
}

// A type conversion function (BYTE, FIX, ...): the value converted element
// by element, keeping its shape.
Builtin conversion(const char *name, int type) {
  return {name, true, 1, 1, false, [type](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
            if (is_integer_type(type)) return integer_conversion(argv[0], type);
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
      // TYPENAME(x): the type's name; a structure's name (ANONYMOUS without
      // one), an object's class (OBJREF for the null reference).
      {"TYPENAME", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_VPTR v = argv[0];
         std::string name = qvahost::type_name(v->type);
         if (QVA_SDEF cls = class_of(v)) name = qvahost::struct_name(cls);
         else if (v->flags & QVA_V_STRUCT) name = qvahost::struct_name(v->value.s.sdef);
         return qvahost::make_string(name.empty() ? "ANONYMOUS" : name);
       }},
      // TEMPORARY(x): x's value, leaving x undefined.
      {"TEMPORARY", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         Val copy = copy_of(argv[0]);
         if (!(argv[0]->flags & QVA_V_TEMP)) QVA_Delvar(argv[0]);
         return copy.give_temp();
       }},
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
      conversion("FLOAT", QVA_TYP_FLOAT),
      conversion("DOUBLE", QVA_TYP_DOUBLE),
      array_maker("BYTARR", QVA_TYP_BYTE),
      array_maker("INTARR", QVA_TYP_INT),
      array_maker("LONARR", QVA_TYP_LONG),
      array_maker("LON64ARR", QVA_TYP_LONG64),
      array_maker("FLTARR", QVA_TYP_FLOAT),
      array_maker("DBLARR", QVA_TYP_DOUBLE),
      array_maker("STRARR", QVA_TYP_STRING),
      array_maker("OBJARR", QVA_TYP_OBJREF),
      {"PTRARR", true, 1, QVA_MAX_ARRAY_DIM, true, ptrarr},
      index_maker("BINDGEN", QVA_TYP_BYTE),
      index_maker("INDGEN", QVA_TYP_INT),
      index_maker("LINDGEN", QVA_TYP_LONG),
      index_maker("L64INDGEN", QVA_TYP_LONG64),
      index_maker("FINDGEN", QVA_TYP_FLOAT),
      index_maker("DINDGEN", QVA_TYP_DOUBLE),
      {"MAKE_ARRAY", true, 0, QVA_MAX_ARRAY_DIM, true, make_array_fn},
      {"REPLICATE", true, 2, QVA_MAX_ARRAY_DIM + 1, false, replicate},
      {"REFORM", true, 1, QVA_MAX_ARRAY_DIM + 1, false, reform},
      {"TRANSPOSE", true, 1, 2, false, transpose},
  };
}

}  // namespace qva
