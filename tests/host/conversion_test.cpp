// Conversion to LONG (QVA_CvtLng) and the scalar conversions behind it.
#include <cmath>
#include <vector>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::Text;
using hosttest::Tmp;

using ConversionTest = CoreTest;

TEST_F(ConversionTest, ScalarsTruncateTowardZeroIntoANewTemporary) {
  struct Case {
    QVA_VPTR in;
    QVA_LONG out;
  } cases[] = {{qvahost::make_double(2.9), 2},
               {qvahost::make_double(-2.9), -2},
               {qvahost::make_byte(255), 255},
               {qvahost::make_long64(-2147483648LL), INT32_MIN},
               {QVA_GettmpLong(17), 17},
               {qvahost::make_string("42"), 42},
               {qvahost::make_string("  -17 "), -17},
               {qvahost::make_string("+8"), 8},
               {qvahost::make_string("-2.9"), -2},
               {qvahost::make_string("1e3"), 1000}};
  for (const Case &c : cases) {
    QVA_VPTR in = c.in;
    QVA_VPTR out = QVA_CvtLng(1, &in);
    EXPECT_NE(out, c.in) << "a LONG is still a new temporary";
    EXPECT_EQ(out->type, QVA_TYP_LONG);
    EXPECT_TRUE(qvahost::is_pool_temp(out));
    QVA_Deltmp(c.in);
    EXPECT_EQ(out->value.l, c.out);
    QVA_Deltmp(out);
  }
  for (const char *bad : {"abc", "", "   ", "12abc", "1 2", "0x10"}) {
    Tmp s(qvahost::make_string(bad));
    QVA_VPTR arg = s.get();
    auto e = ExpectHostError([&] { QVA_CvtLng(1, &arg); });
    EXPECT_EQ(e.code, qvahost::M_CONVERSION) << bad;
    EXPECT_EQ(e.text, "Type conversion error: Unable to convert given STRING to LONG.") << bad;
  }
  Tmp big(qvahost::make_double(3e9)), nan(qvahost::make_double(std::nan(""))),
      wide(qvahost::make_long64(1LL << 31)), ptr(qvahost::make_ptr(5));
  for (QVA_VPTR v : {big.get(), nan.get(), wide.get(), ptr.get()})
    EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &v); }).code, qvahost::M_CONVERSION);
  Tmp undefined(QVA_Gettmp());
  QVA_VPTR u = undefined.get();
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &u); }).code, qvahost::M_UNDEFVAR);
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(0, &u); }).code, qvahost::M_WRONG_ARG_COUNT);
  QVA_VPTR st = nullptr;
  QVA_MakeTempStructVector(
      hosttest::ensure_class("CT_ONE", "", {hosttest::field("X", QVA_TYP_LONG)}), 1, &st, 1);
  Tmp st_guard(st);
  EXPECT_EQ(ExpectHostError([&] { QVA_CvtLng(1, &st); }).text,
            "Type conversion error: Unable to convert given STRUCT to LONG.");
}

TEST_F(ConversionTest, ArraysConvertElementWiseOrLeaveNothing) {
  QVA_VPTR v = nullptr;
  auto *d = reinterpret_cast<double *>(QVA_MakeTempVector(QVA_TYP_DOUBLE, 4, 1, &v));
  Tmp in(v);
  d[0] = 1.5, d[1] = -1.5, d[2] = 1e6, d[3] = 0;
  Tmp out(QVA_CvtLng(1, &v));
  ASSERT_TRUE(out->flags & QVA_V_ARR);
  EXPECT_EQ(out->value.arr->elt_len, 4);
  auto *l = reinterpret_cast<QVA_LONG *>(out->value.arr->data);
  EXPECT_EQ(std::vector<QVA_LONG>(l, l + out->value.arr->n_elts),
            (std::vector<QVA_LONG>{1, -1, 1000000, 0}));
  Tmp strings(qvahost::make_string_array({"1", "2", "three"}));
  QVA_VPTR s = strings.get();
  ExpectHostError([&] { QVA_CvtLng(1, &s); });
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 3);
}

TEST_F(ConversionTest, NumbersFormatAsTextAndConvertAmongThemselves) {
  Tmp a(qvahost::make_double(0.1)), b(QVA_GettmpLong(-5)), c(qvahost::make_double(1e20)),
      d(qvahost::make_byte(7));
  std::pair<QVA_VPTR, const char *> cases[] = {
      {a.get(), "0.1"}, {b.get(), "-5"}, {c.get(), "1e+20"}, {d.get(), "7"}};
  for (auto [v, text] : cases) {
    QVA_ALLTYPES s = qvahost::scalar_as(v, QVA_TYP_STRING);
    EXPECT_EQ(Text(s.str), text);
    QVA_StrDelete(&s.str, 1);
  }
  Tmp n(qvahost::make_string("300"));
  EXPECT_EQ(qvahost::scalar_as(n.get(), QVA_TYP_INT).i, 300);
  EXPECT_EQ(qvahost::scalar_as(n.get(), QVA_TYP_DOUBLE).d, 300.0);
  EXPECT_EQ(ExpectHostError([&] { qvahost::scalar_as(n.get(), QVA_TYP_BYTE); }).code,
            qvahost::M_CONVERSION);
}

}  // namespace
