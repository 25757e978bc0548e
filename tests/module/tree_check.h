// tree_check.h - the two red-black trees behind one interface, a checker of
// every structural invariant, and a randomized differential run against a
// model list (insertion by key with duplicates, positional insertion,
// deletion and search, with the checker after every step).
#pragma once

#include <containers/map.h>
#include <containers/maph.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qva_host.h"

namespace treecheck {

inline void *word(intptr_t v) { return reinterpret_cast<void *>(v); }
inline int int_of(const void *w) { return static_cast<int>(reinterpret_cast<intptr_t>(w)); }

// A view names nodes by Id and reads their fields; bytes() gives every field
// for snapshots.
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
        return "nblack/plength disagree with the shape";
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
    int hr = hl < 0 ? -1 : walk(r, depth + 1);
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
  int black_so_far_ = 0, black_height_ = -1;
  std::string error_;
};

template <class V>
std::string check(typename V::Id head, std::vector<typename V::Id> *entries = nullptr) {
  return Checker<V>().run(head, entries);
}

// Every field of every node of the tree (head included), by node.
template <class V>
std::map<typename V::Id, std::string> snapshot(typename V::Id head) {
  std::map<typename V::Id, std::string> s{{head, V::bytes(head)}};
  std::vector<typename V::Id> todo;
  if (V::parent(head) != head) todo.push_back(V::parent(head));
  while (!todo.empty()) {
    auto n = todo.back();
    todo.pop_back();
    s[n] = V::bytes(n);
    if (V::internal(n)) todo.insert(todo.end(), {V::flink(n), V::blink(n)});
  }
  return s;
}

// The two trees behind one interface; values are the model's entry ids.
struct RbTree {
  using Id = MAP_RB_NODE *;
  using View = RbView;
  static Id make() { return map_make_rb(); }
  static Id insert_key(Id t, int k, int id) { return map_rb_inserti(t, k, word(id)); }
  static Id insert_b(Id n, int k, int id) { return map_rb_insert_b(n, word(k), word(id)); }
  static Id insert_a(Id n, int k, int id) { return map_rb_insert_a(n, word(k), word(id)); }
  static Id find(Id t, int k, int *found) { return map_rb_find_ikey_n(t, k, found); }
  static void erase(Id e) { map_rb_delete_node(e); }
  static void free(Id t) { map_rb_free_tree(t); }
  static int key(Id e) { return int_of(e->key); }
  static int id(Id e) { return int_of(map_rb_val(e)); }
};

struct RbhTree {
  using Id = QVA_HVID;
  using View = RbhView;
  static Id make() { return map_make_rbh(); }
  static Id insert_key(Id t, int k, int id) { return map_rbh_insert(t, k, id); }
  static Id insert_b(Id n, int k, int id) { return map_rbh_insert_b(n, k, id); }
  static Id insert_a(Id n, int k, int id) { return map_rbh_insert_a(n, k, id); }
  static Id find(Id t, int k, int *found) { return map_rbh_find_key_n(t, k, found); }
  static void erase(Id e) { map_rbh_delete_node(e); }
  static void free(Id t) { map_rbh_free_tree(t); }
  static int key(Id e) { return static_cast<int>(map_rbh_deref(e)->KEY); }
  static int id(Id e) { return static_cast<int>(map_rbh_val(e)); }
};

// Grows a tree to about `peak` entries and shrinks it to empty, `rounds`
// times, by random operations; the model is the list of entries in order.
template <class T>
void differential_run(uint32_t seed, int rounds, int peak) {
  using Id = typename T::Id;
  using V = typename T::View;
  struct Entry {
    int key, id;
    Id node;
  };
  std::mt19937 rng(seed);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const int kMaxKey = 60;  // keys stay positive: the heap tree orders them as unsigned words
  Id tree = T::make();
  std::vector<Entry> model;
  int steps = 0;
  auto position = [&](Id n) {  // index of entry n in the model, or its size for the head
    size_t i = 0;
    while (i < model.size() && model[i].node != n) ++i;
    return i;
  };
  for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    for (bool grow : {true, false}) {
      while (!::testing::Test::HasFailure() &&
             (grow ? model.size() < size_t(peak) : !model.empty())) {
        SCOPED_TRACE("step " + std::to_string(++steps));
        int r = pick(0, 99), insert_pct = grow ? 70 : 25;
        if (r < insert_pct) {  // by key, before or after a random position
          int how = pick(0, 2), id = steps;
          size_t i = pick(0, int(model.size())), at = i;
          Id e{};
          if (how == 0) {
            e = T::insert_key(tree, pick(1, kMaxKey), id);
            at = position(V::flink(e));  // the search chose to insert before this
          } else {
            Id n = i == model.size() ? tree : model[i].node;
            if (how == 2) at = i == model.size() ? 0 : i + 1;
            int lo = at == 0 ? 1 : model[at - 1].key;
            int hi = at == model.size() ? kMaxKey : model[at].key;
            e = how == 1 ? T::insert_b(n, pick(lo, hi), id) : T::insert_a(n, pick(lo, hi), id);
            EXPECT_EQ(how == 1 ? V::flink(e) : V::blink(e), n);
          }
          model.insert(model.begin() + at, Entry{T::key(e), id, e});
        } else if (r < insert_pct + 15 || model.empty()) {
          int key = pick(0, kMaxKey + 1), found = -1;
          Id e = T::find(tree, key, &found);
          auto ub = std::find_if(model.begin(), model.end(), [&](auto &x) { return x.key > key; });
          bool present = ub != model.begin() && std::prev(ub)->key == key;
          EXPECT_EQ(found, present ? 1 : 0) << "key " << key;
          if (present) {
            EXPECT_EQ(T::key(e), key);
          } else {
            EXPECT_EQ(e, ub == model.end() ? tree : ub->node) << "not found: the first greater";
          }
        } else {
          size_t i = pick(0, int(model.size()) - 1);
          T::erase(model[i].node);
          model.erase(model.begin() + i);
        }
        std::vector<Id> entries;
        ASSERT_EQ(check<V>(tree, &entries), "");
        ASSERT_EQ(entries.size(), model.size());
        for (size_t i = 0; i < model.size(); ++i) {
          ASSERT_TRUE(entries[i] == model[i].node && T::key(entries[i]) == model[i].key &&
                      T::id(entries[i]) == model[i].id)
              << "entry " << i << " differs from the model";
          ASSERT_TRUE(i == 0 || model[i - 1].key <= model[i].key) << "out of order at " << i;
        }
      }
    }
  }
  try {
    T::free(tree);
  } catch (const qvahost::HostError &e) {  // a tree already found broken
    ADD_FAILURE() << "freeing the tree: " << e.text;
  }
}

}  // namespace treecheck
