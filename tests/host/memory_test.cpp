// The host allocator (alignment, misuse detection, exhaustion, the
// failing-allocation hook) and the accounting every test ends with.
#include <cstdint>
#include <cstring>
#include <vector>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;

using MemoryTest = CoreTest;

TEST_F(MemoryTest, EachKindOfPlantedLeakShowsInTheBalance) {
  const qvahost::Accounting start = qvahost::accounting();
  QVA_VPTR tmp = QVA_Gettmp();
  qvahost::Accounting now = qvahost::accounting();
  EXPECT_EQ(now.temporaries, start.temporaries + 1);
  EXPECT_NE(qvahost::to_string(now).find("temporaries=" + std::to_string(now.temporaries)),
            std::string::npos);
  QVA_Deltmp(tmp);
  QVA_STRING s{};
  QVA_StrStore(&s, "leak");
  EXPECT_EQ(qvahost::accounting().texts, start.texts + 1);
  QVA_StrDelete(&s, 1);
  void *block = QVA_MemAllocQuiet(10);
  EXPECT_EQ(qvahost::accounting().allocations, start.allocations + 1);
  QVA_MemFreeQuiet(block);
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, nullptr, 0, 2);
  EXPECT_EQ(qvahost::accounting().heap_vars, start.heap_vars + 1);
  QVA_HeapVarDelete(h->hash_id, 0, 0);
  EXPECT_EQ(qvahost::accounting(), start);

  std::string err = ExpectViolations(1, [] { qvahost::contract_violation("planted misuse"); });
  EXPECT_NE(err.find("QVA host contract violation: planted misuse"), std::string::npos) << err;
  EXPECT_NE(qvahost::accounting(), start);
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
      ASSERT_NE(p, nullptr);
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
    std::string err = ExpectViolations(1, [&] { QVA_MemFreeMSG_RET(p, "second"); });
    EXPECT_NE(err.find("second"), std::string::npos) << err;
    EXPECT_EQ(qvahost::accounting().allocations, baseline_.allocations) << "not counted twice";
  }
  char stack_buffer[64];
  int *heap_int = new int(5);
  auto *block = static_cast<char *>(QVA_MemAllocQuiet(256));
  void *record = qvahost::raw_alloc(64, false);  // a host record is not a block either
  for (void *foreign : {static_cast<void *>(stack_buffer + 16), static_cast<void *>(heap_int),
                        static_cast<void *>(block + 32), static_cast<void *>(block + 3), record})
    ExpectViolations(1, [&] { QVA_MemFreeQuiet(foreign); });
  qvahost::raw_free(record);
  EXPECT_EQ(*heap_int, 5);
  QVA_MemFreeQuiet(block);
  delete heap_int;
  QVA_MemFreeQuiet(nullptr);  // harmless, like free(NULL)
}

TEST_F(MemoryTest, TheHookFailsExactlyTheNthAllocationWithTheLabel) {
  qvahost::fail_allocation_after(3);
  void *a = QVA_MemAllocQuiet(8), *b = QVA_MemAllocQuiet(8);
  EXPECT_EQ(QVA_MemAllocQuiet(8), nullptr);
  void *d = QVA_MemAllocQuiet(8);  // only the third one fails
  EXPECT_EQ(qvahost::allocations_since_hook(), 4);
  for (void *p : {a, b, d}) {
    EXPECT_NE(p, nullptr);
    QVA_MemFreeQuiet(p);
  }
  qvahost::fail_allocation_after(1);
  auto e = ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(24, "FW_Ident key"); });
  EXPECT_EQ(e.text, "Unable to allocate memory: to make FW_Ident key.");
  EXPECT_EQ(e.code, qvahost::M_NOMEM);
  EXPECT_EQ(QVA_MemAllocQuiet(SIZE_MAX / 2), nullptr);  // the system refuses it
  auto big = ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(SIZE_MAX / 2, "huge"); });
  EXPECT_NE(big.text.find("huge"), std::string::npos);
}

}  // namespace
