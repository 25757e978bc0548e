// Tests of the two ordered maps: map* over map_rb and maph* over map_rbh,
// run through one interface so that both meet the same expectations.
#include <functional>
#include <map>
#include <random>
#include <vector>

#include "containers/maph_trust.h"
#include "test_support.h"
#include "tree_check.h"

namespace {

using treecheck::check;
using treecheck::int_of;
using treecheck::word;

// Keys compare by their value modulo 1000, so that two different key words
// (5 and 1005) can be equal keys.
int order_of(int k) { return k % 1000; }
int compare_ints(int a, int b) { return (order_of(a) > order_of(b)) - (order_of(a) < order_of(b)); }
int mem_compare(const void *a, const void *b) { return compare_ints(int_of(a), int_of(b)); }
int heap_compare(QVA_HVID a, QVA_HVID b) { return compare_ints(int(a), int(b)); }

// Each map also has its tree's accessors (flink, blink, ...) for walking.
struct MemMap : treecheck::RbTree {
  using H = MAP_RB_NODE *;
  static H init() { return mapInit(); }
  static H begin(H m) { return mapBegin(m); }
  static int size(H m) { return mapSize(m); }
  static int empty(H m) { return mapEmpty(m); }
  static void erase(H e) { mapErase(e); }
  static H insert(H m, int k, int v) { return mapInsert(m, word(k), word(v), mem_compare); }
  static H find(H m, int k) { return mapFind(m, word(k), mem_compare); }
  static H lower(H m, int k) { return mapLower(m, word(k), mem_compare); }
  static H upper(H m, int k) { return mapUpper(m, word(k), mem_compare); }
  static int key(H e) { return int_of(mapKey(e)); }
  static int data(H e) { return int_of(mapData(e)); }
  static void free(H m) { mapFree(m); }
  static H copy(H m) { return mapCopy(m, mem_compare); }
  static H range(H a, H b) { return mapRange(a, b, mem_compare); }
  static void swap(H a, H b) { mapSwap(a, b); }
};

struct HeapMap : treecheck::RbhTree {
  using H = QVA_HVID;
  static H init() { return maphInit(); }
  static H begin(H m) { return maphBegin(m); }
  static int size(H m) { return maphSize(m); }
  static int empty(H m) { return maphEmpty(m); }
  static void erase(H e) { maphErase(e); }
  static H insert(H m, int k, int v) { return maphInsert(m, k, v, heap_compare); }
  static H find(H m, int k) { return maphFind(m, k, heap_compare); }
  static H lower(H m, int k) { return maphLower(m, k, heap_compare); }
  static H upper(H m, int k) { return maphUpper(m, k, heap_compare); }
  static int key(H e) { return static_cast<int>(maphKey(e)); }
  static int data(H e) { return static_cast<int>(maphData(e)); }
  static void free(H m) { maphFree(m); }
  static H copy(H m) { return maphCopy(m, heap_compare); }
  static H range(H a, H b) { return maphRange(a, b, heap_compare); }
  static void swap(H a, H b) { maphSwap(a, b); }
};

template <class M>
class MapTest : public qvatest::HostTest {
 protected:
  using H = typename M::H;

