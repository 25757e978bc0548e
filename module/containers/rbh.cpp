// rbh.cpp - map_rbh: the red-black tree with nodes in host heap variables.
#include "containers/rbh.h"

#include <cstdlib>

#include "containers/rb_algorithm.h"

QVA_SDEF map_rbh_node_sdef_seen = nullptr;

namespace {

[[noreturn]] void rbh_fail(const char *format, QVA_HVID n) {
  // Texts with "0x%x" show the node; the others ignore the argument.
  QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, format, static_cast<unsigned>(n));
  std::abort();  // action 2 never returns
}

// The node structure: five heap pointers, then one status byte per flag.
QVA_STRUCT_TAG_DEF map_rbh_node_tags[] = {
    {"FLINK", nullptr, QVA_TYP_PTR, 0},   {"BLINK", nullptr, QVA_TYP_PTR, 0},
    {"PARENT", nullptr, QVA_TYP_PTR, 0},  {"KEY", nullptr, QVA_TYP_PTR, 0},
    {"VAL", nullptr, QVA_TYP_PTR, 0},     {"STATUS0", nullptr, QVA_TYP_BYTE, 0},
    {"STATUS1", nullptr, QVA_TYP_BYTE, 0}, {"STATUS2", nullptr, QVA_TYP_BYTE, 0},
    {"STATUS3", nullptr, QVA_TYP_BYTE, 0}, {"STATUS4", nullptr, QVA_TYP_BYTE, 0},
    {nullptr, nullptr, 0, 0},
};

// The node structure's definition.  The host hands back the one definition
// of that name after the first, and definitions live as long as the
// process, so it is asked for once.
QVA_SDEF map_rbh_node_sdef() {
  if (!map_rbh_node_sdef_seen)
    map_rbh_node_sdef_seen = QVA_MakeStructInternal(
        "QVA_MAP_RBH_NODE", QVA_SDEF_REUSE | QVA_SDEF_HIDDEN, map_rbh_node_tags, QVA_MSG_LONGJMP);
  return map_rbh_node_sdef_seen;
}

// One zeroed node in a new heap pointer variable.  *out receives the
// node's data.
QVA_HVID map_rbh_new(QVA_MAP_RBH_NODE **out) {
  QVA_SDEF sdef = map_rbh_node_sdef();
  if (!sdef) return 0;
  QVA_HVPTR hv = QVA_HeapVarNewStruct(QVA_TYP_PTR, sdef, QVA_MSG_LONGJMP);
  if (!hv) return 0;
  *out = reinterpret_cast<QVA_MAP_RBH_NODE *>(QVA_HeapVarStructData(hv));
  return hv->hash_id;
}

// An entry holding key and value (black, external, not root, not head).
QVA_HVID map_rbh_mk_new_ext(QVA_HVID key, QVA_HVID val, QVA_MAP_RBH_NODE **out) {
  QVA_HVID h = map_rbh_new(out);
  if (!h) return 0;
  QVA_MAP_RBH_NODE *n = *out;
  n->VAL = val;
  n->KEY = key;
  n->STATUS1 = n->STATUS0 = n->STATUS3 = n->STATUS4 = 0;
  return h;
}

// Node access for heap nodes: a node's name is its hvid, and every record
// is reached through map_rbh_deref.
struct map_rbh_policy {
  using Id = QVA_HVID;
  using Node = QVA_MAP_RBH_NODE;
  using Word = QVA_HVID;
  static constexpr Id none = 0;

  static Node *at(Id n) { return map_rbh_deref(n); }
  [[gnu::always_inline]] static void prefetch(Id n) { map_rbh_prefetch(n); }
  static Id &flink(Node *n) { return n->FLINK; }
  static Id &blink(Node *n) { return n->BLINK; }
  static Id &parent(Node *n) { return n->PARENT; }
  static Id &lmax(Node *n) { return n->KEY; }
  static Id &rmin(Node *n) { return n->VAL; }
  static Word &key(Node *n) { return n->KEY; }

  static QVA_UCHAR &status(Node *n, map_rb_flag f) {
    switch (f) {
      case MAP_RB_RED: return n->STATUS0;
      case MAP_RB_INTERNAL: return n->STATUS1;
      case MAP_RB_LEFT: return n->STATUS2;
      case MAP_RB_ROOT: return n->STATUS3;
      case MAP_RB_HEAD: break;
    }
    return n->STATUS4;
  }
  static bool is(Node *n, map_rb_flag f) { return status(n, f) != 0; }
  static void set(Node *n, map_rb_flag f, bool on) { status(n, f) = on ? 1 : 0; }

  static Id make_ext(Word key, Word val, Node **out) { return map_rbh_mk_new_ext(key, val, out); }
  static Id make_int(Node **out) { return map_rbh_new(out); }
  static void release(Id n, const char *) { QVA_HeapVarDelete(n, 0, 0); }
  [[noreturn]] static void fail(const char *format, Id n) { rbh_fail(format, n); }

  static constexpr const char *tag_insert = nullptr;
  static constexpr const char *tag_delete = nullptr;
  static constexpr const char *tag_free = nullptr;

