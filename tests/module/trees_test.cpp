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
using treecheck::RbhView;
using treecheck::RbView;
using treecheck::snapshot;
using treecheck::word;

template <class T>
class TreeTest : public qvatest::HostTest {};
using TreeKinds = ::testing::Types<treecheck::RbTree, treecheck::RbhTree>;
TYPED_TEST_SUITE(TreeTest, TreeKinds);

TYPED_TEST(TreeTest, MatchesAMultimapUnderRandomOperations) {
  const bool heap = std::is_same_v<TypeParam, treecheck::RbhTree>;
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
  using V = typename T::View;
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
      {"before the root's rmin", 9, [](Id t) { return T::insert_b(V::rmin(V::parent(t)), 45, 0); }},
      {"by key", 9, [](Id t) { return T::insert_key(t, 35, 0); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Id t = c.entries < 0 ? Id{} : T::make();
    for (int i = 0; i < c.entries; ++i) T::insert_key(t, 10 * i, 10 * i);
    int failures = 0;
    for (int n = 1; n < 100; ++n) {
      const auto before = t ? snapshot<V>(t) : decltype(snapshot<V>(t)){};
      const qvahost::Accounting usage = qvahost::accounting();
      qvahost::fail_allocation_after(n);
      Id e{};
      try {
        e = c.insert(t);
      } catch (const qvahost::HostError &) {
      }
      qvahost::fail_allocation_after(0);
      if (e) {
        if (!t) t = e;
        break;
      }
      ++failures;
      if (t) EXPECT_EQ(snapshot<V>(t), before) << "allocation " << n;
      EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
    }
    EXPECT_GE(failures, c.entries > 0 ? 2 : 1) << "every node creation can fail";
    std::vector<Id> entries;
    EXPECT_EQ(check<V>(t, &entries), "");
    EXPECT_EQ(entries.size(), static_cast<size_t>(c.entries + 1));
    T::free(t);
  }
}

class MapRbTest : public qvatest::HostTest {};

int g_compares = 0;
int counting_strcmp(const void *key, const void *stored) {
  ++g_compares;
  return std::strcmp(static_cast<const char *>(key), static_cast<const char *>(stored));
}
int counting_hcmp(QVA_HVID key, QVA_HVID stored) {
  ++g_compares;
  return map_rbh_hcmp(key, stored);
}

std::vector<std::string> keys_in_order(MAP_RB_NODE *t) {
  std::vector<std::string> out;
  for (MAP_RB_NODE *e = t->flink; e != t; e = e->flink)
    out.emplace_back(static_cast<char *>(e->key));
  return out;
}

TEST_F(MapRbTest, SearchOrderAndComparisonCounts) {
  MAP_RB_NODE *t = map_make_rb();
  EXPECT_STREQ(static_cast<const char *>(t->key), "");
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "k", counting_strcmp, &found), t);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 0) << "an empty tree is searched without comparing";
  EXPECT_EQ(map_rb_find_key_n(t, "k", &found), t);
  EXPECT_EQ(map_rb_find_ikey_n(t, 3, &found), t);

  static const char *const keys[] = {"b", "d", "f", "h", "j", "l", "n", "p"};
  for (const char *k : keys) map_rb_insertg(t, const_cast<char *>(k), nullptr, counting_strcmp);
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "q", counting_strcmp, &found), t) << "above all: the head";
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 1);
  g_compares = 0;
  EXPECT_EQ(map_rb_find_gkey_n(t, "p", counting_strcmp, &found), t->blink);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(g_compares, 1) << "the last entry is compared first";
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
  EXPECT_EQ(a->status, MAP_RB_LEFT);
  EXPECT_EQ(b->status, 0);
  map_rb_delete_node(a);
  EXPECT_TRUE(t->parent == b && b->parent == t);
  EXPECT_EQ(b->status, MAP_RB_ROOT);
  EXPECT_EQ(check<RbView>(t), "");
  map_rb_delete_node(b);
  EXPECT_TRUE(t->flink == t && t->blink == t && t->parent == t);
  EXPECT_EQ(t->status, MAP_RB_HEAD);
  map_rb_free_tree(t);
}

