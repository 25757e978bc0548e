// Tests of map_rbh, the red-black tree whose nodes are host heap variables.
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "tree_random.h"

namespace {

using treecheck::check;
using treecheck::RbhView;
using treecheck::snapshot;

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

std::vector<QVA_HVID> keys_in_order(QVA_HVID t) {
  std::vector<QVA_HVID> out;
  for (QVA_HVID e = map_rbh_deref(t)->FLINK; e != t; e = map_rbh_deref(e)->FLINK)
    out.push_back(map_rbh_deref(e)->KEY);
  return out;
}

int g_compares = 0;
int counting_hcmp(QVA_HVID key, QVA_HVID stored) {
  ++g_compares;
  return map_rbh_hcmp(key, stored);
}

QVA_HVID ascending_tree(int n) {
  QVA_HVID t = map_make_rbh();
  for (int i = 0; i < n; ++i) map_rbh_insert(t, 10 * i, 10 * i);
  return t;
}

TEST_F(MapRbhTest, MatchesAMultimapUnderRandomOperations) {
  for (uint32_t seed : {44u, 55u}) {
    SCOPED_TRACE(seed);
    treecheck::DifferentialRun<treecheck::RbhTree>(seed).run(2, 100);
  }
}

TEST_F(MapRbhTest, ANewTreeIsOneHeapStructureWithTheTagLayout) {
  QVA_HVID t = map_make_rbh();
  ASSERT_NE(t, 0u);
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
  EXPECT_TRUE(h->FLINK == t && h->BLINK == t && h->PARENT == t);
  EXPECT_TRUE(h->KEY == 0 && h->VAL == 0);
  EXPECT_TRUE(h->STATUS0 == 0 && h->STATUS1 == 0 && h->STATUS2 == 0 && h->STATUS3 == 0);
  EXPECT_EQ(h->STATUS4, 1);
  map_rbh_free_tree(t);
}

TEST_F(MapRbhTest, KeysOrderAsUnsignedWords) {
  QVA_HVID t = map_make_rbh();
  int found = -1;
  g_compares = 0;
  EXPECT_EQ(map_rbh_find_gkey_n(t, 7, counting_hcmp, &found), t);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(g_compares, 0) << "an empty tree is searched without comparing";
  for (QVA_HVID k : {0xFFFFFFFFu, 1u, 0x80000000u, 0u, 2u}) map_rbh_insert(t, k, 0);
  EXPECT_EQ(keys_in_order(t), (std::vector<QVA_HVID>{0, 1, 2, 0x80000000u, 0xFFFFFFFFu}));
  QVA_HVID last = map_rbh_deref(t)->BLINK;
  EXPECT_EQ(map_rbh_find_key_n(t, 0xFFFFFFFFu, &found), last);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(map_rbh_deref(map_rbh_find_key_n(t, 0x7FFFFFFFu, &found))->KEY, 0x80000000u);
  EXPECT_EQ(found, 0);
  g_compares = 0;
  EXPECT_EQ(map_rbh_find_gkey_n(t, 0xFFFFFFFFu, counting_hcmp, &found), last);
  EXPECT_EQ(g_compares, 1) << "the last entry is compared first";
  map_rbh_insert_a(t, 0xFFFFFFFFu, 0);  // positional: at the front, order is the caller's
  EXPECT_EQ(keys_in_order(t).front(), 0xFFFFFFFFu);
  EXPECT_EQ(check<RbhView>(t), "");
  map_rbh_free_tree(t);
}

TEST_F(MapRbhTest, FreeingDeletesEveryNodeAndNoKeyOrValue) {
  const int64_t before = qvahost::accounting().heap_vars;
  std::vector<QVA_HVID> owned;
  QVA_HVID t = map_make_rbh();
  for (int i = 0; i < 12; ++i) {
    QVA_HVID key = heap_long(i), val = heap_long(-i);
    owned.insert(owned.end(), {key, val});
    map_rbh_insert(t, key, val);
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
  QVA_HVID t = ascending_tree(3);
  QVA_HVID entry = map_rbh_deref(t)->FLINK;
  QVA_HVID inner = map_rbh_deref(t)->PARENT;
  const auto before = snapshot<RbhView>(t);
  auto expect_error = [&](const std::string &text, const std::function<void()> &misuse) {
    qvahost::HostError e = qvatest::ExpectHostError(misuse);
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_EQ(e.text, text);
    EXPECT_EQ(snapshot<RbhView>(t), before) << text;
  };
  int found;
  expect_error(hex_text("Cannot delete the head of an map_rbh_tree: 0x%x", t),
               [&] { map_rbh_delete_node(t); });
  expect_error(hex_text("Cannot delete an internal node: 0x%x", inner),
               [&] { map_rbh_delete_node(inner); });
  expect_error(hex_text("map_rbh_find_key_n called on non-head 0x%x", entry),
               [&] { map_rbh_find_key_n(entry, 1, &found); });
  expect_error("map_rbh_find_gkey_n called on non-head",
               [&] { map_rbh_find_gkey(entry, 1, counting_hcmp); });
  expect_error("ERROR: map_rbh_free_tree called on a non-head node",
               [&] { map_rbh_free_tree(entry); });
  expect_error(hex_text("ERROR: map_rbh_nblack called on a non-external node 0x%x", t),
               [&] { map_rbh_nblack(t); });
  expect_error(hex_text("ERROR: map_rbh_plength called on a non-external node 0x%x", inner),
               [&] { map_rbh_plength(inner); });
  expect_error(hex_text("map_rbh_insert_b called on an internal node 0x%x", inner),
               [&] { map_rbh_insert_b(inner, 1, 1); });
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

// Node creation fails by a host error that unwinds through the insertion:
// swept over every allocation the insertion makes, the tree, its list and
// its flags stay as they were and no node, temporary or block is left.
TEST_F(MapRbhTest, AFailedNodeCreationUnwindsWithoutATrace) {
  struct Case {
    const char *what;
    int entries;
    std::function<QVA_HVID(QVA_HVID)> insert;
  };
  const Case cases[] = {
      {"first entry", 0, [](QVA_HVID t) { return map_rbh_insert_b(t, 5, 0); }},
      {"append", 9, [](QVA_HVID t) { return map_rbh_insert_b(t, 99, 0); }},
      {"prepend", 9, [](QVA_HVID t) { return map_rbh_insert_a(t, 0, 0); }},
      {"before the root's rmin", 9,
       [](QVA_HVID t) {
         return map_rbh_insert_b(map_rbh_deref(map_rbh_deref(t)->PARENT)->VAL, 45, 0);
       }},
      {"by key", 9, [](QVA_HVID t) { return map_rbh_insert(t, 35, 0); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    QVA_HVID t = ascending_tree(c.entries);
    int failures = 0;
    for (int n = 1; n < 100; ++n) {
      const auto before = snapshot<RbhView>(t);
      const qvahost::Accounting usage = qvahost::accounting();
      qvahost::fail_allocation_after(n);
      QVA_HVID e = 0;
      try {
        e = c.insert(t);
      } catch (const qvahost::HostError &) {
      }
      qvahost::fail_allocation_after(0);
      if (e) break;
      ++failures;
      EXPECT_EQ(snapshot<RbhView>(t), before) << "allocation " << n;
      EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
    }
    EXPECT_GE(failures, c.entries ? 2 : 1) << "every node creation can fail";
    std::vector<QVA_HVID> entries;
    EXPECT_EQ(check<RbhView>(t, &entries), "");
    EXPECT_EQ(entries.size(), static_cast<size_t>(c.entries + 1));
    map_rbh_free_tree(t);
  }
}

TEST_F(MapRbhTest, AFailedHeadCreationLeavesNothing) {
  int failures = 0;
  for (int n = 1; n < 100; ++n) {
    const qvahost::Accounting usage = qvahost::accounting();
    qvahost::fail_allocation_after(n);
    QVA_HVID t = 0;
    try {
      t = map_make_rbh();
    } catch (const qvahost::HostError &) {
    }
    qvahost::fail_allocation_after(0);
    if (t) {
      map_rbh_free_tree(t);
      break;
    }
    ++failures;
    EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
  }
  EXPECT_GE(failures, 1);
}

}  // namespace
