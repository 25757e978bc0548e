// numbers.cpp - built-ins about numbers: TOTAL, MIN and MAX, WHERE,
// SORT, UNIQ, REVERSE, the element-wise functions (ABS, SQRT, ...),
// random numbers and SYSTIME.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <random>
#include <sstream>

#include "builtins.h"

namespace qva {

namespace {

// A value that must hold numbers (or, with strings_ok, strings).
View numbers_of(QVA_VPTR v, bool strings_ok = false) {
  View w = view_of(v);
  if (!is_numeric_type(w.type) && !(strings_ok && w.type == QVA_TYP_STRING))
    qvahost::raise_error(std::string("Expression must be ") +
                         (strings_ok ? "numeric or a string" : "numeric") + " in this context: " +
                         var_name(v) + ".");
  return w;
}

std::string text_at(const View &w, QVA_MEMINT i) {
  QVA_STRING s;
  std::memcpy(&s, w.data + i * w.size, sizeof s);
  return std::string(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
}

// Orders elements i and j of a numeric or string view (NaN last).
bool less_at(const View &w, QVA_MEMINT i, QVA_MEMINT j) {
  if (w.type == QVA_TYP_STRING) return text_at(w, i) < text_at(w, j);
  if (is_real_type(w.type)) {
    double a = get_real(w.type, w.data + i * w.size), b = get_real(w.type, w.data + j * w.size);
    if (std::isnan(a)) return false;
    return std::isnan(b) || a < b;
  }
  return get_int(w.type, w.data + i * w.size) < get_int(w.type, w.data + j * w.size);
}

bool equal_at(const View &w, QVA_MEMINT i, QVA_MEMINT j) { return !less_at(w, i, j) && !less_at(w, j, i); }

Val long_array(const std::vector<QVA_MEMINT> &v) {
  Val out = make_array(QVA_TYP_LONG, {static_cast<QVA_MEMINT>(v.size())});
  char *d = data_of(out.get());
  for (size_t i = 0; i < v.size(); ++i) put_int(QVA_TYP_LONG, d + i * 4, v[i]);
  return out;
}

// Stores a result in an output argument (a named variable).
void set_output(QVA_VPTR var, Val value) {
  if (var) QVA_VarCopy(value.get(), var);
}

// The 1-based dimension argument of TOTAL and REVERSE as 0-based, checked
// against the value's shape.
size_t dimension_arg(QVA_VPTR arg, const Dims &dims) {
  QVA_LONG64 d = scalar_integer(arg);
  if (d < 1 || d > static_cast<QVA_LONG64>(std::max<size_t>(dims.size(), 1)))
    qvahost::raise_error("Illegal dimension " + std::to_string(d) + ": " + var_name(arg) + ".");
  return static_cast<size_t>(d - 1);
}

// TOTAL(a [, dim], /INTEGER, /DOUBLE, /NAN, /CUMULATIVE): integers sum as
// FLOAT (LONG64 with /INTEGER), DOUBLE stays DOUBLE.  PRODUCT(a [, dim],
// /INTEGER, /NAN, /CUMULATIVE) multiplies, in DOUBLE unless /INTEGER.
// With /CUMULATIVE each element holds the running result, in the shape of
// a (along dim, or over the whole array).
QVA_VPTR fold(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk, bool product) {
  auto kw = take_keywords(product ? "PRODUCT" : "TOTAL", argk, {"INTEGER", "DOUBLE", "NAN", "CUMULATIVE"});
  View w = numbers_of(argv[0]);
  bool integer = keyword_set(kw[0]);
  bool skip_nan = keyword_set(kw[2]);
  bool cumulative = keyword_set(kw[3]);
  int type = integer ? QVA_TYP_LONG64
             : product || keyword_set(kw[1]) || w.type == QVA_TYP_DOUBLE ? QVA_TYP_DOUBLE
                                                                        : QVA_TYP_FLOAT;
  Dims dims = dims_of(argv[0]);
  if (dims.empty()) dims = {1};
  size_t dim = argc > 1 ? dimension_arg(argv[1], dims) : dims.size();
  QVA_MEMINT inner = 1, outer = 1, len = w.n;
  Dims out_dims;
  if (dim < dims.size()) {
    for (size_t k = 0; k < dim; ++k) inner *= dims[k];
    for (size_t k = dim + 1; k < dims.size(); ++k) outer *= dims[k];
    len = dims[dim];
    for (size_t k = 0; k < dims.size(); ++k)
      if (k != dim) out_dims.push_back(dims[k]);
  }
  if (cumulative) out_dims = is_scalar(argv[0]) ? Dims{} : dims_of(argv[0]);
  Val out = make_array(type, out_dims);
  char *d = data_of(out.get());
  auto size = static_cast<QVA_MEMINT>(elt_size(type));
  for (QVA_MEMINT o = 0; o < outer; ++o)
    for (QVA_MEMINT i = 0; i < inner; ++i) {
      int64_t iacc = product ? 1 : 0;
      double dacc = product ? 1 : 0;
      for (QVA_MEMINT j = 0; j < len; ++j) {
        QVA_MEMINT at = i + inner * (j + len * o);
        const char *p = w.data + at * static_cast<QVA_MEMINT>(w.size);
        if (integer) {
          auto x = static_cast<uint64_t>(get_int(w.type, p)), a = static_cast<uint64_t>(iacc);
          iacc = static_cast<int64_t>(product ? a * x : a + x);  // wraps as the type does
        } else {
          double x = get_real(w.type, p);
          if (!(skip_nan && std::isnan(x))) dacc = product ? dacc * x : dacc + x;
        }
        if (!cumulative) continue;
        if (integer) put_int(type, d + at * size, iacc);
        else put_real(type, d + at * size, dacc);
      }
      if (cumulative) continue;
      char *q = d + (i + inner * o) * size;
      if (integer) put_int(type, q, iacc);
      else put_real(type, q, dacc);
    }
  return out.give_temp();
}

// MIN(a [, index], MAX=m) and MAX(a [, index], MIN=m): the extreme value
// (the first, NaN ignored), where it is, and the other extreme.
QVA_VPTR extreme(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk, bool want_max) {
  const char *name = want_max ? "MAX" : "MIN";
  auto kw = take_keywords(name, argk, {want_max ? "MIN" : "MAX", "NAN"});
  View w = numbers_of(argv[0], true);
  if (w.n == 0) qvahost::raise_error("Expression must not be empty: " + var_name(argv[0]) + ".");
  // NaN elements take no part (unless all are NaN: the first is the answer).
  auto is_nan = [&w](QVA_MEMINT i) {
    return is_real_type(w.type) && std::isnan(get_real(w.type, w.data + i * static_cast<QVA_MEMINT>(w.size)));
  };
  QVA_MEMINT first = 0;
  while (first + 1 < w.n && is_nan(first)) ++first;
  QVA_MEMINT lo = first, hi = first;
  for (QVA_MEMINT i = first + 1; i < w.n; ++i) {
    if (is_nan(i)) continue;
    if (less_at(w, i, lo)) lo = i;
    if (less_at(w, hi, i)) hi = i;
  }
  QVA_MEMINT at = want_max ? hi : lo, other = want_max ? lo : hi;
  if (argc > 1) set_output(argv[1], Val::temp(qvahost::make_long(static_cast<QVA_LONG>(at))));
  if (kw[0]) set_output(kw[0], Val::temp(qvahost::element_values(argv[0], {other}, true)));
  return qvahost::element_values(argv[0], {at}, true);
}

// ARRAY_EQUAL(a, b): 1 when both hold as many elements (or one is a
// scalar) and every pair is equal, compared as EQ compares them.
QVA_VPTR array_equal(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  View a = view_of(argv[0]), b = view_of(argv[1]);
  if (a.n != b.n && a.array && b.array) return byte_result(false);
  Val same = binary_op("EQ", argv[0], argv[1]);
  View w = view_of(same.get());
  for (QVA_MEMINT i = 0; i < w.n; ++i)
    if (!w.data[i]) return byte_result(false);
  return byte_result(true);
}

// WHERE(a [, count], /NULL): the positions of the non-zero elements, or -1 (and
// a count of 0; with /NULL, !NULL) when there are none.
QVA_VPTR where(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("WHERE", argk, {"COMPLEMENT", "NCOMPLEMENT", "NULL"});
  View w = numbers_of(argv[0], true);
  std::vector<QVA_MEMINT> yes, no;
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    const char *p = w.data + i * static_cast<QVA_MEMINT>(w.size);
    bool set = w.type == QVA_TYP_STRING ? !text_at(w, i).empty()
               : is_real_type(w.type)   ? get_real(w.type, p) != 0
                                        : get_int(w.type, p) != 0;
    (set ? yes : no).push_back(i);
  }
  bool null = keyword_set(kw[2]);  // none found: !NULL rather than -1
  auto result = [null](const std::vector<QVA_MEMINT> &v) {
    if (!v.empty()) return long_array(v);
    return null ? undefined_value() : Val::temp(qvahost::make_long(-1));
  };
  if (argc > 1) set_output(argv[1], Val::temp(qvahost::make_long(static_cast<QVA_LONG>(yes.size()))));
  if (kw[0]) set_output(kw[0], result(no));
  if (kw[1]) set_output(kw[1], Val::temp(qvahost::make_long(static_cast<QVA_LONG>(no.size()))));
  return result(yes).give_temp();
}

// SORT(a): the positions of the elements in ascending order (equal
// elements keep their order).
QVA_VPTR sort(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  View w = numbers_of(argv[0], true);
  std::vector<QVA_MEMINT> order(static_cast<size_t>(w.n));
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<QVA_MEMINT>(i);
  std::stable_sort(order.begin(), order.end(), [&](QVA_MEMINT a, QVA_MEMINT b) { return less_at(w, a, b); });
  return long_array(order).give_temp();
}

// UNIQ(a [, order]): the position of the last element of each run of equal
// elements (of a, or of a[order]: then positions into a).
QVA_VPTR uniq(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  View w = numbers_of(argv[0], true);
  std::vector<QVA_MEMINT> order;
  if (argc > 1) {
    Val l = Val::temp(qvahost::convert_value(argv[1], QVA_TYP_LONG64));
    View o = view_of(l.get());
    for (QVA_MEMINT i = 0; i < o.n; ++i) {
      QVA_MEMINT k = get_int(QVA_TYP_LONG64, o.data + i * 8);
      if (k < 0 || k >= w.n) qvahost::raise_error("Index " + std::to_string(k) + " is out of range: " + var_name(argv[1]) + ".");
      order.push_back(k);
    }
  } else {
    for (QVA_MEMINT i = 0; i < w.n; ++i) order.push_back(i);
  }
  std::vector<QVA_MEMINT> out;
  for (size_t i = 0; i < order.size(); ++i)
    if (i + 1 == order.size() || !equal_at(w, order[i], order[i + 1])) out.push_back(order[i]);
  if (out.empty()) return qvahost::make_long(0);
  return long_array(out).give_temp();
}

// REVERSE(a [, dim]): the elements in the opposite order along a
// dimension (the first by default).
QVA_VPTR reverse(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  QVA_VPTR v = argv[0];
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Variable is undefined: " + var_name(v) + ".");
  Dims dims = dims_of(v);
  if (dims.empty()) return copy_of(v).give_temp();
  size_t dim = argc > 1 ? dimension_arg(argv[1], dims) : 0;
  QVA_MEMINT inner = 1, outer = 1, len = dims[dim];
  for (size_t k = 0; k < dim; ++k) inner *= dims[k];
  for (size_t k = dim + 1; k < dims.size(); ++k) outer *= dims[k];
  std::vector<QVA_MEMINT> from;
  from.reserve(static_cast<size_t>(inner * len * outer));
  for (QVA_MEMINT o = 0; o < outer; ++o)
    for (QVA_MEMINT j = 0; j < len; ++j)
      for (QVA_MEMINT i = 0; i < inner; ++i) from.push_back(i + inner * ((len - 1 - j) + len * o));
  Val out = Val::temp(qvahost::element_values(v, from, false));
  reshape(out.get(), dims);
  return out.give_temp();
}

// fn of each element of v (seen as w), stored as `type` in v's shape.
QVA_VPTR each_real(QVA_VPTR v, const View &w, int type, double (*fn)(double)) {
  Val out = make_array(type, dims_of(v));
  char *d = data_of(out.get());
  for (QVA_MEMINT i = 0; i < w.n; ++i)
    put_real(type, d + i * static_cast<QVA_MEMINT>(elt_size(type)),
             fn(get_real(w.type, w.data + i * static_cast<QVA_MEMINT>(w.size))));
  return out.give_temp();
}

// ATAN(y, x): the angle of (x, y), element by element (a scalar pairs
// with every element of the other); ATAN(x): the arc tangent.
QVA_VPTR atan_fn(int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
  View y = numbers_of(argv[0]);
  if (argc == 1)
    return each_real(argv[0], y, y.type == QVA_TYP_DOUBLE ? QVA_TYP_DOUBLE : QVA_TYP_FLOAT,
                     [](double v) { return std::atan(v); });
  View x = numbers_of(argv[1]);
  int type = y.type == QVA_TYP_DOUBLE || x.type == QVA_TYP_DOUBLE ? QVA_TYP_DOUBLE : QVA_TYP_FLOAT;
  QVA_VPTR shape = !y.array ? argv[1] : !x.array || x.n >= y.n ? argv[0] : argv[1];
  QVA_MEMINT n = !y.array ? x.n : !x.array ? y.n : std::min(x.n, y.n);
  Val out = make_array(type, x.array && y.array && x.n != y.n ? Dims{n} : dims_of(shape));
  char *d = data_of(out.get());
  for (QVA_MEMINT i = 0; i < n; ++i) {
    double yv = get_real(y.type, y.data + (y.array ? i : 0) * static_cast<QVA_MEMINT>(y.size));
    double xv = get_real(x.type, x.data + (x.array ? i : 0) * static_cast<QVA_MEMINT>(x.size));
    put_real(type, d + i * static_cast<QVA_MEMINT>(elt_size(type)), std::atan2(yv, xv));
  }
  return out.give_temp();
}

// An element-wise function of reals: integers give FLOAT, DOUBLE stays
// DOUBLE.
Builtin real_function(const char *name, double (*fn)(double)) {
  return {name, true, 1, 1, false, [name, fn](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
            View w = numbers_of(argv[0]);
            return each_real(argv[0], w, w.type == QVA_TYP_DOUBLE ? QVA_TYP_DOUBLE : QVA_TYP_FLOAT, fn);
          }};
}

// FLOOR, CEIL, ROUND: reals to LONG (LONG64 with /L64); integers stay as
// they are.
Builtin rounding(const char *name, double (*fn)(double)) {
  return {name, true, 1, 1, true, [name, fn](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
            auto kw = take_keywords(name, argk, {"L64"});
            View w = numbers_of(argv[0]);
            if (!is_real_type(w.type)) return copy_of(argv[0]).give_temp();
            return each_real(argv[0], w, keyword_set(kw[0]) ? QVA_TYP_LONG64 : QVA_TYP_LONG, fn);
          }};
}

QVA_VPTR abs_fn(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  View w = numbers_of(argv[0]);
  Val out = make_array(w.type, dims_of(argv[0]));
  char *d = data_of(out.get());
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    const char *p = w.data + i * static_cast<QVA_MEMINT>(w.size);
    char *q = d + i * static_cast<QVA_MEMINT>(w.size);
    if (is_real_type(w.type)) put_real(w.type, q, std::fabs(get_real(w.type, p)));
    else {
      int64_t x = get_int(w.type, p);
      put_int(w.type, q, x < 0 ? static_cast<int64_t>(0 - static_cast<uint64_t>(x)) : x);
    }
  }
  return out.give_temp();
}

// FINITE(x, /NAN, /INFINITY): 1 where a number is finite (or, with a
// keyword, NaN or infinite); integers are always finite.
QVA_VPTR finite(int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("FINITE", argk, {"NAN", "INFINITY"});
  bool nan = keyword_set(kw[0]), inf = keyword_set(kw[1]);
  View w = numbers_of(argv[0]);
  Val out = make_array(QVA_TYP_BYTE, dims_of(argv[0]));
  char *d = data_of(out.get());
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    double x = is_real_type(w.type) ? get_real(w.type, w.data + i * static_cast<QVA_MEMINT>(w.size)) : 0;
    d[i] = nan ? std::isnan(x) : inf ? std::isinf(x) : std::isfinite(x);
  }
  return out.give_temp();
}

