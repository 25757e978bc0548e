// lexer.h - splits QVA source text into tokens.
//
// Names are case-insensitive and come out upper case (string literals keep
// their case).  Comments (';' to the end of the line) are dropped, a '$' at
// the end of a line joins it to the next, and '&' separates statements on
// one line.  A line starting with '.' is an executive command.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qva {

enum class Tok {
  End,        // end of input
  Newline,    // end of a statement line
  Amp,        // '&' between statements
  Ident,      // name (upper case)
  SysVar,     // !NAME (upper case, without '!')
  Integer,    // integer literal; int_type gives its type code
  Real,       // real literal; int_type gives FLOAT or DOUBLE
  String,     // string literal
  Exec,       // .COMMAND rest-of-line (text holds the whole line)
  Op,         // operator or punctuation; text holds it
};

struct Token {
  Tok kind = Tok::End;
  std::string text;
  std::string spelling;  // a name as written, for messages that quote it
  int line = 0;
  int64_t ival = 0;
  int int_type = 0;  // QVA_TYP_BYTE, INT, LONG or LONG64; FLOAT or DOUBLE
  double dval = 0;
};

// A syntax error, with the line it was found on.  `incomplete` is set when
// the input ended before a construct was finished (the prompt then reads
// another line).
struct SyntaxError : std::runtime_error {
  SyntaxError(const std::string &what, int line, bool incomplete = false)
      : std::runtime_error(what), line(line), incomplete(incomplete) {}
  int line;
  bool incomplete;
};

std::vector<Token> tokenize(const std::string &source, int first_line = 1);
// The tokens of one line typed on its own; `continues` tells whether it
// ends in a '$' that joins it to the next line.
std::vector<Token> tokenize_line(const std::string &line, int line_no, bool *continues);

}  // namespace qva
