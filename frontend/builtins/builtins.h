// builtins.h - what the built-in routines share: the table each theme
// registers its routines through, and the helpers most of them use.
//
// Built-ins are registered with the host like any routine (so modules can
// call them by name too).  Each theme (arrays and types, numbers, strings
// and formatting, objects and heap, files and sessions) keeps its routines
// in one table in its own file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "interp.h"

namespace qva {

// One built-in: its name, whether it is a function, its positional
// argument counts, whether it takes keywords, and its body.
struct Builtin {
  const char *name;
  bool function;
  int arg_min, arg_max;
  bool keywords;
  qvahost::UserRoutine body;
};
constexpr int kManyArgs = 64;

// The tables of the themes.
std::vector<Builtin> array_builtins();
std::vector<Builtin> number_builtins();
std::vector<Builtin> string_builtins();
std::vector<Builtin> object_builtins();
std::vector<Builtin> session_builtins();
std::vector<Builtin> file_builtins();

// Keyword values of a call by the names a built-in accepts (abbreviations
// allowed); nullptr for a keyword not given.  Any other keyword is an error.
std::vector<QVA_VPTR> take_keywords(const std::string &routine, QVA_KW_ARGS *argk,
                                    const std::vector<std::string> &allowed);
// A keyword given and true (/FLAG or FLAG=nonzero).
bool keyword_set(QVA_VPTR kw);

std::string upper(std::string s);
// A value as errors name it: the variable's name, else its place among the
// running built-in's arguments.
std::string var_name(QVA_VPTR v);
// A scalar argument converted to an integer.
QVA_LONG64 scalar_integer(QVA_VPTR v);
QVA_VPTR byte_result(bool b);

// The class of an object reference scalar (nullptr for anything else, the
// null reference or a dead object), and whether it is or inherits `name`.
QVA_SDEF class_of(QVA_VPTR v);
bool class_has(QVA_SDEF cls, const std::string &name);

// The dimensions given to an array maker from argument `first` on: each a
// scalar, or one array of them; trailing dimensions of 1 dropped unless
// `trim` is false.
Dims dims_from(int argc, QVA_VPTR argv[], int first, bool trim = true);

// STRING() of a value: numbers as PRINT shows them, an array element by
// element.
QVA_VPTR string_of(QVA_VPTR v);

}  // namespace qva
