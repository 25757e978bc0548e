// Elements and fields for front ends: subscripts, stores with conversion,
// structure fields (nested, arrays, texts), whole-value conversion, the
// raising helpers and the guarded call boundary.
#include <cstring>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Tmp;
using qvatest::ExpectHostError;

using ElementsTest = CoreTest;

QVA_SDEF Inner() {
  if (QVA_SDEF s = qvahost::find_struct("EL_INNER")) return s;
  return qvahost::define_struct("EL_INNER", "", {{"LABEL", QVA_TYP_STRING, nullptr, {}},
                                                 {"N", QVA_TYP_LONG, nullptr, {}}});
}

QVA_SDEF Outer() {
  if (QVA_SDEF s = qvahost::find_struct("EL_OUTER")) return s;
  return qvahost::define_struct("EL_OUTER", "", {{"NAMES", QVA_TYP_STRING, nullptr, {3}},
                                                 {"INNER", QVA_TYP_STRUCT, Inner(), {}},
                                                 {"REF", QVA_TYP_PTR, nullptr, {}}});
}

QVA_VPTR NewStruct(QVA_SDEF sd, QVA_MEMINT n) {
  QVA_VPTR v = nullptr;
  QVA_MakeTempStructVector(sd, n, &v, 1);
  return v;
}

TEST_F(ElementsTest, FieldInfoDescribesTypesDimensionsAndInheritedFields) {
  Inner();
  QVA_SDEF derived = qvahost::find_struct("EL_DERIVED");
  if (!derived) derived = qvahost::define_struct("EL_DERIVED", "EL_INNER", {{"EXTRA", QVA_TYP_DOUBLE, nullptr, {2, 2}}});
  auto info = qvahost::struct_field_info(derived);
  ASSERT_EQ(info.size(), 3u);
  EXPECT_EQ(info[0].name, "LABEL");
  EXPECT_EQ(info[2].name, "EXTRA");
  EXPECT_EQ(info[2].type, QVA_TYP_DOUBLE);
  EXPECT_EQ(info[2].dims, (std::vector<QVA_MEMINT>{2, 2}));
  EXPECT_GT(info[2].offset, info[1].offset);
  auto outer = qvahost::struct_field_info(Outer());
  EXPECT_EQ(outer[1].sdef, Inner());
  EXPECT_TRUE(qvahost::struct_field_info(nullptr).empty());
}

TEST_F(ElementsTest, ElementValuesCopyStringsAndRefuseBadIndices) {
  Tmp arr(qvahost::make_string_array({"a", "bb", "ccc"}));
  Tmp one(qvahost::element_values(arr.get(), {1}, true));
  EXPECT_EQ(one.get()->flags & QVA_V_ARR, 0);
  EXPECT_EQ(qvahost::string_value(one.get()), "bb");
  Tmp two(qvahost::element_values(arr.get(), {2, 0}, false));
  EXPECT_EQ(qvahost::element_count(two.get()), 2);
  Tmp first(qvahost::element_values(two.get(), {0}, true));
  EXPECT_EQ(qvahost::string_value(first.get()), "ccc");
  // The copies own their texts: changing the source leaves them alone.
  Tmp replacement(qvahost::make_string("zzz"));
  qvahost::store_elements(arr.get(), {2}, replacement.get());
  Tmp again(qvahost::element_values(two.get(), {0}, true));
  EXPECT_EQ(qvahost::string_value(again.get()), "ccc");
  ExpectHostError([&] { qvahost::element_values(arr.get(), {3}, true); });
  ExpectHostError([&] { qvahost::element_values(arr.get(), {-1}, true); });
  ExpectHostError([&] { qvahost::element_values(arr.get(), {}, false); });
  QVA_VARIABLE undefined{};
  EXPECT_EQ(qvahost::element_count(&undefined), 0);
  ExpectHostError([&] { qvahost::element_values(&undefined, {0}, true); });
}

TEST_F(ElementsTest, StoreElementsConvertsBroadcastsAndChecksCounts) {
  Tmp arr(qvahost::make_long_array({1, 2, 3, 4}));
  Tmp d(qvahost::make_double(7.9));
  qvahost::store_elements(arr.get(), {0, 2}, d.get());
  Tmp text(qvahost::make_string("12"));
  qvahost::store_elements(arr.get(), {3}, text.get());
  auto *data = reinterpret_cast<QVA_LONG *>(arr.get()->value.arr->data);
  EXPECT_EQ(data[0], 7);
  EXPECT_EQ(data[2], 7);
  EXPECT_EQ(data[3], 12);
  Tmp pair(qvahost::make_long_array({8, 9}));
  qvahost::store_elements(arr.get(), {1, 2}, pair.get());
  EXPECT_EQ(data[1], 8);
  EXPECT_EQ(data[2], 9);
  ExpectHostError([&] { qvahost::store_elements(arr.get(), {0, 1, 2}, pair.get()); });
  Tmp word(qvahost::make_string("word"));
  ExpectHostError([&] { qvahost::store_elements(arr.get(), {0}, word.get()); });
  // A value stored into itself, reversed.
  qvahost::store_elements(arr.get(), {3, 2, 1, 0}, arr.get());
  EXPECT_EQ(data[0], 12);
  EXPECT_EQ(data[3], 7);
}

