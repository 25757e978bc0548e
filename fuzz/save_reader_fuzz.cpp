// Feeds arbitrary bytes to the save-file reader.  The checksum is not
// verified, so that the fuzzer reaches the parser behind it.  Whatever the
// input, the reader must either restore it or raise a host error, and in
// both cases leave nothing behind once the session is reset.
#include <cstdint>
#include <cstdlib>

#include "qva_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const qvahost::Accounting empty = [] {
    qvahost::set_output([](const std::string &) {});
    return qvahost::accounting();
  }();
  try {
    qvahost::restore_from_bytes(data, size, /*verify_checksum=*/false);
  } catch (const qvahost::HostError &) {
  }
  qvahost::reset_session();
  qvahost::Accounting now = qvahost::accounting();
  now.violations = empty.violations;
  if (!(now == empty)) std::abort();  // something leaked or a contract was broken
  return 0;
}
