// Temporaries and variable values: the temporary pool and its contract
// checks, release by mark, deep copies, Delvar, and the data accessors.
#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Text;
using hosttest::Tmp;

using VariablesTest = CoreTest;

struct Pair {  // VT_PAIR {NAME: STRING, COUNT: LONG, TAGS: STRING[2]}
  QVA_STRING name;
  QVA_LONG count;
  QVA_STRING tags[2];
};

Pair *PairAt(QVA_VPTR v, QVA_MEMINT i) {
  return reinterpret_cast<Pair *>(v->value.s.arr->data + i * v->value.s.arr->elt_len);
}

// A temporary holding two VT_PAIR elements with texts in every string.
QVA_VPTR MakePairs() {
  QVA_SDEF sd = hosttest::ensure_class("VT_PAIR", "",
                                       {hosttest::field("NAME", QVA_TYP_STRING),
                                        hosttest::field("COUNT", QVA_TYP_LONG),
                                        {"TAGS", QVA_TYP_STRING, nullptr, {2}}});
  QVA_VPTR v = nullptr;
  QVA_MakeTempStructVector(sd, 2, &v, 1);
  for (int i = 0; i < 2; ++i) {
    QVA_StrStore(&PairAt(v, i)->name, i ? "second" : "first");
    PairAt(v, i)->count = 10 + i;
    QVA_StrStore(&PairAt(v, i)->tags[0], "red");
    QVA_StrStore(&PairAt(v, i)->tags[1], "blue");
  }
  return v;
}

TEST_F(VariablesTest, DeltmpRefusesWhatIsNotALiveTemporary) {
  QVA_VARIABLE local{};
  local.flags = QVA_V_TEMP;  // a module's own variable merely flagged temporary
  ExpectViolations(1, [&] { QVA_Deltmp(&local); });
  QVA_VPTR t = QVA_GettmpLong(1);
  QVA_VARIABLE copy = *t;  // a byte copy of a pool temporary, marker and all
  ExpectViolations(1, [&] { QVA_Deltmp(&copy); });
  QVA_Deltmp(t);
  ExpectViolations(1, [&] { QVA_Deltmp(t); });  // released already
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries);
  qvahost::Variable named("VT_NAMED");
  std::string err = ExpectViolations(1, [&] { QVA_Deltmp(named.get()); });
  EXPECT_NE(err.find("VT_NAMED"), std::string::npos) << err;
}

TEST_F(VariablesTest, ReleaseSinceMarkFreesOnlyLaterTemporaries) {
  Tmp before(QVA_GettmpLong(1));
  uint64_t mark = qvahost::tmp_mark();
  QVA_StrToSTRING("abandoned");
  QVA_VPTR arr = nullptr;
  QVA_MakeTempVector(QVA_TYP_LONG, 100, 1, &arr);
  MakePairs();
  QVA_Deltmp(arr);  // released in between: must not be released twice
  qvahost::tmp_release_since(mark);
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 1);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
  EXPECT_EQ(before->value.l, 1);  // made before the mark: untouched
  EXPECT_TRUE(qvahost::is_pool_temp(before.get()));
}

TEST_F(VariablesTest, CopiesAreDeepAndReplaceTheOldValue) {
  Tmp src(MakePairs());
  EXPECT_EQ(qvahost::accounting().texts - baseline_.texts, 6);
  qvahost::Variable dst("VT_COPY");
  QVA_VarCopy(src.get(), dst.get());
  EXPECT_EQ(qvahost::accounting().texts - baseline_.texts, 12);
  EXPECT_EQ(dst->flags, QVA_V_STRUCT | QVA_V_ARR);  // no temporary flag carried over
  EXPECT_EQ(dst->value.s.sdef, src->value.s.sdef);
  QVA_Delvar(src.get());  // the temporary source was not consumed, and is now freed
  EXPECT_EQ(src->flags, QVA_V_TEMP);
  EXPECT_EQ(src->type, QVA_TYP_UNDEF);
  EXPECT_EQ(Text(PairAt(dst.get(), 0)->name), "first");
  EXPECT_EQ(Text(PairAt(dst.get(), 1)->tags[1]), "blue");
  EXPECT_EQ(PairAt(dst.get(), 1)->count, 11);

  Tmp numbers(qvahost::make_long_array({1, 2, 3}));
  QVA_VarCopy_strip(numbers.get(), dst.get(), 0);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);     // the old value was freed
  reinterpret_cast<QVA_LONG *>(dst->value.arr->data)[0] = 99;  // the copy is its own array
  EXPECT_EQ(reinterpret_cast<QVA_LONG *>(numbers->value.arr->data)[0], 1);
  QVA_VarCopy(dst.get(), dst.get());  // onto itself: nothing changes
  EXPECT_EQ(reinterpret_cast<QVA_LONG *>(dst->value.arr->data)[0], 99);

  Tmp strings(qvahost::make_string_array({"a", "", "c"}));
  Tmp copy(QVA_Gettmp());
  QVA_VarCopy(strings.get(), copy.get());
  auto *s = reinterpret_cast<QVA_STRING *>(copy->value.arr->data);
  EXPECT_NE(s[0].s, reinterpret_cast<QVA_STRING *>(strings->value.arr->data)[0].s);
  EXPECT_EQ(s[1].s, 0u);
  EXPECT_EQ(Text(s[2]), "c");
  EXPECT_TRUE(copy->flags & QVA_V_TEMP);  // the destination stays a temporary

  Tmp undefined(QVA_Gettmp());
  QVA_VarCopy(undefined.get(), dst.get());  // an undefined source undefines
  EXPECT_EQ(dst->type, QVA_TYP_UNDEF);
  EXPECT_EQ(dst->flags, 0);
  EXPECT_STREQ(QVA_IdentName(dst->name), "VT_COPY");
}

