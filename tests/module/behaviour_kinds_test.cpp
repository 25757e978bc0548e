// The behaviour kinds and queries, driven through the registered routines as
// the language calls them, against native targets that record every call.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "frame/qva_cobalt_rtn_tbl.h"
#include "fw_support.h"
#include "internal.h"

namespace fwtest {
namespace {

using qvatest::ExpectHostError;
using Ids = std::vector<QVA_HVID>;

class BehaviourKindsTest : public FwTest {
 protected:
  // A registered delayed behaviour of class `cls`: `message` arms it, IDLE
  // runs target->PING.
  static QVA_HVID NewDelayed(const std::string &cls, const std::string &message, QVA_HVID target) {
    return New(cls, {{"MESSAGESTRING", Str(message)},
                     {"DELAYMESSAGESTRING", Str("IDLE")},
                     {"OBJECT", Ref(target)},
                     {"METHOD", Str("PING")},
                     {"REGISTER", Long(1)}});
  }
  static QVA_HVID Msg(const std::string &text) {
    return New(kMessage, {{"MESSAGESTRING", Str(text)}});
  }
};

TEST_F(BehaviourKindsTest, ObjectBehaviourCallsTheMethodWithNothingOrTheCallersVariable) {
  const QVA_HVID fresh = New("QVAfwObjBehav");
  EXPECT_EQ(Call(fresh, "METHOD"), "S:UnitializedMethod");
  EXPECT_EQ(Call(fresh, "OBJECT"), "O:0");
  const QVA_HVID target = New("BTEST_TARGET");
  const QVA_HVID b = New("QVAfwObjBehav", {{"MESSAGESTRING", Str("M")},
                                           {"OBJECT", Ref(target)},
                                           {"METHOD", Str("ping")},
                                           {"REGISTER", Long(1)}});
  const QVA_HVID m = Msg("M");
  Proc(m, "SEND");
  qvahost::Variable payload;
  payload.take(qvahost::make_long(42));
  Proc(m, "SEND", {payload.get()});
  ASSERT_EQ(Calls().size(), 2u);
  EXPECT_EQ(Calls()[0].self, target);
  EXPECT_EQ(Calls()[0].args, 0);
  EXPECT_EQ(Calls()[1].args, 1);
  EXPECT_EQ(Calls()[1].arg, payload.get()) << "the caller's variable itself";
  EXPECT_EQ(Call(b, "METHOD"), "S:ping");
}

TEST_F(BehaviourKindsTest, AGoneObjectUnregistersARegisteredBehaviourButNotAnAddedOne) {
  const QVA_HVID target = New("BTEST_TARGET"), h = NewHandler();
  qvahost::Keywords kw{{"MESSAGESTRING", Str("M")},
                       {"OBJECT", Ref(target)},
                       {"METHOD", Str("PING")},
                       {"HANDLER", Ref(h)}};
  const QVA_HVID added = New("QVAfwObjBehav", kw);
  kw.push_back({"REGISTER", Long(1)});
  const QVA_HVID registered = New("QVAfwObjBehav", kw);
  Scope(h, "M");
  Proc(h, "ADDBEHAVIOR", {Ref(added)});
  ASSERT_EQ(Behaviors(h, "M"), (Ids{added, registered}));
  Destroy(target);
  for (int i = 0; i < 2; ++i) {
    SendText(h, "M");
    EXPECT_TRUE(Calls().empty());
    EXPECT_FALSE(IsRegistered(registered));
    EXPECT_EQ(Behaviors(h, "M"), Ids{added}) << "the added one stays listed";
  }
}

TEST_F(BehaviourKindsTest, SettersRefuseWrongTypesAndStringArraysAndKeepTheirValue) {
  const QVA_HVID o = New("QVAfwObjBehav", {{"METHOD", Str("KEEP")}});
  const QVA_HVID p = New("QVAfwProcBehav", {{"PROCEDURE", Str("btest_Proc")}});
  const QVA_HVID f = New("QVAfwFuncBehav");
  EXPECT_EQ(Call(New("QVAfwProcBehav"), "PROC"), "S:UnitializedProcedure");
  EXPECT_EQ(Call(f, "FUNC"), "S:UnitializedFuncedure");
  EXPECT_EQ(Call(p, "PROC"), "S:btest_Proc") << "names kept exactly as given";
  Proc(p, "SETPROC", {Str("Other_Name")});
  EXPECT_EQ(Call(p, "PROC"), "S:Other_Name");
  struct Setter {
    QVA_HVID self;
    const char *set, *get, *routine, *kept;
  };
  for (Setter s :
       {Setter{o, "SETMETHOD", "METHOD", "QVAfwObjBehav::SetMethod", "S:KEEP"},
        Setter{p, "SETPROC", "PROC", "QVAfwProcBehav::SetProc", "S:Other_Name"},
        Setter{f, "SETFUNC", "FUNC", "QVAfwFuncBehav::SetFunc", "S:UnitializedFuncedure"}}) {
    SCOPED_TRACE(s.routine);
    auto e = ExpectHostError([&] { Proc(s.self, s.set, {Long(3)}); });
    EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
    EXPECT_NE(e.text.find(s.routine), std::string::npos) << e.text;
    qvahost::Variable names;
    names.take(qvahost::make_string_array({"A", "B"}));
    EXPECT_EQ(ExpectHostError([&] { Proc(s.self, s.set, {names.get()}); }).code,
              qvahost::M_NOTSCALAR);
    EXPECT_EQ(Call(s.self, s.get), s.kept);
  }
  EXPECT_EQ(ExpectHostError([&] { Proc(o, "SETOBJECT", {Str("no object")}); }).code,
            QVA_M_WRONG_TYPE);
  EXPECT_EQ(Call(o, "OBJECT"), "O:0");
}

TEST_F(BehaviourKindsTest, ProcedureAndFunctionReceiveTheArgumentAndUnknownNamesEndTheDispatch) {
  New("QVAfwProcBehav",
      {{"MESSAGESTRING", Str("M")}, {"PROCEDURE", Str("btest_proc")}, {"REGISTER", Long(1)}});
  New("QVAfwFuncBehav",
      {{"MESSAGESTRING", Str("M")}, {"FUNCTION", Str("btest_func")}, {"REGISTER", Long(1)}});
  const QVA_HVID m = Msg("M");
  Proc(m, "SEND");
  qvahost::Variable arg;
  arg.take(qvahost::make_string("payload"));
  Proc(m, "SEND", {arg.get()});
  ASSERT_EQ(Calls().size(), 4u);
  EXPECT_EQ(Calls()[0].target, "BTEST_PROC");
  EXPECT_EQ(Calls()[0].args, 0);
  EXPECT_EQ(Calls()[1].target, "BTEST_FUNC");
  EXPECT_EQ(Calls()[2].arg, arg.get());
  EXPECT_EQ(Calls()[3].value, "S:payload");
  // The function's string result was released: the fixture's leak check.

  Calls().clear();
  const QVA_HVID missing =
      New("QVAfwProcBehav",
          {{"MESSAGESTRING", Str("N")}, {"PROCEDURE", Str("NO_SUCH_PROC")}, {"REGISTER", Long(1)}});
  const QVA_HVID after =
      New("QVAfwProcBehav",
          {{"MESSAGESTRING", Str("N")}, {"PROCEDURE", Str("BTEST_PROC")}, {"REGISTER", Long(1)}});
  ASSERT_LT(missing, after) << "lists run in ascending heap identifier order";
  auto e = ExpectHostError([&] { Proc(Msg("N"), "SEND", {Long(5)}); });
  EXPECT_NE(e.text.find("NO_SUCH_PROC"), std::string::npos) << e.text;
  EXPECT_TRUE(Calls().empty()) << "the dispatch ended at the failing behaviour";
  EXPECT_NE(ExpectHostError([&] {
              Proc(New("QVAfwProcBehav", {{"PROCEDURE", Str("")}}), "EXECUTE");
            }).code,
            0);
}

TEST_F(BehaviourKindsTest, ManySendsBeforeTheDelayMessageRunTheMethodOnce) {
  const QVA_HVID target = New("BTEST_TARGET");
  const QVA_HVID d = NewDelayed("QVAfwDelayBehav", "CHANGED", target);
  const QVA_HVID changed = Msg("CHANGED"), idle = Msg("IDLE");
  Proc(idle, "SEND");
  EXPECT_TRUE(Calls().empty()) << "a delay message alone runs nothing";
  for (int i = 0; i < 3; ++i) Proc(changed, "SEND");
  EXPECT_TRUE(Calls().empty());
  Proc(idle, "SEND");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].args, 0);
  Proc(idle, "SEND");
  EXPECT_EQ(Calls().size(), 1u) << "the trigger was disarmed";
  Proc(d, "DELAYEXECUTE");
  EXPECT_EQ(Calls().size(), 2u) << "a direct call runs even when disarmed";