// ------------------------------------------------------------ random

// The generator's state lives in the seed variable as a LONG64 array, so
// the same seed gives the same numbers and passing the variable on
// continues the sequence.  An undefined seed starts from the clock.
std::mt19937 generator_from(QVA_VPTR seed) {
  std::mt19937 gen;
  if (seed->type == QVA_TYP_UNDEF) {
    gen.seed(static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    return gen;
  }
  Val l = Val::temp(qvahost::convert_value(seed, QVA_TYP_LONG64));
  View w = view_of(l.get());
  if (w.n == 1) {
    gen.seed(static_cast<uint32_t>(get_int(QVA_TYP_LONG64, w.data)));
    return gen;
  }
  std::stringstream state;
  for (QVA_MEMINT i = 0; i < w.n; ++i) state << get_int(QVA_TYP_LONG64, w.data + i * 8) << ' ';
  state >> gen;
  if (state.fail()) qvahost::raise_error("The random number seed is not a saved generator state.");
  return gen;
}

void save_generator(QVA_VPTR seed, const std::mt19937 &gen) {
  std::stringstream state;
  state << gen;
  std::vector<int64_t> words;
  for (int64_t x; state >> x;) words.push_back(x);
  Val out = make_array(QVA_TYP_LONG64, {static_cast<QVA_MEMINT>(words.size())});
  std::memcpy(data_of(out.get()), words.data(), words.size() * 8);
  QVA_VarCopy(out.get(), seed);
}

Builtin random_function(const char *name, bool normal) {
  return {name, true, 1, 1 + QVA_MAX_ARRAY_DIM, true, [name, normal](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
            auto kw = take_keywords(name, argk, {"DOUBLE"});
            std::mt19937 gen = generator_from(argv[0]);
            int type = keyword_set(kw[0]) ? QVA_TYP_DOUBLE : QVA_TYP_FLOAT;
            Dims dims = argc > 1 ? dims_from(argc, argv, 1) : Dims{};
            Val out = make_array(type, dims);
            char *d = data_of(out.get());
            std::uniform_real_distribution<double> uniform(0.0, 1.0);
            std::normal_distribution<double> gauss(0.0, 1.0);
            QVA_MEMINT n = count_of(dims);
            for (QVA_MEMINT i = 0; i < n; ++i)
              put_real(type, d + i * static_cast<QVA_MEMINT>(elt_size(type)), normal ? gauss(gen) : uniform(gen));
            save_generator(argv[0], gen);
            return out.give_temp();
          }};
}

// SYSTIME(): the date and time as text; SYSTIME(1) or /SECONDS: seconds
// since 1970 as a DOUBLE.
QVA_VPTR systime(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("SYSTIME", argk, {"SECONDS", "UTC"});
  bool seconds = keyword_set(kw[0]) || (argc > 0 && nonzero(argv[0]));
  auto now = std::chrono::system_clock::now();
  if (seconds)
    return qvahost::make_double(std::chrono::duration<double>(now.time_since_epoch()).count());
  std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm parts{};
  if (keyword_set(kw[1])) gmtime_r(&t, &parts);
  else localtime_r(&t, &parts);
  char buf[64];
  std::strftime(buf, sizeof buf, "%a %b %e %H:%M:%S %Y", &parts);
  return qvahost::make_string(buf);
}

}  // namespace