TEST_F(VariablesTest, DataAccessorsAndReaders) {
  QVA_MEMINT n = 0;
  char *data = nullptr;
  Tmp scalar(QVA_GettmpLong(42)), arr(qvahost::make_long_array({5, 6, 7, 8})), pairs(MakePairs());
  QVA_VarGetData(scalar.get(), &n, &data, 1);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(data), 42);
  QVA_VarGetData(arr.get(), &n, &data, 1);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(reinterpret_cast<QVA_LONG *>(data)[3], 8);
  QVA_VarGetData(pairs.get(), &n, &data, 0);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(data, reinterpret_cast<char *>(pairs->value.s.arr->data));
  ExpectHostError([&] { QVA_VarGetData(pairs.get(), &n, &data, 1); });
  Tmp undefined(QVA_Gettmp());
  auto e = ExpectHostError([&] { QVA_VarGetData(undefined.get(), &n, &data, 0); });
  EXPECT_EQ(e.code, qvahost::M_UNDEFVAR);

  Tmp str(qvahost::make_string("only"));
  QVA_VPTR conv = str.get();  // must be cleared: no conversion temporary is made
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(str.get(), &conv, 1)), "only");
  EXPECT_EQ(conv, nullptr);
  Tmp two(qvahost::make_string_array({"x", "y"}));
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(two.get(), nullptr, 0)), "x");
  e = ExpectHostError([&] { QVA_VarGet1EltStringDesc(two.get(), nullptr, 1); });
  EXPECT_EQ(e.text, "Expression must be a scalar in this context: <Expression>.");
  qvahost::Variable number("VT_NUMBER");
  number.take(QVA_GettmpLong(3));
  e = ExpectHostError([&] { QVA_VarGet1EltStringDesc(number.get(), nullptr, 1); });
  EXPECT_EQ(e.text, "String expression required in this context: VT_NUMBER.");

  Tmp wide(qvahost::make_long64(1LL << 40)), d(qvahost::make_double(2.5)),
      b(qvahost::make_byte(200));
  EXPECT_EQ(qvahost::integer_value(wide.get()), 1LL << 40);
  EXPECT_EQ(qvahost::double_value(b.get()), 200.0);
  ExpectHostError([&] { qvahost::string_value(wide.get()); });
  ExpectHostError([&] { qvahost::integer_value(d.get()); });
  ExpectHostError([&] { qvahost::double_value(str.get()); });
  EXPECT_EQ(ExpectHostError([&] { qvahost::integer_value(arr.get()); }).code, qvahost::M_NOTSCALAR);
}

TEST_F(VariablesTest, TempVectorsAreZeroedArraysOfTheType) {
  QVA_VPTR v = nullptr;
  auto *data = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 5, 1, &v));
  Tmp guard(v);
  EXPECT_EQ(v->type, QVA_TYP_DOUBLE);
  EXPECT_EQ(v->flags, QVA_V_TEMP | QVA_V_ARR);
  EXPECT_EQ(v->value.arr->n_elts, 5);
  EXPECT_EQ(v->value.arr->elt_len, 8);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 16, 0u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(data[i], 0.0);
  // Strings are zeroed whatever the caller asks, so freeing them is safe.
  QVA_VPTR s = nullptr;
  EXPECT_EQ(reinterpret_cast<QVA_STRING *>(QVA_MakeTempVector(QVA_TYP_STRING, 3, 0, &s))[2].s, 0u);
  QVA_Deltmp(s);
  // No elements: the undefined value, with no data to write.
  QVA_VPTR none = nullptr;
  EXPECT_EQ(QVA_MakeTempVector(QVA_TYP_STRING, 0, 1, &none), nullptr);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->type, QVA_TYP_UNDEF);
  EXPECT_EQ(none->flags, QVA_V_TEMP);
  QVA_Deltmp(none);
  QVA_VPTR bad = nullptr;
  ExpectHostError([&] { QVA_MakeTempVector(QVA_TYP_LONG, -1, 1, &bad); });
  ExpectHostError([&] { QVA_MakeTempVector(QVA_TYP_STRUCT, 2, 1, &bad); });
  ExpectHostError([&] { QVA_MakeTempVector(99, 2, 1, &bad); });
  EXPECT_EQ(bad, nullptr);
}

}  // namespace
