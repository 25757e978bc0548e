// The keyword tables of the framework INIT methods and the shared keyword
// record: every keyword at its fixed place, and the INIT-with-keywords
// body run through the host's keyword processing.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "frame/fw_class.h"
#include "framework/fw_behavior.h"
#include "framework/fw_delayargbehav.h"
#include "framework/fw_delaybehav.h"
#include "framework/fw_funcbehav.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_message.h"
#include "framework/fw_messhndlr.h"
#include "framework/fw_objbehav.h"
#include "framework/fw_procbehav.h"
#include "framework/fw_query.h"
#include "framework/fw_querybehav.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;
using qvatest::ObjRef;
using qvatest::ScopedObject;

struct KeywordPlace {
  int type;
  int flags;
  uint32_t given;
  uint32_t value;
};

// Where every keyword goes in the shared record.
const std::map<std::string, KeywordPlace> kPlaces = {
    {"HANDLER", {QVA_TYP_OBJREF, 0, 4, 8}},     {"MESSAGESTRING", {QVA_TYP_STRING, 0, 12, 16}},
    {"SCOPE", {QVA_TYP_LONG, 0x4000, 28, 32}},  {"REGISTER", {QVA_TYP_LONG, 0x4000, 36, 40}},
    {"METHOD", {QVA_TYP_STRING, 0, 44, 48}},    {"FUNCTION", {QVA_TYP_STRING, 0, 44, 48}},
    {"PROCEDURE", {QVA_TYP_STRING, 0, 44, 48}}, {"RESPONSE", {QVA_TYP_UNDEF, 0x3000, 44, 48}},
    {"OBJECT", {QVA_TYP_OBJREF, 0, 60, 64}},    {"DELAYMESSAGESTRING", {QVA_TYP_STRING, 0, 68, 72}},
};

struct KeywordTable {
  const char *name;
  const QVA_KW_PAR *rows;
  std::vector<std::string> keywords;
};

const std::vector<std::string> kDelayKeywords = {
    "DELAYMESSAGESTRING", "HANDLER", "MESSAGESTRING", "METHOD", "OBJECT", "REGISTER", "SCOPE"};

const KeywordTable kTables[] = {
    {"QVAFWHASAHANDLER", hasahandler_Keywords, {"HANDLER"}},
    {"QVAFWMESSAGE", message_Keywords, {"HANDLER", "MESSAGESTRING", "SCOPE"}},
    {"QVAFWQUERY", query_Keywords, {"HANDLER", "MESSAGESTRING", "SCOPE"}},
    {"QVAFWMESSAGEHANDLER", messageHandler_Keywords, {"HANDLER"}},
    {"QVAFWBEHAVIOR", behavior_Keywords, {"HANDLER", "MESSAGESTRING", "REGISTER", "SCOPE"}},
    {"QVAFWOBJBEHAV",
     objBehav_Keywords,
     {"HANDLER", "MESSAGESTRING", "METHOD", "OBJECT", "REGISTER", "SCOPE"}},
    {"QVAFWPROCBEHAV",
     procBehav_Keywords,
     {"HANDLER", "MESSAGESTRING", "PROCEDURE", "REGISTER", "SCOPE"}},
    {"QVAFWFUNCBEHAV",
     funcBehav_Keywords,
     {"FUNCTION", "HANDLER", "MESSAGESTRING", "REGISTER", "SCOPE"}},
    {"QVAFWQUERYBEHAV",
     queryBehav_Keywords,
     {"HANDLER", "MESSAGESTRING", "REGISTER", "RESPONSE", "SCOPE"}},
    {"QVAFWDELAYBEHAV", delayBehav_Keywords, kDelayKeywords},
    {"QVAFWDELAYARGBEHAV", delayArgBehav_Keywords, kDelayKeywords},
};

class ClassKeywordsTest : public qvatest::HostTest {};