  // Keys in map order, read by walking from the handle.
  static std::vector<int> keys(H m) {
    std::vector<int> out;
    for (H e = M::begin(m); e != m; e = M::flink(e)) out.push_back(M::key(e));
    return out;
  }
  static H filled(std::initializer_list<int> ks) {
    H m = M::init();
    for (int k : ks) M::insert(m, k, -k);
    return m;
  }
  static bool valid(H m) { return check<M>(m).empty(); }
};

using MapKinds = ::testing::Types<MemMap, HeapMap>;
TYPED_TEST_SUITE(MapTest, MapKinds);

TYPED_TEST(MapTest, NewMapsAndNullHandles) {
  using M = TypeParam;
  const typename M::H none{};
  auto m = M::init();
  ASSERT_NE(m, none);
  EXPECT_EQ(M::begin(m), m);
  EXPECT_EQ(M::size(m), 0);
  EXPECT_EQ(M::empty(m), 1);
  EXPECT_EQ(M::find(m, 3), none);
  EXPECT_EQ(M::upper(m, 3), m);
  M::free(m);

  M::erase(none);
  M::free(none);
  EXPECT_TRUE(M::data(none) == 0 && M::key(none) == 0 && M::size(none) == 0);
  EXPECT_EQ(M::empty(none), 1);
  EXPECT_TRUE(M::find(none, 1) == none && M::upper(none, 1) == none && M::copy(none) == none);
}

TYPED_TEST(MapTest, AnEqualKeyReplacesTheEntryAndUpperGivesThePreviousEntry) {
  using M = TypeParam;
  auto m = this->filled({30, 10, 20});
  auto first = M::begin(m), second = M::flink(first), third = M::flink(second);
  auto e = M::insert(m, 1020, 77);
  EXPECT_EQ(M::size(m), 3);
  EXPECT_TRUE(M::find(m, 20) == e && M::lower(m, 20) == e);
  EXPECT_EQ(M::key(e), 1020) << "the entry holds the new key word";
  EXPECT_EQ(M::data(e), 77);
  EXPECT_TRUE(this->valid(m));
  second = M::flink(first);
  EXPECT_EQ(M::upper(m, 10), typename M::H{}) << "the first entry's key";
  EXPECT_EQ(M::upper(m, 20), first);
  EXPECT_EQ(M::upper(m, 30), second);
  EXPECT_EQ(M::upper(m, 40), m) << "above all: the handle";
  EXPECT_EQ(M::upper(m, 25), third) << "absent between two: the later one";
  EXPECT_EQ(M::upper(m, 5), first);
  M::free(m);
}

TYPED_TEST(MapTest, ErasingDuringAWalkVisitsEveryEntryOnce) {
  using M = TypeParam;
  auto m = M::init();
  for (int k = 49; k >= 0; --k) M::insert(m, k, k);
  for (int pass : {2, 1}) {  // drop the even keys, then all
    int visited = 0;
    for (auto e = M::begin(m); e != m; e = M::flink(e)) {
      ++visited;
      if (M::key(e) % pass) continue;
      auto back = M::blink(e);
      M::erase(e);
      e = back;
    }
    EXPECT_EQ(visited, pass == 2 ? 50 : 25);
    EXPECT_EQ(M::size(m), pass == 2 ? 25 : 0);
    EXPECT_TRUE(this->valid(m));
  }
  EXPECT_EQ(M::empty(m), 1);
  M::free(m);
}

TYPED_TEST(MapTest, MatchesAStdMapUnderRandomOperations) {
  using M = TypeParam;
  std::mt19937 rng(2024);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  auto m = M::init();
  std::map<int, int> model;
  for (int step = 0; step < 1500 && !this->HasFailure(); ++step) {
    int key = pick(0, 120), op = pick(0, 9);
    if (op < 4) {
      M::insert(m, key + 1000 * pick(0, 2), step);
      model[key] = step;
    } else if (op < 7) {
      M::erase(M::find(m, key));
      model.erase(key);
    } else {
      auto e = M::find(m, key);
      EXPECT_EQ(e == typename M::H{}, model.count(key) == 0) << "key " << key;
      if (e) {
        EXPECT_EQ(M::data(e), model[key]);
      }
      // upper: the entry before a found key (null for the first), else the
      // first greater entry (the handle above all); -1 and -2 stand for these.
      auto it = model.lower_bound(key);
      int want = it != model.end() && it->first == key
                     ? (it == model.begin() ? -1 : std::prev(it)->first)
                     : (it == model.end() ? -2 : it->first);
      auto up = M::upper(m, key);
      EXPECT_EQ(up == typename M::H{} ? -1 : up == m ? -2 : order_of(M::key(up)), want);
    }
    ASSERT_EQ(check<M>(m), "") << "step " << step;
    std::vector<int> expected, got;
    for (auto &[k, v] : model) expected.push_back(k);
    for (int k : this->keys(m)) got.push_back(order_of(k));
    ASSERT_EQ(got, expected) << "step " << step;
  }
  EXPECT_EQ(M::size(m), static_cast<int>(model.size()));
  M::free(m);
}

TYPED_TEST(MapTest, CopyRangeAndSwap) {
  using M = TypeParam;
  auto m = this->filled({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  auto copy = M::copy(m);
  ASSERT_NE(copy, m);
  EXPECT_EQ(this->keys(copy), this->keys(m));
  EXPECT_EQ(M::data(M::find(copy, 4)), -4);
  EXPECT_TRUE(this->valid(copy));

  auto middle = M::range(M::find(m, 3), M::find(m, 6));
  EXPECT_EQ(this->keys(middle), (std::vector<int>{3, 4, 5, 6}));
  auto tail = M::range(M::find(m, 7), m);
  EXPECT_EQ(this->keys(tail), (std::vector<int>{7, 8, 9}));

  auto empty = M::init();
  M::swap(m, empty);
  EXPECT_EQ(M::size(m), 0);
  EXPECT_EQ(this->keys(empty), this->keys(copy));
  EXPECT_TRUE(this->valid(m) && this->valid(empty));
  M::swap(empty, middle);
  EXPECT_EQ(this->keys(empty), (std::vector<int>{3, 4, 5, 6}));
  EXPECT_EQ(M::size(middle), 10);
  EXPECT_TRUE(this->valid(middle));
  for (auto h : {m, copy, middle, tail, empty}) M::free(h);
}

// Out of memory while inserting: the replaced entry is already gone, the new
// one is not there.  A copy given up on is released.  Nothing remains.
TYPED_TEST(MapTest, AllocationFailuresLeakNothing) {
  using M = TypeParam;
  int failures = 0;
  for (int n = 1; n < 100; ++n) {
    const qvahost::Accounting usage = qvahost::accounting();
    auto m = this->filled({1, 2, 3, 4, 5});
    auto e = treecheck::fail_after(n, [&] { return M::insert(m, 1003, 9); });
    if (!e) {
      ++failures;
      EXPECT_EQ(this->keys(m), (std::vector<int>{1, 2, 4, 5}));
      EXPECT_TRUE(this->valid(m));
    }
    M::free(m);
    EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << n;
    if (e) break;
  }
  EXPECT_GE(failures, 2);

  auto m = this->filled({1, 2, 3, 4, 5});
  for (failures = 0; failures < 200; ++failures) {
    const qvahost::Accounting usage = qvahost::accounting();
    auto copy = treecheck::fail_after(failures + 1, [&] { return M::copy(m); });
    if (copy) {
      EXPECT_EQ(this->keys(copy), this->keys(m));
      M::free(copy);
      break;
    }
    EXPECT_EQ(qvahost::accounting(), usage) << "allocation " << failures + 1;
  }
  EXPECT_GE(failures, 10) << "the head and two nodes per entry after the first";
  M::free(m);
}

// Claims are kept per map identifier in pages of a directory: maps in the
// same page and far apart keep their own owners, a freed map's claim goes,
// and a session reset forgets every claim, so a later claim starts clean.
class MapClaimsTest : public qvatest::HostTest {};

TEST_F(MapClaimsTest, EachMapKeepsItsOwnerUntilFreedOrReset) {
  const QVA_HVID near_a = 5, near_b = 6, far = 5 + 7 * 4096, last = UINT32_MAX;
  maphTrust(near_a, 100);
  maphTrust(far, 200);
  maphTrust(last, 300);
  EXPECT_EQ(maphTrustedOwner(near_a), 100u);
  EXPECT_EQ(maphTrustedOwner(near_b), 0u);
  EXPECT_EQ(maphTrustedOwner(far), 200u);
  EXPECT_EQ(maphTrustedOwner(far + 4096), 0u) << "a page never made";
  EXPECT_EQ(maphTrustedOwner(last), 300u);
  maphDistrust(near_a);
  maphDistrust(far + 4096);  // no page: nothing to forget
  EXPECT_EQ(maphTrustedOwner(near_a), 0u);
  maphForgetTrust();
  EXPECT_EQ(maphTrustedOwner(far), 0u);
  EXPECT_EQ(maphTrustedOwner(last), 0u);
  maphTrust(far, 400);
  EXPECT_EQ(maphTrustedOwner(far), 400u);
  maphForgetTrust();
}

}  // namespace
