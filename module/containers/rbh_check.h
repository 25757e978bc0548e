// rbh_check.h - the structural check of a heap tree that came from a file.
//
// A restored session gives back whatever links the file held: a tree field
// may name a node inside another tree, or a tree whose links loop, and
// every walk over such a tree (FLINK to the head, the descent of a search,
// a rebalancing climb) may never end.  Before the module trusts a tree it
// did not build, it checks every invariant of rbh.h in one pass linear in
// the number of nodes: the head, each node a QVA_MAP_RBH_NODE with status
// bytes of 0 or 1, parent and child links that agree, side and root flags,
// colours and black heights, lmax/rmin, the FLINK/BLINK list equal to the
// entries in tree order and closed by the head, and the keys strictly
// ascending.  The check follows only child links from the root, each node
// reached once (a child must name its parent back), so it ends on any
// input.
#pragma once

#include "containers/rbh.h"

// What the entries of a tree must hold, beyond the tree's own invariants.
struct map_rbh_shape {
  // Keys strictly ascending under this comparison (null: any order).
  map_rbh_compare_fn cmp;
  // Null when an entry's key and value are acceptable, else the fault;
  // called on each entry, in order, before its key is compared (null: all
  // accepted).
  const char *(*entry_fault)(void *ctx, QVA_HVID key, QVA_HVID val);
  void *ctx;
};

// Null when the tree at `head` is sound and its entries fit `shape`, else
// a short text naming the first fault found.  Reports no error itself;
// only `shape`'s callbacks may.
const char *map_rbh_check(QVA_HVID head, const map_rbh_shape &shape);
