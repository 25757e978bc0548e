// Elements and fields for front ends: subscripts, stores with conversion,
// structure fields (nested, arrays, texts), whole-value conversion, the
// raising helpers and the guarded call boundary.
#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Tmp;

using ElementsTest = CoreTest;

QVA_SDEF Inner() {
  return hosttest::ensure_class(
      "EL_INNER", "",
      {hosttest::field("LABEL", QVA_TYP_STRING), hosttest::field("N", QVA_TYP_LONG)});
}

QVA_SDEF Outer() {
  return hosttest::ensure_class("EL_OUTER", "",
                                {{"NAMES", QVA_TYP_STRING, nullptr, {3}},
                                 {"INNER", QVA_TYP_STRUCT, Inner(), {}},
                                 hosttest::field("REF", QVA_TYP_PTR)});
}

QVA_VPTR NewStruct(QVA_SDEF sd, QVA_MEMINT n) {
  QVA_VPTR v = nullptr;
  QVA_MakeTempStructVector(sd, n, &v, 1);
  return v;
}

std::string StringAt(QVA_VPTR v, QVA_MEMINT i) {
  Tmp e(qvahost::element_values(v, {i}, true));
  return qvahost::string_value(e.get());
}

TEST_F(ElementsTest, ElementsCopyTheirTextsConvertAndRefuseBadIndices) {
  Tmp arr(qvahost::make_string_array({"a", "bb", "ccc"}));
  Tmp one(qvahost::element_values(arr.get(), {1}, true));
  EXPECT_EQ(one->flags & QVA_V_ARR, 0);
  EXPECT_EQ(qvahost::string_value(one.get()), "bb");
  Tmp two(qvahost::element_values(arr.get(), {2, 0}, false));
  EXPECT_EQ(qvahost::element_count(two.get()), 2);
  Tmp replacement(qvahost::make_string("zzz"));
  qvahost::store_elements(arr.get(), {2}, replacement.get());
  EXPECT_EQ(StringAt(two.get(), 0), "ccc") << "the copies own their texts";
  for (auto bad : {std::vector<QVA_MEMINT>{3}, {-1}, {}})
    ExpectHostError([&] { qvahost::element_values(arr.get(), bad, bad.size() == 1); });
  QVA_VARIABLE undefined{};
  EXPECT_EQ(qvahost::element_count(&undefined), 0);
  ExpectHostError([&] { qvahost::element_values(&undefined, {0}, true); });

  Tmp longs(qvahost::make_long_array({1, 2, 3, 4}));
  auto *data = reinterpret_cast<QVA_LONG *>(longs->value.arr->data);
  Tmp d(qvahost::make_double(7.9)), text(qvahost::make_string("12"));
  qvahost::store_elements(longs.get(), {0, 2}, d.get());  // one value to every index
  qvahost::store_elements(longs.get(), {3}, text.get());
  EXPECT_EQ(std::vector<QVA_LONG>(data, data + 4), (std::vector<QVA_LONG>{7, 2, 7, 12}));
  Tmp pair(qvahost::make_long_array({8, 9}));
  qvahost::store_elements(longs.get(), {1, 2}, pair.get());
  qvahost::store_elements(longs.get(), {3, 2, 1, 0}, longs.get());  // into itself, reversed
  EXPECT_EQ(std::vector<QVA_LONG>(data, data + 4), (std::vector<QVA_LONG>{12, 9, 8, 7}));
  ExpectHostError([&] { qvahost::store_elements(longs.get(), {0, 1, 2}, pair.get()); });
  Tmp word(qvahost::make_string("word"));
  ExpectHostError([&] { qvahost::store_elements(longs.get(), {0}, word.get()); });

  Tmp strs(qvahost::convert_value(longs.get(), QVA_TYP_STRING));
  EXPECT_EQ(StringAt(strs.get(), 1), "9");
  Tmp back(qvahost::convert_value(text.get(), QVA_TYP_DOUBLE));
  EXPECT_EQ(back->type, QVA_TYP_DOUBLE);
  EXPECT_DOUBLE_EQ(back->value.d, 12.0);
  Tmp s(NewStruct(Inner(), 1));
  ExpectHostError([&] { qvahost::convert_value(s.get(), QVA_TYP_LONG); });
  ExpectHostError([&] { qvahost::convert_value(longs.get(), QVA_TYP_OBJREF); });
  ExpectHostError([&] { qvahost::convert_value(word.get(), QVA_TYP_LONG); });
}

