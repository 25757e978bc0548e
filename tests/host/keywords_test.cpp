// Keyword processing: matching (abbreviations, exact names, unknown and
// ambiguous keywords), the three flag modes, conversions and the release
// of converted texts.
#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::ExpectHostError;
using hosttest::Tmp;
using qvahost::Keywords;

// The record layout of the framework INIT methods: a free marker, then
// (specified, value) pairs; the variable pointer lands at position 48 of a
// record that is only 4-aligned.
constexpr uint32_t kHandlerSpec = 4, kHandlerVal = 8;
constexpr uint32_t kMsgSpec = 12, kMsgVal = 16;
constexpr uint32_t kScopeSpec = 28, kScopeVal = 32;
constexpr uint32_t kRegSpec = 36, kRegVal = 40;
constexpr uint32_t kRespSpec = 44, kRespVal = 48;
constexpr uint32_t kMessageSpec = 60, kMessageVal = 64;
constexpr uint32_t kExtraSpec = 68, kExtraVal = 72;
constexpr size_t kRecordSize = 80;

QVA_KW_PAR kTable[] = {
    {"", 0, 0, 0, 0, 0, 0, 0},
    {"HANDLER", QVA_TYP_OBJREF, 0, 1, 0, 0, kHandlerSpec, kHandlerVal},
    {"MESSAGE", QVA_TYP_LONG, 0, 1, 0, 0, kMessageSpec, kMessageVal},
    {"MESSAGESTRING", QVA_TYP_STRING, 0, 1, 0, 0, kMsgSpec, kMsgVal},
    {"REGISTER", QVA_TYP_LONG, 0, 1, QVA_KW_ZERO, 0, kRegSpec, kRegVal},
    {"RESPONSE", 0, 0, 1, QVA_KW_BY_VAR, 0, kRespSpec, kRespVal},
    {"SCOPE", QVA_TYP_LONG, 0, 1, QVA_KW_ZERO, 0, kScopeSpec, kScopeVal},
    // Not in mask 1: invisible to calls that process mask 1.
    {"EXTRA", QVA_TYP_LONG, 0, 2, 0, 0, kExtraSpec, kExtraVal},
    {nullptr, 0, 0, 0, 0, 0, 0, 0},
};

class KeywordTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    std::memset(record_, 0xAB, sizeof record_);
  }

  template <typename T = QVA_LONG>
  T at(uint32_t pos) const {
    T v;
    std::memcpy(&v, record_ + pos, sizeof v);
    return v;
  }
  // Processes keywords given as a call would give them, at top level.
  int process(const Keywords &kw) {
    QVA_KW_ARGS block{kw};
    return QVA_KWProcessByOffset(0, nullptr, &block, kTable, nullptr, 1, record_);
  }

  alignas(4) unsigned char record_[kRecordSize];
};

TEST_F(KeywordTest, NothingGivenClearsSpecifiedFlagsAndZeroesOnlyZeroRows) {
  Tmp a(qvahost::make_long(1)), b(qvahost::make_long(2));
  QVA_VPTR argv[] = {a.get(), b.get()};
  QVA_VPTR plain[2] = {nullptr, nullptr};
  EXPECT_EQ(QVA_KWProcessByOffset(2, argv, nullptr, kTable, plain, 1, record_), 2);
  EXPECT_EQ(plain[0], a.get());
  EXPECT_EQ(plain[1], b.get());
  EXPECT_EQ(at(0), 0) << "free marker";
  for (uint32_t spec : {kHandlerSpec, kMsgSpec, kScopeSpec, kRegSpec, kRespSpec, kMessageSpec})
    EXPECT_EQ(at(spec), 0) << "specified flag at " << spec;
  EXPECT_EQ(at(kScopeVal), 0);
  EXPECT_EQ(at(kRegVal), 0);
  // Rows without the zero flag keep whatever the record held.
  EXPECT_EQ(static_cast<uint32_t>(at(kHandlerVal)), 0xABABABABu);
  EXPECT_EQ(static_cast<uint32_t>(at(kMessageVal)), 0xABABABABu);
  // A row outside the mask is not touched at all.
  EXPECT_EQ(static_cast<uint32_t>(at(kExtraSpec)), 0xABABABABu);
}

TEST_F(KeywordTest, GivenValuesAreConvertedAndMatchedByAbbreviation) {
  Tmp obj(qvahost::make_objref(77)), scope(qvahost::make_double(2.9)),
      reg(qvahost::make_string(" 12")), msg(qvahost::make_string("hello")),
      arr(qvahost::make_long_array({1, 2, 3})), one(qvahost::make_long(1));
  // Lower case and any unique prefix are accepted; the last of a keyword
  // given twice wins.
  EXPECT_EQ(process({{"h", obj.get()},
                     {"SCOPE", one.get()},
                     {"sc", scope.get()},
                     {"REG", reg.get()},
                     {"MESSAGES", msg.get()},
                     {"RESPONSE", arr.get()}}),
            0);
  EXPECT_EQ(at(kHandlerSpec), 1);
  EXPECT_EQ(static_cast<QVA_HVID>(at(kHandlerVal)), 77u);
  EXPECT_EQ(at(kScopeSpec), 1);
  EXPECT_EQ(at(kScopeVal), 2) << "DOUBLE to LONG truncates";
  EXPECT_EQ(at(kRegVal), 12) << "numeric string to LONG";
  EXPECT_EQ(at(kMsgSpec), 1) << "a longer prefix picks MESSAGESTRING";
  QVA_STRING s = at<QVA_STRING>(kMsgVal);
  EXPECT_EQ(s.s, msg->value.str.s) << "a string keyword shares the caller's text";
  EXPECT_EQ(at(kRespSpec), 1);
  EXPECT_EQ(at<QVA_VPTR>(kRespVal), arr.get()) << "by variable, unconverted";
  EXPECT_EQ(at(kMessageSpec), 0);
  EXPECT_EQ(at(0), 0) << "nothing to free";
  // "MESSAGE" is a whole keyword and also a prefix of MESSAGESTRING: the
  // exact name wins.
  process({{"message", one.get()}});
  EXPECT_EQ(at(kMessageSpec), 1);
  EXPECT_EQ(at(kMessageVal), 1);
  EXPECT_EQ(at(kMsgSpec), 0);
}

