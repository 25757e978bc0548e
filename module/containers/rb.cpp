// rb.cpp - map_rb: the red-black tree in process memory.
#include "containers/rb.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "containers/rb_algorithm.h"

namespace {

// Node access for MAP_RB_NODE records: a node's name is its address.
struct map_rb_policy {
  using Id = MAP_RB_NODE *;
  using Node = MAP_RB_NODE;
  using Word = void *;
  static constexpr Id none = nullptr;

  static Node *at(Id n) { return n; }
  // The search calls this for both children of the node it compares at.
  // A child that is an internal node is compared against its lmax entry
  // next: as soon as the child's record is in, the line of its lmax entry's
  // key is fetched too, so that the search waits for one record per level,
  // not two.  A 48-byte record may straddle two cache lines: both are
  // fetched.  The lmax fetch is not chosen by the child's kind: a branch on
  // a record still on its way mispredicts near the leaves and then waits
  // for it.  For an entry the word is its key and the fetch is wasted, but
  // a prefetch never faults.
  static void prefetch(Id n) {
    __builtin_prefetch(n);
    __builtin_prefetch(&n->val);
    // Plain address arithmetic: for an entry the word may be any number.
    auto lmax_key = reinterpret_cast<uintptr_t>(n->lmax) + offsetof(Node, key);
    __builtin_prefetch(reinterpret_cast<const void *>(lmax_key));
  }
  static Id &flink(Node *n) { return n->flink; }
  static Id &blink(Node *n) { return n->blink; }
  static Id &parent(Node *n) { return n->parent; }
  static Id &lmax(Node *n) { return n->lmax; }
  static Id &rmin(Node *n) { return n->rmin; }
  static Word &key(Node *n) { return n->key; }
  static bool is(const Node *n, map_rb_flag f) { return (n->status & f) != 0; }
  static void set(Node *n, map_rb_flag f, bool on) {
    n->status = static_cast<unsigned char>(on ? (n->status | f) : (n->status & ~f));
  }

  static Node *alloc() {
    auto *n = static_cast<Node *>(QVA_MemAllocQuiet(sizeof(Node)));
    if (n) *n = Node{};
    return n;
  }
  static Id make_ext(Word key, Word val, Node **out) {
    Node *n = alloc();
    if (n) {
      n->key = key;
      n->val = val;
    }
    *out = n;
    return n;
  }
  static Id make_int(Node **out) { return *out = alloc(); }
  static void release(Id n, const char *tag) { QVA_MemFreeMSG_INFO(n, tag); }

  // Action 2 never comes back: the host abandons the routine.  Should it
  // ever return, stopping is safer than touching a tree known to be broken.
  [[noreturn]] static void fail(const char *text, Id) {
    QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, text);
    std::abort();
  }

  static constexpr const char *tag_insert = "map_rb_insert_b";
  static constexpr const char *tag_delete = "map_rb_delete_node";
  static constexpr const char *tag_free = "map_rb_free_tree";

  static constexpr const char *text_insert_internal = "map_rb_insert_b called on an internal node";
  static constexpr const char *text_delete_internal = "Cannot delete an internal node.";
  static constexpr const char *text_delete_head = "Cannot delete an the head of a map_rb_tree.";
  static constexpr const char *text_sib_black_internal = "DELETION PROB -- sib is black, internal";
  static constexpr const char *text_sib_not_internal = "DELETION ERROR: sibling not internal";
  static constexpr const char *text_23c = "DELETION ERROR: 2.3c not quite right";
  static constexpr const char *text_nblack = "ERROR: map_rb_nblack called on a non-external node";
  static constexpr const char *text_plength =
      "ERROR: map_rb_map_rb_plength called on a non-external node";
  static constexpr const char *text_free_nonhead =
      "ERROR: map_rb_free_tree called on a non-head node";
  static constexpr const char *text_swap_nonhead = "map_rb_swap called on non-head";
};

using algo = rb_tree<map_rb_policy>;

