// Texts short enough to live in their table slot and texts with a block of
// their own must behave alike: content, order, copies, release, and
// failure to make one.
#include <string>
#include <vector>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Text;

using TextStorageTest = CoreTest;

// Lengths on both sides of the largest text a slot holds.
std::vector<std::string> TextsAroundTheSlotSize() {
  std::vector<std::string> texts;
  for (size_t len = 40; len <= 52; ++len) texts.push_back(std::string(len - 1, 'k') + "z");
  return texts;
}

TEST_F(TextStorageTest, ShortAndLongTextsReadCompareAndCopyAlike) {
  std::vector<std::string> texts = TextsAroundTheSlotSize();
  std::vector<QVA_STRING> stored(texts.size());
  for (size_t i = 0; i < texts.size(); ++i) QVA_StrStore(&stored[i], texts[i].c_str());
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(Text(stored[i]), texts[i]);
    EXPECT_EQ(std::string(QVA_STRING_STR(&stored[i])).size(), texts[i].size());
    if (i > 0) {  // the first differing byte decides, across the boundary too
      EXPECT_GT(QVA_StrCmp(&stored[i - 1], &stored[i]), 0) << texts[i - 1].size();
      EXPECT_LT(QVA_StrCmp(&stored[i], &stored[i - 1]), 0) << texts[i].size();
    }
  }
  std::vector<QVA_STRING> copies = stored;
  QVA_StrDup(copies.data(), static_cast<QVA_MEMINT>(copies.size()));
  QVA_StrDelete(stored.data(), static_cast<QVA_MEMINT>(stored.size()));
  // The copies own their texts: they read the same after the originals went.
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(Text(copies[i]), texts[i]);
    EXPECT_EQ(QVA_StrCmp(&copies[i], &copies[i]), 0);
  }
  QVA_StrDelete(copies.data(), static_cast<QVA_MEMINT>(copies.size()));
}

TEST_F(TextStorageTest, ATextOfEitherSizeCanFailToBeMadeAndLeavesNothing) {
  for (const std::string &text : TextsAroundTheSlotSize()) {
    QVA_STRING s{};
    qvahost::fail_allocation_after(1);
    qvatest::ExpectHostError([&] { QVA_StrStore(&s, text.c_str()); });
    qvahost::fail_allocation_after(0);
    EXPECT_EQ(s.s, 0u) << text.size();
    EXPECT_EQ(qvahost::accounting().texts, baseline_.texts) << text.size();
  }
}

TEST_F(TextStorageTest, ReleasedSlotsAreReusedWithoutMixingTexts) {
  // A slot that held a long text and then a short one (and the reverse)
  // must give each its own content and free the long one's block once.
  std::string long_text(200, 'L'), short_text = "s";
  for (int round = 0; round < 3; ++round) {
    QVA_STRING a{}, b{};
    QVA_StrStore(&a, round % 2 ? short_text.c_str() : long_text.c_str());
    QVA_StrDelete(&a, 1);
    QVA_StrStore(&b, round % 2 ? long_text.c_str() : short_text.c_str());
    EXPECT_EQ(Text(b), round % 2 ? long_text : short_text);
    QVA_StrDelete(&b, 1);
  }
}

}  // namespace
