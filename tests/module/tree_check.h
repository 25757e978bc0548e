// tree_check.h - structural checks of the two red-black trees, shared by
// the tests of map_rb, map_rbh and the maps over them.
//
// A view V names nodes by V::Id and reads their fields:
//   flink, blink, parent, lmax, rmin (Id) -> Id
//   red, internal, left, root, head (Id) -> bool
//   nblack, plength (Id) -> int      (the tree's own checks)
//   bytes (Id) -> std::string        (every field, for snapshots)
#pragma once

#include <containers/maph.h>
#include <containers/map.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace treecheck {

struct RbView {
  using Id = MAP_RB_NODE *;
  static Id flink(Id n) { return n->flink; }
  static Id blink(Id n) { return n->blink; }
  static Id parent(Id n) { return n->parent; }
  static Id lmax(Id n) { return n->lmax; }
  static Id rmin(Id n) { return n->rmin; }
  static bool red(Id n) { return n->status & MAP_RB_RED; }
  static bool internal(Id n) { return n->status & MAP_RB_INTERNAL; }
  static bool left(Id n) { return n->status & MAP_RB_LEFT; }
  static bool root(Id n) { return n->status & MAP_RB_ROOT; }
  static bool head(Id n) { return n->status & MAP_RB_HEAD; }
  static int nblack(Id n) { return map_rb_nblack(n); }
  static int plength(Id n) { return map_rb_plength(n); }
  static std::string bytes(Id n) {
    std::string s;
    for (const void *w : {(const void *)n->flink, (const void *)n->blink, (const void *)n->parent,
                          (const void *)n->key, (const void *)n->val})
      s.append(reinterpret_cast<const char *>(&w), sizeof w);
    return s + char(n->status);
  }
};

struct RbhView {
  using Id = QVA_HVID;
  static QVA_MAP_RBH_NODE *d(Id n) { return map_rbh_deref(n); }
  static Id flink(Id n) { return d(n)->FLINK; }
  static Id blink(Id n) { return d(n)->BLINK; }
  static Id parent(Id n) { return d(n)->PARENT; }
  static Id lmax(Id n) { return d(n)->KEY; }
  static Id rmin(Id n) { return d(n)->VAL; }
  static bool red(Id n) { return d(n)->STATUS0; }
  static bool internal(Id n) { return d(n)->STATUS1; }
  static bool left(Id n) { return d(n)->STATUS2; }
  static bool root(Id n) { return d(n)->STATUS3; }
  static bool head(Id n) { return d(n)->STATUS4; }
  static int nblack(Id n) { return map_rbh_nblack(n); }
  static int plength(Id n) { return map_rbh_plength(n); }
  static std::string bytes(Id n) {
    return std::string(reinterpret_cast<const char *>(d(n)), sizeof(QVA_MAP_RBH_NODE));
  }
};

// Checks every invariant of the tree at `head`; returns "" or the first
// violation.  `entries` receives the entries in tree order.
template <class V>
class Checker {
  using Id = typename V::Id;

 public:
  std::string run(Id head, std::vector<Id> *entries) {
    head_ = head;
    if (!V::head(head) || V::red(head) || V::internal(head) || V::root(head) || V::left(head))
      return "head flags wrong";
    Id r = V::parent(head);
    if (r == head) {
      if (V::flink(head) != head || V::blink(head) != head) return "empty head not self-linked";
      if (entries) entries->clear();
      return "";
    }
    if (!V::root(r) || V::parent(r) != head) return "root flag or root parent wrong";
    if (walk(r, 1) < 0) return error_;
    if (internals_ + 1 != order_.size()) return "not k-1 internal nodes for k entries";
    // The list from the head, both ways, equals the tree order.
    Id e = V::flink(head);
    for (Id want : order_) {
      if (e != want) return "flink list differs from tree order";
      e = V::flink(e);
    }
    if (e != head) return "flink list does not end at the head";
    e = V::blink(head);
    for (auto it = order_.rbegin(); it != order_.rend(); ++it, e = V::blink(e))
      if (e != *it) return "blink list differs from tree order";
    for (Id x : order_)
      if (V::nblack(x) != black_height_ || V::plength(x) != depth_[x])
        return "map_rb_nblack/plength disagree with the shape";
    if (entries) *entries = order_;
    return "";
  }

 private:
  // Returns the black height below n (n included), or -1 with error_ set.
  int walk(Id n, int depth) {
    if (!seen_.insert(n).second || depth > 128) return fail("a node is reached twice");
    if (V::head(n)) return fail("a head inside the tree");
    if ((n == V::parent(head_)) != V::root(n)) return fail("root flag on a non-root node");
    if (!V::internal(n)) {
      if (V::red(n)) return fail("a red entry");
      order_.push_back(n);
      depth_[n] = depth;
      if (black_height_ < 0) black_height_ = black_so_far_ + 1;
      return 1;
    }
    ++internals_;
    Id l = V::flink(n), r = V::blink(n);
    if (V::parent(l) != n || V::parent(r) != n) return fail("child's parent link wrong");
    if (!V::left(l) || V::left(r)) return fail("child's side flag wrong");
    if (V::red(n) && (V::red(l) || V::red(r))) return fail("red node with a red child");
    if (V::lmax(n) != last_entry(l) || V::rmin(n) != first_entry(r)) return fail("lmax/rmin wrong");
    black_so_far_ += !V::red(n);
    int hl = walk(l, depth + 1);
    if (hl < 0) return -1;
    int hr = walk(r, depth + 1);
    if (hr < 0) return -1;
    black_so_far_ -= !V::red(n);
    if (hl != hr) return fail("black heights differ");
    return hl + !V::red(n);
  }
  static Id first_entry(Id n) {
    while (V::internal(n)) n = V::flink(n);
    return n;
  }
  static Id last_entry(Id n) {
    while (V::internal(n)) n = V::blink(n);
    return n;
  }
  int fail(const char *what) {
    if (error_.empty()) error_ = what;
    return -1;
  }

  Id head_{};
  std::vector<Id> order_;
  std::set<Id> seen_;
  std::map<Id, int> depth_;
  size_t internals_ = 0;
  int black_so_far_ = 0;
  int black_height_ = -1;
  std::string error_;
};

template <class V>
std::string check(typename V::Id head, std::vector<typename V::Id> *entries = nullptr) {
  return Checker<V>().run(head, entries);
}

// Every field of every node of the tree (head included), by node.
template <class V>
std::map<typename V::Id, std::string> snapshot(typename V::Id head) {
  std::map<typename V::Id, std::string> s;
  s[head] = V::bytes(head);
  std::vector<typename V::Id> todo;
  if (V::parent(head) != head) todo.push_back(V::parent(head));
  while (!todo.empty()) {
    auto n = todo.back();
    todo.pop_back();
    s[n] = V::bytes(n);
    if (V::internal(n)) {
      todo.push_back(V::flink(n));
      todo.push_back(V::blink(n));
    }
  }
  return s;
}

}  // namespace treecheck
