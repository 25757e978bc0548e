// Temporaries and variable values: the temporary pool and its contract
// checks, release by mark, deep copies, the data accessors, conversion to
// LONG, and the element and field helpers of front ends.
#include <cmath>
#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Text;
using hosttest::Tmp;

using ValuesTest = CoreTest;

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

std::vector<QVA_LONG> Longs(QVA_VPTR v) {
  auto *data = reinterpret_cast<QVA_LONG *>(v->value.arr->data);
  return std::vector<QVA_LONG>(data, data + v->value.arr->n_elts);
}

TEST_F(ValuesTest, DeltmpRefusesWhatIsNotALiveTemporaryAndMarksReleaseLaterOnes) {
  QVA_VARIABLE local{};
  local.flags = QVA_V_TEMP;  // a module's own variable merely flagged temporary
  ExpectViolations(1, [&] { QVA_Deltmp(&local); });
  QVA_VPTR t = QVA_GettmpLong(1);
  QVA_VARIABLE copy = *t;  // a byte copy of a pool temporary, marker and all
  ExpectViolations(1, [&] { QVA_Deltmp(&copy); });
  QVA_Deltmp(t);
  ExpectViolations(1, [&] { QVA_Deltmp(t); });  // released already
  qvahost::Variable named("VT_NAMED");
  EXPECT_NE(ExpectViolations(1, [&] { QVA_Deltmp(named.get()); }).find("VT_NAMED"),
            std::string::npos);

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
}

TEST_F(ValuesTest, CopiesAreDeepAndReplaceTheOldValue) {
  Tmp src(MakePairs());
  qvahost::Variable dst("VT_COPY");
  QVA_VarCopy(src.get(), dst.get());
  EXPECT_EQ(qvahost::accounting().texts - baseline_.texts, 12);
  EXPECT_EQ(dst->flags, QVA_V_STRUCT | QVA_V_ARR);  // no temporary flag carried over
  QVA_Delvar(src.get());  // the temporary source was not consumed, and is now freed
  EXPECT_EQ(src->flags, QVA_V_TEMP);
  EXPECT_EQ(Text(PairAt(dst.get(), 0)->name), "first");
  EXPECT_EQ(Text(PairAt(dst.get(), 1)->tags[1]), "blue");
  EXPECT_EQ(PairAt(dst.get(), 1)->count, 11);
  Tmp numbers(qvahost::make_long_array({1, 2, 3}));
  QVA_VarCopy_strip(numbers.get(), dst.get(), 0);
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);  // the old value was freed
  reinterpret_cast<QVA_LONG *>(dst->value.arr->data)[0] = 99;
  QVA_VarCopy(dst.get(), dst.get());  // onto itself: nothing changes
  EXPECT_EQ(Longs(dst.get()), (std::vector<QVA_LONG>{99, 2, 3}));
  EXPECT_EQ(Longs(numbers.get()), (std::vector<QVA_LONG>{1, 2, 3}));
  Tmp strings(qvahost::make_string_array({"a", "", "c"})), copy(QVA_Gettmp());
  QVA_VarCopy(strings.get(), copy.get());
  auto *s = reinterpret_cast<QVA_STRING *>(copy->value.arr->data);
  EXPECT_NE(s[0].s, reinterpret_cast<QVA_STRING *>(strings->value.arr->data)[0].s);
  EXPECT_EQ(Text(s[2]), "c");
  EXPECT_TRUE(copy->flags & QVA_V_TEMP);  // the destination stays a temporary
  QVA_Delvar(copy.get());
  QVA_VarCopy(copy.get(), dst.get());  // an undefined source undefines
  EXPECT_EQ(dst->type, QVA_TYP_UNDEF);
}

