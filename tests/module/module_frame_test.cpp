// What QVA_Load leaves in the host: the module's messages, the routine
// tables as registered, and a session reset that keeps all of it.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <cstring>
#include <map>
#include <string>

#include "frame/qva_cobalt.h"
#include "frame/qva_cobalt_rtn_tbl.h"
#include "framework/fw_saveable.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;

class ModuleFrameTest : public qvatest::HostTest {};

TEST_F(ModuleFrameTest, ModuleMessagesCarryTheirTexts) {
  ASSERT_NE(qva_cobalt_msg_block, nullptr);
  qvahost::HostError deref = ExpectHostError([] {
    QVA_MessageFromBlock(qva_cobalt_msg_block, QVA_M_COBALT_DSMAP_HEAPDEREFERR, QVA_MSG_LONGJMP);
  });
  EXPECT_EQ(deref.text, "QVAdsMap heap dereference error");
  qvahost::HostError corrupt = ExpectHostError([] {
    QVA_MessageFromBlock(qva_cobalt_msg_block, QVA_M_COBALT_FWMSG_IDCORRUPT, QVA_MSG_LONGJMP);
  });
  EXPECT_EQ(corrupt.text, "FWIdent corruption");

  ASSERT_EQ(msg_arr_count, 2);
  EXPECT_STREQ(msg_arr[0].name, "QVA_M_COBALT_DSMAP_HEAPDEREFERR");
  EXPECT_STREQ(msg_arr[1].name, "QVA_M_COBALT_FWMSG_IDCORRUPT");
}

void ExpectSortedAndRegistered(const QVA_SYSFUN_DEF *table, int count, bool functions) {
  std::map<std::string, qvahost::RoutineInfo> registered;
  for (const qvahost::RoutineInfo &r : qvahost::routine_rows(functions)) registered[r.name] = r;

  for (int i = 0; i < count; ++i) {
    const QVA_SYSFUN_DEF &row = table[i];
    SCOPED_TRACE(row.name);
    if (i > 0) {
      EXPECT_LT(std::strcmp(table[i - 1].name, row.name), 0) << "out of order";
    }
    EXPECT_NE(row.routine, nullptr);
    EXPECT_EQ(row.extra, 0u);
    EXPECT_LE(row.arg_min, row.arg_max);
    auto found = registered.find(row.name);
    ASSERT_NE(found, registered.end()) << "not registered";
    EXPECT_EQ(found->second.arg_min, row.arg_min);
    EXPECT_EQ(found->second.arg_max, row.arg_max);
    EXPECT_EQ(found->second.flags, row.flags);
    // A method row names a class structure.
    const char *colons = std::strstr(row.name, "::");
    if (colons) {
      EXPECT_NE(qvahost::find_struct(std::string(row.name, colons)), nullptr);
    }
  }
}

TEST_F(ModuleFrameTest, RoutineTablesAreSortedAndRegisteredAsWritten) {
  EXPECT_GT(function_addr_count, 0);
  EXPECT_GT(procedure_addr_count, 0);
  ExpectSortedAndRegistered(function_addr, function_addr_count, true);
  ExpectSortedAndRegistered(procedure_addr, procedure_addr_count, false);
}

struct ExpectedRow {
  const char *name;
  bool function;
  QVA_SYSRTN_GENERIC routine;
  int min, max;
  uint32_t flags;
};

TEST_F(ModuleFrameTest, SaveableRoutinesHaveTheirRows) {
  const ExpectedRow expected[] = {
      {"QVAFWSAVEABLE::INIT", true, QVA_RTN(QVA_fwSaveable_Init), 1, 1, 0},
      {"QVAFWSAVEABLE::CLEANUP", false, QVA_RTN(QVA_fwSaveable_Cleanup), 1, 1, 0},
      {"QVAFWSAVEABLE::DORESTORE", false, QVA_RTN(QVA_fwSaveable_DoRestore), 1, 1, 0},
      {"QVAFWSAVEABLE::RESETRESTORED", false, QVA_RTN(QVA_fwSaveable_ResetRestored), 1, 1, 0},
      {"QVAFWSAVEABLE::RESTORE", false, QVA_RTN(QVA_fwSaveable_Restore), 1, 1, 0},
      {"QVAFWSAVEABLERESTOREARRAY", false, QVA_RTN(QVA_fwSaveable_RestoreArray), 1, 1, 0},
  };
  for (const ExpectedRow &want : expected) {
    SCOPED_TRACE(want.name);
    const QVA_SYSFUN_DEF *table = want.function ? function_addr : procedure_addr;
    const int count = want.function ? function_addr_count : procedure_addr_count;
    const QVA_SYSFUN_DEF *row = nullptr;
    for (int i = 0; i < count; ++i)
      if (std::strcmp(table[i].name, want.name) == 0) row = &table[i];
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->routine, want.routine);
    EXPECT_EQ(row->arg_min, want.min);
    EXPECT_EQ(row->arg_max, want.max);
    EXPECT_EQ(row->flags, want.flags);
    EXPECT_TRUE(qvahost::routine_exists(want.name, want.function));
    EXPECT_FALSE(qvahost::routine_exists(want.name, !want.function));
  }
}

TEST_F(ModuleFrameTest, SessionResetKeepsDefinitionsAndRoutines) {
  qvahost::reset_session();
  QVA_ResetSession();  // twice in a row is harmless
  // The reset discards whatever the session held before this test; this
  // test's own balance starts here.
  baseline_ = qvahost::accounting();
  EXPECT_NE(qva_cobalt_msg_block, nullptr);
  for (const char *cls : {"QVAFWSAVEABLE", "QVAFWMESSAGEHANDLER", "QVADSMAP"})
    EXPECT_NE(qvahost::find_struct(cls), nullptr) << cls;
  EXPECT_TRUE(qvahost::routine_exists("QVAFWSAVEABLERESTOREARRAY", false));

  // The module still works in the new session.
  qvatest::DefineStructOnce("FRAMETEST_SAVEABLE", "QVAFWSAVEABLE", {});
  qvatest::ScopedObject obj = qvatest::ScopedObject::New("FRAMETEST_SAVEABLE");
  EXPECT_EQ(*qvatest::FieldOf<QVA_LONG>(obj.id(), "QVAFWSAVEABLE_VERSION"), 1);
}

}  // namespace
