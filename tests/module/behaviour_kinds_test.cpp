// The behaviour kinds and queries, driven through the registered routines
// as the language calls them, against native targets that record calls.
#include <gtest/gtest.h>

#include <map>

#include "behaviour_kinds_support.h"
#include "frame/qva_cobalt_rtn_tbl.h"

namespace {

using qvatest::ExpectHostError;
using qvatest::FieldOf;
using qvatest::IsAlive;
using qvatest::Printed;
using qvatest::TargetCalls;

class ObjBehavTest : public qvatest::BehaviourTest {};
class NamedRoutineBehavTest : public qvatest::BehaviourTest {};
class DelayBehavTest : public qvatest::BehaviourTest {
 protected:
  // A registered delayed behaviour of class `cls`: `message` arms it, IDLE
  // runs target->PING.
  QVA_HVID NewDelayed(const std::string &cls, const std::string &message, QVA_HVID target) {
    return New(cls, {{"MESSAGESTRING", Str(message)},
                     {"DELAYMESSAGESTRING", Str("IDLE")},
                     {"OBJECT", Obj(target)},
                     {"METHOD", Str("PING")},
                     {"REGISTER", Long(1)}});
  }
};
class QueryTest : public qvatest::BehaviourTest {};

// ------------------------------------------------------------ object

TEST_F(ObjBehavTest, DefaultsAndTheMethodCalledWithTheCallersVariable) {
  QVA_HVID fresh = New("QVAfwObjBehav");
  EXPECT_EQ(Func(fresh, "METHOD"), "S:UnitializedMethod");
  EXPECT_EQ(Func(fresh, "OBJECT"), "O:0");

  QVA_HVID target = New("BTEST_TARGET");
  QVA_HVID b = New("QVAfwObjBehav", {{"MESSAGESTRING", Str("M")},
                                     {"OBJECT", Obj(target)},
                                     {"METHOD", Str("ping")},
                                     {"REGISTER", Long(1)}});
  QVA_HVID m = New("QVAfwMessage", {{"MESSAGESTRING", Str("M")}});
  Proc(m, "SEND");
  qvahost::Variable payload;
  payload.take(qvahost::make_long(42));
  Proc(m, "SEND", {payload.get()});
  ASSERT_EQ(TargetCalls().size(), 2u);
  EXPECT_EQ(TargetCalls()[0].self, target);
  EXPECT_EQ(TargetCalls()[0].args, 0);
  EXPECT_EQ(TargetCalls()[1].args, 1);
  EXPECT_EQ(TargetCalls()[1].arg, payload.get()) << "the caller's variable itself";
  EXPECT_EQ(Func(b, "METHOD"), "S:ping");
}

TEST_F(ObjBehavTest, AGoneObjectUnregistersARegisteredBehaviourButNotAnAddedOne) {
  QVA_HVID target = New("BTEST_TARGET");
  QVA_HVID h = New("QVAfwMessageHandler");
  QVA_HVID registered = New("QVAfwObjBehav", {{"MESSAGESTRING", Str("M")},
                                              {"OBJECT", Obj(target)},
                                              {"METHOD", Str("PING")},
                                              {"HANDLER", Obj(h)},
                                              {"REGISTER", Long(1)}});
  QVA_HVID added = New("QVAfwObjBehav", {{"MESSAGESTRING", Str("M")},
                                         {"OBJECT", Obj(target)},
                                         {"METHOD", Str("PING")},
                                         {"HANDLER", Obj(h)}});
  Proc(h, "SCOPEMESSAGE", {Str("M")});
  Proc(h, "ADDBEHAVIOR", {Obj(added)});
  ASSERT_EQ(Listed(h, "M").size(), 2u);

  qvatest::DestroyObject(target);
  Proc(h, "SENDMESSAGE", {Str("M")});
  EXPECT_TRUE(TargetCalls().empty());
  EXPECT_EQ(Func(registered, "ISREGISTERED"), "B:0");
  EXPECT_EQ(Listed(h, "M"), std::vector<QVA_HVID>{added}) << "the added one stays listed";
  Proc(h, "SENDMESSAGE", {Str("M")});
  EXPECT_TRUE(TargetCalls().empty());
  EXPECT_EQ(Listed(h, "M"), std::vector<QVA_HVID>{added});
}

TEST_F(ObjBehavTest, SettersRefuseWrongTypesAndKeepTheirValue) {
  QVA_HVID b = New("QVAfwObjBehav", {{"METHOD", Str("KEEP")}});
  auto e = ExpectHostError([&] { Proc(b, "SETMETHOD", {Long(3)}); });
  EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
  EXPECT_NE(e.text.find("QVAfwObjBehav::SetMethod"), std::string::npos) << e.text;
  qvahost::Variable names;
  names.take(qvahost::make_string_array({"A", "B"}));
  ExpectHostError([&] { Proc(b, "SETMETHOD", {names.get()}); });
  e = ExpectHostError([&] { Proc(b, "SETOBJECT", {Str("no object")}); });
  EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
  EXPECT_EQ(Func(b, "METHOD"), "S:KEEP");
  EXPECT_EQ(Func(b, "OBJECT"), "O:0");
}

// ------------------------------------------- procedure and function

TEST_F(NamedRoutineBehavTest, DefaultsAndNamesKeptExactlyAsGiven) {
  EXPECT_EQ(Func(New("QVAfwProcBehav"), "PROC"), "S:UnitializedProcedure");
  EXPECT_EQ(Func(New("QVAfwFuncBehav"), "FUNC"), "S:UnitializedFuncedure");
  QVA_HVID p = New("QVAfwProcBehav", {{"PROCEDURE", Str("btest_Proc")}});
  EXPECT_EQ(Func(p, "PROC"), "S:btest_Proc");
  Proc(p, "SETPROC", {Str("Other_Name")});
  EXPECT_EQ(Func(p, "PROC"), "S:Other_Name");
  auto e = ExpectHostError([&] { Proc(p, "SETPROC", {Long(1)}); });
  EXPECT_NE(e.text.find("QVAfwProcBehav::SetProc"), std::string::npos) << e.text;
  e = ExpectHostError([&] { Proc(New("QVAfwFuncBehav"), "SETFUNC", {Long(1)}); });
  EXPECT_NE(e.text.find("QVAfwFuncBehav::SetFunc"), std::string::npos) << e.text;
}

TEST_F(NamedRoutineBehavTest, ProcedureAndFunctionReceiveTheArgumentAndResultsAreReleased) {
  New("QVAfwProcBehav",
      {{"MESSAGESTRING", Str("M")}, {"PROCEDURE", Str("btest_proc")}, {"REGISTER", Long(1)}});
  New("QVAfwFuncBehav",
      {{"MESSAGESTRING", Str("M")}, {"FUNCTION", Str("btest_func")}, {"REGISTER", Long(1)}});
  QVA_HVID m = New("QVAfwMessage", {{"MESSAGESTRING", Str("M")}});
  Proc(m, "SEND");
  qvahost::Variable arg;
  arg.take(qvahost::make_string("payload"));
  Proc(m, "SEND", {arg.get()});
  ASSERT_EQ(TargetCalls().size(), 4u);
  EXPECT_EQ(TargetCalls()[0].target, "BTEST_PROC");
  EXPECT_EQ(TargetCalls()[0].args, 0);
  EXPECT_EQ(TargetCalls()[1].target, "BTEST_FUNC");
  EXPECT_EQ(TargetCalls()[2].arg, arg.get());
  EXPECT_EQ(TargetCalls()[3].value, "S:payload");
  // The function's string result was released: the fixture's leak check.
}

TEST_F(NamedRoutineBehavTest, AnUnknownRoutineEndsTheDispatch) {
  QVA_HVID missing =
      New("QVAfwProcBehav",
          {{"MESSAGESTRING", Str("M")}, {"PROCEDURE", Str("NO_SUCH_PROC")}, {"REGISTER", Long(1)}});
  QVA_HVID after =
      New("QVAfwProcBehav",
          {{"MESSAGESTRING", Str("M")}, {"PROCEDURE", Str("BTEST_PROC")}, {"REGISTER", Long(1)}});
  ASSERT_LT(missing, after) << "lists run in ascending heap identifier order";
  QVA_HVID m = New("QVAfwMessage", {{"MESSAGESTRING", Str("M")}});
  auto e = ExpectHostError([&] { Proc(m, "SEND", {Long(5)}); });
  EXPECT_NE(e.text.find("NO_SUCH_PROC"), std::string::npos) << e.text;
  EXPECT_TRUE(TargetCalls().empty()) << "the dispatch ended at the failing behaviour";
  e = ExpectHostError([&] { Proc(New("QVAfwProcBehav", {{"PROCEDURE", Str("")}}), "EXECUTE"); });
  EXPECT_NE(e.code, 0);
}

// ------------------------------------------------------------ delayed

TEST_F(DelayBehavTest, ManySendsBeforeTheDelayMessageRunTheMethodOnce) {
  QVA_HVID target = New("BTEST_TARGET");
  QVA_HVID d = NewDelayed("QVAfwDelayBehav", "CHANGED", target);
  QVA_HVID changed = New("QVAfwMessage", {{"MESSAGESTRING", Str("CHANGED")}});
  QVA_HVID idle = New("QVAfwMessage", {{"MESSAGESTRING", Str("IDLE")}});

  Proc(idle, "SEND");
  EXPECT_TRUE(TargetCalls().empty()) << "a delay message alone runs nothing";
  for (int i = 0; i < 3; ++i) Proc(changed, "SEND");
  EXPECT_TRUE(TargetCalls().empty());
  Proc(idle, "SEND");
  ASSERT_EQ(TargetCalls().size(), 1u);
  EXPECT_EQ(TargetCalls()[0].args, 0);
  Proc(idle, "SEND");
  EXPECT_EQ(TargetCalls().size(), 1u) << "the trigger was disarmed";

  Proc(d, "DELAYEXECUTE");
  EXPECT_EQ(TargetCalls().size(), 2u) << "a direct call runs even when disarmed";
}

TEST_F(DelayBehavTest, ASendOfItsOwnMessageFromTheDeferredCallIsDisarmedAfterwards) {
  QVA_HVID target = New("BTEST_TARGET");
  NewDelayed("QVAfwDelayBehav", "CHANGED", target);
  QVA_HVID changed = New("QVAfwMessage", {{"MESSAGESTRING", Str("CHANGED")}});
  QVA_HVID idle = New("QVAfwMessage", {{"MESSAGESTRING", Str("IDLE")}});
  Proc(changed, "SEND");
  qvatest::OnNextTargetCall([&] { Proc(changed, "SEND"); });
  Proc(idle, "SEND");
  Proc(idle, "SEND");
  EXPECT_EQ(TargetCalls().size(), 1u);
}

TEST_F(DelayBehavTest, CleanupWhileArmedLeavesNothingAndTheTriggerKeepsItsHandler) {
  QVA_HVID h = New("QVAfwMessageHandler");
  QVA_HVID other = New("QVAfwMessageHandler");
  QVA_HVID d = New("QVAfwDelayBehav", {{"MESSAGESTRING", Str("CHANGED")},
                                       {"DELAYMESSAGESTRING", Str("IDLE")},
                                       {"HANDLER", Obj(h)}});
  QVA_HVID sub = *FieldOf<QVA_HVID>(d, "SUB_BEHAVIOR");
  ASSERT_TRUE(IsAlive(sub));
  EXPECT_EQ(FuncObj(sub, "HANDLER"), h);
  Proc(d, "SETHANDLER", {Obj(other)});
  EXPECT_EQ(FuncObj(sub, "HANDLER"), h) << "the trigger keeps the handler init gave it";

  Proc(h, "SCOPEMESSAGE", {Str("IDLE")});
  Proc(d, "EXECUTE");
  EXPECT_EQ(Listed(h, "IDLE"), std::vector<QVA_HVID>{sub}) << "armed";
  qvatest::DestroyObject(d);
  EXPECT_FALSE(IsAlive(sub));
  EXPECT_TRUE(Listed(h, "IDLE").empty());
}

TEST_F(DelayBehavTest, ArgumentKeepsTheLargestValueAndResets) {
  QVA_HVID target = New("BTEST_TARGET");
  QVA_HVID d = NewDelayed("QVAfwDelayArgBehav", "N", target);
  QVA_HVID n = New("QVAfwMessage", {{"MESSAGESTRING", Str("N")}});
  QVA_HVID idle = New("QVAfwMessage", {{"MESSAGESTRING", Str("IDLE")}});
  for (QVA_LONG v : {3, 7, 5}) Proc(n, "SEND", {Long(v)});
  Proc(idle, "SEND");
  ASSERT_EQ(TargetCalls().size(), 1u);
  EXPECT_EQ(TargetCalls()[0].value, "L:7");
  EXPECT_EQ(*FieldOf<QVA_LONG>(d, "ARG"), 0);
  EXPECT_EQ(*FieldOf<QVA_LONG>(d, "QVAFWDELAYARGBEHAV_VERSION"), 1);

  Proc(n, "SEND", {Long(-4)});
  Proc(idle, "SEND");
  ASSERT_EQ(TargetCalls().size(), 2u);
  EXPECT_EQ(TargetCalls()[1].value, "L:0");

  qvahost::Variable real;
  real.take(qvahost::make_double(2.9));
  Proc(d, "EXECUTE", {real.get()});
  EXPECT_EQ(*FieldOf<QVA_LONG>(d, "ARG"), 2) << "the host's LONG conversion";
  EXPECT_EQ(Printed(real.get()), "D:2.9") << "the caller's argument is untouched";
  auto e = ExpectHostError([&] { Proc(n, "SEND"); });
  EXPECT_NE(e.code, 0) << "EXECUTE needs the message argument";
}

TEST_F(DelayBehavTest, ArmedStateAndPendingArgumentSurviveSaveAndRestore) {
  {
    QVA_HVID target = New("BTEST_TARGET");
    QVA_HVID d = NewDelayed("QVAfwDelayArgBehav", "N", target);
    QVA_HVID n = New("QVAfwMessage", {{"MESSAGESTRING", Str("N")}});
    Proc(n, "SEND", {Long(12)});
    for (auto [name, id] : {std::pair{"T", target}, {"D", d}}) {
      QVA_VPTR v = qvahost::main_variable(name);
      v->type = QVA_TYP_OBJREF;
      v->value.hvid = id;
    }
  }
  std::vector<uint8_t> saved = qvahost::save_all_to_bytes();
  qvahost::reset_session();
  qvahost::restore_from_bytes(saved.data(), saved.size());
  QVA_HVID target = qvahost::find_main_variable("T")->value.hvid;
  QVA_HVID d = qvahost::find_main_variable("D")->value.hvid;
  QVA_HVID sub = *FieldOf<QVA_HVID>(d, "SUB_BEHAVIOR");
  {
    qvatest::ObjRefArray all({d, sub});
    qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {all});
  }
  QVA_HVID idle = New("QVAfwMessage", {{"MESSAGESTRING", Str("IDLE")}});
  Proc(idle, "SEND");
  ASSERT_EQ(TargetCalls().size(), 1u);
  EXPECT_EQ(TargetCalls()[0].self, target);
  EXPECT_EQ(TargetCalls()[0].value, "L:12");
  // The restored session also holds the former top-level handler and the
  // trigger message, which no variable names: the session reset clears
  // them with everything else.
  qvahost::reset_session();
}