  // A send of its own message from inside the deferred call is disarmed after.
  Proc(changed, "SEND");
  OnNextCall() = [&] { Proc(changed, "SEND"); };
  Proc(idle, "SEND");
  Proc(idle, "SEND");
  EXPECT_EQ(Calls().size(), 3u);
}

TEST_F(BehaviourKindsTest, DelayedCleanupWhileArmedLeavesNothingAndTheTriggerKeepsItsHandler) {
  const QVA_HVID h = NewHandler(), other = NewHandler();
  const QVA_HVID d = New("QVAfwDelayBehav", {{"MESSAGESTRING", Str("CHANGED")},
                                             {"DELAYMESSAGESTRING", Str("IDLE")},
                                             {"HANDLER", Ref(h)}});
  const QVA_HVID sub = FieldRef<QVA_HVID>(d, "SUB_BEHAVIOR");
  ASSERT_TRUE(Alive(sub));
  EXPECT_EQ(HandlerOf(sub), h);
  SetHandler(d, other);
  EXPECT_EQ(HandlerOf(sub), h) << "the trigger keeps the handler init gave it";
  Scope(h, "IDLE");
  Proc(d, "EXECUTE");
  EXPECT_EQ(Behaviors(h, "IDLE"), Ids{sub}) << "armed";
  Destroy(d);
  EXPECT_FALSE(Alive(sub));
  EXPECT_EQ(Behaviors(h, "IDLE"), Ids{});
}

