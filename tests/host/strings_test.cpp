// String descriptors and the text table (storing, duplicating, comparing,
// stale references), and interned identifiers.
#include <vector>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Text;

static_assert(sizeof(QVA_STRING) == 12, "class structures rely on 12-byte strings");

using StringsTest = CoreTest;

QVA_STRING Stored(const char *text) {
  QVA_STRING s{};
  QVA_StrStore(&s, text);
  return s;
}

TEST_F(StringsTest, StoreOwnsACopyAndEmptyStringsHoldNoText) {
  char source[] = "hello";
  QVA_STRING s = Stored(source);
  source[0] = 'J';  // the descriptor does not point at the caller's text
  EXPECT_EQ(Text(s), "hello");
  EXPECT_EQ(s.slen, 5);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 1);
  QVA_StrDelete(&s, 1);
  EXPECT_EQ(s.s, 0u);
  EXPECT_EQ(s.slen, 0);
  EXPECT_STREQ(QVA_STRING_STR(&s), "");
  QVA_STRING a = Stored(""), b = Stored(nullptr);
  EXPECT_EQ(a.s, 0u);
  EXPECT_EQ(b.slen, 0);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
  QVA_StrDelete(&a, 1);  // nothing to release, and no complaint
}

TEST_F(StringsTest, DupGivesEveryDescriptorItsOwnTextOrChangesNothing) {
  QVA_STRING arr[3] = {Stored("one"), Stored(""), Stored("three")};
  QVA_STRING shared[3] = {arr[0], arr[1], arr[2]};  // by value: shares the texts
  QVA_StrDup(shared, 3);
  EXPECT_NE(shared[0].s, arr[0].s);
  EXPECT_EQ(shared[1].s, 0u);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 4);
  QVA_StrDelete(arr, 3);
  EXPECT_EQ(Text(shared[0]), "one");
  EXPECT_EQ(Text(shared[2]), "three");
  // All or nothing when a text cannot be made.
  QVA_STRING copy[3] = {shared[0], shared[1], shared[2]};
  qvahost::fail_allocation_after(2);
  ExpectHostError([&] { QVA_StrDup(copy, 3); });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(copy[i].s, shared[i].s);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 2);
  QVA_StrDelete(shared, 3);
}

// Bytes compare unsigned (upper case first) and a prefix sorts first. Longer
// texts are compared eight bytes at a time: the first differing byte decides
// wherever it sits in a word, and decides unsigned.
TEST_F(StringsTest, CompareIsBytewiseWithTheEmptyStringFirst) {
  // clang-format off
  const std::vector<const char *> ascending = {
      "", "01234567", "012345678", "0123456789abcde", "0123456789abcdef", "B", "a", "a\x01",
      "ab", "abc", "abcdefgh", "abcdefghXbcdefgh", "abcdefghabcdefgh", "abcdefgi", "abd",
      "azzzzzzz", "bzzzzzzz", "key-00000001", "key-00000002", "key-01000000", "key-10000000",
      "zzzzzzzz", "zzzzzzz\x7f", "zzzzzzz\x80", "\x80zzzzzzz", "\xff"};
  // clang-format on
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t k = 0; k < ascending.size(); ++k) {
      QVA_STRING a = Stored(ascending[i]), b = Stored(ascending[k]);
      int r = QVA_StrCmp(&a, &b);
      EXPECT_EQ((r > 0) - (r < 0), (i > k) - (i < k)) << ascending[i] << " vs " << ascending[k];
      QVA_StrDelete(&a, 1);
      QVA_StrDelete(&b, 1);
    }
  }
}

TEST_F(StringsTest, AStaleTextReferenceIsDetectedWhileTextsComeAndGo) {
  QVA_STRING s = Stored("gone soon");
  QVA_STRING stale = s;
  QVA_StrDelete(&s, 1);
  std::string err = ExpectViolations(1, [&] { EXPECT_STREQ(QVA_STRING_STR(&stale), ""); });
  EXPECT_NE(err.find("stale"), std::string::npos) << err;
  std::vector<QVA_STRING> many;
  for (int i = 0; i < 300; ++i) many.push_back(Stored("filler"));
  for (int i = 0; i < 300; i += 2) QVA_StrDelete(&many[i], 1);
  for (int i = 0; i < 300; ++i) many.push_back(Stored("more"));
  // Comparing through it neither reads freed memory nor passes silently;
  // releasing it again is refused and leaves the live texts alone.
  ExpectViolations(1, [&] { EXPECT_LT(QVA_StrCmp(&stale, &many[1]), 0); });
  ExpectViolations(1, [&] { QVA_StrDelete(&stale, 1); });
  EXPECT_EQ(Text(many[1]), "filler");
  for (QVA_STRING &m : many) QVA_StrDelete(&m, 1);
}

TEST_F(StringsTest, IdentifiersInternCaseInsensitivelyAndRefuseBadNames) {
  QVA_IDENT a = QVA_IdentHash("it_Cleanup", 0, 0, 2, 0);
  EXPECT_NE(a, 0u);
  EXPECT_EQ(QVA_IdentHash("IT_CLEANUP", 0, QVA_IDENT_USER, 2, 0), a);
  EXPECT_NE(QVA_IdentHash("it_cleanup_2", 0, 0, 2, 0), a);
  EXPECT_STREQ(QVA_IdentName(a), "IT_CLEANUP");
  EXPECT_EQ(qvahost::ident_of("It_CleanUp"), a);
  EXPECT_EQ(QVA_IdentHash("IT_CLEANUP_AND_MORE", 10, 0, 2, 0), a) << "a length takes a prefix";
  for (const char *ok : {"A", "_x", "a1$", "QVAFWMESSAGEHANDLER::SENDMESSAGE", "x::_y"})
    EXPECT_NE(QVA_IdentHash(ok, 0, 0, 0, 0), 0u) << ok;
  qvatest::OutputCapture out;
  for (const char *bad : {"", "1abc", "a b", "$a", "a::", "::b", "a::b::c", "a:b", "a-b"})
    EXPECT_EQ(QVA_IdentHash(bad, 0, 0, QVA_MSG_RET, 0), 0u) << bad;
  EXPECT_EQ(QVA_IdentHash(nullptr, 0, 0, QVA_MSG_RET, 0), 0u);
  auto e = ExpectHostError([] { QVA_IdentHash("not valid", 0, 0, 2, 0); });
  EXPECT_EQ(e.code, qvahost::M_BAD_IDENT);
  EXPECT_EQ(e.text, "Invalid identifier: 'not valid'.");
  EXPECT_STREQ(QVA_IdentName(0), "");
  ExpectViolations(1, [] { EXPECT_STREQ(QVA_IdentName(0x7FFFFFF0u), ""); });
}

}  // namespace