TEST_F(ClassKeywordsTest, TablesListTheirKeywordsAtTheSharedPlaces) {
  for (const KeywordTable &table : kTables) {
    SCOPED_TRACE(table.name);
    const QVA_KW_PAR &first = table.rows[0];
    ASSERT_NE(first.keyword, nullptr);
    EXPECT_STREQ(first.keyword, "");
    EXPECT_EQ(first.type + first.mask + first.flags + first.specified + first.value, 0u);

    size_t i = 1;
    for (; table.rows[i].keyword; ++i) {
      const QVA_KW_PAR &row = table.rows[i];
      SCOPED_TRACE(row.keyword);
      ASSERT_LE(i, table.keywords.size());
      EXPECT_EQ(row.keyword, table.keywords[i - 1]);
      if (i > 1) {
        EXPECT_LT(std::strcmp(table.rows[i - 1].keyword, row.keyword), 0);
      }
      const KeywordPlace &place = kPlaces.at(row.keyword);
      EXPECT_EQ(row.type, place.type);
      EXPECT_EQ(row.mask, 1);
      EXPECT_EQ(row.flags, place.flags);
      EXPECT_EQ(row.specified, place.given);
      EXPECT_EQ(row.value, place.value);
    }
    EXPECT_EQ(i - 1, table.keywords.size()) << "rows before the null row";
  }
}

// ---- INIT with keywords, through the host's keyword processing ----

// What the probe's initialisation saw.
struct ProbeSeen {
  int calls = 0;
  ClassPart part{};
  FwKeywordFields kw{};
  std::string messagestring, method, delaymessagestring;
  QVA_VPTR response = nullptr;
  QVA_LONG64 response_value = 0;
};
ProbeSeen g_seen;
int g_probe_result = 1;
bool g_probe_fails = false;
QVA_KW_PAR *g_probe_table = delayBehav_Keywords;

std::string Text(const QVA_STRING &s) { return s.slen ? QVA_STRING_STR(&s) : ""; }

int ProbeInit(ClassPart part, FwKeywordFields *kw) {
  ++g_seen.calls;
  g_seen.part = part;
  g_seen.kw = *kw;
  if (kw->messagestring_given) g_seen.messagestring = Text(kw->messagestring);
  if (kw->delaymessagestring_given) g_seen.delaymessagestring = Text(kw->delaymessagestring);
  if (g_probe_table == queryBehav_Keywords) {
    g_seen.response = kw->method_given ? fw_kwResponse(kw) : nullptr;
    if (g_seen.response) g_seen.response_value = qvahost::integer_value(g_seen.response);
  } else if (kw->method_given) {
    g_seen.method = Text(kw->method);
  }
  if (g_probe_fails) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "probe initialisation fails");
  return g_probe_result;
}

class InitWithKeywordsTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    qvatest::HostTest::SetUp();
    qvatest::DefineStructOnce("KWTEST_PROBE", "QVAFWHASAHANDLER", {});
    if (!qvahost::routine_exists("KWTEST_PROBE::INIT", true))
      qvahost::define_routine("KWTEST_PROBE::INIT", true, 1, 1, true,
                              [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                                return fw_initWithKeywords(argc, argv, argk, g_probe_table,
                                                           HasAHandler_from_vptr, ProbeInit);
                              });
    g_seen = ProbeSeen{};
    g_probe_result = 1;
    g_probe_fails = false;
    g_probe_table = delayBehav_Keywords;
  }
};

TEST_F(InitWithKeywordsTest, WithoutKeywordsNothingIsGivenAndZeroFlagsAreZero) {
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ASSERT_EQ(g_seen.calls, 1);
  EXPECT_EQ(g_seen.part.hvid, obj.id());
  EXPECT_EQ(g_seen.part.data, qvatest::FieldOf<void>(obj.id(), "QVAFWSAVEABLE_TOP"));
  const FwKeywordFields &kw = g_seen.kw;
  EXPECT_EQ(kw.handler_given, 0);
  EXPECT_EQ(kw.messagestring_given, 0);
  EXPECT_EQ(kw.method_given, 0);
  EXPECT_EQ(kw.object_given, 0);
  EXPECT_EQ(kw.delaymessagestring_given, 0);
  EXPECT_EQ(kw.scope_given, 0);
  EXPECT_EQ(kw.scope, 0);
  EXPECT_EQ(kw.register_given, 0);
  EXPECT_EQ(kw.register_value, 0);
}

