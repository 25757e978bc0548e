// A load whose message block is refused: QVA_Load yields 0, registers no
// routine, and leaves the class structures defined.  Runs in its own
// process because a module is loaded only once.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <string>

#include "frame/qva_cobalt.h"
#include "frame/qva_cobalt_rtn_tbl.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

const char *const kClasses[] = {"QVAFWSAVEABLE",   "QVAFWHASAHANDLER",   "QVAFWMESSAGE",
                                "QVAFWQUERY",      "QVAFWBEHAVIOR",      "QVAFWPROCBEHAV",
                                "QVAFWFUNCBEHAV",  "QVAFWOBJBEHAV",      "QVAFWQUERYBEHAV",
                                "QVAFWDELAYBEHAV", "QVAFWDELAYARGBEHAV", "QVAFWMESSAGEHANDLER",
                                "QVADSMAP"};

bool is_module_routine_name(const std::string &name) {
  for (const char *prefix : {"QVAFW", "QVADSMAP", "FWIDENT_", "GET_FWIDENT", "ROLLOVER_FWIDENT"})
    if (name.rfind(prefix, 0) == 0) return true;
  return false;
}

class LoadFailureTest : public qvatest::HostTest {};

TEST_F(LoadFailureTest, RefusedMessageBlockEndsTheLoadBeforeAnyRoutine) {
  // Another block under the module's block name makes the module's own
  // definition fail.
  QVA_MSG_DEF squatter[] = {{"SQUATTER_MESSAGE", "Defined first by someone else"}};
  ASSERT_NE(QVA_MessageDefineBlock("QVA_MBLK_COBALT", 1, squatter), nullptr);

  EXPECT_EQ(qvahost::load_module(&QVA_Load, &QVA_ResetSession), 0);
  EXPECT_EQ(qva_cobalt_msg_block, nullptr);

  for (int i = 0; i < function_addr_count; ++i)
    EXPECT_FALSE(qvahost::routine_exists(function_addr[i].name, true)) << function_addr[i].name;
  for (int i = 0; i < procedure_addr_count; ++i)
    EXPECT_FALSE(qvahost::routine_exists(procedure_addr[i].name, false)) << procedure_addr[i].name;
  for (bool functions : {true, false})
    for (const std::string &name : qvahost::routine_names(functions))
      EXPECT_FALSE(is_module_routine_name(name)) << name << " was registered";

  for (const char *cls : kClasses) EXPECT_NE(qvahost::find_struct(cls), nullptr) << cls;

  // The language cannot reach the module's routines either.
  QVA_VPTR list = qvahost::make_long(0);
  qvatest::ExpectHostError([&] { qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {list}); });
  QVA_Deltmp(list);
}

}  // namespace
