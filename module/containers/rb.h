// rb.h - map_rb: an ordered container in process memory.
//
// A red-black tree whose entries (external nodes, the leaves) also form a
// doubly linked list in key order, reached through one head node.  Search
// takes a string key (strcmp order), a signed 32-bit integer key, or any key
// with a caller comparison; insertion is positional (before or after an
// entry), so the tree never rejects or merges equal keys.  Keys and values
// are opaque words: the tree never copies, reads (except through the
// comparison) or frees what they point to.
#pragma once

#include <qva/qva.h>

// Status bits of a node, in their order: red (else black), internal (else
// external), left (the node is its parent's left child), root, head.  The
// heap tree (rbh.h) keeps the same five flags as one byte each.
enum map_rb_flag : unsigned {
  MAP_RB_RED = 1,
  MAP_RB_INTERNAL = 2,
  MAP_RB_LEFT = 4,
  MAP_RB_ROOT = 8,
  MAP_RB_HEAD = 16,
};

// One record for every node of every kind, from the host allocator.
//
//   field   head                 entry (external)          internal
//   flink   first entry / head   next entry / head         left child
//   blink   last entry / head    previous entry / head     right child
//   parent  root / head          parent (head for root)    parent (head for root)
//   key     ""                   the caller's key          lmax
//   val     -                    the caller's value        rmin
//
// Invariants between calls:
//  - the head's parent is the root (the head itself when empty); the root's
//    parent is the head and the root alone has MAP_RB_ROOT;
//  - internal nodes have two children, entries are leaves: k entries give
//    k-1 internal nodes;
//  - the entries read left to right are exactly the flink list from the
//    head, and blink is its mirror;
//  - lmax is the last entry of an internal node's left subtree, rmin the
//    first of its right subtree (so lmax->flink == rmin);
//  - entries are black; no red node has a red parent; every path down to an
//    entry crosses the same number of black nodes; the root may be red.
// An entry stays valid until it is deleted: rebalancing moves internal
// nodes only.
struct MAP_RB_NODE {
  MAP_RB_NODE *flink;
  MAP_RB_NODE *blink;
  MAP_RB_NODE *parent;
  unsigned char status;  // map_rb_flag bits
  union {
    void *key;           // head and entries
    MAP_RB_NODE *lmax;   // internal nodes
  };
  union {
    void *val;           // head and entries
    MAP_RB_NODE *rmin;   // internal nodes
  };
};

// Caller order: the searched key first, a stored key second; negative, zero
// or positive as the searched key sorts before, equal to or after it.
typedef int (*map_rb_compare_fn)(const void *key, const void *stored);

// A new empty tree (its head), or null when the host allocator has no memory.
MAP_RB_NODE *map_make_rb(void);

// Search.  Returns the entry found (*found = 1), or the insertion point: the
// first entry whose key is greater, or the head when none is.  The last
// entry is compared first, so ascending appends cost one comparison.
MAP_RB_NODE *map_rb_find_key_n(MAP_RB_NODE *tree, const char *key, int *found);
MAP_RB_NODE *map_rb_find_key(MAP_RB_NODE *tree, const char *key);
MAP_RB_NODE *map_rb_find_ikey_n(MAP_RB_NODE *tree, QVA_LONG key, int *found);
MAP_RB_NODE *map_rb_find_ikey(MAP_RB_NODE *tree, QVA_LONG key);
MAP_RB_NODE *map_rb_find_gkey_n(MAP_RB_NODE *tree, const void *key, map_rb_compare_fn cmp,
                                int *found);
MAP_RB_NODE *map_rb_find_gkey(MAP_RB_NODE *tree, const void *key, map_rb_compare_fn cmp);

// Insertion.  The new entry, or null when memory runs out (the tree is then
// exactly as before).  insert_b puts it immediately before `n` (an entry, or
// the head to append); insert_a immediately after `n` (after the head:
// prepend).  The key-taking forms insert before the node their search
// returns.
MAP_RB_NODE *map_rb_insert_b(MAP_RB_NODE *n, void *key, void *val);
MAP_RB_NODE *map_rb_insert_a(MAP_RB_NODE *n, void *key, void *val);
MAP_RB_NODE *map_rb_insert(MAP_RB_NODE *tree, const char *key, void *val);
MAP_RB_NODE *map_rb_inserti(MAP_RB_NODE *tree, QVA_LONG key, void *val);
MAP_RB_NODE *map_rb_insertg(MAP_RB_NODE *tree, void *key, void *val, map_rb_compare_fn cmp);

// Removes one entry and rebalances.
void map_rb_delete_node(MAP_RB_NODE *n);
// Deletes every entry, then releases the head.  Keys and values stay.
void map_rb_free_tree(MAP_RB_NODE *tree);

void *map_rb_val(MAP_RB_NODE *n);
// Checks of an entry: black nodes / all nodes from it up to the root.
int map_rb_nblack(MAP_RB_NODE *n);
int map_rb_plength(MAP_RB_NODE *n);

// Exchanges the entries of two trees; the heads stay with their owners.
void map_rb_swap(MAP_RB_NODE *a, MAP_RB_NODE *b);
