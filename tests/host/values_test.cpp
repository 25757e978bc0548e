// Temporaries and variable values: the temporary pool and its contract
// checks, release by mark, deep copies, the data accessors, and conversion
// to LONG.
#include <cmath>
#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::Code;
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
  EXPECT_EQ(qvahost::accounting().texts - baseline_.texts, 6);  // copies share the texts
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
  QVA_Delvar(strings.get());  // the copy holds its texts on its own
  EXPECT_EQ(Text(s[0]), "a");
  EXPECT_EQ(Text(s[2]), "c");
  EXPECT_TRUE(copy->flags & QVA_V_TEMP);  // the destination stays a temporary
  QVA_Delvar(copy.get());
  QVA_VarCopy(copy.get(), dst.get());  // an undefined source undefines
  EXPECT_EQ(dst->type, QVA_TYP_UNDEF);
}

TEST_F(ValuesTest, StringDescriptorsAndTempVectors) {
  Tmp str(qvahost::make_string("only")), two(qvahost::make_string_array({"x", "y"}));
  QVA_VPTR conv = str.get();  // must be cleared: no conversion temporary is made
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(str.get(), &conv, 1)), "only");
  EXPECT_EQ(conv, nullptr);
  EXPECT_EQ(Text(*QVA_VarGet1EltStringDesc(two.get(), nullptr, 0)), "x");
  EXPECT_EQ(Code([&] { QVA_VarGet1EltStringDesc(two.get(), nullptr, 1); }), qvahost::M_NOTSCALAR);
  QVA_VPTR v = nullptr;
  auto *d = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 5, 1, &v));
  Tmp guard(v);
  EXPECT_EQ(v->flags, QVA_V_TEMP | QVA_V_ARR);
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
}

TEST_F(ValuesTest, ConversionToLongTruncatesTowardZeroIntoANewTemporary) {
  // clang-format off
  std::pair<QVA_VPTR, QVA_LONG> ok[] = {
      {qvahost::make_double(-2.9), -2}, {qvahost::make_long64(-2147483648LL), INT32_MIN},
      {QVA_GettmpLong(17), 17}, {qvahost::make_string("  -17 "), -17},
      {qvahost::make_string("2.9"), 2}, {qvahost::make_string("1e3"), 1000}};
  // clang-format on
  for (auto [in, expected] : ok) {
    Tmp out(QVA_CvtLng(1, &in));
    EXPECT_NE(out.get(), in) << "a LONG is still a new temporary";
    QVA_Deltmp(in);
    EXPECT_EQ(out->value.l, expected);
  }
  Tmp big(qvahost::make_double(3e9)), nan(qvahost::make_double(std::nan(""))),
      wide(qvahost::make_long64(1LL << 31)), ptr(qvahost::make_ptr(5)),
      text(qvahost::make_string("12abc")), undefined(QVA_Gettmp());
  for (QVA_VPTR v : {big.get(), nan.get(), wide.get(), ptr.get(), text.get()})
    EXPECT_EQ(Code([&] { QVA_CvtLng(1, &v); }), qvahost::M_CONVERSION);
  QVA_VPTR u = undefined.get();
  EXPECT_EQ(Code([&] { QVA_CvtLng(1, &u); }), qvahost::M_UNDEFVAR);
  // Arrays convert element-wise, or leave nothing behind.
  Tmp strings(qvahost::make_string_array({"1", " 22 ", "three"}));
  QVA_VPTR sv = strings.get();
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &sv); }).text,
            "Type conversion error: Unable to convert given STRING to LONG.");
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 7);
  Tmp good(qvahost::make_string_array({"1", " 22 "}));
  QVA_VPTR gv = good.get();
  Tmp out(QVA_CvtLng(1, &gv));
  EXPECT_EQ(Longs(out.get()), (std::vector<QVA_LONG>{1, 22}));
}

}  // namespace
