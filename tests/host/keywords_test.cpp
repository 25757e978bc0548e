// Keyword processing: matching (abbreviations, exact names, unknown and
// ambiguous keywords), the three flag modes, conversions and the release
// of converted texts.
#include <cstring>

#include "object_helpers.h"
#include "test_support.h"

namespace {

using hosttest::Temp;
using qvahost::Keywords;
using qvatest::ExpectHostError;

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

class KeywordTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    std::memset(record_, 0xAB, sizeof record_);
  }

  QVA_LONG long_at(uint32_t pos) const {
    QVA_LONG v;
    std::memcpy(&v, record_ + pos, sizeof v);
    return v;
  }
  QVA_STRING string_at(uint32_t pos) const {
    QVA_STRING s;
    std::memcpy(&s, record_ + pos, sizeof s);
    return s;
  }
  QVA_VPTR vptr_at(uint32_t pos) const {
    QVA_VPTR v;
    std::memcpy(&v, record_ + pos, sizeof v);
    return v;
  }
  // Processes keywords given as a call would give them, at top level.
  int process(const Keywords &kw, int argc = 0, QVA_VPTR *argv = nullptr,
              QVA_VPTR *plain = nullptr) {
    QVA_KW_ARGS block{kw};
    return QVA_KWProcessByOffset(argc, argv, &block, kTable, plain, 1, record_);
  }

  alignas(4) unsigned char record_[kRecordSize];
};

TEST_F(KeywordTest, NothingGivenClearsSpecifiedFlagsAndZeroesOnlyZeroRows) {
  Temp a(qvahost::make_long(1)), b(qvahost::make_long(2));
  QVA_VPTR argv[] = {a.get(), b.get()};
  QVA_VPTR plain[2] = {nullptr, nullptr};
  EXPECT_EQ(QVA_KWProcessByOffset(2, argv, nullptr, kTable, plain, 1, record_), 2);
  EXPECT_EQ(plain[0], a.get());
  EXPECT_EQ(plain[1], b.get());
  EXPECT_EQ(long_at(0), 0) << "free marker";
  for (uint32_t spec : {kHandlerSpec, kMsgSpec, kScopeSpec, kRegSpec, kRespSpec, kMessageSpec})
    EXPECT_EQ(long_at(spec), 0) << "specified flag at " << spec;
  EXPECT_EQ(long_at(kScopeVal), 0);
  EXPECT_EQ(long_at(kRegVal), 0);
  // Rows without the zero flag keep whatever the record held.
  EXPECT_EQ(static_cast<uint32_t>(long_at(kHandlerVal)), 0xABABABABu);
  EXPECT_EQ(static_cast<uint32_t>(long_at(kMessageVal)), 0xABABABABu);
  // A row outside the mask is not touched at all.
  EXPECT_EQ(static_cast<uint32_t>(long_at(kExtraSpec)), 0xABABABABu);
}

TEST_F(KeywordTest, GivenValuesAreConvertedToTheRowTypes) {
  Temp obj(qvahost::make_objref(77));
  Temp scope(qvahost::make_double(2.9));
  Temp reg(qvahost::make_string(" 12"));
  Temp msg(qvahost::make_string("hello"));
  EXPECT_EQ(process({{"HANDLER", obj.get()},
                     {"SCOPE", scope.get()},
                     {"REGISTER", reg.get()},
                     {"MESSAGESTRING", msg.get()}}),
            0);
  EXPECT_EQ(long_at(kHandlerSpec), 1);
  EXPECT_EQ(static_cast<QVA_HVID>(long_at(kHandlerVal)), 77u);
  EXPECT_EQ(long_at(kScopeSpec), 1);
  EXPECT_EQ(long_at(kScopeVal), 2) << "DOUBLE to LONG truncates";
  EXPECT_EQ(long_at(kRegVal), 12) << "numeric string to LONG";
  EXPECT_EQ(long_at(kMsgSpec), 1);
  QVA_STRING s = string_at(kMsgVal);
  EXPECT_EQ(s.s, msg->value.str.s) << "a string keyword shares the caller's text";
  EXPECT_STREQ(QVA_STRING_STR(&s), "hello");
  EXPECT_EQ(long_at(0), 0) << "nothing to free";
  EXPECT_EQ(long_at(kRespSpec), 0);
  EXPECT_EQ(long_at(kMessageSpec), 0);
}

TEST_F(KeywordTest, ByVariableRowReceivesTheVariableUnconverted) {
  Temp arr(qvahost::make_long_array({1, 2, 3}));
  process({{"RESPONSE", arr.get()}});
  EXPECT_EQ(long_at(kRespSpec), 1);
  EXPECT_EQ(vptr_at(kRespVal), arr.get());
  EXPECT_EQ(long_at(0), 0);
}

TEST_F(KeywordTest, AbbreviationsAndExactNames) {
  Temp one(qvahost::make_long(1)), two(qvahost::make_long(2)), three(qvahost::make_long(3));
  Temp obj(qvahost::make_objref(5));
  // "MESSAGE" is a whole keyword and also a prefix of MESSAGESTRING: the
  // exact name wins.  Lower case is accepted.
  process({{"message", one.get()}, {"reg", two.get()}, {"H", obj.get()}, {"sc", three.get()}});
  EXPECT_EQ(long_at(kMessageSpec), 1);
  EXPECT_EQ(long_at(kMessageVal), 1);
  EXPECT_EQ(long_at(kMsgSpec), 0);
  EXPECT_EQ(long_at(kRegVal), 2);
  EXPECT_EQ(long_at(kHandlerSpec), 1);
  EXPECT_EQ(long_at(kScopeVal), 3);

  Temp text(qvahost::make_string("x"));
  process({{"MESSAGES", text.get()}});
  EXPECT_EQ(long_at(kMsgSpec), 1) << "a longer prefix picks MESSAGESTRING";
  EXPECT_EQ(long_at(kMessageSpec), 0);
}

