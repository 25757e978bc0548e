// The structural check of heap trees that come from a file: every sound
// tree passes, and each kind of damage a file can hold is named, without
// the check ever walking a loop.
#include <containers/rbh_check.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "tree_check.h"

namespace {

using treecheck::RbhTree;
using treecheck::snapshot;

QVA_MAP_RBH_NODE *d(QVA_HVID n) { return map_rbh_deref(n); }

const map_rbh_shape kNumericKeys{map_rbh_hcmp, nullptr, nullptr};

std::string fault_of(QVA_HVID head, const map_rbh_shape &shape = kNumericKeys) {
  const char *fault = map_rbh_check(head, shape);
  return fault ? fault : "";
}

class RbhCheckTest : public qvatest::HostTest {};

TEST_F(RbhCheckTest, SoundTreesOfEverySizePass) {
  std::mt19937 rng(7);
  QVA_HVID t = map_make_rbh();
  std::vector<QVA_HVID> entries;
  for (int step = 0; step < 300; ++step) {
    if (entries.size() < 40 && rng() % 3 != 0) {
      entries.push_back(map_rbh_insert(t, 1 + rng() % 100000, 0));
    } else if (!entries.empty()) {
      size_t i = rng() % entries.size();
      map_rbh_delete_node(entries[i]);
      entries.erase(entries.begin() + static_cast<long>(i));
    }
    ASSERT_EQ(treecheck::check<RbhTree>(t), "");
    // Equal keys may come from the random draws: order only without them.
    ASSERT_EQ(fault_of(t, {nullptr, nullptr, nullptr}), "") << "step " << step;
  }
  map_rbh_free_tree(t);
}

TEST_F(RbhCheckTest, EachKindOfDamageIsNamed) {
  QVA_HVID t = map_make_rbh(), other = map_make_rbh(), empty = map_make_rbh();
  for (QVA_HVID k = 10; k <= 90; k += 10) map_rbh_insert(t, k, 0);
  map_rbh_insert(other, 5, 0);
  map_rbh_insert(other, 6, 0);
  QVA_VPTR tmp = qvahost::make_long(3);
  const QVA_HVID not_a_node = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_LONGJMP)->hash_id;
  QVA_Deltmp(tmp);
  ASSERT_EQ(fault_of(t), "");
  const QVA_HVID root = d(t)->PARENT, l = d(root)->FLINK, r = d(root)->BLINK;
  const QVA_HVID e0 = d(t)->FLINK, e1 = d(e0)->FLINK;
  const QVA_HVID other_root = d(other)->PARENT;
  ASSERT_TRUE(d(l)->STATUS1 && d(r)->STATUS1) << "the root's children are internal";

  struct Case {
    const char *fault;
    std::function<void()> damage;
    QVA_HVID checked;
  };
  const Case cases[] = {
      {"it names a node that is not a tree's head", [] {}, root},
      {"it names a node that is not a tree's head", [] {}, other_root},
      {"it names no tree node", [] {}, not_a_node},
      {"a child's parent link is wrong", [&] { d(l)->PARENT = r; }, t},
      {"a child's parent link is wrong", [&] { d(l)->FLINK = root; }, t},
      {"a child's parent link is wrong", [&] { d(l)->FLINK = l; }, t},
      {"a child's parent link is wrong", [&] { d(root)->BLINK = other_root; }, t},
      {"a head inside the tree", [&] { d(root)->BLINK = other; }, t},
      {"a link names no tree node", [&] { d(l)->FLINK = not_a_node; }, t},
      {"a link names no tree node", [&] { d(l)->FLINK = 0; }, t},
      {"an internal node has one node as both children", [&] { d(l)->BLINK = d(l)->FLINK; }, t},
      {"the entry list differs from the tree order", [&] { d(e1)->FLINK = e0; }, t},
      {"the entry list differs from the tree order", [&] { d(e1)->BLINK = e1; }, t},
      {"the head's first or last entry is wrong", [&] { d(t)->BLINK = e0; }, t},
      {"an empty tree's head links elsewhere", [&] { d(empty)->FLINK = e0; }, empty},
      {"a status byte is neither 0 nor 1", [&] { d(e0)->STATUS2 = 2; }, t},
      {"a left flag is wrong", [&] { d(l)->STATUS2 = 0; }, t},
      {"a root flag is wrong", [&] { d(l)->STATUS3 = 1; }, t},
      {"a root flag is wrong", [&] { d(root)->STATUS3 = 0; }, t},
      {"an entry is red", [&] { d(e0)->STATUS0 = 1; }, t},
      {"black heights differ", [&] { d(l)->STATUS0 = d(r)->STATUS0 = 0; d(l)->STATUS0 ^= 1; }, t},
      {"an internal node's lmax or rmin is wrong", [&] { d(root)->KEY = e0; }, t},
      {"an internal node's lmax or rmin is wrong", [&] { d(root)->VAL = e0; }, t},
      {"the keys are out of order", [&] { std::swap(d(e0)->KEY, d(e1)->KEY); }, t},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.fault);
    const auto before = snapshot<RbhTree>(t);
    const auto empty_before = snapshot<RbhTree>(empty);
    c.damage();
    EXPECT_EQ(fault_of(c.checked), c.fault);
    for (const auto *s : {&before, &empty_before})
      for (const auto &[id, bytes] : *s) std::memcpy(d(id), bytes.data(), bytes.size());
    ASSERT_EQ(fault_of(t), "");
  }
  map_rbh_free_tree(t);
  map_rbh_free_tree(other);
  map_rbh_free_tree(empty);
  QVA_HeapVarDelete(not_a_node, 0, 0);
}

