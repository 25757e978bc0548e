// leaky_module.cpp - a module that leaks on purpose: LEAK_A_BLOCK takes a
// block from the host allocator and never gives it back, so that a test
// can see how qva reports a run that leaks.
#include <qva/qva.h>

namespace {

void leak_a_block(int, QVA_VPTR[]) { QVA_MemAllocQuiet(16); }

}  // namespace

extern "C" int QVA_Load(void) {
  static QVA_SYSFUN_DEF rows[] = {{QVA_RTN(leak_a_block), "LEAK_A_BLOCK", 0, 0, 0, 0}};
  return QVA_SysRtnAdd(rows, 0, 1);
}

extern "C" void QVA_ResetSession(void) {}