TEST_F(MapRbTest, KeysFollowStrcmpAndSignedOrderAndEqualKeysGoBefore) {
  // Inserted out of order; a byte above 0x7f sorts last.
  MAP_RB_NODE *t = map_make_rb();
  for (const char *w : {"b", "\xc3\xa9", "ab", "", "Z", "a", "\x7f", "abc", "A"})
    map_rb_insert(t, w, nullptr);
  const std::vector<std::string> words = {"", "A", "Z", "a", "ab", "abc", "b", "\x7f", "\xc3\xa9"};
  EXPECT_EQ(keys_in_order(t), words);
  int found = 0;
  MAP_RB_NODE *ab = map_rb_find_key_n(t, "ab", &found);
  EXPECT_STREQ(static_cast<char *>(ab->key), "ab");
  EXPECT_EQ(found, 1);
  MAP_RB_NODE *twin = map_rb_insert(t, "ab", word(2));
  EXPECT_EQ(twin->flink, ab) << "an equal key goes right before the entry the search found";
  EXPECT_EQ(check<RbView>(t), "");
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

// Each misuse raises its own text (host message -3) before anything changes.
template <class V>
void ExpectMisuse(typename V::Id t, const std::string &text, const std::function<void()> &misuse) {
  const auto before = snapshot<V>(t);
  qvahost::HostError e = qvatest::ExpectHostError(misuse);
  EXPECT_EQ(e.code, QVA_M_GENERIC);
  EXPECT_EQ(e.text, text);
  EXPECT_EQ(snapshot<V>(t), before) << text;
}

TEST_F(MapRbTest, MisuseIsReportedBeforeAnythingChanges) {
  MAP_RB_NODE *t = map_make_rb();
  for (int i = 0; i < 3; ++i) map_rb_inserti(t, i, nullptr);
  MAP_RB_NODE *entry = t->flink, *inner = t->parent;
  int found;
  const std::pair<const char *, std::function<void()>> misuses[] = {
      {"Cannot delete an the head of a map_rb_tree.", [&] { map_rb_delete_node(t); }},
      {"Cannot delete an internal node.", [&] { map_rb_delete_node(inner); }},
      {"map_rb_find_key_n called on non-head", [&] { map_rb_find_key_n(entry, "a", &found); }},
      {"map_rb_find_ikey_n called on non-head", [&] { map_rb_find_ikey(entry, 1); }},
      {"map_rb_find_gkey_n called on non-head",
       [&] { map_rb_find_gkey(entry, "a", counting_strcmp); }},
      {"ERROR: map_rb_free_tree called on a non-head node", [&] { map_rb_free_tree(entry); }},
      {"ERROR: map_rb_nblack called on a non-external node", [&] { map_rb_nblack(t); }},
      {"ERROR: map_rb_nblack called on a non-external node", [&] { map_rb_nblack(inner); }},
      {"ERROR: map_rb_map_rb_plength called on a non-external node",
       [&] { map_rb_plength(inner); }},
      {"map_rb_insert_b called on an internal node",
       [&] { map_rb_insert_b(inner, nullptr, nullptr); }},
  };
  for (const auto &[text, misuse] : misuses) ExpectMisuse<RbView>(t, text, misuse);
  map_rb_free_tree(t);
}

class MapRbhTest : public qvatest::HostTest {};

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

TEST_F(MapRbhTest, ANewTreeIsOneHeapStructureWithTheTagLayout) {
  QVA_HVID t = map_make_rbh();
  QVA_SDEF sdef = qvahost::find_struct("QVA_MAP_RBH_NODE");
  ASSERT_NE(sdef, nullptr);
  const std::vector<std::pair<std::string, QVA_MEMINT>> layout = {
      {"FLINK", 0},    {"BLINK", 4},    {"PARENT", 8},   {"KEY", 12},     {"VAL", 16},
      {"STATUS0", 20}, {"STATUS1", 21}, {"STATUS2", 22}, {"STATUS3", 23}, {"STATUS4", 24}};
  EXPECT_EQ(qvahost::struct_fields(sdef), layout);
  QVA_HVPTR hv = QVA_HeapVarHashFind(t);
  ASSERT_NE(hv, nullptr);
  EXPECT_EQ(hv->flags & QVA_HV_OBJECT, 0u);
  EXPECT_EQ(hv->var.value.s.sdef, sdef);
  const QVA_MAP_RBH_NODE *h = map_rbh_deref(t);
  EXPECT_EQ(static_cast<const void *>(h), hv->var.value.s.arr->data);
  EXPECT_TRUE(h->FLINK == t && h->BLINK == t && h->PARENT == t && h->KEY == 0 && h->VAL == 0);
  EXPECT_TRUE(h->STATUS0 == 0 && h->STATUS1 == 0 && h->STATUS2 == 0 && h->STATUS3 == 0);
  EXPECT_EQ(h->STATUS4, 1);
  map_rbh_free_tree(t);
}

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
  QVA_HVID last = map_rbh_deref(t)->BLINK;
  EXPECT_EQ(map_rbh_find_key_n(t, 0xFFFFFFFFu, &found), last);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(map_rbh_deref(map_rbh_find_key_n(t, 0x7FFFFFFFu, &found))->KEY, 0x80000000u);
  EXPECT_EQ(found, 0);
  g_compares = 0;
  EXPECT_EQ(map_rbh_find_gkey_n(t, 0xFFFFFFFFu, counting_hcmp, &found), last);
  EXPECT_EQ(g_compares, 1) << "the last entry is compared first";
  map_rbh_insert_a(t, 0xFFFFFFFFu, 0);  // positional: at the front, order is the caller's
  EXPECT_EQ(map_rbh_deref(map_rbh_deref(t)->FLINK)->KEY, 0xFFFFFFFFu);
  EXPECT_EQ(check<RbhView>(t), "");
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
  for (QVA_HVID h : owned) {
    EXPECT_NE(QVA_HeapVarHashFind(h), nullptr);
    QVA_HeapVarDelete(h, 0, 0);
  }
}

