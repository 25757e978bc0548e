// Type conversion of values: numbers among themselves (to integers by
// truncation toward zero, refusing values out of the target's range),
// strings to numbers by parsing the whole text, numbers to strings, and
// QVA_CvtLng.
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "internal.h"

namespace qvahost {
namespace {

[[noreturn]] void cannot_convert(int from, int to) {
  raise_fmt(M_CONVERSION, "Type conversion error: Unable to convert given %s to %s.",
            type_name(from), type_name(to));
}

// A conversion of an argument that failed names the argument too.
void name_argument(HostError &e, const QVA_VARIABLE *v) {
  std::string label = var_label(v);
  if (e.code != M_CONVERSION || label == "<Expression>" || e.text.empty() || e.text.back() != '.')
    return;
  e.text.back() = ':';
  e.text += " " + label + ".";
}

bool is_integer_type(int t) {
  return t == QVA_TYP_BYTE || t == QVA_TYP_INT || t == QVA_TYP_LONG || t == QVA_TYP_LONG64;
}

bool is_real_type(int t) { return t == QVA_TYP_FLOAT || t == QVA_TYP_DOUBLE; }

// A number read from one element: integers exactly, doubles as they are.
struct Number {
  bool is_int;
  int64_t i;
  double d;
};

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Parses the whole text (surrounding blanks allowed) as an integer, or
// failing that as a floating-point number.
bool parse_number(const char *s, size_t len, Number *out) {
  const char *b = s;
  const char *e = s + len;
  while (b < e && is_space(*b)) ++b;
  while (e > b && is_space(e[-1])) --e;
  if (b < e && *b == '+') ++b;
  if (b == e) return false;
  int64_t i;
  auto ri = std::from_chars(b, e, i);
  if (ri.ec == std::errc() && ri.ptr == e) {
    *out = Number{true, i, 0.0};
    return true;
  }
  double d;
  auto rd = std::from_chars(b, e, d);
  if (rd.ec != std::errc() || rd.ptr != e) return false;
  *out = Number{false, 0, d};
  return true;
}

// The number held by one element of a numeric type.
Number read_number(int from, const void *src) {
  switch (from) {
    case QVA_TYP_BYTE: return {true, *static_cast<const QVA_UCHAR *>(src), 0};
    case QVA_TYP_INT: return {true, *static_cast<const QVA_INT *>(src), 0};
    case QVA_TYP_LONG: return {true, *static_cast<const QVA_LONG *>(src), 0};
    case QVA_TYP_LONG64: return {true, *static_cast<const QVA_LONG64 *>(src), 0};
    case QVA_TYP_FLOAT: return {false, 0, *static_cast<const float *>(src)};
    default: return {false, 0, *static_cast<const double *>(src)};
  }
}

// The number a string element's text spells.
Number parse_string(const QVA_STRING *str, int to) {
  const char *text = text_get(str->s);
  size_t len = str->s ? std::strlen(text) : 0;
  if (str->slen >= 0 && static_cast<size_t>(str->slen) < len) len = static_cast<size_t>(str->slen);
  Number n;
  if (!parse_number(text, len, &n)) cannot_convert(QVA_TYP_STRING, to);
  return n;
}

// n as an integer in [lo, hi]; doubles truncate toward zero.
bool to_integer(const Number &n, int64_t lo, int64_t hi, int64_t *out) {
  if (n.is_int) {
    if (n.i < lo || n.i > hi) return false;
    *out = n.i;
    return true;
  }
  double t = std::trunc(n.d);
  // Range test in double: hi + 1 is exact for every target (a power of two).
  if (!(t >= static_cast<double>(lo) && t < static_cast<double>(hi) + 1.0)) return false;
  *out = static_cast<int64_t>(t);
  return true;
}

void write_integer(int to, int64_t v, void *dst) {
  switch (to) {
    case QVA_TYP_BYTE: *static_cast<QVA_UCHAR *>(dst) = static_cast<QVA_UCHAR>(v); break;
    case QVA_TYP_INT: *static_cast<QVA_INT *>(dst) = static_cast<QVA_INT>(v); break;
    case QVA_TYP_LONG: *static_cast<QVA_LONG *>(dst) = static_cast<QVA_LONG>(v); break;
    default: *static_cast<QVA_LONG64 *>(dst) = v; break;
  }
}

void integer_range(int to, int64_t *lo, int64_t *hi) {
  switch (to) {
    case QVA_TYP_BYTE: *lo = 0; *hi = 255; break;
    case QVA_TYP_INT: *lo = INT16_MIN; *hi = INT16_MAX; break;
    case QVA_TYP_LONG: *lo = INT32_MIN; *hi = INT32_MAX; break;
    default: *lo = INT64_MIN; *hi = INT64_MAX; break;
  }
}

// Decimal text of a number; reals in their type's shortest exact form.
void write_text(int from, const void *src, QVA_STRING *dst) {
  char buf[64];
  Number n = read_number(from, src);
  std::to_chars_result r = n.is_int ? std::to_chars(buf, buf + sizeof buf, n.i)
                           : from == QVA_TYP_FLOAT
                               ? std::to_chars(buf, buf + sizeof buf, static_cast<float>(n.d))
                               : std::to_chars(buf, buf + sizeof buf, n.d);
  string_set(dst, buf, static_cast<size_t>(r.ptr - buf));
}

}  // namespace

void convert_elt(int from, const void *src, int to, void *dst) {
  if (from == to && from != QVA_TYP_STRING && type_size(from)) {
    std::memcpy(dst, src, type_size(from));
    return;
  }
  bool from_number = is_integer_type(from) || is_real_type(from);
  if (to == QVA_TYP_STRING) {
    auto *out = static_cast<QVA_STRING *>(dst);
    if (from == QVA_TYP_STRING) {
      *out = *static_cast<const QVA_STRING *>(src);
      QVA_StrDup(out, 1);
    } else if (from_number) {
      write_text(from, src, out);
    } else {
      cannot_convert(from, to);
    }
    return;
  }
  if (!from_number && from != QVA_TYP_STRING) cannot_convert(from, to);
  if (!is_integer_type(to) && !is_real_type(to)) cannot_convert(from, to);
  Number n = from == QVA_TYP_STRING ? parse_string(static_cast<const QVA_STRING *>(src), to)
                                     : read_number(from, src);
  if (is_real_type(to)) {
    double d = n.is_int ? static_cast<double>(n.i) : n.d;
    if (to == QVA_TYP_FLOAT)  // beyond FLOAT's range: an infinity
      *static_cast<float *>(dst) = d > FLT_MAX ? HUGE_VALF : d < -FLT_MAX ? -HUGE_VALF : static_cast<float>(d);
    else *static_cast<double *>(dst) = d;
    return;
  }
  int64_t lo, hi, v;
  integer_range(to, &lo, &hi);
  if (!to_integer(n, lo, hi, &v)) cannot_convert(from, to);
  write_integer(to, v, dst);
}

QVA_ALLTYPES scalar_as(QVA_VPTR v, int to) {
  if (v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", var_label(v).c_str());
  if (v->flags & QVA_V_NOT_SCALAR)
    raise_fmt(M_NOTSCALAR, "Expression must be a scalar in this context: %s.",
              var_label(v).c_str());
  QVA_ALLTYPES out{};
  try {
    convert_elt(v->type, &v->value, to, &out);
  } catch (HostError &e) {
    name_argument(e, v);
    throw;
  }
  return out;
}

}  // namespace qvahost

using namespace qvahost;

QVA_VPTR QVA_CvtLng(int argc, QVA_VPTR argv[]) {
  if (argc < 1 || !argv || !argv[0]) raise(M_WRONG_ARG_COUNT, "Incorrect number of arguments.");
  QVA_VPTR v = argv[0];
  if (v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", var_label(v).c_str());
  if (v->flags & QVA_V_STRUCT) {
    try {
      cannot_convert(QVA_TYP_STRUCT, QVA_TYP_LONG);
    } catch (HostError &e) {
      name_argument(e, v);
      throw;
    }
  }
  if (!(v->flags & QVA_V_ARR)) {
    QVA_ALLTYPES converted = scalar_as(v, QVA_TYP_LONG);
    QVA_VPTR out = tmp_new();
    out->type = QVA_TYP_LONG;
    out->value = converted;
    return out;
  }
  const QVA_ARRAY *from = v->value.arr;
  QVA_ARRAY *a = array_new(sizeof(QVA_LONG), from->n_dim, from->dim, false, QVA_MSG_LONGJMP);
  try {
    auto *dst = reinterpret_cast<QVA_LONG *>(a->data);
    for (QVA_MEMINT i = 0; i < from->n_elts; ++i)
      convert_elt(v->type, from->data + i * from->elt_len, QVA_TYP_LONG, &dst[i]);
    QVA_VPTR out = tmp_new();
    out->type = QVA_TYP_LONG;
    out->flags |= QVA_V_ARR;
    out->value.arr = a;
    return out;
  } catch (HostError &e) {
    array_free(a);
    name_argument(e, v);
    throw;
  } catch (...) {
    array_free(a);
    throw;
  }
}
