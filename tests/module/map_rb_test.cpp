// Tests of map_rb, the red-black tree in process memory.
#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "tree_random.h"

namespace {

using treecheck::check;
using treecheck::RbView;
using treecheck::snapshot;
using treecheck::word;

class MapRbTest : public qvatest::HostTest {};

int g_compares = 0;
int counting_strcmp(const void *key, const void *stored) {
  ++g_compares;
  return std::strcmp(static_cast<const char *>(key), static_cast<const char *>(stored));
}

std::vector<std::string> keys_in_order(MAP_RB_NODE *t) {
  std::vector<std::string> out;
  for (MAP_RB_NODE *e = t->flink; e != t; e = e->flink) out.emplace_back(static_cast<char *>(e->key));
  return out;
}

// A tree of integer keys 0, 10, 20, ... (value: the key).
MAP_RB_NODE *ascending_tree(int n) {
  MAP_RB_NODE *t = map_make_rb();
  for (int i = 0; i < n; ++i) map_rb_inserti(t, 10 * i, word(10 * i));
  return t;
}

TEST_F(MapRbTest, MatchesAMultimapUnderRandomOperations) {
  for (uint32_t seed : {11u, 22u, 33u}) {
    SCOPED_TRACE(seed);
    treecheck::DifferentialRun<treecheck::RbTree>(seed).run(3, 150);
  }
}

TEST_F(MapRbTest, SearchOfAnEmptyTreeReturnsTheHeadWithoutComparing) {
  MAP_RB_NODE *t = map_make_rb();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(check<RbView>(t), "");
  EXPECT_STREQ(static_cast<const char *>(t->key), "");
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "k", counting_strcmp, &found), t);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 0);
  found = -1;
  EXPECT_EQ(map_rb_find_key_n(t, "k", &found), t);
  EXPECT_EQ(found, 0);
  found = -1;
  EXPECT_EQ(map_rb_find_ikey_n(t, 3, &found), t);
  EXPECT_EQ(found, 0);
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, TheLastEntryIsComparedFirst) {
  MAP_RB_NODE *t = map_make_rb();
  static const char *const keys[] = {"b", "d", "f", "h", "j", "l", "n", "p"};
  for (const char *k : keys) map_rb_insertg(t, const_cast<char *>(k), nullptr, counting_strcmp);
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "q", counting_strcmp, &found), t) << "above all: the head";
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 1);
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "p", counting_strcmp, &found), t->blink);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(g_compares, 1);
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "e", counting_strcmp, &found)->key, keys[2]);
  EXPECT_EQ(found, 0) << "absent: the first greater entry";
  EXPECT_GT(g_compares, 1);
  g_compares = 0;
  map_rb_insertg(t, const_cast<char *>("z"), nullptr, counting_strcmp);
  EXPECT_EQ(g_compares, 1) << "an ascending append searches with one comparison";
  EXPECT_EQ(check<RbView>(t), "");
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, TheFirstTwoInsertionsShapeTheRoot) {
  MAP_RB_NODE *t = map_make_rb();
  MAP_RB_NODE *a = map_rb_insert(t, "a", word(1));
  EXPECT_EQ(t->parent, a);
  EXPECT_EQ(a->parent, t);
  EXPECT_EQ(a->status, MAP_RB_ROOT) << "a black external root";
  EXPECT_TRUE(t->flink == a && t->blink == a && a->flink == t && a->blink == t);
  MAP_RB_NODE *b = map_rb_insert(t, "b", word(2));
  MAP_RB_NODE *r = t->parent;
  EXPECT_EQ(r->status, MAP_RB_ROOT | MAP_RB_INTERNAL) << "a black internal root";
  EXPECT_TRUE(r->flink == a && r->blink == b && r->lmax == a && r->rmin == b);
  EXPECT_EQ(a->status, MAP_RB_LEFT);
  EXPECT_EQ(b->status, 0);
  EXPECT_EQ(check<RbView>(t), "");
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, PositionalAndEqualKeyInsertion) {
  MAP_RB_NODE *t = map_make_rb();
  MAP_RB_NODE *m = map_rb_insert_b(t, const_cast<char *>("m"), nullptr);
  map_rb_insert_b(t, const_cast<char *>("t"), nullptr);
  map_rb_insert_a(t, const_cast<char *>("c"), nullptr);
  map_rb_insert_a(m, const_cast<char *>("p"), nullptr);
  EXPECT_EQ(keys_in_order(t), (std::vector<std::string>{"c", "m", "p", "t"}));
  int found = 0;
  MAP_RB_NODE *hit = map_rb_find_key_n(t, "m", &found);
  ASSERT_EQ(hit, m);
  MAP_RB_NODE *twin = map_rb_insert(t, "m", word(2));
  EXPECT_EQ(twin->flink, m) << "an equal key goes right before the entry the search found";
  EXPECT_EQ(keys_in_order(t), (std::vector<std::string>{"c", "m", "m", "p", "t"}));
  EXPECT_EQ(check<RbView>(t), "");
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, KeysFollowStrcmpAndSignedOrder) {
  std::vector<std::string> words = {"", "A", "Z", "a", "ab", "abc", "b", "\x7f", "\xc3\xa9"};
  std::vector<std::string> shuffled = words;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
  MAP_RB_NODE *t = map_make_rb();
  for (const std::string &w : shuffled) map_rb_insert(t, w.c_str(), nullptr);
  EXPECT_EQ(keys_in_order(t), words);
  int found = 0;
  for (const std::string &w : words) {
    EXPECT_STREQ(static_cast<char *>(map_rb_find_key_n(t, w.c_str(), &found)->key), w.c_str());
    EXPECT_EQ(found, 1);
  }
  map_rb_free_tree(t);

  std::vector<QVA_LONG> ints = {INT_MIN, -70000, -1, 0, 1, 65536, INT_MAX};
  t = map_make_rb();
  for (size_t i : {3, 0, 6, 2, 5, 1, 4}) map_rb_inserti(t, ints[i], nullptr);
  std::vector<QVA_LONG> got;
  for (MAP_RB_NODE *e = t->flink; e != t; e = e->flink) got.push_back(treecheck::int_of(e->key));
  EXPECT_EQ(got, ints);
  EXPECT_EQ(map_rb_find_ikey(t, -2), t->flink->flink->flink) << "-2 belongs before -1";
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, DeletingDownToEmpty) {
  MAP_RB_NODE *t = map_make_rb();
  MAP_RB_NODE *a = map_rb_inserti(t, 1, nullptr);
  MAP_RB_NODE *b = map_rb_inserti(t, 2, nullptr);
  map_rb_delete_node(a);
  EXPECT_EQ(t->parent, b);
  EXPECT_EQ(b->parent, t);
  EXPECT_EQ(b->status, MAP_RB_ROOT);
  EXPECT_EQ(check<RbView>(t), "");
  map_rb_delete_node(b);
  EXPECT_TRUE(t->flink == t && t->blink == t && t->parent == t);
  EXPECT_EQ(t->status, MAP_RB_HEAD);
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, FreeingReleasesEveryNodeAndNoKeyOrValue) {
  const int64_t before = qvahost::accounting().allocations;
  MAP_RB_NODE *t = map_make_rb();
  std::vector<void *> owned;
  for (int i = 0; i < 20; ++i) {
    void *key = QVA_MemAllocQuiet(4);
    void *val = QVA_MemAllocQuiet(4);
    owned.insert(owned.end(), {key, val});
    map_rb_insert_b(t, key, val);
  }
  EXPECT_EQ(qvahost::accounting().allocations, before + 40 + 40) << "20 entries, 19 inner, head";
  map_rb_free_tree(t);
  EXPECT_EQ(qvahost::accounting().allocations, before + 40);
  for (void *p : owned) QVA_MemFreeQuiet(p);
}

