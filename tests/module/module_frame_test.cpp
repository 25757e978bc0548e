// What QVA_Load leaves in the host: the module's messages and the routine
// tables as registered.
#include <cstring>
#include <map>
#include <string>

#include "frame/qva_cobalt.h"
#include "frame/qva_cobalt_rtn_tbl.h"
#include "framework/fw_saveable.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;

class ModuleFrameTest : public qvatest::HostTest {};

TEST_F(ModuleFrameTest, ModuleMessagesCarryTheirTexts) {
  ASSERT_NE(qva_cobalt_msg_block, nullptr);
  auto text = [](int code) {
    return ExpectHostError(
               [&] { QVA_MessageFromBlock(qva_cobalt_msg_block, code, QVA_MSG_LONGJMP); })
        .text;
  };
  EXPECT_EQ(text(QVA_M_COBALT_DSMAP_HEAPDEREFERR), "QVAdsMap heap dereference error");
  EXPECT_EQ(text(QVA_M_COBALT_FWMSG_IDCORRUPT), "FWIdent corruption");

  ASSERT_EQ(msg_arr_count, 2);
  EXPECT_STREQ(msg_arr[0].name, "QVA_M_COBALT_DSMAP_HEAPDEREFERR");
  EXPECT_STREQ(msg_arr[1].name, "QVA_M_COBALT_FWMSG_IDCORRUPT");
}

// Every row of both tables: sorted, registered by the host with the same
// limits and flags, a method row naming a class; the saveable rows also
// point at their routines.
TEST_F(ModuleFrameTest, RoutineTablesAreSortedAndRegisteredRowByRow) {
  const std::map<std::string, QVA_SYSRTN_GENERIC> saveable = {
      {"QVAFWSAVEABLE::INIT", QVA_RTN(QVA_fwSaveable_Init)},
      {"QVAFWSAVEABLE::CLEANUP", QVA_RTN(QVA_fwSaveable_Cleanup)},
      {"QVAFWSAVEABLE::DORESTORE", QVA_RTN(QVA_fwSaveable_DoRestore)},
      {"QVAFWSAVEABLE::RESETRESTORED", QVA_RTN(QVA_fwSaveable_ResetRestored)},
      {"QVAFWSAVEABLE::RESTORE", QVA_RTN(QVA_fwSaveable_Restore)},
      {"QVAFWSAVEABLERESTOREARRAY", QVA_RTN(QVA_fwSaveable_RestoreArray)},
  };
  size_t saveable_rows = 0;
  for (bool functions : {true, false}) {
    const QVA_SYSFUN_DEF *table = functions ? function_addr : procedure_addr;
    const int count = functions ? function_addr_count : procedure_addr_count;
    EXPECT_GT(count, 0);
    std::map<std::string, qvahost::RoutineInfo> registered;
    for (const qvahost::RoutineInfo &r : qvahost::routine_rows(functions)) registered[r.name] = r;
    for (int i = 0; i < count; ++i) {
      const QVA_SYSFUN_DEF &row = table[i];
      SCOPED_TRACE(row.name);
      EXPECT_TRUE(i == 0 || std::strcmp(table[i - 1].name, row.name) < 0) << "out of order";
      EXPECT_NE(row.routine, nullptr);
      EXPECT_EQ(row.extra, 0u);
      EXPECT_LE(row.arg_min, row.arg_max);
      auto found = registered.find(row.name);
      ASSERT_NE(found, registered.end()) << "not registered";
      EXPECT_EQ(found->second.arg_min, row.arg_min);
      EXPECT_EQ(found->second.arg_max, row.arg_max);
      EXPECT_EQ(found->second.flags, row.flags);
      EXPECT_FALSE(qvahost::routine_exists(row.name, !functions)) << "registered twice";
      if (const char *colons = std::strstr(row.name, "::")) {
        EXPECT_NE(qvahost::find_struct(std::string(row.name, colons)), nullptr);
      }
      if (auto it = saveable.find(row.name); it != saveable.end()) {
        ++saveable_rows;
        EXPECT_EQ(row.routine, it->second);
        EXPECT_TRUE(row.arg_min == 1 && row.arg_max == 1 && row.flags == 0);
        EXPECT_EQ(functions, it->first == "QVAFWSAVEABLE::INIT");
      }
    }
  }
  EXPECT_EQ(saveable_rows, saveable.size());
}

}  // namespace
