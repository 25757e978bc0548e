// values.cpp - operators and PRINT's formatting over host variables.
#include "values.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "arrays.h"
#include "qva_host.h"

namespace qva {

Val &Val::operator=(Val &&o) noexcept {
  if (this != &o) {
    reset();
    v_ = o.v_;
    owned_ = o.owned_;
    o.v_ = nullptr;
  }
  return *this;
}

void Val::reset() {
  if (v_ && owned_) QVA_Deltmp(v_);
  v_ = nullptr;
}

QVA_VPTR Val::give_temp() {
  if (!v_) return QVA_Gettmp();
  if (owned_) {
    QVA_VPTR t = v_;
    v_ = nullptr;
    return t;
  }
  return copy_of(v_).give_temp();
}

Val copy_of(QVA_VPTR v) {
  Val t = Val::temp(QVA_Gettmp());
  QVA_VarCopy(v, t.get());
  return t;
}

Val undefined_value() { return Val::temp(QVA_Gettmp()); }

bool is_scalar(QVA_VPTR v) { return !(v->flags & QVA_V_NOT_SCALAR); }

namespace {


std::string str_of(const char *p) {
  QVA_STRING s;
  std::memcpy(&s, p, sizeof s);
  return std::string(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
}

// A new result of a shape (zeroed), and where its elements go.
struct Result {
  Val val;
  char *data = nullptr;
};

Result make_result(int type, const Dims &dims) {
  Result r;
  r.val = make_array(type, dims);
  r.data = data_of(r.val.get());
  return r;
}

uint64_t u(int64_t v) { return static_cast<uint64_t>(v); }
int64_t s(uint64_t v) { return static_cast<int64_t>(v); }

int64_t int_pow(int64_t base, int64_t e) {
  if (e < 0) return base == 1 ? 1 : base == -1 ? (e % 2 ? -1 : 1) : 0;
  uint64_t r = 1, b = u(base);
  while (e) {
    if (e & 1) r *= b;
    b *= b;
    e >>= 1;
  }
  return s(r);
}

bool is_compare(const std::string &op) {
  return op == "EQ" || op == "NE" || op == "LT" || op == "LE" || op == "GT" || op == "GE";
}

template <class T>
bool compare(const std::string &op, const T &a, const T &b) {
  if (op == "EQ") return a == b;
  if (op == "NE") return !(a == b);
  if (op == "LT") return a < b;
  if (op == "LE") return !(b < a);
  if (op == "GT") return b < a;
  return !(a < b);
}

[[noreturn]] void bad_operands(const std::string &op, int ta, int tb) {
  qvahost::raise_error(std::string("Operation ") + op + " is not defined for " + qvahost::type_name(ta) +
                       (ta == tb ? "" : std::string(" and ") + qvahost::type_name(tb)) + ".");
}

// A real as PRINT shows it: `digits` significant digits, trailing zeros
// kept, right-aligned in `width`; Inf and NaN spelled as words.
std::string real_text(double d, int width, int digits) {
  char buf[64];
  if (std::isnan(d)) std::snprintf(buf, sizeof buf, "%*s", width, "NaN");
  else if (std::isinf(d)) std::snprintf(buf, sizeof buf, "%*s", width, d < 0 ? "-Inf" : "Inf");
  else std::snprintf(buf, sizeof buf, "%#*.*g", width, digits, d);
  return buf;
}

std::string element_text(const View &w, QVA_MEMINT i) {
  return format_element(w.type, w.sdef, w.data + static_cast<size_t>(i) * w.size);
}

// A structure element as PRINT shows it, appended to `out` so that nesting
// costs no copies.  Definitions may nest as deep as a program makes them:
// one level a call, until the C stack is nearly used up, which is the
// host's "nested too deeply" error.
void append_struct(std::string &out, QVA_SDEF sdef, const char *p) {
  qvahost::check_stack();
  out += '{';
  for (const qvahost::FieldInfo &f : qvahost::struct_field_info(sdef)) {
    QVA_MEMINT n = 1;
    for (QVA_MEMINT d : f.dims) n *= d;
    size_t size = f.type == QVA_TYP_STRUCT ? static_cast<size_t>(qvahost::struct_length(f.sdef))
                                           : elt_size(f.type);
    for (QVA_MEMINT k = 0; k < n; ++k) {
      if (f.type == QVA_TYP_STRING || f.type == QVA_TYP_STRUCT || f.type == QVA_TYP_PTR ||
          f.type == QVA_TYP_OBJREF)
        out += ' ';
      if (f.type == QVA_TYP_STRUCT)
        append_struct(out, f.sdef, p + f.offset + k * size);
      else
        out += format_element(f.type, f.sdef, p + f.offset + k * size);
    }
  }
  out += '}';
}

}  // namespace

std::string format_element(int type, QVA_SDEF sdef, const void *data) {
  const char *p = static_cast<const char *>(data);
  char buf[64];
  switch (type) {
    case QVA_TYP_BYTE: std::snprintf(buf, sizeof buf, "%4u", static_cast<unsigned>(get_int(type, p))); return buf;
    case QVA_TYP_INT: std::snprintf(buf, sizeof buf, "%8" PRId64, get_int(type, p)); return buf;
    case QVA_TYP_LONG: std::snprintf(buf, sizeof buf, "%12" PRId64, get_int(type, p)); return buf;
    case QVA_TYP_LONG64: std::snprintf(buf, sizeof buf, "%22" PRId64, get_int(type, p)); return buf;
    case QVA_TYP_FLOAT: return real_text(get_real(type, p), 13, 6);
    case QVA_TYP_DOUBLE: return real_text(get_real(type, p), 16, 8);
    case QVA_TYP_STRING: return str_of(p);
    case QVA_TYP_PTR: {
      QVA_HVID id;
      std::memcpy(&id, p, sizeof id);
      if (!id) return "<NullPointer>";
      std::snprintf(buf, sizeof buf, "<PtrHeapVar%u>", id);
      return buf;
    }
    case QVA_TYP_OBJREF: {
      QVA_HVID id;
      std::memcpy(&id, p, sizeof id);
      if (!id) return "<NullObject>";
      QVA_HVPTR hv = QVA_HeapVarHashFind(id);
      std::string cls = hv && (hv->var.flags & QVA_V_STRUCT)
                            ? qvahost::struct_name(hv->var.value.s.sdef) : std::string("?");
      std::snprintf(buf, sizeof buf, "<ObjHeapVar%u(", id);
      return buf + cls + ")>";
    }
    case QVA_TYP_STRUCT: {
      std::string out;
      append_struct(out, sdef, p);
      return out;
    }
    default:
      return "";
  }
}

namespace {

bool spaced_type(int type) {
  return type == QVA_TYP_STRING || type == QVA_TYP_STRUCT || type == QVA_TYP_PTR ||
         type == QVA_TYP_OBJREF;
}

// Walks the pieces PRINT shows for a value: each element's text (strings,
// structures and references after the first with a blank before them), and
// where a row ("\n") or a plane ("\n\n") of an array ends.
template <typename Piece, typename Break>
void walk_printed(QVA_VPTR v, Piece piece, Break row_end) {
  View w = view_of(v);
  // An array of two or more dimensions shows one row (the first
  // dimension) a line, with an empty line after each plane.
  Dims dims = dims_of(v);
  QVA_MEMINT row = dims.size() > 1 ? dims[0] : w.n;
  QVA_MEMINT plane = dims.size() > 2 ? dims[0] * dims[1] : w.n;
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    bool blank = false;
    if (i > 0 && i % row == 0) row_end(i % plane == 0);
    else blank = i > 0 && spaced_type(w.type);
    piece((blank ? " " : "") + element_text(w, i), spaced_type(w.type));
  }
}

}  // namespace

std::string format_value(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) return "!NULL";
  std::string out;
  walk_printed(
      v, [&](const std::string &text, bool) { out += text; },
      [&](bool plane) { out += plane ? "\n\n" : "\n"; });
  return out;
}

