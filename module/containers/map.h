// map.h - an ordered map over the in-memory red-black tree (rb.h).
//
// A map handle is the tree's head; an entry is an external node whose key
// and value are the caller's opaque words.  Entries form a ring in key
// order closed by the handle: walk from mapBegin along flink until the
// handle comes back; to erase the current entry during a walk, step back
// to its blink first and continue from that node's flink.  mapInsert keeps
// one entry per key (an equal entry is replaced).  The map never copies or
// frees keys and values; owners release theirs before erasing.  Every call
// on one map must pass the same comparison (rb.h: searched key first).
#pragma once

#include "containers/rb.h"

// A new empty map, or null when memory runs out.
MAP_RB_NODE *mapInit(void);
// The first / last entry; the handle itself when the map is empty; null for
// a null map.
MAP_RB_NODE *mapBegin(MAP_RB_NODE *map);
MAP_RB_NODE *mapEnd(MAP_RB_NODE *map);
// Number of entries, by walking (0 for a null map).
int mapSize(MAP_RB_NODE *map);
// 1 when the map has no entry (also for a null map), else 0.
int mapEmpty(MAP_RB_NODE *map);
// Deletes one entry; null is ignored.
void mapErase(MAP_RB_NODE *entry);
// Replaces an entry with an equal key (erased first), then inserts.  The
// new entry, or null when memory runs out (a replaced entry is gone then).
MAP_RB_NODE *mapInsert(MAP_RB_NODE *map, void *key, void *val, map_rb_compare_fn cmp);
// The entry with an equal key, or null (also for a null map).
MAP_RB_NODE *mapFind(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp);
MAP_RB_NODE *mapLower(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp);
// Key present: the entry before it, or null when it is the first entry.
// Key absent: the first greater entry, or the handle when none is greater.
// Null for a null map.
MAP_RB_NODE *mapUpper(MAP_RB_NODE *map, const void *key, map_rb_compare_fn cmp);
// The entry's value / key; null for a null entry.
void *mapData(MAP_RB_NODE *entry);
void *mapKey(MAP_RB_NODE *entry);
// Deletes every entry and the head; null is ignored.
void mapFree(MAP_RB_NODE *map);

// A new map holding the entries from `first` through `last` along flink;
// the run also ends at the end of the map, so `last` may be the handle (to
// the end) and an empty map's begin..end gives an empty copy.  Null when
// `first` is null or memory runs out; a copy given up on is freed.
MAP_RB_NODE *mapRange(MAP_RB_NODE *first, MAP_RB_NODE *last, map_rb_compare_fn cmp);
// mapRange over the whole map; null for a null map.
MAP_RB_NODE *mapCopy(MAP_RB_NODE *map, map_rb_compare_fn cmp);
// Exchanges the entries of two maps (each handle keeps its identity and now
// holds the other's entries); both must be ordered by the same comparison.
// A null map is ignored.
void mapSwap(MAP_RB_NODE *a, MAP_RB_NODE *b);
