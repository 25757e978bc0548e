// The host allocator, the failing-allocation hook (and sweeps of it over
// composite operations) and the accounting every test ends with.
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <vector>

#include "asan.h"
#include "host_fixture.h"

namespace {

using hosttest::ExpectHostError;

using MemoryTest = hosttest::CoreTest;

TEST_F(MemoryTest, EachKindOfPlantedLeakShowsInTheBalance) {
  QVA_VPTR tmp = QVA_Gettmp();
  QVA_STRING s{};
  QVA_StrStore(&s, "leak");
  void *block = QVA_MemAllocQuiet(10);
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, nullptr, 0, 2);
  qvahost::Accounting now = qvahost::accounting(), expected = baseline_;
  expected.temporaries++, expected.texts++, expected.allocations++, expected.heap_vars++;
  EXPECT_EQ(now, expected);
  EXPECT_NE(qvahost::to_string(now).find("texts=" + std::to_string(now.texts)), std::string::npos);
  QVA_Deltmp(tmp);
  QVA_StrDelete(&s, 1);
  QVA_MemFreeQuiet(block);
  QVA_HeapVarDelete(h->hash_id, 0, 0);
  std::string err = ExpectViolations(1, [] { qvahost::contract_violation("planted misuse"); });
  EXPECT_NE(err.find("QVA host contract violation: planted misuse"), std::string::npos) << err;
}

TEST_F(MemoryTest, BlocksAreAlignedCountedAndSurviveChurn) {
  // Interleaved allocation and release across the size classes and of large
  // blocks keeps every live block aligned, counted and its contents intact.
  std::vector<std::pair<unsigned char *, size_t>> live;
  uint32_t seed = 12345;
  for (int i = 0; i < 20000; ++i) {
    seed = seed * 1103515245u + 12345u;
    if (!live.empty() && (seed >> 16) % 3 == 0) {
      size_t k = (seed >> 8) % live.size();
      auto [p, n] = live[k];
      for (size_t j = 0; j < n; ++j) ASSERT_EQ(p[j], static_cast<unsigned char>(n));
      QVA_MemFreeQuiet(p);
      live[k] = live.back();
      live.pop_back();
    } else {
      size_t n = i % 500 == 0 ? 100000 + i : 1 + (seed >> 4) % 1100;
      auto *p = static_cast<unsigned char *>(QVA_MemAllocQuiet(n));
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << n;
      std::memset(p, static_cast<unsigned char>(n), n);
      live.emplace_back(p, n);
    }
  }
  EXPECT_EQ(qvahost::accounting().allocations - baseline_.allocations,
            static_cast<int64_t>(live.size()));
  for (auto [p, n] : live) QVA_MemFreeMSG_INFO(p, "test");
}

TEST_F(MemoryTest, MisusedFreesAreViolationsNotCorruption) {
  for (size_t size : {size_t{32}, size_t{50000}}) {  // pooled and large blocks
    void *p = QVA_MemAllocMSG_LONGJMP(size, "twice");
    QVA_MemFreeMSG_RET(p, "first");
    EXPECT_NE(ExpectViolations(1, [&] { QVA_MemFreeMSG_RET(p, "second"); }).find("second"),
              std::string::npos);
  }
  char stack_buffer[64];
  auto *block = static_cast<char *>(QVA_MemAllocQuiet(256));
  void *record = qvahost::raw_alloc(64, false);  // a host record is not a block either
  for (void *foreign : {static_cast<void *>(stack_buffer), static_cast<void *>(block + 32),
                        static_cast<void *>(block + 3), record})
    ExpectViolations(1, [&] { QVA_MemFreeQuiet(foreign); });
  qvahost::raw_free(record);
  QVA_MemFreeQuiet(block);
  QVA_MemFreeQuiet(nullptr);  // harmless, like free(NULL)
}