std::vector<std::string> printed_lines(const std::vector<QVA_VPTR> &values) {
  std::vector<std::string> lines;
  std::string line;
  for (QVA_VPTR v : values) {
    if (v->type == QVA_TYP_UNDEF) {
      line += "!NULL";
      continue;
    }
    walk_printed(
        v,
        [&](const std::string &text, bool spaced) {
          if (!spaced && !line.empty() && line.size() + text.size() > kPrintWidth) {
            lines.push_back(std::move(line));
            line.clear();
          }
          line += text;
        },
        [&](bool plane) {
          lines.push_back(std::move(line));
          line.clear();
          if (plane) lines.emplace_back();
        });
  }
  lines.push_back(std::move(line));
  return lines;
}

bool nonzero(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) return false;
  View w = view_of(v);
  if (w.array && w.n != 1)
    qvahost::raise_error("Expression must be a scalar in this context.");
  if (w.type == QVA_TYP_STRING) return !str_of(w.data).empty();
  if (is_real_type(w.type)) return get_real(w.type, w.data) != 0;
  if (w.type == QVA_TYP_PTR || w.type == QVA_TYP_OBJREF) {
    QVA_HVID id;
    std::memcpy(&id, w.data, sizeof id);
    return id != 0;
  }
  if (w.type == QVA_TYP_STRUCT) qvahost::raise_error("Structure expression not allowed in this context.");
  return get_int(w.type, w.data) != 0;
}

