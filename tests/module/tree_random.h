// tree_random.h - a randomized differential run of a red-black tree against
// std::multimap: insertion by key (with duplicates), positional insertion
// before and after, deletion at random places and search, with every
// invariant checked after every step.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "qva_host.h"
#include "tree_check.h"

namespace treecheck {

inline void *word(intptr_t v) { return reinterpret_cast<void *>(v); }
inline int int_of(const void *w) { return static_cast<int>(reinterpret_cast<intptr_t>(w)); }

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

template <class T>
class DifferentialRun {
  using Id = typename T::Id;
  using V = typename T::View;
  using Model = std::multimap<int, int>;
  // Keys stay positive: the heap tree orders them as unsigned words.
  static constexpr int kMinKey = 1, kMaxKey = 60;

 public:
  explicit DifferentialRun(uint32_t seed) : rng_(seed), tree_(T::make()) {}
  ~DifferentialRun() {
    try {
      T::free(tree_);
    } catch (const qvahost::HostError &e) {  // a tree already found broken
      ADD_FAILURE() << "freeing the tree: " << e.text;
    }
  }

  // Grows the tree to about `peak` entries and shrinks it to empty, `rounds`
  // times; stops at the first failed step.
  void run(int rounds, int peak) {
    for (int r = 0; r < rounds && !::testing::Test::HasFailure(); ++r) {
      while (model_.size() < static_cast<size_t>(peak) && step(70)) {}
      while (!model_.empty() && step(25)) {}
    }
  }

 private:
  // One random operation; `insert_pct` of them insert.  False on failure.
  bool step(int insert_pct) {
    ++steps_;
    int r = pick(0, 99);
    if (r < insert_pct) {
      int how = pick(0, 2);
      if (how == 0) insert_by_key();
      else if (how == 1) insert_before();
      else insert_after();
    } else if (r < insert_pct + 15 || model_.empty()) {
      find();
    } else {
      erase();
    }
    return verify();
  }

  void insert_by_key() {
    int id = next_id_++;
    Id e = T::insert_key(tree_, pick(kMinKey, kMaxKey), id);
    ASSERT_NE(e, Id{}) << "step " << steps_;
    Id after = V::flink(e);  // the node the search chose to insert before
    add(id, e, after == tree_ ? model_.end() : where_.at(T::id(after)));
  }

  void insert_before() {
    Id n = random_position();
    auto it = n == tree_ ? model_.end() : where_.at(T::id(n));
    int lo = it == model_.begin() ? kMinKey : std::prev(it)->first;
    int hi = it == model_.end() ? kMaxKey : it->first;
    int id = next_id_++;
    Id e = T::insert_b(n, pick(lo, hi), id);
    ASSERT_EQ(V::flink(e), n) << "step " << steps_;
    add(id, e, it);
  }

  void insert_after() {
    Id n = random_position();
    auto it = n == tree_ ? model_.begin() : std::next(where_.at(T::id(n)));
    int lo = n == tree_ ? kMinKey : T::key(n);
    int hi = it == model_.end() ? kMaxKey : it->first;
    int id = next_id_++;
    Id e = T::insert_a(n, pick(lo, hi), id);
    ASSERT_EQ(V::blink(e), n) << "step " << steps_;
    add(id, e, it);
  }

  void find() {
    int key = pick(kMinKey - 1, kMaxKey + 1);
    int found = -1;
    Id e = T::find(tree_, key, &found);
    ASSERT_EQ(found, model_.count(key) ? 1 : 0) << "key " << key << ", step " << steps_;
    if (found) {
      EXPECT_EQ(T::key(e), key) << "step " << steps_;
    } else {
      auto ub = model_.upper_bound(key);
      EXPECT_EQ(e, ub == model_.end() ? tree_ : node_.at(ub->second))
          << "a failed search must return the first greater entry; step " << steps_;
    }
  }

  void erase() {
    size_t i = pick(0, static_cast<int>(ids_.size()) - 1);
    int id = ids_[i];
    T::erase(node_.at(id));
    model_.erase(where_.at(id));
    where_.erase(id);
    node_.erase(id);
    ids_[i] = ids_.back();
    ids_.pop_back();
  }

  void add(int id, Id e, Model::iterator hint) {
    where_[id] = model_.emplace_hint(hint, T::key(e), id);
    node_[id] = e;
    ids_.push_back(id);
  }

  Id random_position() {
    int i = pick(0, static_cast<int>(ids_.size()));
    return i == static_cast<int>(ids_.size()) ? tree_ : node_.at(ids_[i]);
  }

  bool verify() {
    if (::testing::Test::HasFailure()) return false;
    std::vector<Id> entries;
    std::string problem = check<V>(tree_, &entries);
    EXPECT_EQ(problem, "") << "step " << steps_;
    EXPECT_EQ(entries.size(), model_.size()) << "step " << steps_;
    if (!problem.empty() || entries.size() != model_.size()) return false;
    size_t i = 0;
    for (const auto &[key, id] : model_) {
      if (T::id(entries[i]) != id || T::key(entries[i]) != key) {
        ADD_FAILURE() << "entry " << i << " differs from the model; step " << steps_;
        return false;
      }
      ++i;
    }
    return true;
  }

  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

  std::mt19937 rng_;
  Id tree_;
  Model model_;
  std::unordered_map<int, Model::iterator> where_;
  std::unordered_map<int, Id> node_;
  std::vector<int> ids_;
  int next_id_ = 1;
  int steps_ = 0;
};

}  // namespace treecheck
