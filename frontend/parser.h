// parser.h - builds the syntax tree of a QVA source.
#pragma once

#include <string>

#include "ast.h"
#include "lexer.h"

namespace qva {

// Parses a whole source: routine definitions and main-level statements.
// Throws SyntaxError (with `incomplete` set when the text ended inside a
// construct).  `file` is recorded in the routines for error reports.
Program parse_program(const std::string &source, const std::string &file, int first_line = 1);

}  // namespace qva