bool truth(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) view_of(v);  // raises: undefined
  View w = view_of(v);
  if (w.array && w.n != 1)
    qvahost::raise_error("Expression must be a scalar in this context.");
  if (is_integer_type(w.type)) return (get_int(w.type, w.data) & 1) != 0;
  return nonzero(v);
}

Val unary_op(const std::string &op, QVA_VPTR a) {
  if (op == "~") {
    Val r = Val::temp(QVA_Gettmp());
    r->type = QVA_TYP_BYTE;
    r->value.c = nonzero(a) ? 0 : 1;
    return r;
  }
  View w = view_of(a);
  if (!numeric_rank(w.type)) bad_operands(op, w.type, w.type);
  Result r = make_result(w.type, dims_of(a));
  for (QVA_MEMINT i = 0; i < w.n; ++i) {
    const char *p = w.data + i * w.size;
    char *q = r.data + i * w.size;
    if (is_real_type(w.type))  // NOT of a real: 1 where it is zero
      put_real(w.type, q, op == "-" ? -get_real(w.type, p) : get_real(w.type, p) == 0 ? 1.0 : 0.0);
    else if (op == "-") put_int(w.type, q, s(0 - u(get_int(w.type, p))));
    else put_int(w.type, q, ~get_int(w.type, p));
  }
  return std::move(r.val);
}