TEST_F(InitWithKeywordsTest, EveryKeywordLandsInItsField) {
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ScopedObject handler = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGEHANDLER"));
  ScopedObject target = ScopedObject::Bare(qvahost::find_struct("QVAFWSAVEABLE"));
  ObjRef self(obj.id()), handler_ref(handler.id()), target_ref(target.id());
  QVA_VPTR message = qvahost::make_string("Go"), method = qvahost::make_string("Run");
  QVA_VPTR delay = qvahost::make_string("Later"), scope = qvahost::make_long(3);
  QVA_VPTR reg = qvahost::make_double(2.0);  // converted to LONG

  g_probe_result = 0;
  QVA_VPTR result = qvahost::call_method_function(self, "INIT", {},
                                                  {{"DELAYMESSAGESTRING", delay},
                                                   {"HANDLER", handler_ref},
                                                   {"MESSAGESTRING", message},
                                                   {"METHOD", method},
                                                   {"OBJECT", target_ref},
                                                   {"REGISTER", reg},
                                                   {"SCOPE", scope}});
  EXPECT_EQ(result->type, QVA_TYP_LONG);
  EXPECT_EQ(qvahost::integer_value(result), 0) << "the initialisation's result is returned";
  qvatest::Release(result);

  const FwKeywordFields &kw = g_seen.kw;
  EXPECT_NE(kw.handler_given, 0);
  EXPECT_EQ(kw.handler, handler.id());
  EXPECT_NE(kw.messagestring_given, 0);
  EXPECT_EQ(g_seen.messagestring, "Go");
  EXPECT_NE(kw.method_given, 0);
  EXPECT_EQ(g_seen.method, "Run");
  EXPECT_NE(kw.object_given, 0);
  EXPECT_EQ(kw.object, target.id());
  EXPECT_NE(kw.delaymessagestring_given, 0);
  EXPECT_EQ(g_seen.delaymessagestring, "Later");
  EXPECT_NE(kw.register_given, 0);
  EXPECT_EQ(kw.register_value, 2);
  EXPECT_NE(kw.scope_given, 0);
  EXPECT_EQ(kw.scope, 3);
  for (QVA_VPTR v : {message, method, delay, scope, reg}) QVA_Deltmp(v);
}

TEST_F(InitWithKeywordsTest, ResponseReceivesTheCallersVariable) {
  g_probe_table = queryBehav_Keywords;
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  EXPECT_EQ(g_seen.response, nullptr);

  ObjRef self(obj.id());
  qvahost::Variable answer("ANSWER");
  answer.take(qvahost::make_long(42));
  QVA_VPTR result = qvahost::call_method_function(self, "INIT", {}, {{"RESPONSE", answer.get()}});
  EXPECT_EQ(qvahost::integer_value(result), 1);
  qvatest::Release(result);
  EXPECT_NE(g_seen.kw.method_given, 0);
  EXPECT_EQ(g_seen.response, answer.get());
  EXPECT_EQ(g_seen.response_value, 42);
}

TEST_F(InitWithKeywordsTest, NumbersGivenForNamesArriveAsText) {
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ObjRef self(obj.id());
  QVA_VPTR number = qvahost::make_long(17), other = qvahost::make_long(-4);
  QVA_VPTR result = qvahost::call_method_function(self, "INIT", {},
                                                  {{"MESSAGESTRING", number}, {"METHOD", other}});
  qvatest::Release(result);
  EXPECT_EQ(g_seen.messagestring, "17");
  EXPECT_EQ(g_seen.method, "-4");
  QVA_Deltmp(number);
  QVA_Deltmp(other);
}

TEST_F(InitWithKeywordsTest, AbandonedInitialisationLeaksNothing) {
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ObjRef self(obj.id());
  QVA_VPTR message = qvahost::make_string("Abandoned message"), scope = qvahost::make_long(1);
  g_probe_fails = true;
  qvahost::HostError e = ExpectHostError([&] {
    qvahost::call_method_function(self, "INIT", {}, {{"MESSAGESTRING", message}, {"SCOPE", scope}});
  });
  EXPECT_EQ(e.text, "probe initialisation fails");
  EXPECT_EQ(g_seen.messagestring, "Abandoned message");
  QVA_Deltmp(message);
  QVA_Deltmp(scope);
}

TEST_F(InitWithKeywordsTest, UnknownKeywordIsRefusedBeforeTheInitialisation) {
  g_probe_table = hasahandler_Keywords;
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ASSERT_EQ(g_seen.calls, 1);
  ObjRef self(obj.id());
  QVA_VPTR scope = qvahost::make_long(1);
  ExpectHostError([&] { qvahost::call_method_function(self, "INIT", {}, {{"SCOPE", scope}}); });
  EXPECT_EQ(g_seen.calls, 1);
  QVA_Deltmp(scope);
}

}  // namespace
