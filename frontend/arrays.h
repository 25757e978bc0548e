// arrays.h - the array machinery the evaluator and the built-ins share:
// the order of the numeric types, reading and writing elements, shapes
// (up to eight dimensions, column-major: the first subscript varies
// fastest), making arrays of a shape, subscripts over several dimensions
// and concatenation along a dimension.
#pragma once

#include <qva/qva.h>

#include <cstdint>
#include <string>
#include <vector>

#include "values.h"

namespace qva {

// ------------------------------------------------------------- types

bool is_numeric_type(int type);
bool is_real_type(int type);     // FLOAT, DOUBLE
bool is_integer_type(int type);  // BYTE, INT, LONG, LONG64
// Order of the numeric types in mixed arithmetic: BYTE < INT < LONG <
// LONG64 < FLOAT < DOUBLE; 0 for any other type.
int numeric_rank(int type);
// The type a mix of two numeric types computes in.
int promote(int a, int b);
// Bytes of one element of a simple type (0 for a structure or undefined).
size_t elt_size(int type);

// One element of a numeric type at p, read or written; writing an integer
// type wraps to its width, a real is stored rounded to the type.
int64_t get_int(int type, const char *p);
double get_real(int type, const char *p);
void put_int(int type, char *p, int64_t v);
void put_real(int type, char *p, double v);
// A double as FLOAT: out-of-range values become infinities.
float to_float(double d);

// ------------------------------------------------------------ shapes

using Dims = std::vector<QVA_MEMINT>;  // empty: a scalar

// The dimensions of a value (empty for a scalar or an undefined value; a
// structure scalar is a one-element array {1}).
Dims dims_of(QVA_VPTR v);
QVA_MEMINT count_of(const Dims &dims);
// "[2, 3]" as error messages and HELP show a shape.
std::string dims_text(const Dims &dims);

// Where a value's elements are.
struct View {
  int type = 0;
  QVA_SDEF sdef = nullptr;
  const char *data = nullptr;
  QVA_MEMINT n = 0;
  size_t size = 0;   // bytes of one element
  bool array = false;
};
// Raises "Variable is undefined" for an undefined value.
View view_of(QVA_VPTR v);

// A new temporary: an array of the given shape (zeroed), or a scalar (of
// zero) when dims is empty.  `sdef` for structures.
Val make_array(int type, const Dims &dims, QVA_SDEF sdef = nullptr);
// Writable data of a value made by make_array (a scalar's value too).
char *data_of(QVA_VPTR v);
// Gives an array temporary new dimensions with the same element count.
void reshape(QVA_VPTR v, const Dims &dims);
// Drops trailing dimensions of size 1 (keeping at least one).
Dims trim_dims(Dims dims);

// -------------------------------------------------------- subscripts

// One subscript as evaluated: all of a dimension (*), a range lo:hi with a
// stride, or given positions (a scalar, or an array whose shape the
// result takes when it is the only subscript).
struct Subscript {
  enum Kind { All, Range, Values } kind = All;
  QVA_MEMINT lo = 0, hi = -1, stride = 1;  // Range; hi -1 with open_hi: the end
  bool open_hi = false;
  std::vector<QVA_MEMINT> values;          // Values
  bool scalar = false;                     // Values: a scalar subscript
  Dims value_dims;                         // Values: shape of an array subscript
};

// The elements a list of subscripts selects in an array of shape `dims`,
// in column-major order, and the shape of the result.  A scalar result
// (every subscript a scalar) has empty result dims and `scalar` set.
struct Selection {
  std::vector<QVA_MEMINT> flat;
  Dims dims;
  bool scalar = false;
};
Selection select(const Dims &dims, const std::vector<Subscript> &subs, const std::string &name);

// ------------------------------------------------------ concatenation

// Joins values along dimension `dim` (0-based) as an array literal does:
// every other dimension must agree; numbers promote to the widest type.
Val concatenate(const std::vector<QVA_VPTR> &parts, int dim);

}  // namespace qva