  static constexpr const char *text_insert_internal =
      "map_rbh_insert_b called on an internal node 0x%x";
  static constexpr const char *text_delete_internal = "Cannot delete an internal node: 0x%x";
  static constexpr const char *text_delete_head = "Cannot delete the head of an map_rbh_tree: 0x%x";
  static constexpr const char *text_sib_black_internal = "DELETION PROB -- sib is black, internal";
  static constexpr const char *text_sib_not_internal = "DELETION ERROR: sibling not internal";
  static constexpr const char *text_23c = "DELETION ERROR: 2.3c not quite right";
  static constexpr const char *text_nblack =
      "ERROR: map_rbh_nblack called on a non-external node 0x%x";
  static constexpr const char *text_plength =
      "ERROR: map_rbh_plength called on a non-external node 0x%x";
  static constexpr const char *text_free_nonhead =
      "ERROR: map_rbh_free_tree called on a non-head node";
  static constexpr const char *text_swap_nonhead = "map_rbh_swap called on non-head 0x%x";
};

using algo = rb_tree<map_rbh_policy>;

}  // namespace

QVA_MAP_RBH_NODE *map_rbh_peek(QVA_HVID n) {
  QVA_HVPTR hv = QVA_HeapVarFind(n);
  if (!hv || (hv->flags & QVA_HV_OBJECT)) return nullptr;
  const QVA_VARIABLE &v = hv->var;
  if (!(v.flags & QVA_V_STRUCT) || !QVA_HeapVarStructIsOne(hv)) return nullptr;
  // Only the node structure itself: a file may hold other structures of
  // the same size, whose bytes mean something else.
  if (v.value.s.sdef != map_rbh_node_sdef()) return nullptr;
  return reinterpret_cast<QVA_MAP_RBH_NODE *>(QVA_HeapVarStructData(hv));
}

QVA_MAP_RBH_NODE *map_rbh_deref_slow(QVA_HVID n) {
  QVA_MAP_RBH_NODE *node = map_rbh_peek(n);
  if (node) return node;
  if (!QVA_HeapVarFind(n)) rbh_fail("map_rbh_deref: no heap variable 0x%x", n);
  rbh_fail("map_rbh_deref: heap variable 0x%x is not a map_rbh node", n);
}

int map_rbh_hcmp(QVA_HVID a, QVA_HVID b) { return (a > b) - (a < b); }

QVA_HVID map_make_rbh(void) {
  QVA_MAP_RBH_NODE *n = nullptr;
  QVA_HVID h = map_rbh_new(&n);
  if (!h) return 0;
  n->FLINK = n->BLINK = n->PARENT = h;
  n->KEY = 0;
  n->STATUS4 = 1;
  return h;
}

QVA_HVID map_rbh_find_gkey_n(QVA_HVID tree, QVA_HVID key, map_rbh_compare_fn cmp, int *found) {
  auto c = [key, cmp](QVA_HVID stored) { return cmp(key, stored); };
  return algo::find(tree, c, found, "map_rbh_find_gkey_n called on non-head");
}

QVA_HVID map_rbh_find_ctx_n(QVA_HVID tree, map_rbh_compare_ctx_fn cmp, void *ctx, int *found) {
  auto c = [cmp, ctx](QVA_HVID stored) { return cmp(ctx, stored); };
  return algo::find(tree, c, found, "map_rbh_find_gkey_n called on non-head");
}

QVA_HVID map_rbh_find_gkey(QVA_HVID tree, QVA_HVID key, map_rbh_compare_fn cmp) {
  int found;
  return map_rbh_find_gkey_n(tree, key, cmp, &found);
}

QVA_HVID map_rbh_find_key_n(QVA_HVID tree, QVA_HVID key, int *found) {
  auto c = [key](QVA_HVID stored) { return map_rbh_hcmp(key, stored); };
  return algo::find(tree, c, found, "map_rbh_find_key_n called on non-head 0x%x");
}

QVA_HVID map_rbh_find_key(QVA_HVID tree, QVA_HVID key) {
  int found;
  return map_rbh_find_key_n(tree, key, &found);
}

QVA_HVID map_rbh_insert_b(QVA_HVID n, QVA_HVID key, QVA_HVID val) {
  return algo::insert_b(n, key, val);
}

QVA_HVID map_rbh_insert_a(QVA_HVID n, QVA_HVID key, QVA_HVID val) {
  QVA_MAP_RBH_NODE *node = map_rbh_deref(n);
  if (node->STATUS1) rbh_fail("map_rbh_insert_a called on an internal node 0x%x", n);
  return algo::insert_b(node->FLINK, key, val);
}

QVA_HVID map_rbh_insert(QVA_HVID tree, QVA_HVID key, QVA_HVID val) {
  return algo::insert_b(map_rbh_find_key(tree, key), key, val);
}

QVA_HVID map_rbh_insertg(QVA_HVID tree, QVA_HVID key, QVA_HVID val, map_rbh_compare_fn cmp) {
  return algo::insert_b(map_rbh_find_gkey(tree, key, cmp), key, val);
}

void map_rbh_delete_node(QVA_HVID n) { algo::delete_node(n); }

void map_rbh_free_tree(QVA_HVID tree) { algo::free_tree(tree); }

QVA_HVID map_rbh_val(QVA_HVID n) { return map_rbh_deref(n)->VAL; }

int map_rbh_nblack(QVA_HVID n) { return algo::nblack(n); }

int map_rbh_plength(QVA_HVID n) { return algo::plength(n); }

void map_rbh_swap(QVA_HVID a, QVA_HVID b) { algo::swap(a, b); }
