// The behaviour kinds and queries, driven through the registered routines as
// the language calls them, against native targets that record every call.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "frame/qva_cobalt_rtn_tbl.h"
#include "fw_support.h"
#include "internal.h"

namespace fwtest {
namespace {

using qvatest::ExpectHostError;

class BehaviourKindsTest : public FwTest {
 protected:
  // An object of `cls` registered for `message`, with more keywords.
  static QVA_HVID Registered(const std::string &cls, const std::string &message,
                             qvahost::Keywords kw) {
    kw.push_back({"MESSAGESTRING", Str(message)});
    kw.push_back({"REGISTER", Long(1)});
    return New(cls, kw);
  }
  // A delayed behaviour: `message` arms it, IDLE runs target->PING.
  static QVA_HVID Delayed(const std::string &cls, const std::string &message, QVA_HVID target) {
    return Registered(
        cls, message,
        {{"DELAYMESSAGESTRING", Str("IDLE")}, {"OBJECT", Ref(target)}, {"METHOD", Str("PING")}});
  }
};

TEST_F(BehaviourKindsTest, ObjectProcedureAndFunctionBehavioursCallTheirTargets) {
  const QVA_HVID target = New("BTEST_TARGET");
  const qvahost::Keywords to_target{{"OBJECT", Ref(target)}, {"METHOD", Str("ping")}};
  const QVA_HVID obj = Registered("QVAfwObjBehav", "M", to_target);
  Registered("QVAfwProcBehav", "M", {{"PROCEDURE", Str("btest_proc")}});
  Registered("QVAfwFuncBehav", "M", {{"FUNCTION", Str("btest_func")}});
  qvahost::Variable payload;
  payload.take(qvahost::make_string("payload"));
  const QVA_HVID m = NewMessage("M");
  Send(m);
  Send(m, payload.get());
  const char *routines[] = {"BTEST_TARGET::PING", "BTEST_PROC",
                            "BTEST_FUNC"};  // FUNC's result is released
  ASSERT_EQ(g_log.size(), 6u);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(g_log[i].routine, routines[i % 3]);
    EXPECT_EQ(g_log[i].args, i < 3 ? 0 : 1);
    EXPECT_EQ(g_log[i].arg, i < 3 ? nullptr : payload.get()) << "the caller's variable itself";
  }
  EXPECT_EQ(g_log[0].self, target);
  // With the object gone, the registered behaviour unregisters itself and an
  // added one stays listed; neither calls anything.
  qvahost::Keywords added_kw = to_target;
  added_kw.push_back({"MESSAGESTRING", Str("M")});
  const QVA_HVID added = New("QVAfwObjBehav", added_kw);
  Proc(TopLevel(), "ADDBEHAVIOR", {Ref(added)});
  Destroy(target);
  g_log.clear();
  Send(m);
  Send(m);
  EXPECT_EQ(g_log.size(), 4u);
  EXPECT_FALSE(IsRegistered(obj));
  const Ids listed = Behaviors(TopLevel(), "M");
  EXPECT_EQ(std::count(listed.begin(), listed.end(), added), 1);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), obj), 0);
  Proc(TopLevel(), "REMOVEBEHAVIOR", {Ref(added)});  // what is added stays until removed
  // An unknown routine reports the host's error and ends the dispatch.
  Registered("QVAfwProcBehav", "N", {{"PROCEDURE", Str("NO_SUCH_PROC")}});
  Registered("QVAfwProcBehav", "N", {{"PROCEDURE", Str("BTEST_PROC")}});
  g_log.clear();
  auto e = ExpectHostError([&] { Send(NewMessage("N"), Long(5)); });
  EXPECT_NE(e.text.find("NO_SUCH_PROC"), std::string::npos) << e.text;
  EXPECT_TRUE(g_log.empty()) << "the dispatch ended at the failing behaviour";
}

