// map.cpp - the ordered map over map_rb.
#include "containers/map.h"

MAP_RB_NODE *mapInit(void) { return map_make_rb(); }

MAP_RB_NODE *mapBegin(MAP_RB_NODE *map) { return map ? map->flink : nullptr; }

MAP_RB_NODE *mapEnd(MAP_RB_NODE *map) { return map ? map->blink : nullptr; }

int mapSize(MAP_RB_NODE *map) {
  if (!map) return 0;
  int n = 0;
  for (MAP_RB_NODE *e = map->flink; e != map; e = e->flink) ++n;
  return n;
}

int mapEmpty(MAP_RB_NODE *map) { return !map || map->flink == map; }

void mapErase(MAP_RB_NODE *entry) {
  if (entry) map_rb_delete_node(entry);
}

MAP_RB_NODE *mapInsert(MAP_RB_NODE *map, void *key, void *val, map_rb_compare_fn cmp) {
  int found;
  MAP_RB_NODE *at = map_rb_find_gkey_n(map, key, cmp, &found);
  if (!found) return map_rb_insert_b(at, key, val);  // the search stopped at the insertion point
  mapErase(at);
  return map_rb_insertg(map, key, val, cmp);  // the tree changed: search again
}

MAP_RB_NODE *mapFind(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp) {
  if (!map) return nullptr;
  int found;
  MAP_RB_NODE *e = map_rb_find_gkey_n(map, key, cmp, &found);
  return found ? e : nullptr;
}

MAP_RB_NODE *mapLower(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp) {
  return mapFind(map, key, cmp);
}

MAP_RB_NODE *mapUpper(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp) {
  if (!map) return nullptr;
  int found;
  MAP_RB_NODE *e = map_rb_find_gkey_n(map, key, cmp, &found);
  if (!found) return e;
  return e == map->flink ? nullptr : e->blink;
}

void *mapData(MAP_RB_NODE *entry) { return entry ? map_rb_val(entry) : nullptr; }

void *mapKey(MAP_RB_NODE *entry) { return entry ? entry->key : nullptr; }

void mapFree(MAP_RB_NODE *map) {
  if (map) map_rb_free_tree(map);
}

namespace {
// Frees a copy under construction unless it is kept: on an insertion that
// runs out of memory and on a host error raised by the comparison.
class copy_guard {
 public:
  explicit copy_guard(MAP_RB_NODE *map) : map_(map) {}
  ~copy_guard() { mapFree(map_); }
  copy_guard(const copy_guard &) = delete;
  copy_guard &operator=(const copy_guard &) = delete;
  MAP_RB_NODE *keep() {
    MAP_RB_NODE *m = map_;
    map_ = nullptr;
    return m;
  }

 private:
  MAP_RB_NODE *map_;
};
}  // namespace

MAP_RB_NODE *mapRange(MAP_RB_NODE *first, MAP_RB_NODE *last, map_rb_compare_fn cmp) {
  if (!first) return nullptr;
  MAP_RB_NODE *copy = mapInit();
  if (!copy) return nullptr;
  copy_guard guard(copy);
  for (MAP_RB_NODE *e = first; !(e->status & MAP_RB_HEAD); e = e->flink) {
    if (!mapInsert(copy, e->key, e->val, cmp)) return nullptr;
    if (e == last) break;
  }
  return guard.keep();
}

MAP_RB_NODE *mapCopy(MAP_RB_NODE *map, map_rb_compare_fn cmp) {
  return map ? mapRange(mapBegin(map), mapEnd(map), cmp) : nullptr;
}

void mapSwap(MAP_RB_NODE *a, MAP_RB_NODE *b) {
  if (a && b) map_rb_swap(a, b);
}