TEST_F(KeywordTest, GivenTwiceTheLastWins) {
  Temp first(qvahost::make_long(1)), last(qvahost::make_long(9));
  process({{"SCOPE", first.get()}, {"SCO", last.get()}});
  EXPECT_EQ(long_at(kScopeVal), 9);
}

TEST_F(KeywordTest, UnknownAmbiguousAndOutOfMaskKeywordsAreRefused) {
  qvahost::define_routine("KW_PROBE", true, 0, 4, true,
                          [this](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                            QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
                            if (long_at(0)) QVA_KWFree();
                            return QVA_GettmpLong(1);
                          });
  Temp v(qvahost::make_long(1));
  qvahost::HostError e =
      ExpectHostError([&] { qvahost::call_function("KW_PROBE", {}, {{"NOSUCH", v.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_UNKNOWN);
  EXPECT_EQ(e.text, "Keyword NOSUCH not allowed in call to: KW_PROBE");
  EXPECT_EQ(e.routine, "KW_PROBE");

  e = ExpectHostError([&] { qvahost::call_function("KW_PROBE", {}, {{"R", v.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_AMBIGUOUS) << "R: REGISTER or RESPONSE";
  e = ExpectHostError([&] { qvahost::call_function("KW_PROBE", {}, {{"MESS", v.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_AMBIGUOUS) << "MESS: MESSAGE or MESSAGESTRING";
  e = ExpectHostError([&] { qvahost::call_function("KW_PROBE", {}, {{"EXTRA", v.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_UNKNOWN) << "rows outside the mask do not exist";

  // A keyword refused after others were matched fails the whole call.
  e = ExpectHostError(
      [&] { qvahost::call_function("KW_PROBE", {}, {{"SCOPE", v.get()}, {"SCOPEX", v.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_UNKNOWN);
}

TEST_F(KeywordTest, BadValuesNameTheKeyword) {
  Temp arr(qvahost::make_long_array({1, 2}));
  qvahost::HostError e = ExpectHostError([&] { process({{"SCOPE", arr.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_NOTSCALAR);
  EXPECT_NE(e.text.find("SCOPE"), std::string::npos) << e.text;

  Temp number(qvahost::make_long(3));
  e = ExpectHostError([&] { process({{"HANDLER", number.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_REQOBJREF) << "an object reference only from an object reference";
  EXPECT_NE(e.text.find("HANDLER"), std::string::npos) << e.text;

  Temp undefined(QVA_Gettmp());
  e = ExpectHostError([&] { process({{"REGISTER", undefined.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_UNDEFVAR);
}

TEST_F(KeywordTest, StringFromNumberIsFreedByKWFree) {
  Temp num(qvahost::make_long(42));
  int64_t texts_before = qvahost::accounting().texts;
  process({{"MESSAGESTRING", num.get()}});
  EXPECT_NE(long_at(0), 0) << "the host has something to free";
  QVA_STRING s = string_at(kMsgVal);
  EXPECT_STREQ(QVA_STRING_STR(&s), "42");
  EXPECT_EQ(qvahost::accounting().texts, texts_before + 1);
  QVA_KWFree();
  EXPECT_EQ(qvahost::accounting().texts, texts_before);
  QVA_KWFree();  // nothing left: a second call frees nothing
  EXPECT_EQ(qvahost::accounting().texts, texts_before);
}

TEST_F(KeywordTest, ConvertedTextIsReleasedWhenProcessingFailsLater) {
  // MESSAGESTRING is converted (a new text) before SCOPE fails to convert.
  Temp num(qvahost::make_long(5));
  Temp bad(qvahost::make_string("not a number"));
  ExpectHostError([&] { process({{"MESSAGESTRING", num.get()}, {"SCOPE", bad.get()}}); });
  // TearDown checks that no text is left.
}

TEST_F(KeywordTest, AbandonedRoutineReleasesPendingConversions) {
  qvahost::define_routine("KW_ABANDON", false, 0, 0, true,
                          [this](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
                            QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
                            QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "gave up %s", "early");
                            return nullptr;
                          });
  Temp num(qvahost::make_double(1.5));
  qvahost::HostError e = ExpectHostError(
      [&] { qvahost::call_procedure("KW_ABANDON", {}, {{"MESSAGESTRING", num.get()}}); });
  EXPECT_EQ(e.routine, "KW_ABANDON");
  EXPECT_EQ(e.text, "gave up early");
}

TEST_F(KeywordTest, KWFreeInAnInnerRoutineLeavesTheOuterConversionsAlone) {
  alignas(4) unsigned char inner_record[kRecordSize];
  qvahost::define_routine("KW_INNER", false, 0, 0, true,
                          [&](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
                            QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1,
                                                  inner_record);
                            QVA_KWFree();
                            return nullptr;
                          });
  std::string outer_text;
  qvahost::define_routine(
      "KW_OUTER", false, 0, 0, true,
      [&](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
        QVA_KWProcessByOffset(argc, argv, argk, kTable, nullptr, 1, record_);
        Temp n(QVA_GettmpLong(8));
        qvahost::call_procedure("KW_INNER", {}, {{"MESSAGESTRING", n.get()}});
        QVA_STRING s = string_at(kMsgVal);
        outer_text = QVA_STRING_STR(&s);  // still alive after the inner QVA_KWFree
        QVA_KWFree();
        return nullptr;
      });
  Temp num(qvahost::make_long(31));
  qvahost::call_procedure("KW_OUTER", {}, {{"MESSAGESTRING", num.get()}});
  EXPECT_EQ(outer_text, "31");
}

}  // namespace
