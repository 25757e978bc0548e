// The module loaded into the benchmark process once, whichever benchmarks
// run and in whatever order.
#pragma once

#include <qva/qva.h>

#include "qva_host.h"

namespace qvabench {

inline void load_module_once() {
  static const bool loaded = [] {
    qvahost::load_module(&QVA_Load, &QVA_ResetSession);
    return true;
  }();
  (void)loaded;
}

}  // namespace qvabench
