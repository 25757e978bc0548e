// maph.cpp - the ordered map over map_rbh.
#include "containers/maph.h"

#include "containers/maph_trust.h"

QVA_HVID maphInit(void) { return map_make_rbh(); }

QVA_HVID maphBegin(QVA_HVID map) { return map ? map_rbh_deref(map)->FLINK : 0; }

QVA_HVID maphEnd(QVA_HVID map) { return map ? map_rbh_deref(map)->BLINK : 0; }

int maphSize(QVA_HVID map) {
  if (!map) return 0;
  int n = 0;
  for (QVA_HVID e = map_rbh_deref(map)->FLINK; e != map; e = map_rbh_deref(e)->FLINK) ++n;
  return n;
}

int maphEmpty(QVA_HVID map) { return !map || map_rbh_deref(map)->FLINK == map; }

void maphErase(QVA_HVID entry) {
  if (entry) map_rbh_delete_node(entry);
}

QVA_HVID maphInsert(QVA_HVID map, QVA_HVID key, QVA_HVID val, map_rbh_compare_fn cmp) {
  int found;
  QVA_HVID at = map_rbh_find_gkey_n(map, key, cmp, &found);
  if (!found) return map_rbh_insert_b(at, key, val);  // the search stopped at the insertion point
  maphErase(at);
  return map_rbh_insertg(map, key, val, cmp);  // the tree changed: search again
}

QVA_HVID maphFind(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp) {
  if (!map) return 0;
  int found;
  QVA_HVID e = map_rbh_find_gkey_n(map, key, cmp, &found);
  return found ? e : 0;
}

QVA_HVID maphLower(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp) {
  return maphFind(map, key, cmp);
}

QVA_HVID maphUpper(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp) {
  if (!map) return 0;
  int found;
  QVA_HVID e = map_rbh_find_gkey_n(map, key, cmp, &found);
  if (!found) return e;
  return e == map_rbh_deref(map)->FLINK ? 0 : map_rbh_deref(e)->BLINK;
}

QVA_HVID maphData(QVA_HVID entry) { return entry ? map_rbh_val(entry) : 0; }

QVA_HVID maphKey(QVA_HVID entry) { return entry ? map_rbh_deref(entry)->KEY : 0; }

void maphFree(QVA_HVID map) {
  if (!map) return;
  map_rbh_free_tree(map);
  maphDistrust(map);
}

namespace {
// Frees a copy under construction unless it is kept, so that a host error
// raised while inserting into it leaves no node behind.
class copy_guard {
 public:
  explicit copy_guard(QVA_HVID map) : map_(map) {}
  ~copy_guard() { maphFree(map_); }
  copy_guard(const copy_guard &) = delete;
  copy_guard &operator=(const copy_guard &) = delete;
  QVA_HVID keep() {
    QVA_HVID m = map_;
    map_ = 0;
    return m;
  }

 private:
  QVA_HVID map_;
};
}  // namespace

QVA_HVID maphRange(QVA_HVID first, QVA_HVID last, map_rbh_compare_fn cmp) {
  if (!first) return 0;
  QVA_HVID copy = maphInit();
  if (!copy) return 0;
  copy_guard guard(copy);
  for (QVA_HVID e = first;;) {
    const QVA_MAP_RBH_NODE *n = map_rbh_deref(e);
    if (n->STATUS4) break;  // the end of the map
    QVA_HVID next = n->FLINK;
    if (!maphInsert(copy, n->KEY, n->VAL, cmp)) return 0;
    if (e == last) break;
    e = next;
  }
  return guard.keep();
}

QVA_HVID maphCopy(QVA_HVID map, map_rbh_compare_fn cmp) {
  return map ? maphRange(maphBegin(map), maphEnd(map), cmp) : 0;
}

void maphSwap(QVA_HVID a, QVA_HVID b) {
  if (a && b) map_rbh_swap(a, b);
}
