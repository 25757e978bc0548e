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
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qva_host.h"

namespace treecheck {

inline void *word(intptr_t v) { return reinterpret_cast<void *>(v); }
inline int int_of(const void *w) { return static_cast<int>(reinterpret_cast<intptr_t>(w)); }

// Runs `make` with allocation number `n` failing; a host error raised by it
// (the heap tree's node creation) counts as a null result.
template <class F>
auto fail_after(int n, F make) -> decltype(make()) {
  decltype(make()) result{};
  qvahost::fail_allocation_after(n);
  try {
    result = make();
  } catch (const qvahost::HostError &) {
  }
  qvahost::fail_allocation_after(0);
  return result;
}

// Each tree: its node fields, bytes() (every field, for snapshots) and its
// operations with integer keys and values.
struct RbTree {
  using Id = MAP_RB_NODE *;
  static Id flink(Id n) { return n->flink; }
  static Id blink(Id n) { return n->blink; }
  static Id parent(Id n) { return n->parent; }
  static Id lmax(Id n) { return n->lmax; }
  static Id rmin(Id n) { return n->rmin; }
  static bool flag(Id n, int f) { return n->status & f; }  // f: one of MAP_RB_RED ... MAP_RB_HEAD
  static int nblack(Id n) { return map_rb_nblack(n); }
  static int plength(Id n) { return map_rb_plength(n); }
  static std::string bytes(Id n) {
    std::string s;
    for (const void *w : {(void *)n->flink, (void *)n->blink, (void *)n->parent, n->key, n->val})
      s.append(reinterpret_cast<const char *>(&w), sizeof w);
    return s + char(n->status);
  }
  static Id make() { return map_make_rb(); }
  static Id insert_key(Id t, int k, int v) { return map_rb_inserti(t, k, word(v)); }
  static Id insert_b(Id n, int k, int v) { return map_rb_insert_b(n, word(k), word(v)); }
  static Id insert_a(Id n, int k, int v) { return map_rb_insert_a(n, word(k), word(v)); }
  static Id find(Id t, int k, int *found) { return map_rb_find_ikey_n(t, k, found); }
  static void erase(Id e) { map_rb_delete_node(e); }
  static void free(Id t) { map_rb_free_tree(t); }
  static int key(Id e) { return int_of(e->key); }
  static int val(Id e) { return int_of(map_rb_val(e)); }
};

struct RbhTree {
  using Id = QVA_HVID;
  static QVA_MAP_RBH_NODE *d(Id n) { return map_rbh_deref(n); }
  static Id flink(Id n) { return d(n)->FLINK; }
  static Id blink(Id n) { return d(n)->BLINK; }
  static Id parent(Id n) { return d(n)->PARENT; }
  static Id lmax(Id n) { return d(n)->KEY; }
  static Id rmin(Id n) { return d(n)->VAL; }
  static bool flag(Id n, int f) {
    const QVA_MAP_RBH_NODE *x = d(n);
    return f == MAP_RB_RED        ? x->STATUS0
           : f == MAP_RB_INTERNAL ? x->STATUS1
           : f == MAP_RB_LEFT     ? x->STATUS2
           : f == MAP_RB_ROOT     ? x->STATUS3
                                  : x->STATUS4;
  }
  static int nblack(Id n) { return map_rbh_nblack(n); }
  static int plength(Id n) { return map_rbh_plength(n); }
  static std::string bytes(Id n) {
    return std::string(reinterpret_cast<const char *>(d(n)), sizeof(QVA_MAP_RBH_NODE));
  }
  static Id make() { return map_make_rbh(); }
  static Id insert_key(Id t, int k, int v) { return map_rbh_insert(t, k, v); }
  static Id insert_b(Id n, int k, int v) { return map_rbh_insert_b(n, k, v); }
  static Id insert_a(Id n, int k, int v) { return map_rbh_insert_a(n, k, v); }
  static Id find(Id t, int k, int *found) { return map_rbh_find_key_n(t, k, found); }
  static void erase(Id e) { map_rbh_delete_node(e); }
  static void free(Id t) { map_rbh_free_tree(t); }
  static int key(Id e) { return static_cast<int>(d(e)->KEY); }
  static int val(Id e) { return static_cast<int>(map_rbh_val(e)); }
};

// Checks every invariant of the tree at `head`: flags, parent links and
// sides, the red rule, equal black heights, lmax/rmin, k-1 internal nodes
// for k entries, the list both ways in tree order, and nblack/plength.
// Returns "" or the first violation; `entries` receives the entries in order.
template <class T>
std::string check(typename T::Id head, std::vector<typename T::Id> *entries = nullptr) {
  using Id = typename T::Id;
  std::vector<Id> order;
  std::vector<int> depths;
  std::set<Id> seen;
  size_t internals = 0;
  int black_height = -1;
  std::string error;
  auto edge = [](Id n, bool last) {
    while (T::flag(n, MAP_RB_INTERNAL)) n = last ? T::blink(n) : T::flink(n);
    return n;
  };
  // Returns the black height below n (n included), or -1 with `error` set.
  auto walk = [&](auto &&self, Id n, int depth, int blacks_above) -> int {
    auto fail = [&](const char *what) { return error = what, -1; };
    if (!seen.insert(n).second || depth > 128) return fail("a node is reached twice");
    if (T::flag(n, MAP_RB_HEAD)) return fail("a head inside the tree");
    if ((n == T::parent(head)) != T::flag(n, MAP_RB_ROOT)) return fail("root flag wrong");
    if (!T::flag(n, MAP_RB_INTERNAL)) {
      if (T::flag(n, MAP_RB_RED)) return fail("a red entry");
      order.push_back(n);
      depths.push_back(depth);
      if (black_height < 0) black_height = blacks_above + 1;
      return 1;
    }
    ++internals;
    Id l = T::flink(n), r = T::blink(n);
    const bool red = T::flag(n, MAP_RB_RED);
    if (T::parent(l) != n || T::parent(r) != n) return fail("child's parent link wrong");
    if (!T::flag(l, MAP_RB_LEFT) || T::flag(r, MAP_RB_LEFT)) return fail("child's side flag wrong");
    if (red && (T::flag(l, MAP_RB_RED) || T::flag(r, MAP_RB_RED)))
      return fail("red node with a red child");
    if (T::lmax(n) != edge(l, true) || T::rmin(n) != edge(r, false)) return fail("lmax/rmin wrong");
    int hl = self(self, l, depth + 1, blacks_above + !red);
    int hr = hl < 0 ? -1 : self(self, r, depth + 1, blacks_above + !red);
    if (hr < 0) return -1;
    return hl == hr ? hl + !red : fail("black heights differ");
  };
  for (int f : {MAP_RB_RED, MAP_RB_INTERNAL, MAP_RB_LEFT, MAP_RB_ROOT})
    if (T::flag(head, f) || !T::flag(head, MAP_RB_HEAD)) return "head flags wrong";
  Id r = T::parent(head);
  if (r != head) {
    if (!T::flag(r, MAP_RB_ROOT) || T::parent(r) != head) return "root flag or root parent wrong";
    if (walk(walk, r, 1, 0) < 0) return error;
    if (internals + 1 != order.size()) return "not k-1 internal nodes for k entries";
  }
  Id f = head, b = head;
  for (size_t i = 0; i < order.size(); ++i) {
    f = T::flink(f);
    b = T::blink(b);
    if (f != order[i] || b != order[order.size() - 1 - i]) return "list differs from tree order";
    if (T::nblack(f) != black_height || T::plength(f) != depths[i])
      return "nblack/plength disagree with the shape";
  }
  if (T::flink(f) != head || T::blink(b) != head) return "list does not end at the head";
  if (entries) *entries = order;
  return "";
}

// Every field of every node of the tree (head included), by node.
template <class T>
std::map<typename T::Id, std::string> snapshot(typename T::Id head) {
  std::map<typename T::Id, std::string> s{{head, T::bytes(head)}};
  std::vector<typename T::Id> todo;
  if (T::parent(head) != head) todo.push_back(T::parent(head));
  while (!todo.empty()) {
    auto n = todo.back();
    todo.pop_back();
    s[n] = T::bytes(n);
    if (T::flag(n, MAP_RB_INTERNAL)) todo.insert(todo.end(), {T::flink(n), T::blink(n)});
  }
  return s;
}

// Grows a tree to about `peak` entries and shrinks it to empty, `rounds`
// times, by random operations checked against the list of entries in order.
template <class T>
void differential_run(uint32_t seed, int rounds, int peak) {
  using Id = typename T::Id;
  struct Entry {
    int key, val;
    Id node;
  };
  std::mt19937 rng(seed);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const int kMaxKey = 60;  // keys stay positive: the heap tree orders them as unsigned words
  Id tree = T::make();
  std::vector<Entry> model;
  for (int step = 0, round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    for (bool grow : {true, false}) {
      while (!::testing::Test::HasFailure() &&
             (grow ? model.size() < size_t(peak) : !model.empty())) {
        SCOPED_TRACE("step " + std::to_string(++step));
        int r = pick(0, 99), insert_pct = grow ? 70 : 25;
        if (r < insert_pct) {  // by key, or before or after a random position
          int how = pick(0, 2);
          size_t i = pick(0, int(model.size())), at = i;
          Id e{}, n = i == model.size() ? tree : model[i].node;
          if (how == 0) {
            e = T::insert_key(tree, pick(1, kMaxKey), step);
            Id next = T::flink(e);  // the search chose to insert before this
            for (at = 0; at < model.size() && model[at].node != next;) ++at;
          } else {
            if (how == 2) at = i == model.size() ? 0 : i + 1;
            int lo = at == 0 ? 1 : model[at - 1].key;
            int k = pick(lo, at == model.size() ? kMaxKey : model[at].key);
            e = how == 1 ? T::insert_b(n, k, step) : T::insert_a(n, k, step);
            EXPECT_EQ(how == 1 ? T::flink(e) : T::blink(e), n);
          }
          model.insert(model.begin() + at, Entry{T::key(e), step, e});
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
        ASSERT_EQ(check<T>(tree, &entries), "");
        ASSERT_EQ(entries.size(), model.size());
        for (size_t i = 0; i < model.size(); ++i) {
          ASSERT_TRUE(entries[i] == model[i].node && T::key(entries[i]) == model[i].key &&
                      T::val(entries[i]) == model[i].val)
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
