// Abandoned routines: an error raised deep in nested calls (native routine
// -> method -> ...) reaches the outside caller naming the routine that
// raised it, and everything made on the way is released.
#include "object_helpers.h"
#include "test_support.h"

namespace {

using hosttest::Object;
using hosttest::Temp;
using qvatest::ExpectHostError;

bool g_after_failure = false;  // set by code that must never run

// CU_WORKER::FAIL makes temporaries, then raises.
void define_worker() {
  hosttest::ensure_class("CU_WORKER", "", {hosttest::field("X", QVA_TYP_LONG)});
  qvahost::define_routine("CU_WORKER::FAIL", false, 1, 2, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
                            QVA_GettmpLong(1);
                            QVA_StrToSTRING("left behind");
                            QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "worker failed: %d", 7);
                            g_after_failure = true;
                            return nullptr;
                          });
}

// CU_OUTER(obj): a native function that makes temporaries and calls the
// object's FAIL method through QVA_ObjCallMethod.
QVA_VPTR cu_outer(int, QVA_VPTR argv[]) {
  QVA_VPTR mine = QVA_GettmpLong(3);
  QVA_VPTR args[] = {mine, nullptr};
  QVA_HVPTR self = QVA_ObjValidate(argv[0]->value.hvid, QVA_MSG_LONGJMP);
  QVA_ObjCallMethod(QVA_MSG_LONGJMP, QVA_IdentHash("FAIL", 0, 0, QVA_MSG_LONGJMP, 0), self, 0, 1,
                    args, nullptr, nullptr, 0);
  g_after_failure = true;
  return mine;
}

// CU_TOP(obj): calls CU_OUTER by name, as a module's procedure behaviour does.
void cu_top(int, QVA_VPTR argv[]) {
  QVA_VPTR args[] = {argv[0], nullptr};
  QVA_CALL_RECORD rec{1, 1, {0, 0}, QVA_IdentHash("CU_OUTER", 0, 0, QVA_MSG_LONGJMP, 0), 0, args, 0};
  QVA_InterpCallFromSysproc(&rec);
  g_after_failure = true;
}

class CallTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    define_worker();
    static QVA_SYSFUN_DEF funs[] = {{QVA_RTN(cu_outer), "CU_OUTER", 1, 1, 0, 0}};
    static QVA_SYSFUN_DEF pros[] = {{QVA_RTN(cu_top), "CU_TOP", 1, 1, 0, 0}};
    ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 1), 1);
    ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
    g_after_failure = false;
  }
};

TEST_F(CallTest, ErrorFromANestedMethodReachesTheOuterCaller) {
  Object worker(hosttest::obj_new("CU_WORKER"));
  qvahost::Accounting before = qvahost::accounting();
  qvahost::HostError e =
      ExpectHostError([&] { qvahost::call_function("CU_OUTER", {worker.ref()}); });
  EXPECT_EQ(e.routine, "CU_WORKER::FAIL");
  EXPECT_EQ(e.text, "worker failed: 7");
  EXPECT_EQ(e.code, QVA_M_GENERIC);
  EXPECT_EQ(e.report(), "% CU_WORKER::FAIL: worker failed: 7");
  EXPECT_FALSE(g_after_failure) << "nothing runs after an action-2 message";
  EXPECT_EQ(qvahost::accounting(), before) << "temporaries made on the way are released";
}

TEST_F(CallTest, ErrorUnwindsThroughACallByName) {
  Object worker(hosttest::obj_new("CU_WORKER"));
  qvahost::Accounting before = qvahost::accounting();
  qvahost::HostError e =
      ExpectHostError([&] { qvahost::call_procedure("CU_TOP", {worker.ref()}); });
  EXPECT_EQ(e.routine, "CU_WORKER::FAIL");
  EXPECT_FALSE(g_after_failure);
  EXPECT_EQ(qvahost::accounting(), before);

  // The routine stack unwound too: an error at top level names no routine.
  qvatest::OutputCapture out;
  std::string report =
      qvahost::try_call([] { QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "at top"); });
  EXPECT_EQ(report, "% at top");
}

TEST_F(CallTest, TryCallReportsOnceAndReturnsTheReport) {
  Object worker(hosttest::obj_new("CU_WORKER"));
  qvatest::OutputCapture out;
  std::string report = qvahost::try_call([&] {
    Temp r(qvahost::call_function("CU_OUTER", {worker.ref()}));
  });
  EXPECT_EQ(report, "% CU_WORKER::FAIL: worker failed: 7");
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_EQ(out.lines()[0], report);

  EXPECT_EQ(qvahost::try_call([] {}), "");
  EXPECT_EQ(out.lines().size(), 1u) << "success reports nothing";
}

TEST_F(CallTest, TryCallReleasesTemporariesOfItsBodyOnly) {
  Temp outside(qvahost::make_long(1));
  std::string report = qvahost::try_call([] {
    QVA_GettmpLong(2);
    QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "body failed");
  });
  EXPECT_EQ(report, "% body failed");
  EXPECT_EQ(qvahost::integer_value(outside.get()), 1) << "a temporary made before survives";
}

TEST_F(CallTest, ArgumentCountErrorNamesTheCalledRoutine) {
  Object worker(hosttest::obj_new("CU_WORKER"));
  Temp one(qvahost::make_long(1));
  qvahost::HostError e = ExpectHostError(
      [&] { qvahost::call_method_procedure(worker.ref(), "FAIL", {one.get(), one.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  EXPECT_EQ(e.routine, "CU_WORKER::FAIL");
}

}  // namespace
