// The routine registry: table registration and its refusal of bad rows,
// argument checks, calling conventions, calls by name from a module.
#include <algorithm>

#include "object_helpers.h"
#include "test_support.h"

namespace {

using hosttest::Temp;
using qvatest::ExpectHostError;

// What the last native routine call saw.
struct Seen {
  int calls = 0;
  int argc = -1;
  QVA_VPTR first = nullptr;
  bool had_keywords = false;
} g_seen;

QVA_VPTR native_fun(int argc, QVA_VPTR argv[]) {
  ++g_seen.calls;
  g_seen.argc = argc;
  g_seen.first = argc ? argv[0] : nullptr;
  return QVA_GettmpLong(argc * 10);
}

QVA_VPTR native_fun_kw(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  ++g_seen.calls;
  g_seen.argc = argc;
  g_seen.first = argc ? argv[0] : nullptr;
  g_seen.had_keywords = !qvahost::keywords_of(argk).empty();
  return QVA_GettmpLong(static_cast<QVA_LONG>(qvahost::keywords_of(argk).size()));
}

void native_pro(int argc, QVA_VPTR argv[]) {
  ++g_seen.calls;
  g_seen.argc = argc;
  g_seen.first = argc ? argv[0] : nullptr;
}

QVA_VPTR other_fun(int, QVA_VPTR[]) { return QVA_GettmpLong(-1); }

class RoutineTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    g_seen = {};
  }
};

TEST_F(RoutineTest, TablesRegisterFunctionsAndProceduresSeparately) {
  QVA_SYSFUN_DEF funs[] = {
      {QVA_RTN(native_fun), "RT_SAME", 0, 2, 0, 0},
      {QVA_RTN(native_fun_kw), "RT_KW", 1, 3, QVA_SYSFUN_KEYWORDS, 0},
  };
  QVA_SYSFUN_DEF pros[] = {{QVA_RTN(native_pro), "RT_SAME", 1, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 2), 1);
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);

  auto rows = qvahost::routine_rows(true);
  auto kw = std::find_if(rows.begin(), rows.end(), [](auto &r) { return r.name == "RT_KW"; });
  ASSERT_NE(kw, rows.end());
  EXPECT_EQ(kw->arg_min, 1);
  EXPECT_EQ(kw->arg_max, 3);
  EXPECT_EQ(kw->flags, static_cast<uint32_t>(QVA_SYSFUN_KEYWORDS));
  auto names = qvahost::routine_names(true);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_TRUE(qvahost::routine_exists("rt_same", false));

  // The same name: a function returns, the procedure does not.
  Temp a(qvahost::make_long(4));
  Temp r(qvahost::call_function("RT_SAME", {a.get()}));
  EXPECT_EQ(qvahost::integer_value(r.get()), 10);
  qvahost::call_procedure("RT_SAME", {a.get()});
  EXPECT_EQ(g_seen.calls, 2);
  EXPECT_EQ(g_seen.first, a.get()) << "arguments are the caller's variables";
}

TEST_F(RoutineTest, BadRowRefusesTheWholeTable) {
  struct Case {
    const char *why;
    QVA_SYSFUN_DEF row;
  } cases[] = {
      {"no routine", {nullptr, "RT_BAD_A", 0, 0, 0, 0}},
      {"no name", {QVA_RTN(native_fun), nullptr, 0, 0, 0, 0}},
      {"lower case", {QVA_RTN(native_fun), "Rt_bad_b", 0, 0, 0, 0}},
      {"not an identifier", {QVA_RTN(native_fun), "1RT_BAD", 0, 0, 0, 0}},
      {"empty method part", {QVA_RTN(native_fun), "RT_CLASS::", 1, 1, 0, 0}},
      {"three parts", {QVA_RTN(native_fun), "A::B::C", 1, 1, 0, 0}},
      {"min above max", {QVA_RTN(native_fun), "RT_BAD_C", 2, 1, 0, 0}},
      {"unknown flag", {QVA_RTN(native_fun), "RT_BAD_D", 0, 0, 1, 0}},
      {"extra not 0", {QVA_RTN(native_fun), "RT_BAD_E", 0, 0, 0, 3}},
  };
  qvatest::OutputCapture out;
  for (const Case &c : cases) {
    QVA_SYSFUN_DEF table[] = {{QVA_RTN(native_fun), "RT_GOOD_BEFORE", 0, 0, 0, 0}, c.row,
                              {QVA_RTN(native_fun), "RT_GOOD_AFTER", 0, 0, 0, 0}};
    EXPECT_EQ(QVA_SysRtnAdd(table, 1, 3), 0) << c.why;
    EXPECT_FALSE(qvahost::routine_exists("RT_GOOD_BEFORE", true)) << c.why;
    EXPECT_FALSE(qvahost::routine_exists("RT_GOOD_AFTER", true)) << c.why;
  }
  EXPECT_FALSE(out.lines().empty()) << "a refused table is reported";
}

