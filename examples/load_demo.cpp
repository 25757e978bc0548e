// Loads the module's shared object into the host, the way the front end
// does, and prints what it defined: every class structure with its fields
// and positions, and the registered routines.
//
//   qva_load_demo path/to/qva_cobalt.so
#include <cstdio>
#include <string>

#include "qva_host.h"

namespace {

const char *const kClasses[] = {
    "QVAFWSAVEABLE",   "QVAFWHASAHANDLER", "QVAFWMESSAGE",       "QVAFWQUERY",
    "QVAFWBEHAVIOR",   "QVAFWPROCBEHAV",   "QVAFWFUNCBEHAV",     "QVAFWOBJBEHAV",
    "QVAFWQUERYBEHAV", "QVAFWDELAYBEHAV",  "QVAFWDELAYARGBEHAV", "QVAFWMESSAGEHANDLER",
    "QVADSMAP"};

void print_class(const char *name) {
  QVA_SDEF sdef = qvahost::find_struct(name);
  if (!sdef) {
    std::printf("%s: not defined\n", name);
    return;
  }
  QVA_SDEF super = qvahost::struct_super(sdef);
  std::printf("%s", name);
  if (super) std::printf(" (inherits %s)", qvahost::struct_name(super).c_str());
  std::printf(", %lld bytes\n", static_cast<long long>(qvahost::struct_length(sdef)));
  for (const auto &[field, offset] : qvahost::struct_fields(sdef))
    std::printf("  %4lld  %s\n", static_cast<long long>(offset), field.c_str());
}

void print_routines(bool functions) {
  auto rows = qvahost::routine_rows(functions);
  std::printf("%zu %s:\n", rows.size(), functions ? "functions" : "procedures");
  for (const auto &r : rows)
    std::printf("  %-36s %d..%d%s\n", r.name.c_str(), r.arg_min, r.arg_max,
                (r.flags & QVA_SYSFUN_KEYWORDS) ? " keywords" : "");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s MODULE.so\n", argv[0]);
    return 2;
  }
  std::string error;
  if (qvahost::load_module_file(argv[1], &error) != 1) {
    std::fprintf(stderr, "loading %s failed: %s\n", argv[1], error.c_str());
    return 1;
  }
  for (const char *name : kClasses) print_class(name);
  print_routines(true);
  print_routines(false);
  // A session reset must leave the module usable.
  qvahost::reset_session();
  for (const char *name : kClasses)
    if (!qvahost::find_struct(name)) return 1;
  return 0;
}