TEST_F(KeywordTest, UnknownAmbiguousAndBadKeywordsAreRefused) {
  qvahost::define_routine("KW_PROBE", true, 0, 4, true,
                          [this](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                            QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
                            if (at(0)) QVA_KWFree();
                            return QVA_GettmpLong(1);
                          });
  Tmp v(qvahost::make_long(1)), arr(qvahost::make_long_array({1, 2})), undefined(QVA_Gettmp());
  qvahost::HostError e = ExpectHostError([&] {
    qvahost::call_function("KW_PROBE", {}, {{"NOSUCH", v.get()}});
  });
  EXPECT_EQ(e.text, "Keyword NOSUCH not allowed in call to: KW_PROBE");
  EXPECT_EQ(e.routine, "KW_PROBE");
  struct Case {
    Keywords kw;
    int code;
    const char *named;
  } cases[] = {{{{"R", v.get()}}, qvahost::M_KW_AMBIGUOUS, ""},     // REGISTER or RESPONSE
               {{{"MESS", v.get()}}, qvahost::M_KW_AMBIGUOUS, ""},  // MESSAGE or MESSAGESTRING
               {{{"EXTRA", v.get()}}, qvahost::M_KW_UNKNOWN, ""},   // rows outside the mask
               {{{"SCOPE", v.get()}, {"SCOPEX", v.get()}}, qvahost::M_KW_UNKNOWN, ""},
               {{{"SCOPE", arr.get()}}, qvahost::M_NOTSCALAR, "SCOPE"},
               {{{"HANDLER", v.get()}}, qvahost::M_REQOBJREF, "HANDLER"},
               {{{"REGISTER", undefined.get()}}, qvahost::M_UNDEFVAR, ""}};
  for (const Case &c : cases) {
    e = ExpectHostError([&] { qvahost::call_function("KW_PROBE", {}, c.kw); });
    EXPECT_EQ(e.code, c.code) << c.kw[0].name;
    EXPECT_NE(e.text.find(c.named), std::string::npos) << e.text;
  }
}

TEST_F(KeywordTest, StringFromNumberIsFreedByKWFreeOrWhenProcessingFails) {
  Tmp num(qvahost::make_long(42));
  process({{"MESSAGESTRING", num.get()}});
  EXPECT_NE(at(0), 0) << "the host has something to free";
  QVA_STRING s = at<QVA_STRING>(kMsgVal);
  EXPECT_STREQ(QVA_STRING_STR(&s), "42");
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 1);
  QVA_KWFree();
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);
  QVA_KWFree();  // nothing left: a second call frees nothing
  // MESSAGESTRING is converted (a new text) before SCOPE fails to convert;
  // TearDown checks that no text is left.
  Tmp bad(qvahost::make_string("not a number"));
  ExpectHostError([&] { process({{"MESSAGESTRING", num.get()}, {"SCOPE", bad.get()}}); });
}

// Pending conversions belong to the routine that made them: released when
// it is abandoned, and not by a QVA_KWFree of a routine it calls.
TEST_F(KeywordTest, PendingConversionsBelongToTheirRoutine) {
  qvahost::define_routine("KW_ABANDON", false, 0, 0, true,
                          [this](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
                            QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
                            QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "gave up %s", "early");
                            return nullptr;
                          });
  Tmp num(qvahost::make_double(1.5));
  qvahost::HostError e = ExpectHostError([&] {
    qvahost::call_procedure("KW_ABANDON", {}, {{"MESSAGESTRING", num.get()}});
  });
  EXPECT_EQ(e.routine, "KW_ABANDON");
  EXPECT_EQ(e.text, "gave up early");
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts);

  alignas(4) unsigned char inner_record[kRecordSize];
  qvahost::define_routine(
      "KW_INNER", false, 0, 0, true, [&](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
        QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, inner_record);
        QVA_KWFree();
        return nullptr;
      });
  std::string outer_text;
  qvahost::define_routine(
      "KW_OUTER", false, 0, 0, true, [&](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
        QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
        Tmp n(QVA_GettmpLong(8));
        qvahost::call_procedure("KW_INNER", {}, {{"MESSAGESTRING", n.get()}});
        QVA_STRING s = at<QVA_STRING>(kMsgVal);
        outer_text = QVA_STRING_STR(&s);  // still alive after the inner QVA_KWFree
        QVA_KWFree();
        return nullptr;
      });
  qvahost::call_procedure("KW_OUTER", {}, {{"MESSAGESTRING", num.get()}});
  EXPECT_EQ(outer_text, "1.5");
}

}  // namespace
