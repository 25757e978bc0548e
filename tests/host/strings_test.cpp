// String descriptors and the text table (storing, duplicating, comparing,
// stale references), interned identifiers, and structure definitions
// (layout with inheritance, redefinition, tag look-up).
#include <cstring>
#include <vector>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Text;
using hosttest::Tmp;

static_assert(sizeof(QVA_STRING) == 12, "class structures rely on 12-byte strings");

using StringsTest = CoreTest;
using StructsTest = CoreTest;

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

// A copy shares the text, counted: each holder releases it once, and the
// text goes (and reads as stale) with the last one.
TEST_F(StringsTest, DupSharesTheTextUntilItsLastHolderOrChangesNothing) {
  QVA_STRING arr[3] = {Stored("one"), Stored(""), Stored("three")};
  QVA_STRING shared[3] = {arr[0], arr[1], arr[2]};  // by value: not yet holders
  QVA_StrDup(shared, 3);
  EXPECT_EQ(shared[1].s, 0u);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 2);
  QVA_StrDelete(arr, 3);
  EXPECT_EQ(Text(shared[0]), "one");
  EXPECT_EQ(Text(shared[2]), "three");
  // All or nothing when a copy cannot be made.
  QVA_STRING copy[3] = {shared[0], shared[1], shared[2]};
  qvahost::fail_allocation_after(2);
  ExpectHostError([&] { QVA_StrDup(copy, 3); });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(copy[i].s, shared[i].s);
  QVA_STRING last = shared[0];
  QVA_StrDelete(shared, 3);  // the failed copy took no holder: the texts go
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
  ExpectViolations(1, [&] { EXPECT_STREQ(QVA_STRING_STR(&last), ""); });
  // Part of a text is a text of its own.
  QVA_STRING whole = Stored("prefix and more"), part = whole;
  part.slen = 6;
  QVA_StrDup(&part, 1);
  QVA_StrDelete(&whole, 1);
  EXPECT_EQ(Text(part), "prefix");
  EXPECT_STREQ(QVA_STRING_STR(&part), "prefix");
  QVA_StrDelete(&part, 1);
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

// Texts up to 23 bytes live in their table slot, longer ones in a block of
// their own: both must read, order, copy, reuse a slot and fail alike.
TEST_F(StringsTest, ShortAndLongTextsBehaveAlikeAcrossTheSlotSize) {
  std::vector<std::string> texts;  // each sorts before the previous one
  for (size_t len = 18; len <= 30; ++len) texts.push_back(std::string(len - 1, 'k') + "z");
  std::vector<QVA_STRING> stored, copies;
  for (const std::string &t : texts) stored.push_back(Stored(t.c_str()));
  copies = stored;
  QVA_StrDup(copies.data(), static_cast<QVA_MEMINT>(copies.size()));
  QVA_StrDelete(stored.data(), static_cast<QVA_MEMINT>(stored.size()));
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(Text(copies[i]), texts[i]);  // the copies outlive the originals
    if (i > 0) {
      EXPECT_GT(QVA_StrCmp(&copies[i - 1], &copies[i]), 0) << texts[i].size();
    }
  }
  QVA_StrDelete(copies.data(), static_cast<QVA_MEMINT>(copies.size()));
  for (const std::string &t : {std::string(200, 'L'), std::string("s"), std::string(45, 'm')}) {
    QVA_STRING s{};
    qvahost::fail_allocation_after(1);
    ExpectHostError([&] { QVA_StrStore(&s, t.c_str()); });
    qvahost::fail_allocation_after(0);
    EXPECT_EQ(s.s, 0u) << t.size();
    s = Stored(t.c_str());  // a released slot holds a text of the other kind
    EXPECT_EQ(Text(s), t);
    QVA_StrDelete(&s, 1);
  }
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
}

