// Tests of the two red-black trees: map_rb in process memory and map_rbh,
// whose nodes are host heap variables.
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "test_support.h"
#include "tree_check.h"

namespace {

using treecheck::check;
using treecheck::RbhTree;
using treecheck::RbTree;
using treecheck::snapshot;
using treecheck::word;

template <class T>
class TreeTest : public qvatest::HostTest {};
using TreeKinds = ::testing::Types<RbTree, RbhTree>;
TYPED_TEST_SUITE(TreeTest, TreeKinds);

TYPED_TEST(TreeTest, MatchesAMultimapUnderRandomOperations) {
  const bool heap = std::is_same_v<TypeParam, RbhTree>;
  for (uint32_t seed : heap ? std::vector<uint32_t>{44, 55} : std::vector<uint32_t>{11, 22, 33}) {
    SCOPED_TRACE(seed);
    treecheck::differential_run<TypeParam>(seed, heap ? 2 : 3, heap ? 100 : 150);
  }
}

// Each insertion form, swept over every allocation it makes: a failure (a
// null result or a host error) leaves every node, link and flag as it was
// and nothing allocated.
TYPED_TEST(TreeTest, AFailedAllocationLeavesTheTreeAsItWas) {
  using T = TypeParam;
  using Id = typename T::Id;
  struct Case {
    const char *what;
    int entries;
    std::function<Id(Id)> insert;
  };
  const Case cases[] = {
      {"new tree", -1, [](Id) { return T::make(); }},
      {"first entry", 0, [](Id t) { return T::insert_b(t, 5, 0); }},
      {"append", 9, [](Id t) { return T::insert_b(t, 99, 0); }},
      {"prepend", 9, [](Id t) { return T::insert_a(t, 0, 0); }},
      {"before the root's rmin", 9, [](Id t) { return T::insert_b(T::rmin(T::parent(t)), 45, 0); }},
      {"by key", 9, [](Id t) { return T::insert_key(t, 35, 0); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Id t = c.entries < 0 ? Id{} : T::make();
    for (int i = 0; i < c.entries; ++i) T::insert_key(t, 10 * i, 10 * i);
    int failures = 0;
    for (int n = 1; n < 100; ++n) {
      const auto before = t ? snapshot<T>(t) : decltype(snapshot<T>(t)){};
      const qvahost::Accounting usage = qvahost::accounting();
      Id e = treecheck::fail_after(n, [&] { return c.insert(t); });
      if (e) {
        if (!t) t = e;
        break;
      }
      ++failures;
      if (t) {
        EXPECT_EQ(snapshot<T>(t), before) << "allocation " << n;
      }
      EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
    }
    EXPECT_GE(failures, c.entries > 0 ? 2 : 1) << "every node creation can fail";
    std::vector<Id> entries;
    EXPECT_EQ(check<T>(t, &entries), "");
    EXPECT_EQ(entries.size(), static_cast<size_t>(c.entries + 1));
    T::free(t);
  }
}

int g_compares = 0;
int counting_strcmp(const void *key, const void *stored) {
  ++g_compares;
  return std::strcmp(static_cast<const char *>(key), static_cast<const char *>(stored));
}
int counting_hcmp(QVA_HVID key, QVA_HVID stored) {
  ++g_compares;
  return map_rbh_hcmp(key, stored);
}

class MapRbTest : public qvatest::HostTest {};

TEST_F(MapRbTest, SearchOrderAndComparisonCounts) {
  MAP_RB_NODE *t = map_make_rb();
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "k", counting_strcmp, &found), t);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(map_rb_find_key_n(t, "k", &found), t);
  EXPECT_EQ(map_rb_find_ikey_n(t, 3, &found), t);
  EXPECT_EQ(g_compares, 0) << "an empty tree is searched without comparing";

  // Inserted out of order; a byte above 0x7f sorts last, as strcmp has it.
  for (const char *w : {"p", "\xc3\xa9", "d", "", "Z", "b", "\x7f", "h", "A"})
    map_rb_insertg(t, const_cast<char *>(w), nullptr, counting_strcmp);
  std::vector<std::string> keys;
  for (MAP_RB_NODE *e = t->flink; e != t; e = e->flink)
    keys.emplace_back(static_cast<char *>(e->key));
  EXPECT_EQ(keys, (std::vector<std::string>{"", "A", "Z", "b", "d", "h", "p", "\x7f", "\xc3\xa9"}));
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "\xc3\xaa", counting_strcmp, &found), t) << "above all: the head";
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 1) << "the last entry is compared first";
  EXPECT_EQ(map_rb_find_gkey_n(t, "\xc3\xa9", counting_strcmp, &found), t->blink);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(g_compares, 2);
  g_compares = 0;
  MAP_RB_NODE *e = map_rb_find_gkey_n(t, "e", counting_strcmp, &found);
  EXPECT_STREQ(static_cast<char *>(e->key), "h") << "absent: the first greater entry";
  EXPECT_EQ(found, 0);
  EXPECT_GT(g_compares, 1);
  g_compares = 0;
  map_rb_insertg(t, const_cast<char *>("\xff"), nullptr, counting_strcmp);
  EXPECT_EQ(g_compares, 1) << "an ascending append searches with one comparison";
  EXPECT_EQ(map_rb_insert(t, "h", nullptr)->flink, e) << "an equal key goes before the found one";
  EXPECT_EQ(check<RbTree>(t), "");
  map_rb_free_tree(t);

  std::vector<QVA_LONG> ints = {INT_MIN, -70000, -1, 0, 1, 65536, INT_MAX}, got;
  t = map_make_rb();
  for (size_t i : {3, 0, 6, 2, 5, 1, 4}) map_rb_inserti(t, ints[i], nullptr);
  for (e = t->flink; e != t; e = e->flink) got.push_back(treecheck::int_of(e->key));
  EXPECT_EQ(got, ints) << "integer keys compare signed";
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, TheRootAfterTwoInsertionsAndTwoDeletions) {
  MAP_RB_NODE *t = map_make_rb();
  MAP_RB_NODE *a = map_rb_insert(t, "a", word(1));
  EXPECT_TRUE(t->parent == a && a->parent == t);
  EXPECT_EQ(a->status, MAP_RB_ROOT) << "a black external root";
  EXPECT_TRUE(t->flink == a && t->blink == a && a->flink == t && a->blink == t);
  MAP_RB_NODE *b = map_rb_insert(t, "b", word(2));
  MAP_RB_NODE *r = t->parent;
  EXPECT_EQ(r->status, MAP_RB_ROOT | MAP_RB_INTERNAL) << "a black internal root";
  EXPECT_TRUE(r->flink == a && r->blink == b && r->lmax == a && r->rmin == b);
  EXPECT_TRUE(a->status == MAP_RB_LEFT && b->status == 0);
  map_rb_delete_node(a);
  EXPECT_TRUE(t->parent == b && b->parent == t && b->status == MAP_RB_ROOT);
  map_rb_delete_node(b);
  EXPECT_TRUE(t->flink == t && t->blink == t && t->parent == t && t->status == MAP_RB_HEAD);
  map_rb_free_tree(t);
}