TEST_F(BehaviourKindsTest, SettersRefuseWrongTypesAndStringArraysAndKeepTheirValue) {
  const QVA_HVID o = New("QVAfwObjBehav", {{"METHOD", Str("KEEP")}});
  const QVA_HVID p = New("QVAfwProcBehav", {{"PROCEDURE", Str("btest_Proc")}});
  const QVA_HVID f = New("QVAfwFuncBehav");
  EXPECT_EQ(Call(p, "PROC"), "S:btest_Proc") << "names kept exactly as given";
  struct Setter {
    QVA_HVID self;
    const char *set, *get, *routine, *kept;
  };
  for (Setter s :
       {Setter{o, "SETMETHOD", "METHOD", "QVAfwObjBehav::SetMethod", "S:KEEP"},
        Setter{p, "SETPROC", "PROC", "QVAfwProcBehav::SetProc", "S:btest_Proc"},
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

TEST_F(BehaviourKindsTest, ManySendsBeforeTheDelayMessageRunTheMethodOnce) {
  const QVA_HVID target = New("BTEST_TARGET");
  const QVA_HVID d = Delayed("QVAfwDelayBehav", "CHANGED", target);
  const QVA_HVID changed = NewMessage("CHANGED"), idle = NewMessage("IDLE");
  Send(idle);
  EXPECT_TRUE(g_log.empty()) << "a delay message alone runs nothing";
  for (int i = 0; i < 3; ++i) Send(changed);
  EXPECT_TRUE(g_log.empty());
  Send(idle);
  Send(idle);
  ASSERT_EQ(g_log.size(), 1u) << "the trigger was disarmed";
  EXPECT_TRUE(g_log[0].self == target && g_log[0].args == 0);
  Proc(d, "DELAYEXECUTE");
  EXPECT_EQ(g_log.size(), 2u) << "a direct call runs even when disarmed";
  // A send of its own message from inside the deferred call is disarmed after.
  Send(changed);
  g_hook = [&](QVA_HVID, QVA_VPTR) {
    g_hook = nullptr;
    Send(changed);
  };
  Send(idle);
  Send(idle);
  EXPECT_EQ(g_log.size(), 3u);
}

TEST_F(BehaviourKindsTest, DelayedCleanupWhileArmedLeavesNothingAndTheTriggerKeepsItsHandler) {
  const QVA_HVID h = NewHandler(), other = NewHandler();
  const QVA_HVID d = New("QVAfwDelayBehav", {{"MESSAGESTRING", Str("CHANGED")},
                                             {"DELAYMESSAGESTRING", Str("IDLE")},
                                             {"HANDLER", Ref(h)}});
  const QVA_HVID sub = FieldRef<QVA_HVID>(d, "SUB_BEHAVIOR");
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

TEST_F(BehaviourKindsTest, DelayedArgumentKeepsTheLargestValueAndSurvivesSaveAndRestore) {
  session_replaced_ = true;
  const QVA_HVID d = Delayed("QVAfwDelayArgBehav", "N", New("BTEST_TARGET"));
  const QVA_HVID n = NewMessage("N"), idle = NewMessage("IDLE");
  for (QVA_LONG v : {3, 7, 5}) Send(n, Long(v));
  Send(idle);
  Send(idle);
  Send(n, Long(-4));
  Send(idle);
  ASSERT_EQ(g_log.size(), 2u);
  EXPECT_EQ(g_log[0].value, "L:7");
  EXPECT_EQ(g_log[1].value, "L:0");
  EXPECT_EQ(FieldRef<QVA_LONG>(d, "QVAFWDELAYARGBEHAV_VERSION"), 0) << "as the host made it";
  EXPECT_NE(ExpectHostError([&] { Send(n); }).code, 0) << "EXECUTE needs the argument";
  // Converted as the host converts to LONG; only the conversion's temporary
  // is deleted, the caller's variable is untouched.
  qvahost::Variable real;
  real.take(qvahost::make_double(2.9));
  ReleaseTemps();
  const int64_t temporaries = qvahost::accounting().temporaries;
  Proc(d, "EXECUTE", {real.get()});
  ReleaseTemps();
  EXPECT_EQ(qvahost::accounting().temporaries, temporaries);
  EXPECT_EQ(FieldRef<QVA_LONG>(d, "ARG"), 2);
  EXPECT_TRUE(real->type == QVA_TYP_DOUBLE && real->value.d == 2.9);
  // The armed state and the pending argument survive save, reset and restore.
  Send(n, Long(12));
  QVA_VarCopy(Ref(d), qvahost::main_variable("D"));
  std::vector<uint8_t> saved = qvahost::save_all_to_bytes();
  ReleaseTemps();
  qvahost::reset_session();
  qvahost::restore_from_bytes(saved.data(), saved.size());
  const QVA_HVID restored = qvahost::find_main_variable("D")->value.hvid;
  const QVA_HVID sub = FieldRef<QVA_HVID>(restored, "SUB_BEHAVIOR");
  qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {qvatest::ObjRefArray({restored, sub})});
  EXPECT_EQ(FieldRef<QVA_LONG>(restored, "QVAFWDELAYARGBEHAV_VERSION"), 0) << "nor RESTORE";
  g_log.clear();
  Send(NewMessage("IDLE"));
  ASSERT_EQ(g_log.size(), 1u);
  EXPECT_EQ(g_log[0].self, FieldRef<QVA_HVID>(restored, "OBJECT"));
  EXPECT_EQ(g_log[0].value, "L:12");
}

TEST_F(BehaviourKindsTest, QueriesAnsweredByNoneOneAndTwoBehavioursOverwriteInPlace) {
  const QVA_HVID q = New("QVAfwQuery", {{"MESSAGESTRING", Str("ASK")}});
  EXPECT_EQ(Call(q, "RESULT"), "S:UnInitialized Result");
  EXPECT_EQ(Call(q, "SENDQUERY"), "S:UnInitialized Result") << "nobody answers";
  EXPECT_EQ(Call(New("QVAfwQueryBehav"), "RESPONSE"), "S:UnInitialized Response");
  qvahost::Variable v;
  v.take(qvahost::make_long(1));
  const QVA_HVID first = Registered("QVAfwQueryBehav", "ASK", {{"RESPONSE", v.get()}});
  v.take(qvahost::make_long(6));
  EXPECT_EQ(Call(first, "RESPONSE"), "L:1") << "a copy: changing v changes nothing";
  Func(q, "SENDQUERY")->value.l = 1000;
  EXPECT_EQ(Call(q, "RESULT"), "L:1") << "SENDQUERY returns a copy";
  const QVA_HVID result = FieldRef<QVA_HVID>(q, "QUERY_RESULT");
  const QVA_HVID second = Registered("QVAfwQueryBehav", "ASK", {{"RESPONSE", Str("two")}});
  EXPECT_EQ(Call(q, "SENDQUERY"), "S:two") << "the last one run decides";
  Proc(q, "SETRESULT", {Long(99)});
  EXPECT_EQ(Call(q, "RESULT"), "L:99");
  EXPECT_EQ(FieldRef<QVA_HVID>(q, "QUERY_RESULT"), result) << "overwritten in place";
  const QVA_HVID response = FieldRef<QVA_HVID>(first, "RESPONSE");
  Proc(first, "SETRESPONSE", {Str("three")});
  EXPECT_EQ(FieldRef<QVA_HVID>(first, "RESPONSE"), response) << "overwritten in place";
  EXPECT_EQ(Call(first, "RESPONSE"), "S:three");
  Proc(second, "SETRESPONSE");
  EXPECT_EQ(Call(second, "RESPONSE"), "S:UnInitialized Response");
  // Run with what is no query, a query behaviour refuses it and stores nothing.
  const QVA_HVID message = NewMessage("ASK");
  EXPECT_EQ(ExpectHostError([&] { Proc(first, "EXECUTE", {Ref(message)}); }).code,
            QVA_M_NOT_OF_CLASS);
  EXPECT_EQ(MessageString(message), "ASK");
  // A destroyed query or query behaviour takes its variable with it.
  Destroy(q);
  Destroy(first);
  EXPECT_FALSE(Alive(result) || Alive(response));
}

// The module's routines as the language sees them, in the table's order: one
// class a line, "CLASS::" then "METHOD MIN MAX K" for each of its methods,
// where K marks a routine that takes keywords ("-": none).
const char *const kFunctions = R"(
GET_FWIDENT 1 1 -
QVADSMAP:: GETDATA 2 2 -  GETKEYS 1 2 -  GETSIZE 1 1 -  INIT 1 1 -  KEYEXISTS 2 2 -
QVAFWBEHAVIOR:: INIT 1 1 K  ISREGISTERED 1 1 -  MESSAGESTRING 1 1 -
QVAFWDELAYARGBEHAV:: INIT 1 1 K
QVAFWDELAYBEHAV:: INIT 1 1 K
QVAFWFUNCBEHAV:: FUNC 1 1 -  INIT 1 1 K
QVAFWHASAHANDLER:: HANDLER 1 1 -  INIT 1 1 K
QVAFWMESSAGE:: INIT 1 1 K  MESSAGESTRING 1 1 -
QVAFWMESSAGEHANDLER:: BEHAVIORS 2 2 -  INIT 1 1 K  ISSCOPED 2 2 -  SCOPEDMESSAGES 1 1 -
QVAFWOBJBEHAV:: INIT 1 1 K  METHOD 1 1 -  OBJECT 1 1 -
QVAFWPROCBEHAV:: INIT 1 1 K  PROC 1 1 -
QVAFWQUERY:: INIT 1 1 K  RESULT 1 1 -  SENDQUERY 1 1 -
QVAFWQUERYBEHAV:: INIT 1 1 K  RESPONSE 1 1 -
QVAFWSAVEABLE:: INIT 1 1 -
ROLLOVER_FWIDENT 1 1 -
)";
const char *const kProcedures = R"(
FWIDENT_ACQUIRE 1 1 -
FWIDENT_GC 0 1 -
FWIDENT_RELEASE 1 1 -
QVADSMAP:: CLEANUP 1 1 -  INSERT 3 3 -  REMOVE 2 2 -
QVAFWBEHAVIOR:: CLEANUP 1 1 K  EXECUTE 1 2 -  REGISTER 1 1 -  RESTORE 1 1 -  SETMESSAGESTRING 2 2 -
QVAFWBEHAVIOR:: UNREGISTER 1 1 -
QVAFWDELAYARGBEHAV:: CLEANUP 1 1 -  DELAYEXECUTE 1 1 -  EXECUTE 2 2 -
QVAFWDELAYBEHAV:: CLEANUP 1 1 -  DELAYEXECUTE 1 1 -  EXECUTE 1 1 -  RESTORE 1 1 -  SETMETHOD 2 2 -
QVAFWFUNCBEHAV:: CLEANUP 1 1 -  EXECUTE 1 2 -  RESTORE 1 1 -  SETFUNC 2 2 -
QVAFWHASAHANDLER:: CLEANUP 1 1 -  RESTORE 1 1 -  SETHANDLER 2 2 -
QVAFWMESSAGE:: CLEANUP 1 1 K  RESTORE 1 1 -  SEND 1 2 -  SETMESSAGESTRING 2 2 -
QVAFWMESSAGEHANDLER:: ADDBEHAVIOR 2 3 -  CLEANUP 1 1 -  REMOVEBEHAVIOR 2 3 -  RESTORE 1 1 -
QVAFWMESSAGEHANDLER:: SCOPEMESSAGE 2 2 -  SENDMESSAGE 2 3 -  UNSCOPEMESSAGE 2 2 -
QVAFWOBJBEHAV:: CLEANUP 1 1 -  EXECUTE 1 2 -  RESTORE 1 1 -  SETMETHOD 2 2 -  SETOBJECT 2 2 -
QVAFWPROCBEHAV:: CLEANUP 1 1 -  EXECUTE 1 2 -  RESTORE 1 1 -  SETPROC 2 2 -
QVAFWQUERY:: CLEANUP 1 1 -  RESTORE 1 1 -  SETRESULT 2 2 -
QVAFWQUERYBEHAV:: CLEANUP 1 1 -  EXECUTE 2 2 -  RESTORE 1 1 -  SETRESPONSE 1 2 -
QVAFWSAVEABLE:: CLEANUP 1 1 -  DORESTORE 1 1 -  RESETRESTORED 1 1 -  RESTORE 1 1 -
QVAFWSAVEABLERESTOREARRAY 1 1 -
)";

TEST_F(BehaviourKindsTest, EveryRoutineIsRegisteredWithItsLimitsAndKeywordFlag) {
  for (bool is_function : {true, false}) {
    SCOPED_TRACE(is_function ? "functions" : "procedures");
    const QVA_SYSFUN_DEF *table = is_function ? function_addr : procedure_addr;
    const int count = is_function ? function_addr_count : procedure_addr_count;
    ASSERT_EQ(count, is_function ? 33 : 59);
    std::map<std::string, qvahost::RoutineInfo> registered;
    for (const auto &r : qvahost::routine_rows(is_function)) registered[r.name] = r;
    std::istringstream lines(is_function ? kFunctions : kProcedures);
    int i = 0;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream row(line);
      std::string prefix, word, keywords;
      int min, max;
      if (line.find(":: ") != std::string::npos) row >> prefix;
      for (; row >> word >> min >> max >> keywords; ++i) {
        const std::string name = prefix + word;
        SCOPED_TRACE(name);
        // The module's table holds exactly these rows, sorted...
        ASSERT_LT(i, count);
        EXPECT_EQ(table[i].name, name);
        EXPECT_EQ(table[i].extra, 0u);
        if (i > 0) {
          EXPECT_LT(std::string(table[i - 1].name), name);
        }
        // ...and the host registered them so.
        ASSERT_EQ(registered.count(name), 1u) << "not registered";
        EXPECT_EQ(registered[name].arg_min, min);
        EXPECT_EQ(registered[name].arg_max, max);
        EXPECT_EQ(registered[name].flags, keywords == "K" ? uint32_t{QVA_SYSFUN_KEYWORDS} : 0u);
      }
    }
    EXPECT_EQ(i, count);
  }
}

}  // namespace
}  // namespace fwtest
