// Structure definitions: layout with inheritance, redefinition, tag tables
// and tag look-up.
#include <cstring>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Tmp;
using qvatest::ExpectHostError;

using StructsTest = CoreTest;

QVA_STRUCT_TAG_DEF kBase[] = {
    {"ST_BASE_TOP", nullptr, QVA_TYP_DOUBLE, 0},
    {"ST_BASE_VERSION", nullptr, QVA_TYP_LONG, 0},
    {nullptr, nullptr, 0, 0},
};
QVA_STRUCT_TAG_DEF kMiddle[] = {
    {"ST_BASE", nullptr, 0, QVA_STD_INHERIT},
    {"MIDDLE_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"MYHANDLER", nullptr, QVA_TYP_OBJREF, 0},
    {nullptr, nullptr, 0, 0},
};
QVA_STRUCT_TAG_DEF kLeaf[] = {
    {"ST_MIDDLE", nullptr, 0, QVA_STD_INHERIT},
    {"ST_LEAF_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"IS_REGISTERED", nullptr, QVA_TYP_BYTE, 0},
    {"MESSIDENT", nullptr, QVA_TYP_PTR, 0},
    {"WIDE_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"TEXT", nullptr, QVA_TYP_STRING, 0},
    {"BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {"SMALL", nullptr, QVA_TYP_INT, 0},
    {nullptr, nullptr, 0, 0},
};

// The chain ST_BASE <- ST_MIDDLE <- ST_LEAF, defined as a module would.
QVA_SDEF DefineChain() {
  QVA_MakeStructInternal("ST_BASE", QVA_SDEF_REUSE, kBase, QVA_MSG_LONGJMP);
  QVA_MakeStructInternal("ST_MIDDLE", QVA_SDEF_REUSE, kMiddle, QVA_MSG_LONGJMP);
  return QVA_MakeStructInternal("ST_LEAF", QVA_SDEF_REUSE, kLeaf, QVA_MSG_LONGJMP);
}

QVA_MEMINT OffsetOf(QVA_SDEF sd, const std::string &field) {
  for (const auto &[name, offset] : qvahost::struct_fields(sd))
    if (name == field) return offset;
  ADD_FAILURE() << "no field " << field;
  return -1;
}

TEST_F(StructsTest, SubclassFieldsContinueAfterTheLastInheritedField) {
  QVA_SDEF leaf = DefineChain();
  QVA_SDEF base = qvahost::find_struct("st_base");
  QVA_SDEF middle = qvahost::find_struct("ST_MIDDLE");
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(qvahost::struct_length(base), 16);  // DOUBLE@0, LONG@8, padded to 8
  EXPECT_EQ(OffsetOf(middle, "MIDDLE_VERSION"), 12);  // not 16
  EXPECT_EQ(OffsetOf(middle, "MYHANDLER"), 16);
  EXPECT_EQ(qvahost::struct_length(middle), 24);
  EXPECT_EQ(qvahost::struct_super(leaf), middle);
  EXPECT_EQ(qvahost::struct_super(middle), base);
  EXPECT_EQ(qvahost::struct_name(leaf), "ST_LEAF");

  const std::vector<std::pair<std::string, QVA_MEMINT>> expected = {
      {"ST_BASE_TOP", 0},      {"ST_BASE_VERSION", 8}, {"MIDDLE_VERSION", 12},
      {"MYHANDLER", 16},       {"ST_LEAF_VERSION", 20}, {"IS_REGISTERED", 24},
      {"MESSIDENT", 28},       {"WIDE_TOP", 32},       {"TEXT", 40},
      {"BOTTOM", 56},          {"SMALL", 64}};
  EXPECT_EQ(qvahost::struct_fields(leaf), expected);
  EXPECT_EQ(qvahost::struct_length(leaf), 72);
}

TEST_F(StructsTest, IdenticalRedefinitionHandsBackTheOneDefinition) {
  QVA_SDEF leaf = DefineChain();
  size_t count = qvahost::sdef_all().size();
  EXPECT_EQ(QVA_MakeStructInternal("ST_LEAF", QVA_SDEF_REUSE, kLeaf, 0), leaf);
  EXPECT_EQ(QVA_MakeStructInternal("st_leaf", QVA_SDEF_REUSE, kLeaf, 0), leaf);
  // The same tags from another table are the same definition too.
  QVA_STRUCT_TAG_DEF copy[sizeof kLeaf / sizeof kLeaf[0]];
  std::memcpy(copy, kLeaf, sizeof kLeaf);
  EXPECT_EQ(QVA_MakeStructInternal("ST_LEAF", QVA_SDEF_REUSE, copy, 0), leaf);
  EXPECT_EQ(qvahost::sdef_all().size(), count);

  EXPECT_EQ(qvahost::define_struct("ST_PLAIN", "", {{"A", QVA_TYP_LONG, nullptr, {}}}),
            qvahost::define_struct("ST_PLAIN", "", {{"a", QVA_TYP_LONG, nullptr, {}}}));
}

TEST_F(StructsTest, ConflictingRedefinitionIsRefused) {
  DefineChain();
  QVA_STRUCT_TAG_DEF other[] = {
      {"ST_BASE_TOP", nullptr, QVA_TYP_DOUBLE, 0},
      {"ST_BASE_VERSION", nullptr, QVA_TYP_LONG64, 0},  // type differs
      {nullptr, nullptr, 0, 0},
  };
  EXPECT_EQ(QVA_MakeStructInternal("ST_BASE", QVA_SDEF_REUSE, other, QVA_MSG_RET), nullptr);
  auto e = ExpectHostError(
      [&] { QVA_MakeStructInternal("ST_BASE", QVA_SDEF_REUSE, other, QVA_MSG_LONGJMP); });
  EXPECT_EQ(e.code, qvahost::M_STRUCT_CONFLICT);
  EXPECT_EQ(e.text, "Conflicting data structures: ST_BASE.");
  // Without QVA_SDEF_REUSE an existing name is not handed back at all.
  EXPECT_EQ(QVA_MakeStructInternal("ST_BASE", 0, kBase, QVA_MSG_RET), nullptr);
  EXPECT_EQ(ExpectHostError([] {
              qvahost::define_struct("ST_PLAIN2", "", {{"A", QVA_TYP_LONG, nullptr, {}}});
              qvahost::define_struct("ST_PLAIN2", "", {{"A", QVA_TYP_LONG, nullptr, {2}}});
            }).code,
            qvahost::M_STRUCT_CONFLICT);
}

TEST_F(StructsTest, BadTagTablesAreRefused) {
  QVA_STRUCT_TAG_DEF unknown_base[] = {{"ST_NO_SUCH_BASE", nullptr, 0, QVA_STD_INHERIT},
                                       {"X", nullptr, QVA_TYP_LONG, 0},
                                       {nullptr, nullptr, 0, 0}};
  QVA_STRUCT_TAG_DEF duplicate[] = {{"X", nullptr, QVA_TYP_LONG, 0},
                                    {"x", nullptr, QVA_TYP_BYTE, 0},
                                    {nullptr, nullptr, 0, 0}};
  QVA_STRUCT_TAG_DEF bad_type[] = {{"X", nullptr, 4, 0}, {nullptr, nullptr, 0, 0}};
  QVA_STRUCT_TAG_DEF empty[] = {{nullptr, nullptr, 0, 0}};
  QVA_STRUCT_TAG_DEF bad_name[] = {{"1X", nullptr, QVA_TYP_LONG, 0}, {nullptr, nullptr, 0, 0}};
  EXPECT_EQ(ExpectHostError([&] {
              QVA_MakeStructInternal("ST_BAD1", QVA_SDEF_REUSE, unknown_base, QVA_MSG_LONGJMP);
            }).text,
            "Structure type not defined: ST_NO_SUCH_BASE.");
  qvatest::OutputCapture out;
  for (QVA_STRUCT_TAG_DEF *t : {unknown_base, duplicate, bad_type, empty, bad_name})
    EXPECT_EQ(QVA_MakeStructInternal("ST_BAD2", QVA_SDEF_REUSE, t, QVA_MSG_RET), nullptr);
  EXPECT_EQ(out.lines().size(), 5u);  // each refusal is reported
  EXPECT_EQ(qvahost::find_struct("ST_BAD2"), nullptr);
}

TEST_F(StructsTest, DimensionsAndNestedStructuresAreLaidOut) {
  QVA_MEMINT dims[] = {2, 3, 2};  // two dimensions, 3 x 2
  QVA_STRUCT_TAG_DEF tags[] = {{"GRID", dims, QVA_TYP_INT, 0},
                               {"AFTER", nullptr, QVA_TYP_BYTE, 0},
                               {nullptr, nullptr, 0, 0}};
  QVA_SDEF grid = QVA_MakeStructInternal("ST_GRID", QVA_SDEF_REUSE, tags, QVA_MSG_LONGJMP);
  EXPECT_EQ(OffsetOf(grid, "AFTER"), 12);
  const qvahost::TagInfo *t = qvahost::sdef_tag(grid, "grid");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->n_dim, 2);
  EXPECT_EQ(t->n_elts, 6);
  EXPECT_EQ(qvahost::struct_length(grid), 14);

  QVA_SDEF wide = qvahost::find_struct("ST_WIDE");
  if (!wide) wide = qvahost::define_struct("ST_WIDE", "", {{"D", QVA_TYP_DOUBLE, nullptr, {}}});
  QVA_SDEF outer = qvahost::define_struct(
      "ST_OUTER", "", {{"FLAG", QVA_TYP_BYTE, nullptr, {}}, {"INNER", QVA_TYP_STRUCT, wide, {2}},
                       {"NAME", QVA_TYP_STRING, nullptr, {}}});
  EXPECT_EQ(OffsetOf(outer, "INNER"), 8);  // a structure aligns as its widest field
  EXPECT_EQ(OffsetOf(outer, "NAME"), 24);
  EXPECT_EQ(qvahost::struct_length(outer), 40);
  EXPECT_TRUE(outer->has_texts);
  EXPECT_FALSE(wide->has_texts);
}

TEST_F(StructsTest, TagAddressFindsInheritedFieldsCaseInsensitively) {
  QVA_SDEF leaf = DefineChain();
  QVA_VPTR v = nullptr;
  char *data = QVA_MakeTempStructVector(leaf, 1, &v, 1);
  Tmp guard(v);
  QVA_MEMINT offset = -1;
  QVA_SDEF tag_sdef = leaf;
  void *top = QVA_StructGetTagAddress(v, "qvafw_unused_name_but_absent", &offset, nullptr, 0);
  EXPECT_EQ(top, nullptr);
  EXPECT_EQ(QVA_StructGetTagAddress(v, "ST_BASE_TOP", &offset, &tag_sdef, 0), data);
  EXPECT_EQ(offset, 0);
  EXPECT_EQ(tag_sdef, nullptr);  // not a structure field
  EXPECT_EQ(QVA_StructGetTagAddress(v, "myHandler", &offset, nullptr, 0), data + 16);
  EXPECT_EQ(QVA_StructGetTagAddress(v, "BOTTOM", nullptr, nullptr, 0), data + 56);
  // Repeated calls with the same literal keep answering the same.
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(QVA_StructGetTagAddress(v, "MESSIDENT", nullptr, nullptr, 0), data + 28);
  // The same buffer holding another name later is looked up afresh.
  char name[32] = "MESSIDENT";
  EXPECT_EQ(QVA_StructGetTagAddress(v, name, nullptr, nullptr, 0), data + 28);
  std::strcpy(name, "TEXT");
  EXPECT_EQ(QVA_StructGetTagAddress(v, name, nullptr, nullptr, 0), data + 40);
}

TEST_F(StructsTest, AbsentTagIsNullOrAnError) {
  QVA_SDEF leaf = DefineChain();
  QVA_VPTR v = nullptr;
  QVA_MakeTempStructVector(leaf, 1, &v, 1);
  Tmp guard(v);
  qvatest::OutputCapture out;
  EXPECT_EQ(QVA_StructGetTagAddress(v, "NOPE", nullptr, nullptr, QVA_MSG_RET), nullptr);
  EXPECT_TRUE(out.lines().empty());
  auto e = ExpectHostError([&] { QVA_StructGetTagAddress(v, "NOPE", nullptr, nullptr, 2); });
  EXPECT_EQ(e.code, qvahost::M_NO_TAG);
  EXPECT_EQ(e.text, "Tag name NOPE is undefined for structure ST_LEAF.");
  // A variable that holds no structure has no tags at all.
  Tmp number(QVA_GettmpLong(1));
  EXPECT_EQ(QVA_StructGetTagAddress(number.get(), "ST_BASE_TOP", nullptr, nullptr, 0), nullptr);
  ExpectHostError([&] { QVA_StructGetTagAddress(number.get(), "X", nullptr, nullptr, 2); });
}

}  // namespace