std::string hex_text(const char *format, QVA_HVID n) {
  char buf[160];
  std::snprintf(buf, sizeof buf, format, static_cast<unsigned>(n));
  return buf;
}

// A pointer heap variable holding a LONG, standing for a caller's key or value.
QVA_HVID heap_long(QVA_LONG v) {
  QVA_VPTR tmp = qvahost::make_long(v);
  QVA_HVID h = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_LONGJMP)->hash_id;
  QVA_Deltmp(tmp);
  return h;
}

class MapRbhTest : public qvatest::HostTest {};

TEST_F(MapRbhTest, KeysOrderAsUnsignedWordsAndTheLastIsComparedFirst) {
  QVA_HVID t = map_make_rbh();
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rbh_find_gkey_n(t, 7, counting_hcmp, &found), t);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 0) << "an empty tree is searched without comparing";
  for (QVA_HVID k : {0xFFFFFFFFu, 1u, 0x80000000u, 0u, 2u}) map_rbh_insert(t, k, 0);
  std::vector<QVA_HVID> keys;
  for (QVA_HVID e = map_rbh_deref(t)->FLINK; e != t; e = map_rbh_deref(e)->FLINK)
    keys.push_back(map_rbh_deref(e)->KEY);
  EXPECT_EQ(keys, (std::vector<QVA_HVID>{0, 1, 2, 0x80000000u, 0xFFFFFFFFu}));
  EXPECT_EQ(map_rbh_deref(map_rbh_find_key_n(t, 0x7FFFFFFFu, &found))->KEY, 0x80000000u);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(map_rbh_find_gkey_n(t, 0xFFFFFFFFu, counting_hcmp, &found), map_rbh_deref(t)->BLINK);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(g_compares, 1) << "the last entry is compared first";
  map_rbh_free_tree(t);
}

