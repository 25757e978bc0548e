// Loads the module into the host once for the whole test program.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "qva_host.h"

namespace {
class ModuleEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_EQ(qvahost::load_module(&QVA_Load, &QVA_ResetSession), 1)
        << "the module failed to load";
  }
};
const auto *const g_env = ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);
}  // namespace
