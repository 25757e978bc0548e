// String descriptors and the text table: storing, duplicating, deleting,
// comparing, and stale references.
#include <vector>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Text;

static_assert(sizeof(QVA_STRING) == 12, "class structures rely on 12-byte strings");

using StringsTest = CoreTest;

QVA_STRING Stored(const char *text) {
  QVA_STRING s{};
  QVA_StrStore(&s, text);
  return s;
}

TEST_F(StringsTest, StoreOwnsACopyAndDeleteReleasesIt) {
  char source[] = "hello";
  QVA_STRING s = Stored(source);
  source[0] = 'J';  // the descriptor does not point at the caller's text
  EXPECT_EQ(Text(s), "hello");
  EXPECT_EQ(s.slen, 5);
  EXPECT_NE(s.s, 0u);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 1);
  QVA_StrDelete(&s, 1);
  EXPECT_EQ(s.s, 0u);
  EXPECT_EQ(s.slen, 0);
  EXPECT_STREQ(QVA_STRING_STR(&s), "");
}

TEST_F(StringsTest, EmptyStringsHoldNoText) {
  QVA_STRING a = Stored("");
  QVA_STRING b = Stored(nullptr);
  EXPECT_EQ(a.s, 0u);
  EXPECT_EQ(b.slen, 0);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
  EXPECT_STREQ(QVA_STRING_STR(&a), "");
  QVA_StrDelete(&a, 1);  // nothing to release, and no complaint
}

TEST_F(StringsTest, DupGivesEveryDescriptorItsOwnText) {
  QVA_STRING arr[3] = {Stored("one"), Stored(""), Stored("three")};
  QVA_STRING shared[3] = {arr[0], arr[1], arr[2]};  // by value: shares the texts
  QVA_StrDup(shared, 3);
  EXPECT_NE(shared[0].s, arr[0].s);
  EXPECT_EQ(shared[1].s, 0u);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 4);
  QVA_StrDelete(arr, 3);
  EXPECT_EQ(Text(shared[0]), "one");
  EXPECT_EQ(Text(shared[2]), "three");
  QVA_StrDelete(shared, 3);
}

TEST_F(StringsTest, DupIsAllOrNothingWhenATextCannotBeMade) {
  QVA_STRING arr[3] = {Stored("a"), Stored("b"), Stored("c")};
  QVA_STRING copy[3] = {arr[0], arr[1], arr[2]};
  qvahost::fail_allocation_after(2);  // the second copy fails
  qvatest::ExpectHostError([&] { QVA_StrDup(copy, 3); });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(copy[i].s, arr[i].s);  // unchanged
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 3);
  QVA_StrDelete(arr, 3);
}

TEST_F(StringsTest, CompareIsBytewiseWithTheEmptyStringFirst) {
  struct Case {
    const char *a, *b;
    int sign;
  } cases[] = {
      {"abc", "abd", -1}, {"abd", "abc", 1},  {"ab", "abc", -1},   {"abc", "abc", 0},
      {"", "a", -1},      {"", "", 0},        {"B", "a", -1},      // upper case sorts first
      {"\xff", "a", 1},   {"a\x01", "a", 1},  // bytes compare unsigned
      // Longer texts, compared eight bytes at a time: the first differing
      // byte decides wherever it sits in a word, and decides unsigned.
      {"key-00000001", "key-00000002", -1}, {"key-10000000", "key-01000000", 1},
      {"abcdefgh", "abcdefgi", -1},         {"abcdefghXbcdefgh", "abcdefghabcdefgh", -1},
      {"azzzzzzz", "bzzzzzzz", -1},         {"zzzzzzz\x80", "zzzzzzz\x7f", 1},
      {"\x80" "aaaaaaa", "aaaaaaaa", 1},     {"0123456789abcdef", "0123456789abcdef", 0},
      {"0123456789abcdef", "0123456789abcde", 1}, {"01234567", "012345678", -1},
  };
  for (const Case &c : cases) {
    QVA_STRING a = Stored(c.a), b = Stored(c.b);
    int r = QVA_StrCmp(&a, &b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign) << '"' << c.a << "\" vs \"" << c.b << '"';
    QVA_StrDelete(&a, 1);
    QVA_StrDelete(&b, 1);
  }
}

TEST_F(StringsTest, AStaleTextReferenceIsDetected) {
  QVA_STRING s = Stored("gone soon");
  QVA_STRING stale = s;
  QVA_StrDelete(&s, 1);
  std::string err = ExpectViolations(1, [&] { EXPECT_STREQ(QVA_STRING_STR(&stale), ""); });
  EXPECT_NE(err.find("stale"), std::string::npos) << err;
  // Comparing through it neither reads freed memory nor passes silently.
  QVA_STRING other = Stored("x");
  ExpectViolations(1, [&] { EXPECT_LT(QVA_StrCmp(&stale, &other), 0); });
  // Releasing it again is refused, and the live text is not affected.
  ExpectViolations(1, [&] { QVA_StrDelete(&stale, 1); });
  EXPECT_EQ(Text(other), "x");
  QVA_StrDelete(&other, 1);
}

TEST_F(StringsTest, AStaleReferenceStaysDetectedWhileTextsComeAndGo) {
  QVA_STRING s = Stored("first");
  QVA_STRING stale = s;
  QVA_StrDelete(&s, 1);
  std::vector<QVA_STRING> many;
  for (int i = 0; i < 300; ++i) many.push_back(Stored("filler"));
  for (int i = 0; i < 300; i += 2) QVA_StrDelete(&many[i], 1);
  for (int i = 0; i < 300; ++i) many.push_back(Stored("more"));
  ExpectViolations(1, [&] { QVA_STRING_STR(&stale); });
  for (QVA_STRING &m : many) QVA_StrDelete(&m, 1);
}

}  // namespace