Val binary_op(const std::string &op, QVA_VPTR a, QVA_VPTR b) {
  View x = view_of(a), y = view_of(b);
  // Two arrays give the shape of the shorter, an array and a scalar the
  // array's.
  QVA_MEMINT n = x.array && y.array ? std::min(x.n, y.n) : x.array ? x.n : y.array ? y.n : 1;
  Dims dims = x.array && (!y.array || x.n <= y.n) ? dims_of(a) : y.array ? dims_of(b) : Dims{};
  auto xe = [&](QVA_MEMINT i) { return x.data + (x.array ? i : 0) * x.size; };
  auto ye = [&](QVA_MEMINT i) { return y.data + (y.array ? i : 0) * y.size; };
  bool cmp = is_compare(op);

  // A string meeting a number in anything but +: the string is read as a
  // number of the other's type ('5' * 2 is 10, 'x' EQ 1 a conversion error).
  if (op != "+" && (x.type == QVA_TYP_STRING) != (y.type == QVA_TYP_STRING)) {
    bool x_text = x.type == QVA_TYP_STRING;
    int to = x_text ? y.type : x.type;
    if (numeric_rank(to)) {
      Val number = Val::temp(qvahost::convert_value(x_text ? a : b, to));
      return x_text ? binary_op(op, number.get(), b) : binary_op(op, a, number.get());
    }
  }
  // Strings: concatenation (a number is shown as PRINT shows it) and comparison.
  if (x.type == QVA_TYP_STRING || y.type == QVA_TYP_STRING) {
    if (op != "+" && !cmp) bad_operands(op, x.type, y.type);
    if (x.type == QVA_TYP_STRUCT || y.type == QVA_TYP_STRUCT) bad_operands(op, x.type, y.type);
    Result r = make_result(cmp ? QVA_TYP_BYTE : QVA_TYP_STRING, dims);
    for (QVA_MEMINT i = 0; i < n; ++i) {
      std::string sa = format_element(x.type, x.sdef, xe(i));
      std::string sb = format_element(y.type, y.sdef, ye(i));
      if (cmp) {
        r.data[i] = compare(op, sa, sb) ? 1 : 0;
      } else {
        QVA_STRING str{};
        QVA_StrStore(&str, (sa + sb).c_str());
        std::memcpy(r.data + i * sizeof(QVA_STRING), &str, sizeof str);
      }
    }
    return std::move(r.val);
  }
  // References: equality only.
  if (x.type == QVA_TYP_PTR || x.type == QVA_TYP_OBJREF || y.type == QVA_TYP_PTR ||
      y.type == QVA_TYP_OBJREF) {
    if (x.type != y.type || (op != "EQ" && op != "NE")) bad_operands(op, x.type, y.type);
    Result r = make_result(QVA_TYP_BYTE, dims);
    for (QVA_MEMINT i = 0; i < n; ++i) {
      QVA_HVID p, q;
      std::memcpy(&p, xe(i), sizeof p);
      std::memcpy(&q, ye(i), sizeof q);
      r.data[i] = ((p == q) == (op == "EQ")) ? 1 : 0;
    }
    return std::move(r.val);
  }
  if (!numeric_rank(x.type) || !numeric_rank(y.type)) bad_operands(op, x.type, y.type);

  int rt = promote(x.type, y.type);
  bool real = is_real_type(rt);
  if (cmp) {
    Result r = make_result(QVA_TYP_BYTE, dims);
    for (QVA_MEMINT i = 0; i < n; ++i)
      r.data[i] = (real ? compare(op, get_real(x.type, xe(i)), get_real(y.type, ye(i)))
                        : compare(op, get_int(x.type, xe(i)), get_int(y.type, ye(i))))
                      ? 1 : 0;
    return std::move(r.val);
  }
  bool logic = op == "AND" || op == "OR" || op == "XOR";
  Result r = make_result(rt, dims);
  size_t rs = elt_size(rt);
  for (QVA_MEMINT i = 0; i < n; ++i) {
    char *out = r.data + i * rs;
    if (real) {
      double p = get_real(x.type, xe(i)), q = get_real(y.type, ye(i)), v = 0;
      if (rt == QVA_TYP_FLOAT) {  // FLOAT operands as the type holds them
        p = to_float(p);
        q = to_float(q);
      }
      if (op == "+") v = p + q;
      else if (op == "-") v = p - q;
      else if (op == "*") v = p * q;
      else if (op == "/") v = p / q;
      else if (op == "MOD") v = std::fmod(p, q);
      else if (op == "^") v = std::pow(p, q);
      else if (op == "AND") v = (p != 0 && q != 0) ? q : 0;
      else if (op == "OR") v = p != 0 ? p : q;
      else if (op == "<") v = std::isnan(p) ? q : (q < p ? q : p);
      else if (op == ">") v = std::isnan(p) ? q : (q > p ? q : p);
      else bad_operands(op, x.type, y.type);
      put_real(rt, out, v);
      continue;
    }
    int64_t p = get_int(x.type, xe(i)), q = get_int(y.type, ye(i)), v = 0;
    if (op == "+") v = s(u(p) + u(q));
    else if (op == "-") v = s(u(p) - u(q));
    else if (op == "*") v = s(u(p) * u(q));
    else if (op == "/" || op == "MOD") {
      if (q == 0) qvahost::raise_error("Program caused arithmetic error: Integer divide by 0.");
      if (q == -1) v = op == "/" ? s(0 - u(p)) : 0;
      else v = op == "/" ? p / q : p % q;
    } else if (op == "^") v = int_pow(p, q);
    else if (logic) v = op == "AND" ? (p & q) : op == "OR" ? (p | q) : (p ^ q);
    else if (op == "<") v = std::min(p, q);
    else if (op == ">") v = std::max(p, q);
    else bad_operands(op, x.type, y.type);
    put_int(rt, out, v);
  }
  return std::move(r.val);
}

}  // namespace qva