TEST_F(RoutineTest, ALaterRegistrationReplacesTheRoutine) {
  QVA_SYSFUN_DEF first[] = {{QVA_RTN(native_fun), "RT_REPLACED", 0, 0, 0, 0}};
  QVA_SYSFUN_DEF second[] = {{QVA_RTN(other_fun), "RT_REPLACED", 0, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(first, 1, 1), 1);
  ASSERT_EQ(QVA_SysRtnAdd(second, 1, 1), 1);
  Temp r(qvahost::call_function("RT_REPLACED"));
  EXPECT_EQ(qvahost::integer_value(r.get()), -1);
  EXPECT_EQ(g_seen.calls, 0);
  auto names = qvahost::routine_names(true);
  EXPECT_EQ(std::count(names.begin(), names.end(), "RT_REPLACED"), 1);
}

TEST_F(RoutineTest, ArgumentCountsAndKeywordsAreChecked) {
  QVA_SYSFUN_DEF funs[] = {
      {QVA_RTN(native_fun), "RT_TWO_TO_THREE", 2, 3, 0, 0},
      {QVA_RTN(native_fun_kw), "RT_WITH_KW", 0, 1, QVA_SYSFUN_KEYWORDS, 0},
  };
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 2), 1);
  Temp a(qvahost::make_long(1));

  qvahost::HostError e = ExpectHostError([&] { qvahost::call_function("RT_TWO_TO_THREE", {a.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  EXPECT_EQ(e.text, "Incorrect number of arguments.");
  EXPECT_EQ(e.routine, "RT_TWO_TO_THREE");
  e = ExpectHostError([&] {
    qvahost::call_function("RT_TWO_TO_THREE", {a.get(), a.get(), a.get(), a.get()});
  });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  e = ExpectHostError(
      [&] { qvahost::call_function("RT_TWO_TO_THREE", {a.get(), a.get()}, {{"X", a.get()}}); });
  EXPECT_EQ(e.code, qvahost::M_KW_NOT_ALLOWED);
  EXPECT_EQ(e.text, "Keyword parameters not allowed in call.");
  EXPECT_EQ(g_seen.calls, 0) << "a refused call never reaches the routine";

  Temp two(qvahost::call_function("RT_TWO_TO_THREE", {a.get(), a.get()}));
  EXPECT_EQ(qvahost::integer_value(two.get()), 20);

  // The keyword routine is called with the keyword block.
  Temp n(qvahost::call_function("RT_WITH_KW", {}, {{"X", a.get()}, {"Y", a.get()}}));
  EXPECT_EQ(qvahost::integer_value(n.get()), 2);
  EXPECT_TRUE(g_seen.had_keywords);
  Temp none(qvahost::call_function("RT_WITH_KW"));
  EXPECT_EQ(qvahost::integer_value(none.get()), 0);
}

TEST_F(RoutineTest, UnknownRoutinesAreErrors) {
  qvahost::HostError e = ExpectHostError([] { qvahost::call_function("RT_NOWHERE"); });
  EXPECT_EQ(e.code, qvahost::M_UNDEF_FUNC);
  EXPECT_NE(e.text.find("RT_NOWHERE"), std::string::npos);
  e = ExpectHostError([] { qvahost::call_procedure("RT_NOWHERE"); });
  EXPECT_EQ(e.code, qvahost::M_UNDEF_PROC);
}

TEST_F(RoutineTest, DefinedRoutinesTakeUpperCaseNamesAndRefuseBadOnes) {
  int calls = 0;
  qvahost::define_routine("rt_user", false, 0, 0, false,
                          [&](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
                            ++calls;
                            return nullptr;
                          });
  EXPECT_TRUE(qvahost::routine_exists("RT_USER", false));
  EXPECT_FALSE(qvahost::routine_exists("RT_USER", true));
  qvahost::call_procedure("Rt_User");
  EXPECT_EQ(calls, 1);

  auto body = [](int, QVA_VPTR[], QVA_KW_ARGS *) { return QVA_GettmpLong(0); };
  EXPECT_EQ(ExpectHostError([&] { qvahost::define_routine("9LIVES", true, 0, 0, false, body); }).code,
            qvahost::M_BAD_IDENT);
  ExpectHostError([&] { qvahost::define_routine("RT_RANGE", true, 2, 1, false, body); });
  ExpectHostError([&] { qvahost::define_routine("RT_EMPTY", true, 0, 0, false, nullptr); });
  EXPECT_FALSE(qvahost::routine_exists("RT_RANGE", true));
}

TEST_F(RoutineTest, AFunctionThatReturnsNothingIsAContractViolation) {
  qvahost::define_routine("RT_NO_RESULT", true, 0, 0, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR { return nullptr; });
  qvatest::OutputCapture out;
  ExpectHostError([] { qvahost::call_function("RT_NO_RESULT"); });
  EXPECT_EQ(qvahost::accounting().violations, baseline_.violations + 1);
  baseline_.violations += 1;  // expected here; TearDown checks the rest
}

TEST_F(RoutineTest, InterpCallFromSysprocCallsByName) {
  QVA_SYSFUN_DEF pros[] = {{QVA_RTN(native_pro), "RT_BYNAME", 0, 2, 0, 0}};
  QVA_SYSFUN_DEF funs[] = {{QVA_RTN(native_fun), "RT_BYNAME_F", 0, 2, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 1), 1);
  Temp arg(qvahost::make_long(3));

  // As a module calls by name from inside one of its routines.
  qvahost::define_routine(
      "RT_CALLER", false, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
        QVA_VPTR args[] = {argv[0], nullptr};
        QVA_CALL_RECORD rec{0, 1, {0, 0}, QVA_IdentHash("rt_byname", 0, 0, QVA_MSG_LONGJMP, 0), 0,
                            args, 0};
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        // A function: its result is the host's to release.
        rec.kind = 1;
        rec.name = QVA_IdentHash("RT_BYNAME_F", 0, 0, QVA_MSG_LONGJMP, 0);
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        // No argument: just the terminator.
        QVA_VPTR none[] = {nullptr};
        rec.args = none;
        EXPECT_EQ(QVA_InterpCallFromSysproc(&rec), 1);
        return nullptr;
      });
  int64_t temps = qvahost::accounting().temporaries;
  qvahost::call_procedure("RT_CALLER", {arg.get()});
  EXPECT_EQ(qvahost::accounting().temporaries, temps) << "the function's result was released";
  EXPECT_EQ(g_seen.calls, 3);
  EXPECT_EQ(g_seen.argc, 0);

  QVA_VPTR args[] = {nullptr};
  QVA_CALL_RECORD rec{0, 1, {0, 0}, QVA_IdentHash("RT_NOT_THERE", 0, 0, QVA_MSG_LONGJMP, 0), 0,
                      args, 0};
  EXPECT_EQ(ExpectHostError([&] { QVA_InterpCallFromSysproc(&rec); }).code,
            qvahost::M_UNDEF_PROC);
  rec.kind = 1;
  EXPECT_EQ(ExpectHostError([&] { QVA_InterpCallFromSysproc(&rec); }).code, qvahost::M_UNDEF_FUNC);
}

}  // namespace
