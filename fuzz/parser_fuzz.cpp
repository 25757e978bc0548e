// Feeds arbitrary text to the QVA lexer and parser.  Whatever the input,
// parsing must either give a syntax tree or raise a SyntaxError: no crash,
// no hang, no other exception, and no deep recursion on nested input.
#include <cstdint>
#include <string>

#include "parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string source(reinterpret_cast<const char *>(data), size);
  try {
    qva::Program p = qva::parse_program(source, "fuzz.pro");
    (void)p;
  } catch (const qva::SyntaxError &) {
  }
  return 0;
}
