// Heap garbage collection: what no variable reaches goes.
//
// Roots are the main-level variables, the variables the root hook reports
// (procedures that are running), and every heap variable flagged
// QVA_HV_HELD: a module holds those itself, so they stay, and so does what
// they reach.  Unreachable objects are destroyed first, running their
// CLEANUP; unreachable pointer heap variables are freed after.
#include <unordered_set>

#include "internal.h"
#include "value_refs.h"

namespace qvahost {
namespace {

std::function<void(const RootVisitor &)> &root_hook() {
  static std::function<void(const RootVisitor &)> hook;
  return hook;
}

}  // namespace

void set_gc_root_hook(std::function<void(const RootVisitor &)> hook) {
  root_hook() = std::move(hook);
}

size_t heap_gc() {
  std::unordered_set<QVA_HVID> reached;
  std::vector<QVA_HVID> to_scan;
  auto reach = [&](QVA_HVID &id) {
    if (id && !reached.count(id) && heap_find(id)) {
      reached.insert(id);
      to_scan.push_back(id);
    }
  };
  for (QVA_VPTR v : main_variables()) refs_in_value(v, reach);
  if (root_hook()) root_hook()([&](QVA_VPTR v) { refs_in_value(v, reach); });
  std::vector<QVA_HVID> all = heap_all();
  for (QVA_HVID id : all)
    if (heap_find(id)->hv.flags & QVA_HV_HELD) reach(id);
  while (!to_scan.empty()) {
    QVA_HVID id = to_scan.back();
    to_scan.pop_back();
    refs_in_value(&heap_find(id)->hv.var, reach);
  }

  size_t freed = 0;
  for (QVA_HVID id : all) {
    HeapVar *h = heap_find(id);  // an earlier CLEANUP may have destroyed it
    if (reached.count(id) || !h || !(h->hv.flags & QVA_HV_OBJECT)) continue;
    QVA_VPTR ref = make_objref(id);
    std::string report = try_call([&] { QVA_ObjDestroy(1, &ref, nullptr); });
    QVA_Deltmp(ref);
    (void)report;  // a failing CLEANUP is reported by try_call; collection goes on
    ++freed;
  }
  for (QVA_HVID id : all) {
    HeapVar *h = heap_find(id);
    if (reached.count(id) || !h || (h->hv.flags & QVA_HV_OBJECT)) continue;
    heap_delete(id);
    ++freed;
  }
  return freed;
}

}  // namespace qvahost
