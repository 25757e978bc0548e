// The routine registry (table registration and its refusal of bad rows,
// argument checks, calls by name), and messages and their actions.
#include <algorithm>

#include "host_fixture.h"

namespace {

using hosttest::Code;
using hosttest::ExpectHostError;
using hosttest::Tmp;
using qvatest::OutputCapture;

int g_calls = 0, g_argc = -1;
QVA_VPTR native_fun(int argc, QVA_VPTR[]) {
  ++g_calls;
  g_argc = argc;
  return QVA_GettmpLong(argc * 10);
}
QVA_VPTR native_fun_kw(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  QVA_Deltmp(native_fun(argc, argv));
  return QVA_GettmpLong(static_cast<QVA_LONG>(qvahost::keywords_of(argk).size()));
}
void native_pro(int argc, QVA_VPTR argv[]) { QVA_Deltmp(native_fun(argc, argv)); }
QVA_VPTR other_fun(int, QVA_VPTR[]) { return QVA_GettmpLong(-1); }

class RoutineTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    g_calls = 0;
  }
};

TEST_F(RoutineTest, TablesRegisterFunctionsAndProceduresAndCheckTheirArguments) {
  QVA_SYSFUN_DEF funs[] = {{QVA_RTN(native_fun), "RT_SAME", 2, 3, 0, 0},
                           {QVA_RTN(native_fun_kw), "RT_KW", 0, 1, QVA_SYSFUN_KEYWORDS, 0}};
  QVA_SYSFUN_DEF pros[] = {{QVA_RTN(native_pro), "RT_SAME", 1, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 2), 1);
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
  auto rows = qvahost::routine_rows(true);
  auto kw = std::find_if(rows.begin(), rows.end(), [](auto &r) { return r.name == "RT_KW"; });
  ASSERT_NE(kw, rows.end());
  EXPECT_EQ(kw->arg_max, 1);
  EXPECT_EQ(kw->flags, static_cast<uint32_t>(QVA_SYSFUN_KEYWORDS));
  auto names = qvahost::routine_names(true);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  // The same name: a function returns, the procedure does not.
  Tmp a(qvahost::make_long(4));
  Tmp r(qvahost::call_function("RT_SAME", {a.get(), a.get()}));
  EXPECT_EQ(qvahost::integer_value(r.get()), 20);
  qvahost::call_procedure("rt_same", {a.get()});
  EXPECT_EQ(g_calls, 2);
  qvahost::HostError e = ExpectHostError([&] { qvahost::call_function("RT_SAME", {a.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  EXPECT_EQ(e.report(), "% RT_SAME: Incorrect number of arguments.");
  e = ExpectHostError([&] { qvahost::call_procedure("RT_SAME", {a.get(), a.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  e = ExpectHostError([&] {
    qvahost::call_function("RT_SAME", {a.get(), a.get()}, {{"X", a.get()}});
  });
  EXPECT_EQ(e.text, "Keyword parameters not allowed in call.");
  EXPECT_EQ(g_calls, 2) << "a refused call never reaches the routine";
  Tmp n(qvahost::call_function("RT_KW", {}, {{"X", a.get()}, {"Y", a.get()}}));
  EXPECT_EQ(qvahost::integer_value(n.get()), 2);
  EXPECT_EQ(Code([] { qvahost::call_function("RT_NOWHERE"); }), qvahost::M_UNDEF_FUNC);
  EXPECT_EQ(Code([] { qvahost::call_procedure("RT_NOWHERE"); }), qvahost::M_UNDEF_PROC);

  // A later registration replaces the routine.
  QVA_SYSFUN_DEF second[] = {{QVA_RTN(other_fun), "RT_SAME", 0, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(second, 1, 1), 1);
  Tmp replaced(qvahost::call_function("RT_SAME"));
  EXPECT_EQ(qvahost::integer_value(replaced.get()), -1);
  names = qvahost::routine_names(true);
  EXPECT_EQ(std::count(names.begin(), names.end(), "RT_SAME"), 1);
}

TEST_F(RoutineTest, BadRowRefusesTheWholeTable) {
  struct Case {
    const char *why;
    QVA_SYSFUN_DEF row;
  } cases[] = {{"no routine", {nullptr, "RT_BAD_A", 0, 0, 0, 0}},
               {"lower case", {QVA_RTN(native_fun), "Rt_bad_b", 0, 0, 0, 0}},
               {"not an identifier", {QVA_RTN(native_fun), "1RT_BAD", 0, 0, 0, 0}},
               {"empty method part", {QVA_RTN(native_fun), "RT_CLASS::", 1, 1, 0, 0}},
               {"min above max", {QVA_RTN(native_fun), "RT_BAD_C", 2, 1, 0, 0}},
               {"unknown flag", {QVA_RTN(native_fun), "RT_BAD_D", 0, 0, 1, 0}}};
  OutputCapture out;
  for (const Case &c : cases) {
    QVA_SYSFUN_DEF table[] = {{QVA_RTN(native_fun), "RT_GOOD_BEFORE", 0, 0, 0, 0}, c.row};
    EXPECT_EQ(QVA_SysRtnAdd(table, 1, 2), 0) << c.why;
    EXPECT_FALSE(qvahost::routine_exists("RT_GOOD_BEFORE", true)) << c.why;
  }
  EXPECT_EQ(out.lines().size(), std::size(cases)) << "a refused table is reported";
  // A function that returns nothing is a contract violation.
  qvahost::define_routine("RT_NO_RESULT", true, 0, 0, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR { return nullptr; });
  ExpectViolations(1, [] { ExpectHostError([] { qvahost::call_function("RT_NO_RESULT"); }); });
}

TEST_F(RoutineTest, InterpCallFromSysprocCallsByName) {
  QVA_SYSFUN_DEF pros[] = {{QVA_RTN(native_pro), "RT_BYNAME", 0, 2, 0, 0}};
  QVA_SYSFUN_DEF funs[] = {{QVA_RTN(native_fun), "RT_BYNAME_F", 0, 2, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 1), 1);
  // As a module calls by name from inside one of its routines.
  qvahost::define_routine(
      "RT_CALLER", false, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
        QVA_VPTR args[] = {argv[0], nullptr};
        QVA_CALL_RECORD rec{0, 1, {0, 0}, QVA_IdentHash("rt_byname", 0, 0, 2, 0), 0, args, 0};
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        EXPECT_EQ(g_argc, 1);
        rec.kind = 1;  // a function: its result is the host's to release
        rec.name = QVA_IdentHash("RT_BYNAME_F", 0, 0, 2, 0);
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        QVA_VPTR none[] = {nullptr};  // no argument: just the terminator
        rec.args = none;
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        return nullptr;
      });
  Tmp arg(qvahost::make_long(3));
  qvahost::call_procedure("RT_CALLER", {arg.get()});
  EXPECT_EQ(qvahost::accounting().temporaries, baseline_.temporaries + 1);
  EXPECT_EQ(g_calls, 3);
  EXPECT_EQ(g_argc, 0);
  QVA_VPTR args[] = {nullptr};
  QVA_CALL_RECORD rec{0, 1, {0, 0}, QVA_IdentHash("RT_NOT_THERE", 0, 0, 2, 0), 0, args, 0};
  EXPECT_EQ(Code([&] { QVA_InterpCallFromSysproc(&rec); }), qvahost::M_UNDEF_PROC);
  rec.kind = 1;
  EXPECT_EQ(Code([&] { QVA_InterpCallFromSysproc(&rec); }), qvahost::M_UNDEF_FUNC);
}

TEST_F(RoutineTest, MessagesCarryTheirArgumentsAndActionZeroReturns) {
  struct Case {
    std::function<void()> raise;
    int code;
    std::string text;
  } cases[] = {{[] { QVA_Message(QVA_M_GENERIC, 2, "Cannot delete the head: 0x%x", 0x2au); },
                QVA_M_GENERIC, "Cannot delete the head: 0x2a"},
               {[] { QVA_Message(QVA_M_NOT_OF_CLASS, 2, "message", "QVAfwMessage"); },
                QVA_M_NOT_OF_CLASS, "Argument message must be an object of class QVAfwMessage."},
               {[] { QVA_Message(QVA_M_GENERIC, 2, "[%s]", std::string(2000, 'x').c_str()); },
                QVA_M_GENERIC, "[" + std::string(2000, 'x') + "]"}};  // long texts are not cut
  for (const Case &c : cases) {
    qvahost::HostError e = ExpectHostError(c.raise);
    EXPECT_EQ(e.code, c.code);
    EXPECT_NE(e.text.find(c.text), std::string::npos) << e.text;
  }
  OutputCapture out;
  QVA_Message(QVA_M_GENERIC, QVA_MSG_RET, "plain %d", 1);
  const std::string routine = "SOME_ROUTINE";
  qvahost::push_routine(&routine);
  QVA_Message(QVA_M_GENERIC, QVA_MSG_INFO, "inside %s", "it");
  qvahost::HostError e = ExpectHostError([] { QVA_Message(QVA_M_GENERIC, 2, "abandoned"); });
  qvahost::pop_routine();
  EXPECT_EQ(e.report(), "% SOME_ROUTINE: abandoned");
  EXPECT_EQ(qvahost::current_routine(), "");
  ExpectViolations(1, [] { QVA_Message(-9999, QVA_MSG_RET); });  // a misuse, still reported
  ASSERT_EQ(out.lines().size(), 3u);
  EXPECT_EQ(out.lines()[0], "% plain 1");
  EXPECT_EQ(out.lines()[1], "% SOME_ROUTINE: inside it");
  EXPECT_NE(out.lines()[2].find("-9999"), std::string::npos);
}

TEST_F(RoutineTest, VariableErrorsNameTheVariable) {
  qvahost::Variable named("MT_VALUE");
  Tmp expr(QVA_GettmpLong(1));
  struct Case {
    void (*fn)(QVA_VPTR, int);
    int code;
    const char *start;
  } cases[] = {{QVA_MessageVE_REQSTR, qvahost::M_REQSTR, "String expression required"},
               {QVA_MessageVE_REQPTR, qvahost::M_REQPTR, "Pointer type required"},
               {QVA_MessageVE_REQOBJREF, qvahost::M_REQOBJREF, "Object reference type required"},
               {QVA_MessageVE_NOTSCALAR, qvahost::M_NOTSCALAR, "Expression must be a scalar"}};
  for (const Case &c : cases) {
    auto e = ExpectHostError([&] { c.fn(named.get(), 2); });
    EXPECT_EQ(e.code, c.code);
    EXPECT_EQ(e.text.rfind(c.start, 0), 0u) << e.text;
    EXPECT_NE(e.text.find("MT_VALUE"), std::string::npos) << e.text;
    e = ExpectHostError([&] { c.fn(expr.get(), 2); });
    EXPECT_NE(e.text.find("<Expression>"), std::string::npos) << e.text;
  }
}

}  // namespace
