// The host allocator: alignment, misuse detection, exhaustion reports and
// the failing-allocation hook.
#include <cstdint>
#include <cstring>
#include <vector>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using qvatest::ExpectHostError;

using MemoryTest = CoreTest;

TEST_F(MemoryTest, BlocksOfEverySizeAreAlignedWritableAndCounted) {
  const size_t sizes[] = {0, 1, 15, 16, 17, 48, 100, 1000, 1024, 1025, 4096, 100000};
  std::vector<void *> blocks;
  for (size_t size : sizes) {
    void *p = QVA_MemAllocQuiet(size);
    ASSERT_NE(p, nullptr) << size;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << size;
    std::memset(p, 0xAB, size);
    blocks.push_back(p);
  }
  // Distinct blocks, none overlapping its neighbour's data.
  for (size_t i = 0; i < blocks.size(); ++i)
    for (size_t k = 0; k < sizes[i]; ++k)
      ASSERT_EQ(static_cast<unsigned char *>(blocks[i])[k], 0xAB);
  EXPECT_EQ(qvahost::accounting().allocations - baseline_.allocations,
            static_cast<int64_t>(blocks.size()));
  for (void *p : blocks) QVA_MemFreeMSG_INFO(p, "test");
  EXPECT_EQ(qvahost::accounting().allocations, baseline_.allocations);
}

TEST_F(MemoryTest, FreeingTwiceIsAViolationNotACorruption) {
  for (size_t size : {size_t{32}, size_t{50000}}) {  // pooled and large blocks
    void *p = QVA_MemAllocMSG_LONGJMP(size, "twice");
    QVA_MemFreeMSG_RET(p, "first");
    std::string err = ExpectViolations(1, [&] { QVA_MemFreeMSG_RET(p, "second"); });
    EXPECT_NE(err.find("second"), std::string::npos) << err;
    // The allocator still works and the count was not decremented twice.
    EXPECT_EQ(qvahost::accounting().allocations, baseline_.allocations);
    void *q = QVA_MemAllocQuiet(size);
    ASSERT_NE(q, nullptr);
    QVA_MemFreeQuiet(q);
  }
}

TEST_F(MemoryTest, ForeignPointersAreRefused) {
  char stack_buffer[64];
  int *heap_int = new int(5);
  void *block = QVA_MemAllocQuiet(256);
  ExpectViolations(1, [&] { QVA_MemFreeQuiet(stack_buffer + 16); });
  ExpectViolations(1, [&] { QVA_MemFreeQuiet(heap_int); });
  ExpectViolations(1, [&] { QVA_MemFreeQuiet(static_cast<char *>(block) + 32); });
  ExpectViolations(1, [&] { QVA_MemFreeQuiet(static_cast<char *>(block) + 3); });
  // A host record is not a QVA_MemAlloc block either.
  void *record = qvahost::raw_alloc(64, false);
  ExpectViolations(1, [&] { QVA_MemFreeQuiet(record); });
  qvahost::raw_free(record);
  // None of that disturbed the real block.
  EXPECT_EQ(*heap_int, 5);
  QVA_MemFreeQuiet(block);
  delete heap_int;
  QVA_MemFreeQuiet(nullptr);  // harmless, like free(NULL)
}

TEST_F(MemoryTest, ExhaustionIsReportedWithTheLabel) {
  qvahost::fail_allocation_after(1);
  auto e = ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(24, "FW_Ident key"); });
  EXPECT_EQ(e.text, "Unable to allocate memory: to make FW_Ident key.");
  EXPECT_EQ(e.code, qvahost::M_NOMEM);

  qvahost::fail_allocation_after(1);
  EXPECT_EQ(QVA_MemAllocQuiet(24), nullptr);
  EXPECT_EQ(QVA_MemAllocQuiet(SIZE_MAX / 2), nullptr);  // the system refuses it
  auto big = ExpectHostError([] { QVA_MemAllocMSG_LONGJMP(SIZE_MAX / 2, "huge"); });
  EXPECT_NE(big.text.find("huge"), std::string::npos);
}

TEST_F(MemoryTest, TheHookFailsExactlyTheNthAllocation) {
  qvahost::fail_allocation_after(3);
  void *a = QVA_MemAllocQuiet(8);
  void *b = QVA_MemAllocQuiet(8);
  void *c = QVA_MemAllocQuiet(8);
  void *d = QVA_MemAllocQuiet(8);
  EXPECT_NE(a, nullptr);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_NE(d, nullptr);  // only the third one fails
  EXPECT_EQ(qvahost::allocations_since_hook(), 4);
  for (void *p : {a, b, d}) QVA_MemFreeQuiet(p);

  qvahost::fail_allocation_after(0);  // off
  void *e = QVA_MemAllocQuiet(8);
  EXPECT_NE(e, nullptr);
  QVA_MemFreeQuiet(e);
}

TEST_F(MemoryTest, ManyBlocksSurviveChurn) {
  // Interleaved allocation and release across size classes keeps every
  // live block's contents intact.
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
      size_t n = 1 + (seed >> 4) % 700;
      auto *p = static_cast<unsigned char *>(QVA_MemAllocQuiet(n));
      ASSERT_NE(p, nullptr);
      std::memset(p, static_cast<int>(static_cast<unsigned char>(n)), n);
      live.emplace_back(p, n);
    }
  }
  for (auto [p, n] : live) QVA_MemFreeQuiet(p);
}

}  // namespace