TEST_F(ValuesTest, DataAccessorsAndTempVectors) {
  QVA_MEMINT n = 0;
  char *data = nullptr;
  Tmp scalar(QVA_GettmpLong(42)), pairs(MakePairs()), undefined(QVA_Gettmp());
  QVA_VarGetData(scalar.get(), &n, &data, 1);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(data), 42);
  QVA_VarGetData(pairs.get(), &n, &data, 0);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(data, reinterpret_cast<char *>(pairs->value.s.arr->data));
  ExpectHostError([&] { QVA_VarGetData(pairs.get(), &n, &data, 1); });
  EXPECT_EQ(ExpectHostError([&] { QVA_VarGetData(undefined.get(), &n, &data, 0); }).code,
            qvahost::M_UNDEFVAR);
  Tmp str(qvahost::make_string("only")), two(qvahost::make_string_array({"x", "y"}));
  QVA_VPTR conv = str.get();  // must be cleared: no conversion temporary is made
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(str.get(), &conv, 1)), "only");
  EXPECT_EQ(conv, nullptr);
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(two.get(), nullptr, 0)), "x");
  EXPECT_EQ(ExpectHostError([&] { QVA_VarGet1EltStringDesc(two.get(), nullptr, 1); }).text,
            "Expression must be a scalar in this context: <Expression>.");
  qvahost::Variable number("VT_NUMBER");
  number.take(QVA_GettmpLong(3));
  EXPECT_EQ(ExpectHostError([&] { QVA_VarGet1EltStringDesc(number.get(), nullptr, 1); }).text,
            "String expression required in this context: VT_NUMBER.");

  QVA_VPTR v = nullptr;
  auto *d = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 5, 1, &v));
  Tmp guard(v);
  EXPECT_EQ(v->flags, QVA_V_TEMP | QVA_V_ARR);
  EXPECT_EQ(v->value.arr->elt_len, 8);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % 16, 0u);
  EXPECT_EQ(std::vector<double>(d, d + v->value.arr->n_elts), std::vector<double>(5, 0.0));
  QVA_VPTR s = nullptr;  // strings are zeroed whatever the caller asks
  EXPECT_EQ(reinterpret_cast<QVA_STRING *>(QVA_MakeTempVector(QVA_TYP_STRING, 3, 0, &s))[2].s, 0u);
  QVA_Deltmp(s);
  QVA_VPTR none = nullptr;  // no elements: the undefined value, with no data
  EXPECT_EQ(QVA_MakeTempVector(QVA_TYP_STRING, 0, 1, &none), nullptr);
  EXPECT_EQ(none->type, QVA_TYP_UNDEF);
  EXPECT_EQ(none->flags, QVA_V_TEMP);
  QVA_Deltmp(none);
  QVA_VPTR bad = nullptr;
  ExpectHostError([&] { QVA_MakeTempVector(QVA_TYP_LONG, -1, 1, &bad); });
  ExpectHostError([&] { QVA_MakeTempVector(QVA_TYP_STRUCT, 2, 1, &bad); });
  EXPECT_EQ(bad, nullptr);
}

TEST_F(ValuesTest, ConversionToLongTruncatesTowardZeroIntoANewTemporary) {
  std::pair<QVA_VPTR, QVA_LONG> ok[] = {{qvahost::make_double(-2.9), -2},
                                        {qvahost::make_byte(255), 255},
                                        {qvahost::make_long64(-2147483648LL), INT32_MIN},
                                        {QVA_GettmpLong(17), 17},
                                        {qvahost::make_string("  -17 "), -17},
                                        {qvahost::make_string("+8"), 8},
                                        {qvahost::make_string("2.9"), 2},
                                        {qvahost::make_string("1e3"), 1000}};
  for (auto [in, expected] : ok) {
    Tmp out(QVA_CvtLng(1, &in));
    EXPECT_NE(out.get(), in) << "a LONG is still a new temporary";
    QVA_Deltmp(in);
    EXPECT_EQ(out->type, QVA_TYP_LONG);
    EXPECT_EQ(out->value.l, expected);
  }
  for (const char *bad : {"abc", "", "12abc", "1 2", "0x10"}) {
    Tmp s(qvahost::make_string(bad));
    QVA_VPTR arg = s.get();
    EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &arg); }).text,
              "Type conversion error: Unable to convert given STRING to LONG.")
        << bad;
  }
  QVA_VPTR st = nullptr;
  QVA_MakeTempStructVector(hosttest::ensure_class("CT_ONE", "", {hosttest::field("X", 3)}), 1, &st,
                           1);
  Tmp big(qvahost::make_double(3e9)), nan(qvahost::make_double(std::nan(""))),
      wide(qvahost::make_long64(1LL << 31)), ptr(qvahost::make_ptr(5)), structure(st),
      undefined(QVA_Gettmp());
  for (QVA_VPTR v : {big.get(), nan.get(), wide.get(), ptr.get(), structure.get()})
    EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &v); }).code, qvahost::M_CONVERSION);
  QVA_VPTR u = undefined.get();
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &u); }).code, qvahost::M_UNDEFVAR);
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(0, &u); }).code, qvahost::M_WRONG_ARG_COUNT);
  // Arrays convert element-wise, or leave nothing behind.
  QVA_VPTR v = nullptr;
  auto *d = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 3, 1, &v));
  Tmp in(v);
  d[0] = 1.5, d[1] = -1.5, d[2] = 1e6;
  Tmp out(QVA_CvtLng(1, &v));
  EXPECT_EQ(Longs(out.get()), (std::vector<QVA_LONG>{1, -1, 1000000}));
  Tmp strings(qvahost::make_string_array({"1", "2", "three"}));
  QVA_VPTR sv = strings.get();
  int64_t temps = qvahost::accounting().temporaries;
  ExpectHostError([&] { QVA_CvtLng(1, &sv); });
  EXPECT_EQ(qvahost::accounting().temporaries, temps);
}