TEST_F(BehaviourKindsTest, DelayedArgumentKeepsTheLargestValueAndResets) {
  const QVA_HVID d = NewDelayed("QVAfwDelayArgBehav", "N", New("BTEST_TARGET"));
  const QVA_HVID n = Msg("N"), idle = Msg("IDLE");
  for (QVA_LONG v : {3, 7, 5}) Proc(n, "SEND", {Long(v)});
  Proc(idle, "SEND");
  Proc(idle, "SEND");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].value, "L:7");
  EXPECT_EQ(FieldRef<QVA_LONG>(d, "ARG"), 0);
  EXPECT_EQ(FieldRef<QVA_LONG>(d, "QVAFWDELAYARGBEHAV_VERSION"), 1);
  Proc(n, "SEND", {Long(-4)});
  Proc(idle, "SEND");
  ASSERT_EQ(Calls().size(), 2u);
  EXPECT_EQ(Calls()[1].value, "L:0");
  // Converted as the host converts to LONG; only the conversion's temporary
  // is deleted (the leak check), the caller's variable is untouched.
  qvahost::Variable real;
  real.take(qvahost::make_double(2.9));
  Proc(d, "EXECUTE", {real.get()});
  EXPECT_EQ(FieldRef<QVA_LONG>(d, "ARG"), 2);
  EXPECT_EQ(Printed(real.get()), "D:2.9");
  EXPECT_NE(ExpectHostError([&] { Proc(n, "SEND"); }).code, 0) << "EXECUTE needs the argument";
}

