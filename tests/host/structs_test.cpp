// Structure definitions: layout with inheritance, redefinition, tag tables
// and tag look-up.
#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Tmp;

using StructsTest = CoreTest;

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

  QVA_MEMINT dims[] = {2, 3, 2};  // two dimensions, 3 x 2
  QVA_STRUCT_TAG_DEF tags[] = {
      {"GRID", dims, QVA_TYP_INT, 0}, {"AFTER", nullptr, QVA_TYP_BYTE, 0}, kEnd};
  QVA_SDEF grid = QVA_MakeStructInternal("ST_GRID", QVA_SDEF_REUSE, tags, QVA_MSG_LONGJMP);
  EXPECT_EQ(Layout(grid), "GRID@0 AFTER@12 ");
  EXPECT_EQ(qvahost::sdef_tag(grid, "grid")->n_elts, 6);
  EXPECT_EQ(qvahost::struct_length(grid), 14);
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
  EXPECT_EQ(ExpectHostError([&] {
              QVA_STRUCT_TAG_DEF t[] = {{"ST_NO_SUCH_BASE", nullptr, 0, QVA_STD_INHERIT}, kEnd};
              QVA_MakeStructInternal("ST_BAD1", QVA_SDEF_REUSE, t, QVA_MSG_LONGJMP);
            }).text,
            "Structure type not defined: ST_NO_SUCH_BASE.");
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
  EXPECT_EQ(offset, 16);
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
  Tmp number(QVA_GettmpLong(1));  // no structure, no tags at all
  EXPECT_EQ(QVA_StructGetTagAddress(number.get(), "ST_BASE_TOP", nullptr, nullptr, 0), nullptr);
  ExpectHostError([&] { QVA_StructGetTagAddress(number.get(), "X", nullptr, nullptr, 2); });
}

}  // namespace