TEST_F(RbhCheckTest, TwoRedChildrenOfARedNodeAndTheEntryAndOrderCallbacksAreSeen) {
  QVA_HVID t = map_make_rbh();
  for (QVA_HVID k = 1; k <= 3; ++k) map_rbh_insert(t, k, 100 + k);
  const QVA_HVID root = d(t)->PARENT;
  const QVA_HVID inner = d(d(root)->FLINK)->STATUS1 ? d(root)->FLINK : d(root)->BLINK;
  ASSERT_TRUE(d(inner)->STATUS0 && !d(root)->STATUS0) << "a red inner node under a black root";
  // A red root over it: heights stay equal, the red rule breaks.
  d(root)->STATUS0 = 1;
  EXPECT_EQ(fault_of(t), "a red node has a red child");
  d(root)->STATUS0 = 0;

  std::vector<std::pair<QVA_HVID, QVA_HVID>> seen;
  struct Ctx {
    std::vector<std::pair<QVA_HVID, QVA_HVID>> *seen;
  } ctx{&seen};
  const map_rbh_shape refuse_three{
      map_rbh_hcmp,
      [](void *c, QVA_HVID key, QVA_HVID val) -> const char * {
        static_cast<Ctx *>(c)->seen->emplace_back(key, val);
        return key == 3 ? "three is refused" : nullptr;
      },
      &ctx};
  EXPECT_EQ(fault_of(t, refuse_three), "three is refused");
  EXPECT_EQ(seen, (std::vector<std::pair<QVA_HVID, QVA_HVID>>{{1, 101}, {2, 102}, {3, 103}}));

  // Keys are compared with their neighbour in order, once each, and a key
  // the entry test refuses is never compared.
  static std::vector<std::pair<QVA_HVID, QVA_HVID>> compared;
  static QVA_HVID refused;
  const map_rbh_shape recorded{
      [](QVA_HVID a, QVA_HVID b) {
        compared.emplace_back(a, b);
        return map_rbh_hcmp(a, b);
      },
      [](void *, QVA_HVID key, QVA_HVID) -> const char * {
        return key == refused ? "refused" : nullptr;
      },
      nullptr};
  compared.clear();
  refused = 0;
  EXPECT_EQ(fault_of(t, recorded), "");
  EXPECT_EQ(compared, (std::vector<std::pair<QVA_HVID, QVA_HVID>>{{1, 2}, {2, 3}}));
  compared.clear();
  refused = 3;
  EXPECT_EQ(fault_of(t, recorded), "refused");
  for (const auto &[a, b] : compared) EXPECT_TRUE(a != 3 && b != 3) << a << " against " << b;
  map_rbh_free_tree(t);
}

}  // namespace
