// maph.h - the ordered map of map.h over the heap tree (rbh.h).
//
// A map handle is the hvid of a tree head (0: no map); an entry is the hvid
// of an external node whose KEY and VAL are the caller's 32-bit words
// (heap identifiers, or 0 as a value).  Walk from maphBegin along each
// entry's FLINK (through map_rbh_deref) until the handle comes back; to
// erase during a walk, step back through BLINK first.  The map never
// creates, reads or deletes what keys and values name: owners delete their
// key and value variables themselves before erasing or freeing.  Every
// call on one map must pass the same comparison (rbh.h).
#pragma once

#include "containers/rbh.h"

// A new empty map; 0 when no head could be made.
QVA_HVID maphInit(void);
// First / last entry; the handle itself when empty; 0 for map 0.
QVA_HVID maphBegin(QVA_HVID map);
QVA_HVID maphEnd(QVA_HVID map);
// Number of entries, by walking (0 for map 0).
int maphSize(QVA_HVID map);
// 1 when the map has no entry (also for map 0), else 0.
int maphEmpty(QVA_HVID map);
// Deletes one entry; 0 is ignored.
void maphErase(QVA_HVID entry);
// Erases an entry with an equal key, then inserts; the new entry.  A host
// error while making nodes leaves the key absent.
QVA_HVID maphInsert(QVA_HVID map, QVA_HVID key, QVA_HVID val, map_rbh_compare_fn cmp);
// The entry with an equal key, or 0 (also for map 0).
QVA_HVID maphFind(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp);
QVA_HVID maphLower(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp);
// Key present: the entry before it, or 0 for the first entry.  Key absent:
// the first greater entry, or the handle when none is greater.  0 for map 0.
QVA_HVID maphUpper(QVA_HVID map, QVA_HVID key, map_rbh_compare_fn cmp);
// The entry's VAL / KEY; 0 for entry 0.
QVA_HVID maphData(QVA_HVID entry);
QVA_HVID maphKey(QVA_HVID entry);
// Deletes every node heap variable and the head; 0 is ignored.
void maphFree(QVA_HVID map);

// As mapRange / mapCopy (map.h): a new map of the entries from `first`
// through `last` along FLINK, the run ending also at the end of the map.
// 0 when `first` is 0; a copy given up on (a host error while inserting) is
// freed before the error goes on.
QVA_HVID maphRange(QVA_HVID first, QVA_HVID last, map_rbh_compare_fn cmp);
QVA_HVID maphCopy(QVA_HVID map, map_rbh_compare_fn cmp);
// Exchanges the entries of two maps; map 0 is ignored.
void maphSwap(QVA_HVID a, QVA_HVID b);