// Blocks freed in any order are handed out again side by side: a structure
// built after a larger one was freed lies in a few pages, not scattered
// over all the memory the larger one held.
TEST_F(MemoryTest, BlocksFreedInAnyOrderComeBackSideBySide) {
  constexpr size_t kSize = 400;
  std::vector<void *> blocks(5000);
  for (void *&p : blocks) p = QVA_MemAllocQuiet(kSize);
  uint32_t seed = 99;
  for (size_t i = blocks.size(); i > 1; --i) {
    seed = seed * 1103515245u + 12345u;
    std::swap(blocks[i - 1], blocks[(seed >> 8) % i]);
  }
  for (void *p : blocks) QVA_MemFreeQuiet(p);
  std::vector<char *> again(300);
  for (char *&p : again) p = static_cast<char *>(QVA_MemAllocQuiet(kSize));
  // 300 blocks fill two 64 KiB windows; scattered, they touch dozens.
  std::set<uintptr_t> windows;
  for (char *p : again) windows.insert(reinterpret_cast<uintptr_t>(p) >> 16);
  EXPECT_LE(windows.size(), 4u) << "300 blocks spread over the memory of 5000";
  for (char *p : again) QVA_MemFreeQuiet(p);
}

TEST_F(MemoryTest, AFreeAfterItsPageEmptiedIsStillADoubleFree) {
  std::vector<void *> blocks(500);
  for (void *&p : blocks) p = QVA_MemAllocQuiet(200);
  for (void *p : blocks) QVA_MemFreeQuiet(p);
  for (size_t i : {size_t{0}, size_t{1}, blocks.size() - 1}) {
    std::string err = ExpectViolations(1, [&] { QVA_MemFreeQuiet(blocks[i]); });
    EXPECT_NE(err.find("was freed already"), std::string::npos) << err;
  }
}

// Small blocks carry no header: blocks of one size lie back to back (under
// AddressSanitizer with a poisoned gap between them), and what a free needs
// to know is kept by their page, so a wrong free is told apart as before.
TEST_F(MemoryTest, BlocksLieBackToBackAndWrongFreesAreStillToldApart) {
  constexpr size_t kSize = 48;  // a tree node
#if defined(QVA_ASAN)
  constexpr ptrdiff_t kStride = kSize + 16;
#else
  constexpr ptrdiff_t kStride = kSize;
#endif
  std::vector<char *> blocks(2000);
  for (char *&p : blocks) p = static_cast<char *>(QVA_MemAllocQuiet(kSize));
  int adjacent = 0;
  for (size_t i = 1; i < blocks.size(); ++i) adjacent += blocks[i] - blocks[i - 1] == kStride;
  EXPECT_GT(adjacent, 1990) << "all but the steps to a new page";

  auto reason = [&](void *p, const std::function<void(void *)> &free) {
    return ExpectViolations(1, [&] { free(p); });
  };
  auto mem_free = [](void *p) { QVA_MemFreeQuiet(p); };
  auto raw_free = [](void *p) { qvahost::raw_free(p); };
  EXPECT_NE(reason(blocks[5], raw_free).find("belongs to the other allocator interface"),
            std::string::npos);
  for (char *inside : {blocks[5] + 16, blocks[5] + 8, blocks[5] + kSize - 16})
    EXPECT_NE(reason(inside, mem_free).find("is not a block of the host allocator"),
              std::string::npos);
  // Below the first block lies the page's own record.
  auto *page =
      reinterpret_cast<char *>(reinterpret_cast<uintptr_t>(blocks[0]) & ~uintptr_t{0xFFFF});
  EXPECT_NE(reason(page + 64, mem_free).find("is not a block"), std::string::npos);
  // Past the last block carved lies memory the page never handed out.
  char *last = blocks.back();
  if ((reinterpret_cast<uintptr_t>(last + 4 * kStride) >> 16) ==
      (reinterpret_cast<uintptr_t>(last) >> 16)) {
    EXPECT_NE(reason(last + 4 * kStride, mem_free).find("is not a block"), std::string::npos);
  }

  // A record of the host's own of the same size is in pages of its own.
  void *record = qvahost::raw_alloc(kSize, false);
  EXPECT_NE(reinterpret_cast<uintptr_t>(record) >> 16,
            reinterpret_cast<uintptr_t>(blocks.back()) >> 16);
  EXPECT_NE(reason(record, mem_free).find("belongs to the other allocator interface"),
            std::string::npos);
  qvahost::raw_free(record);

  // Emptied pages carve again from their start: the blocks come back live
  // from the same pages, once freeable each, and twice is caught.
  auto pages = [&] {
    std::set<uintptr_t> in;
    for (char *p : blocks) in.insert(reinterpret_cast<uintptr_t>(p) >> 16);
    return in;
  };
  std::set<uintptr_t> before = pages();
  for (char *p : blocks) QVA_MemFreeQuiet(p);
  EXPECT_NE(reason(blocks[7], mem_free).find("was freed already"), std::string::npos);
  for (char *&p : blocks) p = static_cast<char *>(QVA_MemAllocQuiet(kSize));
  EXPECT_EQ(pages(), before);
  for (char *p : blocks) QVA_MemFreeQuiet(p);
  EXPECT_NE(reason(blocks[1999], mem_free).find("was freed already"), std::string::npos);
}

