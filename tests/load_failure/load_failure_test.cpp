// A load whose message block is refused: QVA_Load yields 0, registers no
// routine, and leaves the class structures defined.  Runs in its own
// process because a module is loaded only once.
#include <string>

#include "frame/qva_cobalt.h"
#include "frame/qva_cobalt_rtn_tbl.h"
#include "test_support.h"

namespace {

class LoadFailureTest : public qvatest::HostTest {};

TEST_F(LoadFailureTest, RefusedMessageBlockEndsTheLoadBeforeAnyRoutine) {
  // Another block under the module's block name makes the module's own
  // definition fail.
  QVA_MSG_DEF squatter[] = {{"SQUATTER_MESSAGE", "Defined first by someone else"}};
  ASSERT_NE(QVA_MessageDefineBlock("QVA_MBLK_COBALT", 1, squatter), nullptr);

  EXPECT_EQ(qvahost::load_module(&QVA_Load, &QVA_ResetSession), 0);
  EXPECT_EQ(qva_cobalt_msg_block, nullptr);

  EXPECT_GT(function_addr_count + procedure_addr_count, 0);
  for (int i = 0; i < function_addr_count; ++i)
    EXPECT_FALSE(qvahost::routine_exists(function_addr[i].name, true)) << function_addr[i].name;
  for (int i = 0; i < procedure_addr_count; ++i)
    EXPECT_FALSE(qvahost::routine_exists(procedure_addr[i].name, false)) << procedure_addr[i].name;
  for (bool functions : {true, false})
    for (const std::string &name : qvahost::routine_names(functions))
      for (const char *prefix :
           {"QVAFW", "QVADSMAP", "FWIDENT_", "GET_FWIDENT", "ROLLOVER_FWIDENT"})
        EXPECT_NE(name.rfind(prefix, 0), 0u) << name << " was registered";

  for (const char *cls :
       {"QVAFWSAVEABLE", "QVAFWHASAHANDLER", "QVAFWMESSAGE", "QVAFWQUERY", "QVAFWBEHAVIOR",
        "QVAFWPROCBEHAV", "QVAFWFUNCBEHAV", "QVAFWOBJBEHAV", "QVAFWQUERYBEHAV", "QVAFWDELAYBEHAV",
        "QVAFWDELAYARGBEHAV", "QVAFWMESSAGEHANDLER", "QVADSMAP"})
    EXPECT_NE(qvahost::find_struct(cls), nullptr) << cls;

  // The language cannot reach the module's routines either.
  QVA_VPTR list = qvahost::make_long(0);
  qvatest::ExpectHostError([&] { qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {list}); });
  QVA_Deltmp(list);
}

}  // namespace