// The head's key: the empty string, never written through.
char *head_key() { return const_cast<char *>(""); }

void *ikey_word(QVA_LONG key) { return reinterpret_cast<void *>(static_cast<intptr_t>(key)); }
QVA_LONG ikey_of(const void *word) {
  return static_cast<QVA_LONG>(reinterpret_cast<intptr_t>(word));
}

}  // namespace

MAP_RB_NODE *map_make_rb(void) {
  MAP_RB_NODE *h = map_rb_policy::alloc();
  if (!h) return nullptr;
  h->flink = h->blink = h->parent = h;
  h->status = MAP_RB_HEAD;
  h->key = head_key();
  return h;
}

MAP_RB_NODE *map_rb_find_key_n(MAP_RB_NODE *tree, const char *key, int *found) {
  auto cmp = [key](void *stored) { return std::strcmp(key, static_cast<const char *>(stored)); };
  return algo::find(tree, cmp, found, "map_rb_find_key_n called on non-head");
}

MAP_RB_NODE *map_rb_find_key(MAP_RB_NODE *tree, const char *key) {
  int found;
  return map_rb_find_key_n(tree, key, &found);
}

MAP_RB_NODE *map_rb_find_ikey_n(MAP_RB_NODE *tree, QVA_LONG key, int *found) {
  auto cmp = [key](void *stored) {
    QVA_LONG s = ikey_of(stored);
    return (key > s) - (key < s);
  };
  return algo::find(tree, cmp, found, "map_rb_find_ikey_n called on non-head");
}

MAP_RB_NODE *map_rb_find_ikey(MAP_RB_NODE *tree, QVA_LONG key) {
  int found;
  return map_rb_find_ikey_n(tree, key, &found);
}

MAP_RB_NODE *map_rb_find_gkey_n(MAP_RB_NODE *tree, const void *key, map_rb_compare_fn cmp,
                                int *found) {
  auto c = [key, cmp](void *stored) { return cmp(key, stored); };
  return algo::find(tree, c, found, "map_rb_find_gkey_n called on non-head");
}

MAP_RB_NODE *map_rb_find_gkey(MAP_RB_NODE *tree, const void *key, map_rb_compare_fn cmp) {
  int found;
  return map_rb_find_gkey_n(tree, key, cmp, &found);
}

MAP_RB_NODE *map_rb_insert_b(MAP_RB_NODE *n, void *key, void *val) {
  return algo::insert_b(n, key, val);
}

MAP_RB_NODE *map_rb_insert_a(MAP_RB_NODE *n, void *key, void *val) {
  if (n->status & MAP_RB_INTERNAL) map_rb_policy::fail("map_rb_insert_a called on an internal node", n);
  return algo::insert_b(n->flink, key, val);
}

MAP_RB_NODE *map_rb_insert(MAP_RB_NODE *tree, const char *key, void *val) {
  return algo::insert_b(map_rb_find_key(tree, key), const_cast<char *>(key), val);
}

MAP_RB_NODE *map_rb_inserti(MAP_RB_NODE *tree, QVA_LONG key, void *val) {
  return algo::insert_b(map_rb_find_ikey(tree, key), ikey_word(key), val);
}

MAP_RB_NODE *map_rb_insertg(MAP_RB_NODE *tree, void *key, void *val, map_rb_compare_fn cmp) {
  return algo::insert_b(map_rb_find_gkey(tree, key, cmp), key, val);
}

void map_rb_delete_node(MAP_RB_NODE *n) { algo::delete_node(n); }

void map_rb_free_tree(MAP_RB_NODE *tree) { algo::free_tree(tree); }

void *map_rb_val(MAP_RB_NODE *n) { return n->val; }

int map_rb_nblack(MAP_RB_NODE *n) { return algo::nblack(n); }

int map_rb_plength(MAP_RB_NODE *n) { return algo::plength(n); }

void map_rb_swap(MAP_RB_NODE *a, MAP_RB_NODE *b) { algo::swap(a, b); }