TEST_F(BehaviourKindsTest, ArmedStateAndPendingArgumentSurviveSaveAndRestore) {
  session_replaced_ = true;
  {
    const QVA_HVID target = New("BTEST_TARGET");
    const QVA_HVID d = NewDelayed("QVAfwDelayArgBehav", "N", target);
    Proc(Msg("N"), "SEND", {Long(12)});
    for (auto [name, id] : {std::pair{"T", target}, {"D", d}}) {
      QVA_VPTR v = qvahost::main_variable(name);
      v->type = QVA_TYP_OBJREF;
      v->value.hvid = id;
    }
  }
  std::vector<uint8_t> saved = qvahost::save_all_to_bytes();
  ReleaseTemps();
  qvahost::reset_session();
  qvahost::restore_from_bytes(saved.data(), saved.size());
  const QVA_HVID target = qvahost::find_main_variable("T")->value.hvid;
  const QVA_HVID d = qvahost::find_main_variable("D")->value.hvid;
  qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY",
                          {qvatest::ObjRefArray({d, FieldRef<QVA_HVID>(d, "SUB_BEHAVIOR")})});
  Proc(Msg("IDLE"), "SEND");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].self, target);
  EXPECT_EQ(Calls()[0].value, "L:12");
}

TEST_F(BehaviourKindsTest, QueryResultsFromNoneOneAndTwoBehavioursOverwriteInPlace) {
  const QVA_HVID q = New("QVAfwQuery", {{"MESSAGESTRING", Str("ASK")}});
  EXPECT_EQ(Call(q, "RESULT"), "S:UnInitialized Result");
  EXPECT_EQ(Call(q, "SENDQUERY"), "S:UnInitialized Result") << "nobody answers";
  EXPECT_EQ(Call(New("QVAfwQueryBehav"), "RESPONSE"), "S:UnInitialized Response");
  const QVA_HVID first =
      New("QVAfwQueryBehav",
          {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", Long(1)}, {"REGISTER", Long(1)}});
  EXPECT_EQ(Call(q, "SENDQUERY"), "L:1");
  const QVA_HVID result = FieldRef<QVA_HVID>(q, "QUERY_RESULT");
  New("QVAfwQueryBehav",
      {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", Str("two")}, {"REGISTER", Long(1)}});
  EXPECT_EQ(Call(q, "SENDQUERY"), "S:two") << "the last one run decides";
  EXPECT_EQ(FieldRef<QVA_HVID>(q, "QUERY_RESULT"), result) << "overwritten in place";
  Proc(q, "SETRESULT", {Long(99)});
  EXPECT_EQ(FieldRef<QVA_HVID>(q, "QUERY_RESULT"), result);
  EXPECT_EQ(Call(q, "RESULT"), "L:99");
  const QVA_HVID response = FieldRef<QVA_HVID>(first, "RESPONSE");
  Proc(first, "SETRESPONSE", {Str("three")});
  EXPECT_EQ(FieldRef<QVA_HVID>(first, "RESPONSE"), response) << "overwritten in place";
  EXPECT_EQ(Call(first, "RESPONSE"), "S:three");
  Proc(first, "SETRESPONSE");
  EXPECT_EQ(Call(first, "RESPONSE"), "S:UnInitialized Response");

  // A query behaviour run with what is no query refuses it and stores nothing.
  const QVA_HVID message = Msg("ASK");
  EXPECT_EQ(ExpectHostError([&] { Proc(first, "EXECUTE", {Ref(message)}); }).code,
            QVA_M_NOT_OF_CLASS);
  EXPECT_EQ(MessageString(message), "ASK");

  Destroy(q);
  EXPECT_FALSE(Alive(result)) << "a destroyed query takes its result with it";
}

TEST_F(BehaviourKindsTest, SendQueryReturnsACopyAndResponsesAreCopies) {
  qvahost::Variable v;
  v.take(qvahost::make_long(5));
  const QVA_HVID b =
      New("QVAfwQueryBehav",
          {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", v.get()}, {"REGISTER", Long(1)}});
  v.take(qvahost::make_long(6));
  EXPECT_EQ(Call(b, "RESPONSE"), "L:5") << "changing v changes nothing";
  const QVA_HVID q = New("QVAfwQuery", {{"MESSAGESTRING", Str("ASK")}});
  Own(Func(q, "SENDQUERY"))->value.l = 1000;
  EXPECT_EQ(Call(q, "RESULT"), "L:5");
  const QVA_HVID response = FieldRef<QVA_HVID>(b, "RESPONSE");
  Destroy(b);
  EXPECT_FALSE(Alive(response)) << "a destroyed query behaviour takes its response with it";
  // Empty listings are the null values.
  const QVA_HVID h = NewHandler();
  EXPECT_EQ(Call(h, "SCOPEDMESSAGES"), "U") << "no scoped message: undefined, no elements";
  EXPECT_EQ(Call(h, "BEHAVIORS", {Str("M")}), "O:0");
  Scope(h, "a");
  EXPECT_EQ(Call(h, "BEHAVIORS", {Str("a")}), "O:0") << "an empty list is the null object";
}

// ------------------------------------------------------ routine table

struct Row {
  std::string name;
  int min = 0, max = 0;
  bool keywords = false;
};

// Rows "NAME MIN MAX", followed by K when the routine takes keywords.
std::vector<Row> Rows(const char *text) {
  std::vector<Row> rows;
  std::istringstream in(text);
  for (std::string word; in >> word;) {
    if (word == "K") {
      rows.back().keywords = true;
    } else {
      rows.push_back({word});
      in >> rows.back().min >> rows.back().max;
    }
  }
  return rows;
}

// The module's routines as the language sees them, in the table's order.
const char *const kFunctions = R"(
GET_FWIDENT 1 1                                 QVADSMAP::GETDATA 2 2
QVADSMAP::GETKEYS 1 2                           QVADSMAP::GETSIZE 1 1
QVADSMAP::INIT 1 1                              QVADSMAP::KEYEXISTS 2 2
QVAFWBEHAVIOR::INIT 1 1 K                       QVAFWBEHAVIOR::ISREGISTERED 1 1
QVAFWBEHAVIOR::MESSAGESTRING 1 1                QVAFWDELAYARGBEHAV::INIT 1 1 K
QVAFWDELAYBEHAV::INIT 1 1 K                     QVAFWFUNCBEHAV::FUNC 1 1
QVAFWFUNCBEHAV::INIT 1 1 K                      QVAFWHASAHANDLER::HANDLER 1 1
QVAFWHASAHANDLER::INIT 1 1 K                    QVAFWMESSAGE::INIT 1 1 K
QVAFWMESSAGE::MESSAGESTRING 1 1                 QVAFWMESSAGEHANDLER::BEHAVIORS 2 2
QVAFWMESSAGEHANDLER::INIT 1 1 K                 QVAFWMESSAGEHANDLER::ISSCOPED 2 2
QVAFWMESSAGEHANDLER::SCOPEDMESSAGES 1 1         QVAFWOBJBEHAV::INIT 1 1 K
QVAFWOBJBEHAV::METHOD 1 1                       QVAFWOBJBEHAV::OBJECT 1 1
QVAFWPROCBEHAV::INIT 1 1 K                      QVAFWPROCBEHAV::PROC 1 1
QVAFWQUERY::INIT 1 1 K                          QVAFWQUERY::RESULT 1 1
QVAFWQUERY::SENDQUERY 1 1                       QVAFWQUERYBEHAV::INIT 1 1 K
QVAFWQUERYBEHAV::RESPONSE 1 1                   QVAFWSAVEABLE::INIT 1 1
ROLLOVER_FWIDENT 1 1)";
const char *const kProcedures = R"(
FWIDENT_ACQUIRE 1 1                             FWIDENT_GC 0 1
FWIDENT_RELEASE 1 1                             QVADSMAP::CLEANUP 1 1
QVADSMAP::INSERT 3 3                            QVADSMAP::REMOVE 2 2
QVAFWBEHAVIOR::CLEANUP 1 1 K                    QVAFWBEHAVIOR::EXECUTE 1 2
QVAFWBEHAVIOR::REGISTER 1 1                     QVAFWBEHAVIOR::RESTORE 1 1
QVAFWBEHAVIOR::SETMESSAGESTRING 2 2             QVAFWBEHAVIOR::UNREGISTER 1 1
QVAFWDELAYARGBEHAV::CLEANUP 1 1                 QVAFWDELAYARGBEHAV::DELAYEXECUTE 1 1
QVAFWDELAYARGBEHAV::EXECUTE 2 2                 QVAFWDELAYBEHAV::CLEANUP 1 1
QVAFWDELAYBEHAV::DELAYEXECUTE 1 1               QVAFWDELAYBEHAV::EXECUTE 1 1
QVAFWDELAYBEHAV::RESTORE 1 1                    QVAFWDELAYBEHAV::SETMETHOD 2 2
QVAFWFUNCBEHAV::CLEANUP 1 1                     QVAFWFUNCBEHAV::EXECUTE 1 2
QVAFWFUNCBEHAV::RESTORE 1 1                     QVAFWFUNCBEHAV::SETFUNC 2 2
QVAFWHASAHANDLER::CLEANUP 1 1                   QVAFWHASAHANDLER::RESTORE 1 1
QVAFWHASAHANDLER::SETHANDLER 2 2                QVAFWMESSAGE::CLEANUP 1 1 K
QVAFWMESSAGE::RESTORE 1 1                       QVAFWMESSAGE::SEND 1 2
QVAFWMESSAGE::SETMESSAGESTRING 2 2              QVAFWMESSAGEHANDLER::ADDBEHAVIOR 2 3
QVAFWMESSAGEHANDLER::CLEANUP 1 1                QVAFWMESSAGEHANDLER::REMOVEBEHAVIOR 2 3
QVAFWMESSAGEHANDLER::RESTORE 1 1                QVAFWMESSAGEHANDLER::SCOPEMESSAGE 2 2
QVAFWMESSAGEHANDLER::SENDMESSAGE 2 3            QVAFWMESSAGEHANDLER::UNSCOPEMESSAGE 2 2
QVAFWOBJBEHAV::CLEANUP 1 1                      QVAFWOBJBEHAV::EXECUTE 1 2
QVAFWOBJBEHAV::RESTORE 1 1                      QVAFWOBJBEHAV::SETMETHOD 2 2
QVAFWOBJBEHAV::SETOBJECT 2 2                    QVAFWPROCBEHAV::CLEANUP 1 1
QVAFWPROCBEHAV::EXECUTE 1 2                     QVAFWPROCBEHAV::RESTORE 1 1
QVAFWPROCBEHAV::SETPROC 2 2                     QVAFWQUERY::CLEANUP 1 1
QVAFWQUERY::RESTORE 1 1                         QVAFWQUERY::SETRESULT 2 2
QVAFWQUERYBEHAV::CLEANUP 1 1                    QVAFWQUERYBEHAV::EXECUTE 2 2
QVAFWQUERYBEHAV::RESTORE 1 1                    QVAFWQUERYBEHAV::SETRESPONSE 1 2
QVAFWSAVEABLE::CLEANUP 1 1                      QVAFWSAVEABLE::DORESTORE 1 1
QVAFWSAVEABLE::RESETRESTORED 1 1                QVAFWSAVEABLE::RESTORE 1 1
QVAFWSAVEABLERESTOREARRAY 1 1)";

TEST_F(BehaviourKindsTest, EveryRoutineIsRegisteredWithItsLimitsAndKeywordFlag) {
  for (bool is_function : {true, false}) {
    SCOPED_TRACE(is_function ? "functions" : "procedures");
    const QVA_SYSFUN_DEF *table = is_function ? function_addr : procedure_addr;
    const int count = is_function ? function_addr_count : procedure_addr_count;
    const std::vector<Row> expected = Rows(is_function ? kFunctions : kProcedures);
    ASSERT_EQ(count, is_function ? 33 : 59);
    ASSERT_EQ(expected.size(), static_cast<size_t>(count));
    std::map<std::string, qvahost::RoutineInfo> registered;
    for (const auto &r : qvahost::routine_rows(is_function)) registered[r.name] = r;
    for (int i = 0; i < count; ++i) {
      const Row &row = expected[i];
      SCOPED_TRACE(row.name);
      // The module's own table holds exactly these rows, sorted...
      EXPECT_EQ(table[i].name, row.name);
      EXPECT_EQ(table[i].extra, 0u);
      if (i > 0) {
        EXPECT_LT(std::string(table[i - 1].name), row.name);
      }
      // ...and the host registered them so.
      auto it = registered.find(row.name);
      ASSERT_NE(it, registered.end()) << "not registered";
      EXPECT_EQ(it->second.arg_min, row.min);
      EXPECT_EQ(it->second.arg_max, row.max);
      EXPECT_EQ(it->second.flags, row.keywords ? uint32_t{QVA_SYSFUN_KEYWORDS} : 0u);
    }
  }
}

}  // namespace
}  // namespace fwtest