TEST_F(ElementsTest, FieldsReadAndStoreNestedStructuresArraysAndTexts) {
  QVA_SDEF derived = hosttest::ensure_class("EL_DERIVED", "EL_INNER",
                                            {{"EXTRA", QVA_TYP_DOUBLE, nullptr, {2, 2}}});
  auto info = qvahost::struct_field_info(derived);
  ASSERT_EQ(info.size(), 3u);
  EXPECT_EQ(info[0].name, "LABEL");
  EXPECT_EQ(info[2].dims, (std::vector<QVA_MEMINT>{2, 2}));
  EXPECT_GT(info[2].offset, info[1].offset);
  EXPECT_EQ(qvahost::struct_field_info(Outer())[1].sdef, Inner());

  Tmp outer(NewStruct(Outer(), 2));
  Tmp names(qvahost::make_string_array({"x", "y", "z"}));
  qvahost::store_field(outer.get(), 1, "names", names.get());
  Tmp label(qvahost::make_string("inner label"));
  Tmp inner(NewStruct(Inner(), 1));
  qvahost::store_field(inner.get(), 0, "LABEL", label.get());
  qvahost::store_field(outer.get(), 1, "INNER", inner.get());
  // Stored again over the texts already there: the old ones are released.
  qvahost::store_field(outer.get(), 1, "INNER", inner.get());
  Tmp fill(qvahost::make_string("same"));
  qvahost::store_field(outer.get(), 0, "NAMES", fill.get());

  Tmp got_names(qvahost::field_value(outer.get(), 1, "names"));
  EXPECT_EQ(StringAt(got_names.get(), 2), "z");
  Tmp got_inner(qvahost::field_value(outer.get(), 1, "inner"));
  Tmp got_label(qvahost::field_value(got_inner.get(), 0, "label"));
  EXPECT_EQ(qvahost::string_value(got_label.get()), "inner label");
  Tmp filled(qvahost::field_value(outer.get(), 0, "NAMES"));
  EXPECT_EQ(StringAt(filled.get(), 2), "same");

  Tmp two(qvahost::make_long_array({1, 2})), ptr(qvahost::make_ptr(0));
  qvahost::store_field(outer.get(), 0, "REF", ptr.get());
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "NAMES", two.get()); });
  ExpectHostError([&] { qvahost::field_value(outer.get(), 0, "MISSING"); });
  ExpectHostError([&] { qvahost::field_value(outer.get(), 2, "NAMES"); });
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "INNER", label.get()); });
  ExpectHostError([&] { qvahost::store_field(outer.get(), 0, "REF", label.get()); });
  ExpectHostError([&] { qvahost::field_value(label.get(), 0, "X"); });
}

TEST_F(ElementsTest, RaisedErrorsNameTheRoutineAndGuardedReleasesWhatItMade) {
  EXPECT_EQ(ExpectHostError([] { qvahost::raise_error("at top", -3); }).report(), "% at top");
  qvahost::define_routine("EL_RAISER", false, 0, 0, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
                            EXPECT_EQ(qvahost::running_routine(), "EL_RAISER");
                            qvahost::raise_error("inside");
                          });
  auto e = ExpectHostError([] { qvahost::call_procedure("EL_RAISER"); });
  EXPECT_EQ(e.report(), "% EL_RAISER: inside");
  EXPECT_EQ(qvahost::running_routine(), "");

  ExpectHostError([&] {
    qvahost::guarded([] {
      QVA_Gettmp();
      qvahost::make_string("left behind");
      qvahost::raise_error("abandoned");
    });
  });
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries);
  QVA_VPTR kept = nullptr;  // a body that succeeds keeps what it made
  qvahost::guarded([&] { kept = QVA_GettmpLong(5); });
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 1);
  QVA_Deltmp(kept);
}

}  // namespace
