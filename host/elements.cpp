// Element and field access for front ends: subscripts, structure fields
// and conversions of whole values, with the texts and nested structures
// inside them copied and released as the host's own copies are.
#include <algorithm>
#include <cstring>

#include "dispatch.h"

namespace qvahost {
namespace {

// Where the elements of a value are.
struct Elts {
  int type = 0;
  QVA_SDEF sdef = nullptr;  // for structures
  QVA_UCHAR *data = nullptr;
  QVA_MEMINT n = 0;
  size_t size = 0;
  bool array = false;
};

Elts elts_of(QVA_VPTR v) {
  if (!v || v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", var_label(v).c_str());
  Elts e;
  e.type = v->type;
  if (v->flags & QVA_V_STRUCT) {
    e.sdef = v->value.s.sdef;
    e.data = struct_data(v);
    e.n = struct_count(v);
    e.size = e.sdef->length;
    e.array = true;
  } else if (v->flags & QVA_V_ARR) {
    e.data = v->value.arr->data;
    e.n = v->value.arr->n_elts;
    e.size = static_cast<size_t>(v->value.arr->elt_len);
    e.array = true;
  } else {
    e.data = reinterpret_cast<QVA_UCHAR *>(&v->value);
    e.n = 1;
    e.size = type_size(v->type);
  }
  return e;
}

std::string sdef_label(QVA_SDEF sd) {
  return sd && !sd->name_str.empty() ? sd->name_str : "<anonymous>";
}

// Copies one element into zeroed memory, duplicating what it owns.  On
// failure the destination is left zeroed.
void copy_elt(int type, QVA_SDEF sdef, const QVA_UCHAR *src, QVA_UCHAR *dst, size_t size) {
  std::memcpy(dst, src, size);
  try {
    if (type == QVA_TYP_STRING) QVA_StrDup(reinterpret_cast<QVA_STRING *>(dst), 1);
    if (type == QVA_TYP_STRUCT && sdef->has_texts) sdef_dup_texts(sdef, dst, 1);
  } catch (...) {
    std::memset(dst, 0, size);
    throw;
  }
}

void release_elt(int type, QVA_SDEF sdef, QVA_UCHAR *p) {
  if (type == QVA_TYP_STRING) {
    auto *s = reinterpret_cast<QVA_STRING *>(p);
    text_release(s->s);
    *s = QVA_STRING{};
  } else if (type == QVA_TYP_STRUCT && sdef->has_texts) {
    sdef_release_texts(sdef, p, 1);
  }
}

// Replaces the element at dst (of type dtype) by the element at src,
// converted.
void assign_elt(int dtype, QVA_SDEF dsdef, QVA_UCHAR *dst, size_t dsize, int stype,
                QVA_SDEF ssdef, const QVA_UCHAR *src) {
  if (dst == src) return;
  if (dtype == QVA_TYP_STRUCT || stype == QVA_TYP_STRUCT) {
    if (dtype != stype || dsdef != ssdef)
      raise_fmt(M_STRUCT_CONFLICT, "Conflicting data structures: %s.", sdef_label(dsdef).c_str());
    // Copied aside first: the source may live inside the destination.
    std::vector<QVA_UCHAR> copy(dsize);
    copy_elt(stype, ssdef, src, copy.data(), dsize);
    release_elt(dtype, dsdef, dst);
    std::memcpy(dst, copy.data(), dsize);
    return;
  }
  QVA_ALLTYPES converted{};
  convert_elt(stype, src, dtype, &converted);
  release_elt(dtype, dsdef, dst);
  std::memcpy(dst, &converted, dsize);
}

void check_index(QVA_VPTR v, QVA_MEMINT i, QVA_MEMINT n) {
  if (i < 0 || i >= n)
    raise_fmt(M_BAD_ARG, "Subscript %lld is out of range for %s (%lld elements).",
              static_cast<long long>(i), var_label(v).c_str(), static_cast<long long>(n));
}

// A new zeroed one-dimensional array temporary of n elements.
QVA_VPTR new_array(int type, QVA_SDEF sdef, QVA_MEMINT n) {
  QVA_VPTR out = nullptr;
  if (type == QVA_TYP_STRUCT)
    QVA_MakeTempStructVector(sdef, n, &out, 1);
  else
    QVA_MakeTempVector(type, n, 1, &out);
  return out;
}

QVA_UCHAR *array_data(QVA_VPTR v) {
  return (v->flags & QVA_V_STRUCT) ? struct_data(v) : v->value.arr->data;
}

const TagInfo &tag_of(QVA_VPTR sv, QVA_MEMINT elt, const std::string &tag, QVA_UCHAR **where) {
  if (!sv || !(sv->flags & QVA_V_STRUCT))
    raise_fmt(M_BAD_ARG, "Expression must be a structure in this context: %s.",
              var_label(sv).c_str());
  QVA_SDEF sd = sv->value.s.sdef;
  const TagInfo *t = sdef_tag(sd, tag.c_str());
  if (!t)
    raise_fmt(M_NO_TAG, "Tag name %s is undefined for structure %s.", upper_name(tag).c_str(),
              sdef_label(sd).c_str());
  check_index(sv, elt, struct_count(sv));
  *where = struct_data(sv) + static_cast<size_t>(elt) * sd->length + t->offset;
  return *t;
}

}  // namespace

std::vector<FieldInfo> struct_field_info(QVA_SDEF sdef) {
  std::vector<FieldInfo> out;
  if (!sdef) return out;
  for (const TagInfo &t : sdef->tags) {
    FieldInfo f;
    f.name = t.name_str;
    f.type = t.type;
    f.sdef = t.sdef;
    f.dims.assign(t.dims, t.dims + t.n_dim);
    f.offset = static_cast<QVA_MEMINT>(t.offset);
    out.push_back(std::move(f));
  }
  return out;
}

QVA_MEMINT element_count(QVA_VPTR v) {
  if (!v || v->type == QVA_TYP_UNDEF) return 0;
  return elts_of(v).n;
}

QVA_VPTR element_values(QVA_VPTR v, const std::vector<QVA_MEMINT> &indices, bool scalar_if_one) {
  Elts e = elts_of(v);
  for (QVA_MEMINT i : indices) check_index(v, i, e.n);
  if (indices.empty()) raise(M_BAD_ARG, "No elements selected.");
  if (scalar_if_one && indices.size() == 1 && e.type != QVA_TYP_STRUCT) {
    TempGuard out(tmp_new());
    copy_elt(e.type, nullptr, e.data + static_cast<size_t>(indices[0]) * e.size,
             reinterpret_cast<QVA_UCHAR *>(&out.get()->value), e.size);
    out.get()->type = static_cast<QVA_UCHAR>(e.type);
    return out.release();
  }
  TempGuard out(new_array(e.type, e.sdef, static_cast<QVA_MEMINT>(indices.size())));
  QVA_UCHAR *dst = array_data(out.get());
  for (size_t k = 0; k < indices.size(); ++k)
    copy_elt(e.type, e.sdef, e.data + static_cast<size_t>(indices[k]) * e.size, dst + k * e.size,
             e.size);
  return out.release();
}

void store_elements(QVA_VPTR v, const std::vector<QVA_MEMINT> &indices, QVA_VPTR value) {
  Elts d = elts_of(v);
  Elts s = elts_of(value);
  for (QVA_MEMINT i : indices) check_index(v, i, d.n);
  bool broadcast = s.n == 1;
  if (!broadcast && static_cast<size_t>(s.n) != indices.size())
    raise_fmt(M_BAD_ARG, "Array subscripts select %zu elements, the value has %lld.",
              indices.size(), static_cast<long long>(s.n));
  if (v == value) {
    // The value would change under its own store: store from a copy.
    TempGuard copy(tmp_new());
    var_copy_value(value, copy.get());
    store_elements(v, indices, copy.get());
    return;
  }
  for (size_t k = 0; k < indices.size(); ++k)
    assign_elt(d.type, d.sdef, d.data + static_cast<size_t>(indices[k]) * d.size, d.size, s.type,
               s.sdef, s.data + (broadcast ? 0 : k * s.size));
}

QVA_VPTR field_value(QVA_VPTR sv, QVA_MEMINT elt, const std::string &tag) {
  QVA_UCHAR *p = nullptr;
  const TagInfo &t = tag_of(sv, elt, tag, &p);
  if (t.n_dim == 0 && t.type != QVA_TYP_STRUCT) {
    TempGuard out(tmp_new());
    copy_elt(t.type, nullptr, p, reinterpret_cast<QVA_UCHAR *>(&out.get()->value), t.elt_size);
    out.get()->type = static_cast<QVA_UCHAR>(t.type);
    return out.release();
  }
  TempGuard out(new_array(t.type, t.sdef, t.n_elts));
  QVA_UCHAR *dst = array_data(out.get());
  for (QVA_MEMINT k = 0; k < t.n_elts; ++k)
    copy_elt(t.type, t.sdef, p + k * t.elt_size, dst + k * t.elt_size, t.elt_size);
  return out.release();
}

void store_field(QVA_VPTR sv, QVA_MEMINT elt, const std::string &tag, QVA_VPTR value) {
  Elts s = elts_of(value);
  QVA_UCHAR *p = nullptr;
  const TagInfo &t = tag_of(sv, elt, tag, &p);
  if (s.n != 1 && s.n != t.n_elts)
    raise_fmt(M_STRUCT_CONFLICT, "Conflicting data structures: %s.%s.",
              sdef_label(sv->value.s.sdef).c_str(), t.name_str.c_str());
  if (s.data >= p && s.data < p + t.n_elts * t.elt_size) return;  // a field stored into itself
  for (QVA_MEMINT k = 0; k < t.n_elts; ++k)
    assign_elt(t.type, t.sdef, p + k * t.elt_size, t.elt_size, s.type, s.sdef,
               s.data + (s.n == 1 ? 0 : k * s.size));
}

QVA_VPTR convert_value(QVA_VPTR v, int type) {
  Elts e = elts_of(v);
  if (!type_size(type) || type == QVA_TYP_PTR || type == QVA_TYP_OBJREF)
    raise_fmt(M_BAD_ARG, "Unable to convert to type code %d.", type);
  if (e.type == QVA_TYP_STRUCT)
    raise_fmt(M_CONVERSION, "Type conversion error: Unable to convert given %s to %s.",
              type_name(QVA_TYP_STRUCT), type_name(type));
  size_t size = type_size(type);
  if (!e.array) {
    TempGuard out(tmp_new());
    convert_elt(e.type, e.data, type, &out.get()->value);
    out.get()->type = static_cast<QVA_UCHAR>(type);
    return out.release();
  }
  TempGuard out(new_array(type, nullptr, e.n));
  QVA_UCHAR *dst = array_data(out.get());
  for (QVA_MEMINT k = 0; k < e.n; ++k) convert_elt(e.type, e.data + k * e.size, type, dst + k * size);
  const QVA_ARRAY *from = v->value.arr;  // same shape as the value converted
  out.get()->value.arr->n_dim = from->n_dim;
  std::copy(from->dim, from->dim + from->n_dim, out.get()->value.arr->dim);
  return out.release();
}

void raise_error(const std::string &text, int code) { raise(code, text); }

std::string running_routine() { return current_routine(); }

std::string argument_label(QVA_VPTR v) { return var_label(v); }

void guarded(const std::function<void()> &body) {
  CallBoundary boundary;
  try {
    allocation_errors_raised(body);
  } catch (const HostError &) {
    boundary.abandon();
    throw;
  }
}

}  // namespace qvahost