TEST_F(MapRbhTest, MisuseIsReportedWithTheNodeBeforeAnythingChanges) {
  QVA_HVID t = map_make_rbh();
  for (int i = 0; i < 3; ++i) map_rbh_insert(t, i, 0);
  QVA_HVID entry = map_rbh_deref(t)->FLINK, inner = map_rbh_deref(t)->PARENT;
  int found;
  const std::pair<std::string, std::function<void()>> misuses[] = {
      {hex_text("Cannot delete the head of an map_rbh_tree: 0x%x", t),
       [&] { map_rbh_delete_node(t); }},
      {hex_text("Cannot delete an internal node: 0x%x", inner),
       [&] { map_rbh_delete_node(inner); }},
      {hex_text("map_rbh_find_key_n called on non-head 0x%x", entry),
       [&] { map_rbh_find_key_n(entry, 1, &found); }},
      {"map_rbh_find_gkey_n called on non-head",
       [&] { map_rbh_find_gkey(entry, 1, counting_hcmp); }},
      {"ERROR: map_rbh_free_tree called on a non-head node", [&] { map_rbh_free_tree(entry); }},
      {hex_text("ERROR: map_rbh_nblack called on a non-external node 0x%x", t),
       [&] { map_rbh_nblack(t); }},
      {hex_text("ERROR: map_rbh_plength called on a non-external node 0x%x", inner),
       [&] { map_rbh_plength(inner); }},
      {hex_text("map_rbh_insert_b called on an internal node 0x%x", inner),
       [&] { map_rbh_insert_b(inner, 1, 1); }},
  };
  for (const auto &[text, misuse] : misuses) ExpectMisuse<RbhView>(t, text, misuse);
  map_rbh_free_tree(t);
}

TEST_F(MapRbhTest, AStaleOrForeignIdentifierIsNeverReadThrough) {
  QVA_HVID gone = map_make_rbh();
  map_rbh_free_tree(gone);
  const std::string dead = hex_text("map_rbh_deref: no heap variable 0x%x", gone);
  EXPECT_EQ(qvatest::ExpectHostError([&] { map_rbh_deref(gone); }).text, dead);
  EXPECT_EQ(qvatest::ExpectHostError([&] { map_rbh_find_key(gone, 1); }).text, dead);
  QVA_HVID foreign = heap_long(42);
  EXPECT_EQ(qvatest::ExpectHostError([&] { map_rbh_insert(foreign, 1, 1); }).text,
            hex_text("map_rbh_deref: heap variable 0x%x is not a map_rbh node", foreign));
  QVA_HeapVarDelete(foreign, 0, 0);
}

}  // namespace
