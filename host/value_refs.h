// value_refs.h - visiting the heap references held inside a value.
//
// Pointers and object references can sit in a scalar, in an array, or in
// structure fields at any depth (arrays of structures, nested structures).
// Saving, restoring and heap garbage collection all need to reach every one
// of them; this is the one place that knows where they are.
#pragma once

#include <cstring>

#include "internal.h"
#include "struct_walk.h"

namespace qvahost {

// Calls f(QVA_HVID &ref) for every pointer or object reference in n
// elements of structure sdef at data.
template <class F>
void refs_in_structs(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n, F &f) {
  if (!sdef->has_refs) return;
  auto into = [](const TagInfo &tag) { return tag.sdef->has_refs; };
  auto visit = [&f](const TagInfo &tag, QVA_UCHAR *p) {
    if (tag.type != QVA_TYP_PTR && tag.type != QVA_TYP_OBJREF) return;
    for (QVA_MEMINT k = 0; k < tag.n_elts; ++k)
      f(*reinterpret_cast<QVA_HVID *>(p + k * sizeof(QVA_HVID)));
  };
  walk_struct_fields(sdef, data, n, into, visit);
}

// Calls f(QVA_HVID &ref) for every pointer or object reference in v.
template <class F>
void refs_in_value(QVA_VARIABLE *v, F &&f) {
  if (v->flags & QVA_V_STRUCT) {
    refs_in_structs(v->value.s.sdef, struct_data(v), struct_count(v), f);
  } else if (v->type == QVA_TYP_PTR || v->type == QVA_TYP_OBJREF) {
    if (v->flags & QVA_V_ARR) {
      auto *ids = reinterpret_cast<QVA_HVID *>(v->value.arr->data);
      for (QVA_MEMINT k = 0; k < v->value.arr->n_elts; ++k) f(ids[k]);
    } else {
      f(v->value.hvid);
    }
  }
}

}  // namespace qvahost
