// rbh.h - map_rbh: the red-black tree of rb.h with its nodes in the host heap.
//
// Every node is a pointer heap variable holding one QVA_MAP_RBH_NODE
// structure, and every link is a heap identifier, so a tree is saved and
// restored with the session like any other heap data.  The algorithm is
// map_rb's (rb_algorithm.h); keys and values are 32-bit words kept in
// heap-pointer fields, and the tree never creates, reads or deletes what
// they name.
#pragma once

#include <qva/qva.h>

#include <cstddef>

// The data of a node, at the host's offsets of the QVA_MAP_RBH_NODE tags.
//
//   tag      head               entry (external)        internal
//   FLINK    first entry/self   next entry / head       left child
//   BLINK    last entry/self    previous entry / head   right child
//   PARENT   root / self        parent (head for root)  parent (head for root)
//   KEY      0                  the caller's key word   lmax
//   VAL      0                  the caller's value word rmin
//   STATUS0..4: red, internal, left, root, head; each 0 or 1.
//
// The invariants are map_rb's (rb.h) with pointers read as heap
// identifiers: the head's PARENT is the root (itself when empty); k entries
// hang under k-1 internal nodes; the entries left to right are the FLINK
// list from the head; lmax/rmin are the last/first entry of an internal
// node's left/right subtree; entries are black, no red node has a red
// parent and every path down crosses the same number of black nodes.  A new
// node is all zero until the tree sets its fields.  Callers outside the
// tree read FLINK and KEY of entries and may rewrite an entry's KEY with a
// key that compares the same; everything else belongs to the tree.
struct QVA_MAP_RBH_NODE {
  QVA_HVID FLINK;
  QVA_HVID BLINK;
  QVA_HVID PARENT;
  QVA_HVID KEY;
  QVA_HVID VAL;
  QVA_UCHAR STATUS0;  // red
  QVA_UCHAR STATUS1;  // internal
  QVA_UCHAR STATUS2;  // left
  QVA_UCHAR STATUS3;  // root
  QVA_UCHAR STATUS4;  // head
};
static_assert(offsetof(QVA_MAP_RBH_NODE, FLINK) == 0 && offsetof(QVA_MAP_RBH_NODE, BLINK) == 4 &&
                  offsetof(QVA_MAP_RBH_NODE, PARENT) == 8 && offsetof(QVA_MAP_RBH_NODE, KEY) == 12 &&
                  offsetof(QVA_MAP_RBH_NODE, VAL) == 16 &&
                  offsetof(QVA_MAP_RBH_NODE, STATUS0) == 20 &&
                  offsetof(QVA_MAP_RBH_NODE, STATUS4) == 24,
              "node fields must sit at the host's offsets of the QVA_MAP_RBH_NODE tags");

// Searched key word first, stored key word second; negative, zero, positive.
typedef int (*map_rbh_compare_fn)(QVA_HVID key, QVA_HVID stored);

// A new empty tree (its head's hvid).  Failures to make the node are raised
// by the host; 0 when the host reports one without raising.
QVA_HVID map_make_rbh(void);

// Search as map_rb_find_gkey_n: the entry found (*found = 1) or the
// insertion point (the first greater entry, or the head).
QVA_HVID map_rbh_find_gkey_n(QVA_HVID tree, QVA_HVID key, map_rbh_compare_fn cmp, int *found);
QVA_HVID map_rbh_find_gkey(QVA_HVID tree, QVA_HVID key, map_rbh_compare_fn cmp);
// The same search with a comparison that keeps what it knows about the
// searched key in `ctx` between calls: cmp(ctx, stored key word).
typedef int (*map_rbh_compare_ctx_fn)(void *ctx, QVA_HVID stored);
QVA_HVID map_rbh_find_ctx_n(QVA_HVID tree, map_rbh_compare_ctx_fn cmp, void *ctx, int *found);
// Keys compared as unsigned 32-bit numbers (map_rbh_hcmp).
QVA_HVID map_rbh_find_key_n(QVA_HVID tree, QVA_HVID key, int *found);
QVA_HVID map_rbh_find_key(QVA_HVID tree, QVA_HVID key);

