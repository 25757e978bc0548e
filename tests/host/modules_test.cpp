// Module loading: entry points called once, session resets passed on,
// failed loads and shared objects that cannot be loaded.
#include "internal.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;

int g_loads = 0, g_resets = 0;

QVA_VPTR md_answer(int, QVA_VPTR[]) { return QVA_GettmpLong(42); }

int md_load() {
  ++g_loads;
  static QVA_SYSFUN_DEF funs[] = {{QVA_RTN(md_answer), "MD_ANSWER", 0, 0, 0, 0}};
  return QVA_SysRtnAdd(funs, 1, 1);
}
void md_reset() { ++g_resets; }

int failing_loads = 0, failing_resets = 0;
int md_failing_load() {
  ++failing_loads;
  return 0;
}
void md_failing_reset() { ++failing_resets; }

int md_raising_load() {
  QVA_GettmpLong(1);
  QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "load went wrong");
  return 1;
}

class ModuleTest : public qvatest::HostTest {};

TEST_F(ModuleTest, LoadRunsOnceAndResetsReachTheModule) {
  ASSERT_EQ(qvahost::load_module(&md_load, &md_reset), 1);
  EXPECT_EQ(g_loads, 1);
  QVA_VPTR r = qvahost::call_function("MD_ANSWER");
  EXPECT_EQ(qvahost::integer_value(r), 42);
  QVA_Deltmp(r);

  EXPECT_EQ(qvahost::load_module(&md_load, &md_reset), 0) << "already loaded";
  EXPECT_EQ(g_loads, 1);

  qvahost::reset_session();
  EXPECT_EQ(g_resets, 1);
  qvahost::reset_session();
  EXPECT_EQ(g_resets, 2);
}

TEST_F(ModuleTest, FailedLoadIsNotRecorded) {
  EXPECT_EQ(qvahost::load_module(&md_failing_load, &md_failing_reset), 0);
  EXPECT_EQ(qvahost::load_module(&md_failing_load, &md_failing_reset), 0);
  EXPECT_EQ(failing_loads, 2) << "a failed load may be tried again";
  qvahost::reset_session();
  EXPECT_EQ(failing_resets, 0) << "a module that failed to load is not reset";

  qvatest::OutputCapture out;
  EXPECT_EQ(qvahost::load_module(&md_raising_load, nullptr), 0);
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_EQ(out.lines()[0], "% load went wrong");
  EXPECT_EQ(qvahost::load_module(nullptr, nullptr), 0);
}

TEST_F(ModuleTest, SharedObjectsThatCannotBeLoaded) {
  std::string error;
  EXPECT_EQ(qvahost::load_module_file("/nonexistent/qva_module.so", &error), 0);
  EXPECT_FALSE(error.empty());

  error.clear();
  // A real shared object without the module entry points.
  EXPECT_EQ(qvahost::load_module_file("libm.so.6", &error), 0);
  EXPECT_NE(error.find("QVA_Load"), std::string::npos) << error;
  EXPECT_EQ(qvahost::load_module_file("libm.so.6"), 0) << "no error text asked for";
}

}  // namespace