TEST_F(ElementsTest, FieldsReadAndStoreNestedStructuresArraysAndTexts) {
  Tmp outer(NewStruct(Outer(), 2));
  Tmp names(qvahost::make_string_array({"x", "y", "z"}));
  qvahost::store_field(outer.get(), 1, "names", names.get());
  Tmp label(qvahost::make_string("inner label"));
  Tmp inner(NewStruct(Inner(), 1));
  qvahost::store_field(inner.get(), 0, "LABEL", label.get());
  qvahost::store_field(outer.get(), 1, "INNER", inner.get());
  // Store again over the texts already there: the old ones are released.
  qvahost::store_field(outer.get(), 1, "INNER", inner.get());
  Tmp fill(qvahost::make_string("same"));
  qvahost::store_field(outer.get(), 0, "NAMES", fill.get());

  Tmp got_names(qvahost::field_value(outer.get(), 1, "names"));
  EXPECT_EQ(qvahost::element_count(got_names.get()), 3);
  Tmp got_inner(qvahost::field_value(outer.get(), 1, "inner"));
  ASSERT_TRUE(got_inner.get()->flags & QVA_V_STRUCT);
  Tmp got_label(qvahost::field_value(got_inner.get(), 0, "label"));
  EXPECT_EQ(qvahost::string_value(got_label.get()), "inner label");
  Tmp filled(qvahost::field_value(outer.get(), 0, "NAMES"));
  Tmp last(qvahost::element_values(filled.get(), {2}, true));
  EXPECT_EQ(qvahost::string_value(last.get()), "same");

  Tmp two(qvahost::make_long_array({1, 2}));
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "NAMES", two.get()); });
  ExpectHostError([&] { qvahost::field_value(outer.get(), 0, "MISSING"); });
  ExpectHostError([&] { qvahost::field_value(outer.get(), 2, "NAMES"); });
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "INNER", label.get()); });
  ExpectHostError([&] { qvahost::field_value(label.get(), 0, "X"); });
  Tmp ptr(qvahost::make_ptr(0));
  qvahost::store_field(outer.get(), 0, "REF", ptr.get());
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "REF", label.get()); });
}

TEST_F(ElementsTest, ConvertValueKeepsShapeAndRefusesStructures) {
  Tmp arr(qvahost::make_long_array({1, -2}));
  Tmp strs(qvahost::convert_value(arr.get(), QVA_TYP_STRING));
  ASSERT_EQ(qvahost::element_count(strs.get()), 2);
  Tmp second(qvahost::element_values(strs.get(), {1}, true));
  EXPECT_EQ(qvahost::string_value(second.get()), "-2");
  Tmp d(qvahost::make_string("2.5"));
  Tmp back(qvahost::convert_value(d.get(), QVA_TYP_DOUBLE));
  EXPECT_EQ(back.get()->type, QVA_TYP_DOUBLE);
  EXPECT_DOUBLE_EQ(back.get()->value.d, 2.5);
  Tmp s(NewStruct(Inner(), 1));
  ExpectHostError([&] { qvahost::convert_value(s.get(), QVA_TYP_LONG); });
  ExpectHostError([&] { qvahost::convert_value(arr.get(), QVA_TYP_OBJREF); });
  Tmp bad(qvahost::make_string("not a number"));
  ExpectHostError([&] { qvahost::convert_value(bad.get(), QVA_TYP_LONG); });
}

TEST_F(ElementsTest, RaiseErrorNamesTheRunningRoutine) {
  qvahost::HostError top = ExpectHostError([] { qvahost::raise_error("at top", -3); });
  EXPECT_EQ(top.report(), "% at top");
  EXPECT_EQ(qvahost::running_routine(), "");
  qvahost::define_routine("EL_RAISER", false, 0, 0, false, [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
    EXPECT_EQ(qvahost::running_routine(), "EL_RAISER");
    qvahost::raise_error("inside");
  });
  qvahost::HostError e = ExpectHostError([] { qvahost::call_procedure("EL_RAISER"); });
  EXPECT_EQ(e.report(), "% EL_RAISER: inside");
}

TEST_F(ElementsTest, GuardedReleasesWhatAnAbandonedBodyMade) {
  int64_t before = qvahost::accounting().temporaries;
  ExpectHostError([&] {
    qvahost::guarded([] {
      QVA_Gettmp();
      qvahost::make_string("left behind");
      qvahost::raise_error("abandoned");
    });
  });
  EXPECT_EQ(qvahost::accounting().temporaries, before);
  // A body that succeeds keeps what it made.
  QVA_VPTR kept = nullptr;
  qvahost::guarded([&] { kept = QVA_GettmpLong(5); });
  EXPECT_EQ(qvahost::accounting().temporaries, before + 1);
  QVA_Deltmp(kept);
}

}  // namespace