// Insertion as map_rb's.  Both new nodes are made before anything is
// linked, so a host error raised while making them leaves the tree as it
// was and no node behind.
QVA_HVID map_rbh_insert_b(QVA_HVID n, QVA_HVID key, QVA_HVID val);
QVA_HVID map_rbh_insert_a(QVA_HVID n, QVA_HVID key, QVA_HVID val);
QVA_HVID map_rbh_insert(QVA_HVID tree, QVA_HVID key, QVA_HVID val);
QVA_HVID map_rbh_insertg(QVA_HVID tree, QVA_HVID key, QVA_HVID val, map_rbh_compare_fn cmp);

void map_rbh_delete_node(QVA_HVID n);
// Deletes every node heap variable and the head; keys and values stay.
void map_rbh_free_tree(QVA_HVID tree);

QVA_HVID map_rbh_val(QVA_HVID n);
int map_rbh_nblack(QVA_HVID n);
int map_rbh_plength(QVA_HVID n);

// Exchanges the entries of two trees; the heads stay with their owners.
void map_rbh_swap(QVA_HVID a, QVA_HVID b);

// The node structure's definition once a node has been made or looked at
// (null before): what the inline look-up below compares against.
extern QVA_SDEF map_rbh_node_sdef_seen;

// The data of node `n`, or null when `n` names no tree node (no heap
// variable, an object, or a value that is not one QVA_MAP_RBH_NODE).
QVA_MAP_RBH_NODE *map_rbh_peek(QVA_HVID n);
// map_rbh_deref's slow path: peek, else report (host error -3).
QVA_MAP_RBH_NODE *map_rbh_deref_slow(QVA_HVID n);

// The data of node `n`.  A heap identifier that names no heap variable, or
// one that does not hold a tree node, is reported as host error -3.  Inline:
// every step of every tree walk is one.  A node's data sits in its heap
// record (the host keeps one small structure element there), so the whole
// step reads one cache line; any other form goes the slow way.
// The fast path alone: the node's data when it sits in its record, else
// null (the node may still be one in another form: ask map_rbh_peek).
inline QVA_MAP_RBH_NODE *map_rbh_node_in_record(QVA_HVID n) {
  QVA_HEAP_VAR *hv = QVA_HeapVarSlot(n);
  if (__builtin_expect(!hv, 0)) return nullptr;
  // Every test reads the one record line, so they are combined without
  // short cuts into a single well-predicted branch.
  const bool node = (hv->hash_id == n) & (n != 0) & !(hv->flags & QVA_HV_OBJECT) &
                    (hv->var.flags2 == QVA_V2_INLINE) &
                    (hv->var.value.s.sdef == map_rbh_node_sdef_seen);
  return __builtin_expect(node, 1) ? reinterpret_cast<QVA_MAP_RBH_NODE *>(hv->idata) : nullptr;
}

// A hint that node `n`'s record is needed soon; its data sits in the record,
// so one hint fetches all of it.  A prefetch never faults, whatever `n` is.
// Always inlined: as a function of its own it has no effect the compiler
// must keep, and calls to it are dropped.
[[gnu::always_inline]] inline void map_rbh_prefetch(QVA_HVID n) {
  if (const QVA_HEAP_VAR *slot = QVA_HeapVarSlot(n)) __builtin_prefetch(slot);
}

inline QVA_MAP_RBH_NODE *map_rbh_deref(QVA_HVID n) {
  if (QVA_MAP_RBH_NODE *node = map_rbh_node_in_record(n); __builtin_expect(node != nullptr, 1))
    return node;
  return map_rbh_deref_slow(n);
}

// -1, 0, 1 as a < b, a == b, a > b, unsigned.
int map_rbh_hcmp(QVA_HVID a, QVA_HVID b);