// -------------------------------------------------------------- query

TEST_F(QueryTest, ResultsFromNoneOneAndTwoBehaviours) {
  QVA_HVID q = New("QVAfwQuery", {{"MESSAGESTRING", Str("ASK")}});
  EXPECT_EQ(Func(q, "RESULT"), "S:UnInitialized Result");
  EXPECT_EQ(Func(q, "SENDQUERY"), "S:UnInitialized Result") << "nobody answers";

  QVA_HVID silent = New("QVAfwQueryBehav", {{"MESSAGESTRING", Str("ASK")}});
  EXPECT_EQ(Func(silent, "RESPONSE"), "S:UnInitialized Response");
  QVA_HVID first =
      New("QVAfwQueryBehav",
          {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", Long(1)}, {"REGISTER", Long(1)}});
  EXPECT_EQ(Func(q, "SENDQUERY"), "L:1");
  QVA_HVID result = *FieldOf<QVA_HVID>(q, "QUERY_RESULT");
  New("QVAfwQueryBehav",
      {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", Str("two")}, {"REGISTER", Long(1)}});
  EXPECT_EQ(Func(q, "SENDQUERY"), "S:two") << "the last one run decides";
  EXPECT_EQ(*FieldOf<QVA_HVID>(q, "QUERY_RESULT"), result) << "overwritten in place";

  Proc(q, "SETRESULT", {Long(99)});
  EXPECT_EQ(*FieldOf<QVA_HVID>(q, "QUERY_RESULT"), result);
  EXPECT_EQ(Func(q, "RESULT"), "L:99");
  Proc(first, "SETRESPONSE");
  EXPECT_EQ(Func(first, "RESPONSE"), "S:UnInitialized Response");

  qvatest::DestroyObject(q);
  EXPECT_FALSE(IsAlive(result)) << "a destroyed query takes its result with it";
}

TEST_F(QueryTest, SendQueryReturnsACopyAndResponsesAreCopies) {
  qvahost::Variable v;
  v.take(qvahost::make_long(5));
  QVA_HVID b = New("QVAfwQueryBehav",
                   {{"MESSAGESTRING", Str("ASK")}, {"RESPONSE", v.get()}, {"REGISTER", Long(1)}});
  v.take(qvahost::make_long(6));
  EXPECT_EQ(Func(b, "RESPONSE"), "L:5") << "changing v changes nothing";
  QVA_HVID q = New("QVAfwQuery", {{"MESSAGESTRING", Str("ASK")}});
  {
    qvatest::ObjRef self(q);
    QVA_VPTR r = qvahost::call_method_function(self, "SENDQUERY");
    r->value.l = 1000;
    QVA_Deltmp(r);
  }
  EXPECT_EQ(Func(q, "RESULT"), "L:5");
  QVA_HVID response = *FieldOf<QVA_HVID>(b, "RESPONSE");
  qvatest::DestroyObject(b);
  EXPECT_FALSE(IsAlive(response));
}

TEST_F(QueryTest, AQueryBehaviourRefusesAnObjectThatIsNoQuery) {
  QVA_HVID b = New("QVAfwQueryBehav", {{"RESPONSE", Long(3)}});
  QVA_HVID message = New("QVAfwMessage");
  auto e = ExpectHostError([&] { Proc(b, "EXECUTE", {Obj(message)}); });
  EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
  EXPECT_EQ(Func(message, "MESSAGESTRING"), "S:Generic Message");
}

// -------------------------------------------------- handler listings

class HandlerListingTest : public qvatest::BehaviourTest {};

TEST_F(HandlerListingTest, EmptyListingsAreTheNullValues) {
  QVA_HVID h = New("QVAfwMessageHandler");
  EXPECT_EQ(Func(h, "SCOPEDMESSAGES"), "U") << "no scoped message: undefined, no elements";
  EXPECT_EQ(Func(h, "BEHAVIORS", {Str("M")}), "O:0");
  Proc(h, "SCOPEMESSAGE", {Str("b")});
  Proc(h, "SCOPEMESSAGE", {Str("a")});
  EXPECT_EQ(Func(h, "SCOPEDMESSAGES"), "ARRAY");
  EXPECT_EQ(Func(h, "BEHAVIORS", {Str("a")}), "O:0") << "an empty list is the null object";
}

// ------------------------------------------------------ routine table

struct Row {
  const char *name;
  int min, max;
  bool keywords;
};

// The module's routines as the language sees them.
const Row kFunctions[] = {
    {"GET_FWIDENT", 1, 1, false},
    {"QVADSMAP::GETDATA", 2, 2, false},
    {"QVADSMAP::GETKEYS", 1, 2, false},
    {"QVADSMAP::GETSIZE", 1, 1, false},
    {"QVADSMAP::INIT", 1, 1, false},
    {"QVADSMAP::KEYEXISTS", 2, 2, false},
    {"QVAFWBEHAVIOR::INIT", 1, 1, true},
    {"QVAFWBEHAVIOR::ISREGISTERED", 1, 1, false},
    {"QVAFWBEHAVIOR::MESSAGESTRING", 1, 1, false},
    {"QVAFWDELAYARGBEHAV::INIT", 1, 1, true},
    {"QVAFWDELAYBEHAV::INIT", 1, 1, true},
    {"QVAFWFUNCBEHAV::FUNC", 1, 1, false},
    {"QVAFWFUNCBEHAV::INIT", 1, 1, true},
    {"QVAFWHASAHANDLER::HANDLER", 1, 1, false},
    {"QVAFWHASAHANDLER::INIT", 1, 1, true},
    {"QVAFWMESSAGE::INIT", 1, 1, true},
    {"QVAFWMESSAGE::MESSAGESTRING", 1, 1, false},
    {"QVAFWMESSAGEHANDLER::BEHAVIORS", 2, 2, false},
    {"QVAFWMESSAGEHANDLER::INIT", 1, 1, true},
    {"QVAFWMESSAGEHANDLER::ISSCOPED", 2, 2, false},
    {"QVAFWMESSAGEHANDLER::SCOPEDMESSAGES", 1, 1, false},
    {"QVAFWOBJBEHAV::INIT", 1, 1, true},
    {"QVAFWOBJBEHAV::METHOD", 1, 1, false},
    {"QVAFWOBJBEHAV::OBJECT", 1, 1, false},
    {"QVAFWPROCBEHAV::INIT", 1, 1, true},
    {"QVAFWPROCBEHAV::PROC", 1, 1, false},
    {"QVAFWQUERY::INIT", 1, 1, true},
    {"QVAFWQUERY::RESULT", 1, 1, false},
    {"QVAFWQUERY::SENDQUERY", 1, 1, false},
    {"QVAFWQUERYBEHAV::INIT", 1, 1, true},
    {"QVAFWQUERYBEHAV::RESPONSE", 1, 1, false},
    {"QVAFWSAVEABLE::INIT", 1, 1, false},
    {"ROLLOVER_FWIDENT", 1, 1, false},
};

const Row kProcedures[] = {
    {"FWIDENT_ACQUIRE", 1, 1, false},
    {"FWIDENT_GC", 0, 1, false},
    {"FWIDENT_RELEASE", 1, 1, false},
    {"QVADSMAP::CLEANUP", 1, 1, false},
    {"QVADSMAP::INSERT", 3, 3, false},
    {"QVADSMAP::REMOVE", 2, 2, false},
    {"QVAFWBEHAVIOR::CLEANUP", 1, 1, true},
    {"QVAFWBEHAVIOR::EXECUTE", 1, 2, false},
    {"QVAFWBEHAVIOR::REGISTER", 1, 1, false},
    {"QVAFWBEHAVIOR::RESTORE", 1, 1, false},
    {"QVAFWBEHAVIOR::SETMESSAGESTRING", 2, 2, false},
    {"QVAFWBEHAVIOR::UNREGISTER", 1, 1, false},
    {"QVAFWDELAYARGBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWDELAYARGBEHAV::DELAYEXECUTE", 1, 1, false},
    {"QVAFWDELAYARGBEHAV::EXECUTE", 2, 2, false},
    {"QVAFWDELAYBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWDELAYBEHAV::DELAYEXECUTE", 1, 1, false},
    {"QVAFWDELAYBEHAV::EXECUTE", 1, 1, false},
    {"QVAFWDELAYBEHAV::RESTORE", 1, 1, false},
    {"QVAFWDELAYBEHAV::SETMETHOD", 2, 2, false},
    {"QVAFWFUNCBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWFUNCBEHAV::EXECUTE", 1, 2, false},
    {"QVAFWFUNCBEHAV::RESTORE", 1, 1, false},
    {"QVAFWFUNCBEHAV::SETFUNC", 2, 2, false},
    {"QVAFWHASAHANDLER::CLEANUP", 1, 1, false},
    {"QVAFWHASAHANDLER::RESTORE", 1, 1, false},
    {"QVAFWHASAHANDLER::SETHANDLER", 2, 2, false},
    {"QVAFWMESSAGE::CLEANUP", 1, 1, true},
    {"QVAFWMESSAGE::RESTORE", 1, 1, false},
    {"QVAFWMESSAGE::SEND", 1, 2, false},
    {"QVAFWMESSAGE::SETMESSAGESTRING", 2, 2, false},
    {"QVAFWMESSAGEHANDLER::ADDBEHAVIOR", 2, 3, false},
    {"QVAFWMESSAGEHANDLER::CLEANUP", 1, 1, false},
    {"QVAFWMESSAGEHANDLER::REMOVEBEHAVIOR", 2, 3, false},
    {"QVAFWMESSAGEHANDLER::RESTORE", 1, 1, false},
    {"QVAFWMESSAGEHANDLER::SCOPEMESSAGE", 2, 2, false},
    {"QVAFWMESSAGEHANDLER::SENDMESSAGE", 2, 3, false},
    {"QVAFWMESSAGEHANDLER::UNSCOPEMESSAGE", 2, 2, false},
    {"QVAFWOBJBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWOBJBEHAV::EXECUTE", 1, 2, false},
    {"QVAFWOBJBEHAV::RESTORE", 1, 1, false},
    {"QVAFWOBJBEHAV::SETMETHOD", 2, 2, false},
    {"QVAFWOBJBEHAV::SETOBJECT", 2, 2, false},
    {"QVAFWPROCBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWPROCBEHAV::EXECUTE", 1, 2, false},
    {"QVAFWPROCBEHAV::RESTORE", 1, 1, false},
    {"QVAFWPROCBEHAV::SETPROC", 2, 2, false},
    {"QVAFWQUERY::CLEANUP", 1, 1, false},
    {"QVAFWQUERY::RESTORE", 1, 1, false},
    {"QVAFWQUERY::SETRESULT", 2, 2, false},
    {"QVAFWQUERYBEHAV::CLEANUP", 1, 1, false},
    {"QVAFWQUERYBEHAV::EXECUTE", 2, 2, false},
    {"QVAFWQUERYBEHAV::RESTORE", 1, 1, false},
    {"QVAFWQUERYBEHAV::SETRESPONSE", 1, 2, false},
    {"QVAFWSAVEABLE::CLEANUP", 1, 1, false},
    {"QVAFWSAVEABLE::DORESTORE", 1, 1, false},
    {"QVAFWSAVEABLE::RESETRESTORED", 1, 1, false},
    {"QVAFWSAVEABLE::RESTORE", 1, 1, false},
    {"QVAFWSAVEABLERESTOREARRAY", 1, 1, false},
};

TEST(RoutineTableTest, EveryRoutineIsRegisteredWithItsLimitsAndKeywordFlag) {
  for (bool is_function : {true, false}) {
    SCOPED_TRACE(is_function ? "functions" : "procedures");
    // The module's own table: exactly these rows, in this order.
    const QVA_SYSFUN_DEF *table = is_function ? function_addr : procedure_addr;
    const int count = is_function ? function_addr_count : procedure_addr_count;
    const Row *expected = is_function ? kFunctions : kProcedures;
    ASSERT_EQ(count, is_function ? 33 : 59);
    for (int i = 0; i < count; ++i) {
      EXPECT_STREQ(table[i].name, expected[i].name);
      EXPECT_EQ(table[i].extra, 0u);
    }
    // And the host registered them so.
    std::map<std::string, qvahost::RoutineInfo> rows;
    for (const auto &r : qvahost::routine_rows(is_function)) rows[r.name] = r;
    const Row *first = is_function ? std::begin(kFunctions) : std::begin(kProcedures);
    const Row *last = is_function ? std::end(kFunctions) : std::end(kProcedures);
    EXPECT_EQ(last - first, is_function ? 33 : 59);
    for (const Row *row = first; row != last; ++row) {
      SCOPED_TRACE(row->name);
      if (row + 1 != last) {
        EXPECT_LT(std::string(row->name), std::string(row[1].name));
      }
      auto it = rows.find(row->name);
      ASSERT_NE(it, rows.end()) << "not registered";
      EXPECT_EQ(it->second.arg_min, row->min);
      EXPECT_EQ(it->second.arg_max, row->max);
      EXPECT_EQ(it->second.flags, row->keywords ? uint32_t{QVA_SYSFUN_KEYWORDS} : 0u);
    }
  }
}

}  // namespace