#if defined(QVA_ASAN)
// Blocks lie back to back, so only the poisoned gap before each block and
// the poisoning of free blocks let the sanitizer build catch an overrun or a
// use after free.
TEST_F(MemoryTest, OverrunsAndUsesAfterFreeOfPooledBlocksAreCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto *block = static_cast<volatile char *>(QVA_MemAllocQuiet(48));
  EXPECT_DEATH(block[48] = 1, "use-after-poison");
  EXPECT_DEATH(block[-1] = 1, "use-after-poison");
  QVA_MemFreeQuiet(const_cast<char *>(block));
  EXPECT_DEATH(block[0] = 1, "use-after-poison");
}
#endif

TEST_F(MemoryTest, TheHookFailsExactlyTheNthAllocationWithTheLabel) {
  qvahost::fail_allocation_after(3);
  std::vector<void *> blocks;
  for (int i = 0; i < 4; ++i) blocks.push_back(QVA_MemAllocQuiet(8));
  EXPECT_EQ(blocks[2], nullptr) << "only the third one fails";
  EXPECT_EQ(qvahost::allocations_since_hook(), 4);
  for (void *p : {blocks[0], blocks[1], blocks[3]}) {
    EXPECT_NE(p, nullptr);
    QVA_MemFreeQuiet(p);
  }
  qvahost::fail_allocation_after(1);
  auto e = ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(24, "FW_Ident key"); });
  EXPECT_EQ(e.code, qvahost::M_NOMEM);
  EXPECT_EQ(e.text, "Unable to allocate memory: to make FW_Ident key.");
  EXPECT_EQ(QVA_MemAllocQuiet(SIZE_MAX / 2), nullptr);  // the system refuses it
  EXPECT_NE(
      ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(SIZE_MAX / 2, "huge"); }).text.find("huge"),
      std::string::npos);
}

// Runs `op` with the n-th allocation failing, for n = 1, 2, ... until a run
// meets no failure.  Temporaries `op` made are released as an abandoned
// call's would be; `cleanup` undoes what else it made.  After every run the
// accounting must be back at the start.  Returns how many runs failed.
int Sweep(const std::function<void()> &op, const std::function<void()> &cleanup) {
  const qvahost::Accounting start = qvahost::accounting();
  int failures = 0;
  for (int64_t n = 1; n < 1000; ++n) {
    uint64_t mark = qvahost::tmp_mark();
    qvahost::fail_allocation_after(n);
    bool failed = false;
    try {
      op();
    } catch (const qvahost::HostError &e) {
      failed = true;
      EXPECT_EQ(e.code, qvahost::M_NOMEM) << "run " << n << ": " << e.text;
    }
    bool reached = qvahost::allocations_since_hook() >= n;
    qvahost::fail_allocation_after(0);
    qvahost::tmp_release_since(mark);
    cleanup();
    EXPECT_EQ(qvahost::accounting(), start) << "run " << n;
    failures += failed;
    if (!reached) {
      EXPECT_FALSE(failed) << "run " << n << " failed without the hook";
      return failures;
    }
  }
  ADD_FAILURE() << "the operation never completed";
  return failures;
}

TEST_F(MemoryTest, SweepStructureCopiesStringArraysAndConversions) {
  QVA_SDEF rec_def = hosttest::ensure_class("FA_RECORD", "",
                                            {hosttest::field("ID", QVA_TYP_LONG),
                                             {"NAMES", QVA_TYP_STRING, nullptr, {3}},
                                             hosttest::field("REF", QVA_TYP_PTR)});
  std::vector<QVA_HVID> made;
  auto op = [&] {
    QVA_VPTR rec = nullptr;
    auto *data = QVA_MakeTempStructVector(rec_def, 2, &rec, 1);
    for (int i = 0; i < 6; ++i)
      QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + (i / 3) * rec_def->length + 4) + i % 3,
                   i % 3 == 1 ? "" : "name");
    QVA_HVPTR copy = QVA_HeapVarNew(QVA_TYP_PTR, rec, 0, QVA_MSG_LONGJMP);
    made.push_back(copy->hash_id);
    made.push_back(QVA_HeapVarNew(QVA_TYP_PTR, rec, 1, QVA_MSG_LONGJMP)->hash_id);
    qvahost::Variable local("FA_LOCAL");
    QVA_VarCopy(&copy->var, local.get());
    EXPECT_EQ(hosttest::Text(reinterpret_cast<QVA_STRING *>(local->value.s.arr->data + 4)[2]),
              "name");
    QVA_VPTR arr = qvahost::make_string_array({"1", "22", "333", " 4 "});
    QVA_VarCopy(arr, QVA_Gettmp());
    QVA_VPTR longs = QVA_CvtLng(1, &arr);
    EXPECT_EQ(reinterpret_cast<QVA_LONG *>(longs->value.arr->data)[2], 333);
    QVA_StrToSTRING("made");
  };
  auto cleanup = [&] {
    for (QVA_HVID id : made) QVA_HeapVarDelete(id, 0, 0);
    made.clear();
  };
  EXPECT_GE(Sweep(op, cleanup), 18);
}