// The published table read inline gives what the host gives, for texts in
// their slot and in blocks, and nothing for a reference it does not hold.
TEST_F(StringsTest, TextsReadInlineAgreeWithTheHost) {
  size_t len = 99;
  QVA_STRING empty{};
  EXPECT_STREQ(QVA_StrText(&empty, &len), "");
  EXPECT_EQ(len, 0u);
  for (size_t n : {size_t{1}, size_t{22}, size_t{23}, size_t{24}, size_t{25}, size_t{300}}) {
    std::string t(n, 'q');
    t[n / 2] = '\x90';
    QVA_STRING s = Stored(t.c_str());
    const char *text = QVA_StrText(&s, &len);
    ASSERT_NE(text, nullptr) << n;
    EXPECT_EQ(std::string(text, len), t);
    EXPECT_EQ(text, QVA_STRING_STR(&s)) << "the host's own bytes, not a copy";
    QVA_STRING longer = s;  // a descriptor claiming more than the text held
    longer.slen += 10;
    QVA_StrText(&longer, &len);
    EXPECT_EQ(len, n);
    QVA_STRING stale = s;
    QVA_StrDelete(&s, 1);
    EXPECT_EQ(QVA_StrText(&stale, &len), nullptr) << n;
    stale.s = 1u << QVA_TEXT_INDEX_BITS;  // a generation with no slot number
    EXPECT_EQ(QVA_StrText(&stale, &len), nullptr);
    stale.s = QVA_TEXT_INDEX_MASK;  // a slot number no page holds
    EXPECT_EQ(QVA_StrText(&stale, &len), nullptr);
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
  EXPECT_STREQ(QVA_IdentName(a), "IT_CLEANUP");
  EXPECT_EQ(QVA_IdentHash("IT_CLEANUP_AND_MORE", 10, 0, 2, 0), a) << "a length takes a prefix";
  qvatest::OutputCapture out;
  for (const char *bad : {"", "1abc", "a b", "$a", "a::", "::b", "a::b::c", "a:b", "a-b"})
    EXPECT_EQ(QVA_IdentHash(bad, 0, 0, QVA_MSG_RET, 0), 0u) << bad;
  auto e = ExpectHostError([] { QVA_IdentHash("not valid", 0, 0, 2, 0); });
  EXPECT_EQ(e.code, qvahost::M_BAD_IDENT);
  EXPECT_EQ(e.text, "Invalid identifier: 'not valid'.");
  ExpectViolations(1, [] { EXPECT_STREQ(QVA_IdentName(0x7FFFFFF0u), ""); });
}

constexpr QVA_STRUCT_TAG_DEF kEnd = {nullptr, nullptr, 0, 0};
// clang-format off
QVA_STRUCT_TAG_DEF kBase[] = {{"ST_BASE_TOP", nullptr, QVA_TYP_DOUBLE, 0},
                              {"ST_BASE_VERSION", nullptr, QVA_TYP_LONG, 0}, kEnd};
QVA_STRUCT_TAG_DEF kMiddle[] = {{"ST_BASE", nullptr, 0, QVA_STD_INHERIT},
    {"MIDDLE_VERSION", nullptr, QVA_TYP_LONG, 0}, {"MYHANDLER", nullptr, QVA_TYP_OBJREF, 0}, kEnd};
QVA_STRUCT_TAG_DEF kLeaf[] = {{"ST_MIDDLE", nullptr, 0, QVA_STD_INHERIT},
    {"ST_LEAF_VERSION", nullptr, QVA_TYP_LONG, 0}, {"IS_REGISTERED", nullptr, QVA_TYP_BYTE, 0},
    {"MESSIDENT", nullptr, QVA_TYP_PTR, 0}, {"WIDE_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"TEXT", nullptr, QVA_TYP_STRING, 0}, {"BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {"SMALL", nullptr, QVA_TYP_INT, 0}, kEnd};
// clang-format on

// The chain ST_BASE <- ST_MIDDLE <- ST_LEAF, defined as a module would.
QVA_SDEF DefineChain() {
  QVA_MakeStructInternal("ST_BASE", QVA_SDEF_REUSE, kBase, QVA_MSG_LONGJMP);
  QVA_MakeStructInternal("ST_MIDDLE", QVA_SDEF_REUSE, kMiddle, QVA_MSG_LONGJMP);
  return QVA_MakeStructInternal("ST_LEAF", QVA_SDEF_REUSE, kLeaf, QVA_MSG_LONGJMP);
}

// Fields and their offsets, as "NAME@OFFSET " in order.
std::string Layout(QVA_SDEF sd) {
  std::string out;
  for (const auto &[name, offset] : qvahost::struct_fields(sd))
    out += name + "@" + std::to_string(offset) + " ";
  return out;
}

TEST_F(StructsTest, SubclassFieldsContinueAfterTheLastInheritedField) {
  QVA_SDEF leaf = DefineChain();
  QVA_SDEF middle = qvahost::find_struct("ST_MIDDLE");
  EXPECT_EQ(qvahost::struct_length(qvahost::find_struct("st_base")), 16);  // padded to 8
  EXPECT_EQ(qvahost::struct_length(middle), 24);
  EXPECT_EQ(qvahost::struct_super(leaf), middle);
  EXPECT_EQ(qvahost::struct_super(middle), qvahost::find_struct("ST_BASE"));
  EXPECT_EQ(Layout(leaf),
            "ST_BASE_TOP@0 ST_BASE_VERSION@8 MIDDLE_VERSION@12 MYHANDLER@16 ST_LEAF_VERSION@20 "
            "IS_REGISTERED@24 MESSIDENT@28 WIDE_TOP@32 TEXT@40 BOTTOM@56 SMALL@64 ");
  EXPECT_EQ(qvahost::struct_length(leaf), 72);
  QVA_SDEF wide = hosttest::ensure_class("ST_WIDE", "", {hosttest::field("D", QVA_TYP_DOUBLE)});
  QVA_SDEF outer = hosttest::ensure_class("ST_OUTER", "",
                                          {hosttest::field("FLAG", QVA_TYP_BYTE),
                                           {"INNER", QVA_TYP_STRUCT, wide, {2}},
                                           hosttest::field("NAME", QVA_TYP_STRING)});
  // A structure aligns as its widest field.
  EXPECT_EQ(Layout(outer), "FLAG@0 INNER@8 NAME@24 ");
  EXPECT_EQ(qvahost::struct_length(outer), 40);
  EXPECT_TRUE(outer->has_texts);
  EXPECT_FALSE(wide->has_texts);
}

TEST_F(StructsTest, RedefinitionHandsBackTheOneDefinitionOrIsRefused) {
  QVA_SDEF leaf = DefineChain();
  size_t count = qvahost::sdef_all().size();
  QVA_STRUCT_TAG_DEF copy[sizeof kLeaf / sizeof kLeaf[0]];  // the same tags from another table
  std::memcpy(copy, kLeaf, sizeof kLeaf);
  EXPECT_EQ(QVA_MakeStructInternal("st_leaf", QVA_SDEF_REUSE, copy, 0), leaf);
  EXPECT_EQ(qvahost::sdef_all().size(), count);
  EXPECT_EQ(qvahost::define_struct("ST_PLAIN", "", {hosttest::field("A", QVA_TYP_LONG)}),
            qvahost::define_struct("ST_PLAIN", "", {hosttest::field("a", QVA_TYP_LONG)}));

  QVA_STRUCT_TAG_DEF other[] = {{"ST_BASE_TOP", nullptr, QVA_TYP_DOUBLE, 0},
                                {"ST_BASE_VERSION", nullptr, QVA_TYP_LONG64, 0},
                                kEnd};
  auto e = ExpectHostError(
      [&] { QVA_MakeStructInternal("ST_BASE", QVA_SDEF_REUSE, other, QVA_MSG_LONGJMP); });
  EXPECT_EQ(e.code, qvahost::M_STRUCT_CONFLICT);
  EXPECT_EQ(e.text, "Conflicting data structures: ST_BASE.");
  qvatest::OutputCapture out;
  EXPECT_EQ(QVA_MakeStructInternal("ST_BASE", 0, kBase, QVA_MSG_RET), nullptr) << "not REUSE";
  EXPECT_EQ(out.lines().size(), 1u);
}

TEST_F(StructsTest, TagAddressFindsInheritedFieldsCaseInsensitively) {
  QVA_VPTR raw = nullptr;
  char *data = QVA_MakeTempStructVector(DefineChain(), 1, &raw, 1);
  Tmp guard(raw);
  QVA_MEMINT offset = -1;
  QVA_SDEF tag_sdef = raw->value.s.sdef;
  EXPECT_EQ(QVA_StructGetTagAddress(raw, "ST_BASE_TOP", &offset, &tag_sdef, 0), data);
  EXPECT_EQ(offset, 0);
  EXPECT_EQ(tag_sdef, nullptr);  // not a structure field
  EXPECT_EQ(QVA_StructGetTagAddress(raw, "myHandler", &offset, nullptr, 0), data + 16);
  EXPECT_EQ(QVA_StructGetTagAddress(raw, "BOTTOM", nullptr, nullptr, 0), data + 56);
  // Repeated calls with the same literal keep answering the same; the same
  // buffer holding another name later is looked up afresh.
  char name[32] = "MESSIDENT";
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(QVA_StructGetTagAddress(raw, name, nullptr, nullptr, 0), data + 28);
  std::strcpy(name, "TEXT");
  EXPECT_EQ(QVA_StructGetTagAddress(raw, name, nullptr, nullptr, 0), data + 40);
  qvatest::OutputCapture out;
  EXPECT_EQ(QVA_StructGetTagAddress(raw, "NOPE", nullptr, nullptr, QVA_MSG_RET), nullptr);
  EXPECT_TRUE(out.lines().empty());
  auto e = ExpectHostError([&] { QVA_StructGetTagAddress(raw, "NOPE", nullptr, nullptr, 2); });
  EXPECT_EQ(e.code, qvahost::M_NO_TAG);
  EXPECT_EQ(e.text, "Tag name NOPE is undefined for structure ST_LEAF.");
}

}  // namespace