TEST_F(ValuesTest, ElementsAndFieldsOwnTheirTextsAndRefuseBadIndices) {
  Tmp arr(qvahost::make_string_array({"a", "bb", "ccc"}));
  Tmp two(qvahost::element_values(arr.get(), {2, 0}, false));
  Tmp zzz(qvahost::make_string("zzz")), d(qvahost::make_double(7.9));
  qvahost::store_elements(arr.get(), {2}, zzz.get());
  Tmp first(qvahost::element_values(two.get(), {0}, true));
  EXPECT_EQ(qvahost::string_value(first.get()), "ccc") << "the copies own their texts";
  for (QVA_MEMINT bad : {3, -1})
    ExpectHostError([&] { qvahost::element_values(arr.get(), {bad}, true); });
  Tmp longs(qvahost::make_long_array({1, 2, 3, 4})), pair(qvahost::make_long_array({8, 9}));
  qvahost::store_elements(longs.get(), {0, 2}, d.get());  // converted, to every index
  qvahost::store_elements(longs.get(), {1, 3}, pair.get());
  qvahost::store_elements(longs.get(), {3, 2, 1, 0}, longs.get());  // into itself, reversed
  EXPECT_EQ(Longs(longs.get()), (std::vector<QVA_LONG>{9, 7, 8, 7}));
  ExpectHostError([&] { qvahost::store_elements(longs.get(), {0, 1, 2}, pair.get()); });
  ExpectHostError([&] { qvahost::store_elements(longs.get(), {0}, zzz.get()); });

  QVA_SDEF inner =
      hosttest::ensure_class("EL_INNER", "", {hosttest::field("LABEL", QVA_TYP_STRING)});
  QVA_SDEF outer = hosttest::ensure_class(
      "EL_OUTER", "",
      {{"NAMES", QVA_TYP_STRING, nullptr, {3}}, {"INNER", QVA_TYP_STRUCT, inner, {}}});
  QVA_VPTR o = nullptr, i = nullptr;
  QVA_MakeTempStructVector(outer, 2, &o, 1);
  QVA_MakeTempStructVector(inner, 1, &i, 1);
  Tmp out(o), in(i);
  qvahost::store_field(in.get(), 0, "label", zzz.get());
  qvahost::store_field(out.get(), 1, "INNER", in.get());
  qvahost::store_field(out.get(), 1, "INNER", in.get());  // over the texts already there
  qvahost::store_field(out.get(), 0, "NAMES", zzz.get());
  Tmp got_inner(qvahost::field_value(out.get(), 1, "inner"));
  Tmp got_label(qvahost::field_value(got_inner.get(), 0, "LABEL"));
  EXPECT_EQ(qvahost::string_value(got_label.get()), "zzz");
  Tmp names(qvahost::field_value(out.get(), 0, "names"));
  EXPECT_EQ(qvahost::element_count(names.get()), 3);
  ExpectHostError([&] { qvahost::store_field(out.get(), 0, "NAMES", pair.get()); });
  ExpectHostError([&] { qvahost::store_field(out.get(), 0, "INNER", zzz.get()); });
  ExpectHostError([&] { qvahost::field_value(out.get(), 0, "MISSING"); });
  ExpectHostError([&] { qvahost::field_value(out.get(), 2, "NAMES"); });
  // A guarded body that is abandoned leaves nothing; one that succeeds keeps
  // what it made.
  ExpectHostError([] {
    qvahost::guarded([] {
      qvahost::make_string("left behind");
      qvahost::raise_error("abandoned");
    });
  });
  int64_t temps = qvahost::accounting().temporaries;
  QVA_VPTR kept = nullptr;
  qvahost::guarded([&] { kept = QVA_GettmpLong(5); });
  EXPECT_EQ(qvahost::accounting().temporaries, temps + 1);
  QVA_Deltmp(kept);
}

}  // namespace
