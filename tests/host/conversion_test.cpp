// Conversion to LONG (QVA_CvtLng) and the scalar conversions behind it.
#include <cmath>
#include <limits>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Text;
using coretest::Tmp;
using qvatest::ExpectHostError;

using ConversionTest = CoreTest;

QVA_LONG CvtLng(QVA_VPTR v) {
  Tmp out(QVA_CvtLng(1, &v));
  EXPECT_EQ(out->type, QVA_TYP_LONG);
  EXPECT_TRUE(qvahost::is_pool_temp(out.get()));
  return out->value.l;
}

TEST_F(ConversionTest, NumbersTruncateTowardZero) {
  Tmp a(qvahost::make_double(2.9));
  Tmp b(qvahost::make_double(-2.9));
  Tmp c(qvahost::make_byte(255));
  Tmp d(qvahost::make_long64(-2147483648LL));
  EXPECT_EQ(CvtLng(a.get()), 2);
  EXPECT_EQ(CvtLng(b.get()), -2);
  EXPECT_EQ(CvtLng(c.get()), 255);
  EXPECT_EQ(CvtLng(d.get()), INT32_MIN);
}

TEST_F(ConversionTest, ALongIsStillANewTemporary) {
  QVA_VPTR in = QVA_GettmpLong(17);
  QVA_VPTR out = QVA_CvtLng(1, &in);
  EXPECT_NE(out, in);
  EXPECT_EQ(out->value.l, 17);
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 2);
  QVA_Deltmp(in);
  EXPECT_EQ(out->value.l, 17);
  QVA_Deltmp(out);
}

TEST_F(ConversionTest, StringsParseAsNumbers) {
  struct Case {
    const char *text;
    QVA_LONG value;
  } ok[] = {{"42", 42}, {"  -17 ", -17}, {"+8", 8}, {"2.9", 2}, {"-2.9", -2}, {"1e3", 1000}};
  for (const Case &c : ok) {
    Tmp s(qvahost::make_string(c.text));
    EXPECT_EQ(CvtLng(s.get()), c.value) << c.text;
  }
  for (const char *bad : {"abc", "", "   ", "12abc", "1 2", "0x10"}) {
    Tmp s(qvahost::make_string(bad));
    QVA_VPTR arg = s.get();
    auto e = ExpectHostError([&] { QVA_CvtLng(1, &arg); });
    EXPECT_EQ(e.code, qvahost::M_CONVERSION) << bad;
    EXPECT_EQ(e.text, "Type conversion error: Unable to convert given STRING to LONG.") << bad;
  }
}

TEST_F(ConversionTest, ValuesOutOfRangeOrWithoutANumberAreRefused) {
  Tmp big(qvahost::make_double(3e9));
  Tmp nan(qvahost::make_double(std::numeric_limits<double>::quiet_NaN()));
  Tmp wide(qvahost::make_long64(1LL << 31));
  Tmp ptr(qvahost::make_ptr(5));
  for (QVA_VPTR v : {big.get(), nan.get(), wide.get(), ptr.get()})
    EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &v); }).code, qvahost::M_CONVERSION);

  Tmp undefined(QVA_Gettmp());
  QVA_VPTR u = undefined.get();
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &u); }).code, qvahost::M_UNDEFVAR);
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(0, &u); }).code, qvahost::M_WRONG_ARG_COUNT);
}

TEST_F(ConversionTest, ArraysConvertElementWise) {
  QVA_VPTR v = nullptr;
  auto *d = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 4, 1, &v));
  Tmp in(v);
  d[0] = 1.5;
  d[1] = -1.5;
  d[2] = 1e6;
  d[3] = 0;
  Tmp out(QVA_CvtLng(1, &v));
  ASSERT_TRUE(out->flags & QVA_V_ARR);
  EXPECT_EQ(out->value.arr->n_elts, 4);
  EXPECT_EQ(out->value.arr->elt_len, 4);
  auto *l = reinterpret_cast<QVA_LONG *>(out->value.arr->data);
  EXPECT_EQ(l[0], 1);
  EXPECT_EQ(l[1], -1);
  EXPECT_EQ(l[2], 1000000);
  EXPECT_EQ(l[3], 0);
}

TEST_F(ConversionTest, AFailingElementLeavesNothingBehind) {
  Tmp strings(qvahost::make_string_array({"1", "2", "three"}));
  QVA_VPTR v = strings.get();
  ExpectHostError([&] { QVA_CvtLng(1, &v); });
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 1);
}

TEST_F(ConversionTest, NumbersFormatAsText) {
  struct Case {
    QVA_VPTR v;
    const char *text;
  };
  Tmp a(qvahost::make_double(0.1)), b(QVA_GettmpLong(-5)), c(qvahost::make_double(1e20)),
      d(qvahost::make_byte(7));
  for (Case c2 : {Case{a.get(), "0.1"}, Case{b.get(), "-5"}, Case{c.get(), "1e+20"},
                  Case{d.get(), "7"}}) {
    QVA_ALLTYPES s = qvahost::scalar_as(c2.v, QVA_TYP_STRING);
    EXPECT_EQ(Text(s.str), c2.text);
    QVA_StrDelete(&s.str, 1);
  }
  // Conversions among numbers other than to LONG.
  Tmp n(qvahost::make_string("300"));
  EXPECT_EQ(qvahost::scalar_as(n.get(), QVA_TYP_INT).i, 300);
  EXPECT_EQ(ExpectHostError([&] { qvahost::scalar_as(n.get(), QVA_TYP_BYTE); }).code,
            qvahost::M_CONVERSION);
  EXPECT_EQ(qvahost::scalar_as(n.get(), QVA_TYP_DOUBLE).d, 300.0);
}

TEST_F(ConversionTest, StructuresDoNotConvert) {
  QVA_SDEF sd = qvahost::find_struct("CT_ONE");
  if (!sd) sd = qvahost::define_struct("CT_ONE", "", {{"X", QVA_TYP_LONG, nullptr, {}}});
  QVA_VPTR v = nullptr;
  QVA_MakeTempStructVector(sd, 1, &v, 1);
  Tmp guard(v);
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &v); }).text,
            "Type conversion error: Unable to convert given STRUCT to LONG.");
}

}  // namespace