// A standard container's allocator that fails (std::bad_alloc) where the
// host's failing-allocation hook says so, as a container inside a routine
// fails when memory runs out.
template <class T>
struct HookedAllocator {
  using value_type = T;
  HookedAllocator() = default;
  template <class U>
  HookedAllocator(const HookedAllocator<U> &) {}
  T *allocate(size_t n) {
    if (qvahost::allocation_fails()) throw std::bad_alloc();
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T *p, size_t n) { std::allocator<T>().deallocate(p, n); }
  bool operator==(const HookedAllocator &) const = default;
};

// MEM_CONTAINERS(n): 0 + 1 + ... + n-1, gathered in a vector and a map
// that grow as they go, then returned in a host array; its allocations
// are the containers' and the host's in turn.
QVA_VPTR mem_containers(int, QVA_VPTR argv[]) {
  const QVA_LONG n = argv[0]->value.l;
  std::vector<QVA_LONG, HookedAllocator<QVA_LONG>> values;
  std::map<QVA_LONG, QVA_LONG, std::less<>, HookedAllocator<std::pair<const QVA_LONG, QVA_LONG>>>
      squares;
  for (QVA_LONG i = 0; i < n; ++i) {
    values.push_back(i);
    squares.emplace(i, i * i);
  }
  QVA_VPTR result;
  auto *out = reinterpret_cast<QVA_LONG *>(QVA_MakeTempVector(QVA_TYP_LONG, 2, 1, &result));
  for (QVA_LONG v : values) out[0] += v;
  out[1] = squares.rbegin()->second;
  return result;
}

// Every allocation of a routine that fails, a standard container's
// std::bad_alloc included, abandons the routine with the host's allocation
// error: caught where the routine was called, nothing left behind, and
// the next call succeeds.
TEST_F(MemoryTest, FailedAllocationsInStandardContainersBecomeTheHostError) {
  static QVA_SYSFUN_DEF funs[] = {{QVA_RTN(mem_containers), "MEM_CONTAINERS", 1, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 1), 1);
  hosttest::Tmp n(qvahost::make_long(40));
  const qvahost::Accounting before = qvahost::accounting();
  int failures = 0, in_containers = 0;
  for (int64_t fail = 1;; ++fail, ++failures) {
    ASSERT_LT(fail, 1000);
    qvahost::fail_allocation_after(fail);
    QVA_VPTR result = nullptr;
    qvahost::HostError error;
    try {
      result = qvahost::call_function("MEM_CONTAINERS", {n.get()});
    } catch (const qvahost::HostError &e) {
      error = e;
    }
    qvahost::fail_allocation_after(0);
    if (result) {
      hosttest::Tmp done(result);
      const auto *sums = reinterpret_cast<const QVA_LONG *>(result->value.arr->data);
      EXPECT_EQ(sums[0], 780);
      EXPECT_EQ(sums[1], 39 * 39);
      break;
    }
    EXPECT_EQ(error.code, qvahost::M_NOMEM) << "allocation " << fail;
    EXPECT_EQ(error.routine, "MEM_CONTAINERS");
    in_containers +=
        error.text == "Unable to allocate memory: to make a memory block." ? 1 : 0;
    ASSERT_EQ(qvahost::accounting(), before) << "allocation " << fail;
  }
  EXPECT_GT(in_containers, 40) << "each of the map's nodes and the vector's growth failed";
  EXPECT_GT(failures, in_containers) << "and the result's array";
}

}  // namespace