TEST_F(MapRbhTest, FreeingDeletesEveryNodeAndNoKeyOrValue) {
  const int64_t before = qvahost::accounting().heap_vars;
  std::vector<QVA_HVID> owned;
  QVA_HVID t = map_make_rbh();
  for (int i = 0; i < 12; ++i) {
    owned.insert(owned.end(), {heap_long(i), heap_long(-i)});
    map_rbh_insert(t, owned[2 * i], owned[2 * i + 1]);
  }
  EXPECT_EQ(qvahost::accounting().heap_vars, before + 24 + 24) << "12 entries, 11 inner, head";
  map_rbh_free_tree(t);
  EXPECT_EQ(qvahost::accounting().heap_vars, before + 24);
  EXPECT_EQ(QVA_HeapVarHashFind(t), nullptr);
  for (QVA_HVID h : owned) QVA_HeapVarDelete(h, 0, 0);
}

// A misuse or a stale or foreign identifier is reported (host message -3)
// before anything changes; nothing is ever read through a failed look-up.
TEST_F(MapRbhTest, MisuseAndStaleOrForeignIdentifiersAreReported) {
  QVA_HVID t = map_make_rbh(), gone = map_make_rbh(), foreign = heap_long(42);
  for (int i = 0; i < 3; ++i) map_rbh_insert(t, i, 0);
  map_rbh_free_tree(gone);
  QVA_HVID inner = map_rbh_deref(t)->PARENT;
  const auto before = snapshot<RbhTree>(t);
  const std::pair<std::string, std::function<void()>> misuses[] = {
      {hex_text("Cannot delete the head of an map_rbh_tree: 0x%x", t),
       [&] { map_rbh_delete_node(t); }},
      {hex_text("Cannot delete an internal node: 0x%x", inner),
       [&] { map_rbh_delete_node(inner); }},
      {hex_text("map_rbh_insert_b called on an internal node 0x%x", inner),
       [&] { map_rbh_insert_b(inner, 1, 1); }},
      {hex_text("map_rbh_deref: no heap variable 0x%x", gone), [&] { map_rbh_find_key(gone, 1); }},
      {hex_text("map_rbh_deref: heap variable 0x%x is not a map_rbh node", foreign),
       [&] { map_rbh_insert(foreign, 1, 1); }},
  };
  for (const auto &[text, misuse] : misuses) {
    qvahost::HostError e = qvatest::ExpectHostError(misuse);
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_EQ(e.text, text);
    EXPECT_EQ(snapshot<RbhTree>(t), before) << text;
  }
  map_rbh_free_tree(t);
  QVA_HeapVarDelete(foreign, 0, 0);
}

}  // namespace
