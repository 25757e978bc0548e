// struct_walk.h - visiting the fields of structure elements at any depth.
//
// Structure definitions may nest as deep as a program makes them (a loop
// of s = {a: s} makes 100,000 levels), so the walk keeps its own stack
// instead of recursing; fields come in the order of a recursive walk.
#pragma once

#include <vector>

#include "internal.h"

namespace qvahost {

// For n elements of sdef at data: visit(tag, address) for every field that
// is not a structure, and for a structure field, its own fields when
// into(tag) says so (fields of nested structures before the next field).
template <class Into, class Visit>
void walk_struct_fields(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n, Into &into, Visit &visit) {
  struct Frame {
    QVA_SDEF sdef;
    QVA_UCHAR *data;
    QVA_MEMINT n, i;  // elements, the one being walked
    size_t tag;       // the next tag of element i
  };
  std::vector<Frame> stack{{sdef, data, n, 0, 0}};
  while (!stack.empty()) {
    Frame &f = stack.back();
    if (f.i >= f.n) {
      stack.pop_back();
      continue;
    }
    if (f.tag == f.sdef->tags.size()) {
      f.tag = 0;
      ++f.i;
      continue;
    }
    const TagInfo &t = f.sdef->tags[f.tag++];
    QVA_UCHAR *p = f.data + f.i * static_cast<QVA_MEMINT>(f.sdef->length) + t.offset;
    if (t.type != QVA_TYP_STRUCT)
      visit(t, p);
    else if (into(t))
      stack.push_back({t.sdef, p, t.n_elts, 0, 0});  // f is not used past this point
  }
}

}  // namespace qvahost