TEST_F(MapRbTest, MisuseIsReportedBeforeAnythingChanges) {
  MAP_RB_NODE *t = ascending_tree(3);
  MAP_RB_NODE *entry = t->flink;
  MAP_RB_NODE *inner = t->parent;
  const auto before = snapshot<RbView>(t);
  auto expect_error = [&](const char *text, const std::function<void()> &misuse) {
    qvahost::HostError e = qvatest::ExpectHostError(misuse);
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_EQ(e.text, text);
    EXPECT_EQ(snapshot<RbView>(t), before) << text;
  };
  int found;
  expect_error("Cannot delete an the head of a map_rb_tree.", [&] { map_rb_delete_node(t); });
  expect_error("Cannot delete an internal node.", [&] { map_rb_delete_node(inner); });
  expect_error("map_rb_find_key_n called on non-head", [&] { map_rb_find_key_n(entry, "a", &found); });
  expect_error("map_rb_find_ikey_n called on non-head", [&] { map_rb_find_ikey(entry, 1); });
  expect_error("map_rb_find_gkey_n called on non-head",
               [&] { map_rb_find_gkey(entry, "a", counting_strcmp); });
  expect_error("ERROR: map_rb_free_tree called on a non-head node", [&] { map_rb_free_tree(entry); });
  expect_error("ERROR: map_rb_nblack called on a non-external node", [&] { map_rb_nblack(t); });
  expect_error("ERROR: map_rb_nblack called on a non-external node", [&] { map_rb_nblack(inner); });
  expect_error("ERROR: map_rb_map_rb_plength called on a non-external node",
               [&] { map_rb_plength(inner); });
  expect_error("map_rb_insert_b called on an internal node",
               [&] { map_rb_insert_b(inner, nullptr, nullptr); });
  EXPECT_EQ(map_rb_nblack(entry), 2);
  EXPECT_EQ(map_rb_plength(entry), 2);
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, DeletionReportsATreeWithBrokenColours) {
  // Find an entry whose parent is not the root and whose sibling is a red
  // internal node; painting that sibling black breaks the black rule.
  MAP_RB_NODE *t = map_make_rb();
  MAP_RB_NODE *victim = nullptr;
  std::mt19937 rng(9);
  for (int i = 0; i < 200 && !victim; ++i) {
    map_rb_inserti(t, static_cast<QVA_LONG>(rng() % 1000), nullptr);
    for (MAP_RB_NODE *e = t->flink; e != t && !victim; e = e->flink) {
      MAP_RB_NODE *p = e->parent;
      MAP_RB_NODE *s = p->flink == e ? p->blink : p->flink;
      if (!(p->status & MAP_RB_ROOT) && (s->status & MAP_RB_INTERNAL) && (s->status & MAP_RB_RED))
        victim = e;
    }
  }
  if (!victim) {
    map_rb_free_tree(t);
    FAIL() << "no entry with a red internal sibling";
  }
  MAP_RB_NODE *p = victim->parent;
  (p->flink == victim ? p->blink : p->flink)->status &= ~MAP_RB_RED;
  auto nodes = snapshot<RbView>(t);
  qvahost::HostError e = qvatest::ExpectHostError([&] { map_rb_delete_node(victim); });
  EXPECT_EQ(e.text, "DELETION PROB -- sib is black, internal");
  // The tree is unusable now; the entry and its parent are released
  // already, the rest is released by hand.
  for (auto &[node, bytes] : nodes)
    if (node != victim && node != p) QVA_MemFreeQuiet(node);
}

