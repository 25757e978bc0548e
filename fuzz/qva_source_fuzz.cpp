// Runs arbitrary text as QVA source, with the module loaded.  Each input
// gets a statement budget, so a loop that never ends stops with an error;
// recursion stops at the host's nesting limit.  Whatever the input does,
// the run must end in a result or a reported error (never a crash, a hang
// or a broken host contract), and a reset of the session afterwards must
// leave nothing behind.
//
// SAVE and RESTORE reach the file system: run this target in a scratch
// directory, as a user that may write nothing else (scripts/fuzz does).
#include <qva/qva.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "interp.h"
#include "qva_host.h"

namespace {

constexpr uint64_t kStepBudget = 20000;

qva::Interp &Interpreter() {
  static qva::Interp *in = [] {
    qvahost::set_output([](const std::string &) {});
    if (qvahost::load_module(&QVA_Load, &QVA_ResetSession) != 1) std::abort();
    auto *made = new qva::Interp;
    made->set_print([](const std::string &) {});
    return made;
  }();
  return *in;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qva::Interp &in = Interpreter();
  static const qvahost::Accounting empty = [] {
    qvahost::reset_session();
    return qvahost::accounting();
  }();
  in.set_step_limit(kStepBudget);
  try {
    in.run_source(std::string(reinterpret_cast<const char *>(data), size), "fuzz.pro");
  } catch (const qva::ExitRequest &) {
  }
  in.set_step_limit(0);
  qvahost::reset_session();
  if (!(qvahost::accounting() == empty)) std::abort();  // a leak or a broken contract
  return 0;
}