std::vector<Builtin> number_builtins() {
  return {
      {"TOTAL", true, 1, 2, true, [](int c, QVA_VPTR v[], QVA_KW_ARGS *k) { return fold(c, v, k, false); }},
      {"PRODUCT", true, 1, 2, true, [](int c, QVA_VPTR v[], QVA_KW_ARGS *k) { return fold(c, v, k, true); }},
      {"MIN", true, 1, 2, true, [](int c, QVA_VPTR v[], QVA_KW_ARGS *k) { return extreme(c, v, k, false); }},
      {"MAX", true, 1, 2, true, [](int c, QVA_VPTR v[], QVA_KW_ARGS *k) { return extreme(c, v, k, true); }},
      {"WHERE", true, 1, 2, true, where},
      {"ARRAY_EQUAL", true, 2, 2, false, array_equal},
      {"SORT", true, 1, 1, false, sort},
      {"UNIQ", true, 1, 2, false, uniq},
      {"REVERSE", true, 1, 2, false, reverse},
      {"ABS", true, 1, 1, false, abs_fn},
      {"FINITE", true, 1, 1, true, finite},
      real_function("SQRT", [](double x) { return std::sqrt(x); }),
      real_function("EXP", [](double x) { return std::exp(x); }),
      real_function("ALOG", [](double x) { return std::log(x); }),
      real_function("ALOG10", [](double x) { return std::log10(x); }),
      real_function("SIN", [](double x) { return std::sin(x); }),
      real_function("COS", [](double x) { return std::cos(x); }),
      real_function("TAN", [](double x) { return std::tan(x); }),
      {"ATAN", true, 1, 2, false, atan_fn},
      rounding("FLOOR", [](double x) { return std::floor(x); }),
      rounding("CEIL", [](double x) { return std::ceil(x); }),
      rounding("ROUND", [](double x) { return std::round(x); }),
      random_function("RANDOMU", false),
      random_function("RANDOMN", true),
      {"SYSTIME", true, 0, 1, true, systime},
  };
}

}  // namespace qva