// Each insertion form, swept over every allocation it makes: a failure
// gives null and leaves every node, link and flag as it was.
TEST_F(MapRbTest, AFailedAllocationLeavesTheTreeAsItWas) {
  struct Case {
    const char *what;
    int entries;
    int allocation_points;
    std::function<MAP_RB_NODE *(MAP_RB_NODE *)> insert;
  };
  const Case cases[] = {
      {"first entry", 0, 1, [](MAP_RB_NODE *t) { return map_rb_insert_b(t, word(5), nullptr); }},
      {"append", 9, 2, [](MAP_RB_NODE *t) { return map_rb_insert_b(t, word(99), nullptr); }},
      {"prepend", 9, 2, [](MAP_RB_NODE *t) { return map_rb_insert_a(t, word(-1), nullptr); }},
      {"before the root's rmin", 9, 2,
       [](MAP_RB_NODE *t) { return map_rb_insert_b(t->parent->rmin, word(45), nullptr); }},
      {"by key", 9, 2, [](MAP_RB_NODE *t) { return map_rb_inserti(t, 35, nullptr); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    MAP_RB_NODE *t = ascending_tree(c.entries);
    int failures = 0;
    for (int n = 1;; ++n) {
      const auto before = snapshot<RbView>(t);
      const qvahost::Accounting usage = qvahost::accounting();
      qvahost::fail_allocation_after(n);
      MAP_RB_NODE *e = c.insert(t);
      qvahost::fail_allocation_after(0);
      if (e) break;
      ++failures;
      EXPECT_EQ(snapshot<RbView>(t), before) << "allocation " << n;
      EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
    }
    EXPECT_EQ(failures, c.allocation_points);
    std::vector<MAP_RB_NODE *> entries;
    EXPECT_EQ(check<RbView>(t, &entries), "");
    EXPECT_EQ(entries.size(), static_cast<size_t>(c.entries + 1));
    map_rb_free_tree(t);
  }
}

}  // namespace
