// arrays.cpp - types, element access, shapes, subscripts and
// concatenation for the evaluator and the built-ins.
#include "arrays.h"

#include <cfloat>
#include <cmath>
#include <cstring>

#include "qva_host.h"

namespace qva {

// ------------------------------------------------------------- types

int numeric_rank(int type) {
  switch (type) {
    case QVA_TYP_BYTE: return 1;
    case QVA_TYP_INT: return 2;
    case QVA_TYP_LONG: return 3;
    case QVA_TYP_LONG64: return 4;
    case QVA_TYP_FLOAT: return 5;
    case QVA_TYP_DOUBLE: return 6;
    default: return 0;
  }
}

bool is_numeric_type(int t) { return numeric_rank(t) != 0; }
bool is_real_type(int t) { return t == QVA_TYP_FLOAT || t == QVA_TYP_DOUBLE; }
bool is_integer_type(int t) { return is_numeric_type(t) && !is_real_type(t); }

int promote(int a, int b) { return numeric_rank(a) >= numeric_rank(b) ? a : b; }

size_t elt_size(int type) {
  switch (type) {
    case QVA_TYP_BYTE: return 1;
    case QVA_TYP_INT: return 2;
    case QVA_TYP_LONG: return 4;
    case QVA_TYP_FLOAT: return 4;
    case QVA_TYP_DOUBLE: return 8;
    case QVA_TYP_STRING: return sizeof(QVA_STRING);
    case QVA_TYP_PTR:
    case QVA_TYP_OBJREF: return sizeof(QVA_HVID);
    case QVA_TYP_LONG64: return 8;
    default: return 0;
  }
}

namespace {

// A real as an integer the way the language converts: toward zero, and 0
// for what no 64-bit integer holds (NaN, infinities, huge values).
int64_t real_to_int(double d) {
  if (!(d > -9.2e18 && d < 9.2e18)) return 0;
  return static_cast<int64_t>(d);
}

}  // namespace

float to_float(double d) {
  if (d > FLT_MAX) return HUGE_VALF;  // beyond FLOAT: infinite, as the hardware rounds
  if (d < -FLT_MAX) return -HUGE_VALF;
  return static_cast<float>(d);
}

int64_t get_int(int type, const char *p) {
  switch (type) {
    case QVA_TYP_BYTE: return static_cast<unsigned char>(*p);
    case QVA_TYP_INT: { int16_t v; std::memcpy(&v, p, 2); return v; }
    case QVA_TYP_LONG: { int32_t v; std::memcpy(&v, p, 4); return v; }
    case QVA_TYP_LONG64: { int64_t v; std::memcpy(&v, p, 8); return v; }
    case QVA_TYP_FLOAT:
    case QVA_TYP_DOUBLE: return real_to_int(get_real(type, p));
    default: return 0;
  }
}

double get_real(int type, const char *p) {
  if (type == QVA_TYP_DOUBLE) {
    double d;
    std::memcpy(&d, p, 8);
    return d;
  }
  if (type == QVA_TYP_FLOAT) {
    float f;
    std::memcpy(&f, p, 4);
    return f;
  }
  return static_cast<double>(get_int(type, p));
}

void put_int(int type, char *p, int64_t v) {
  switch (type) {
    case QVA_TYP_BYTE: *p = static_cast<char>(static_cast<uint8_t>(v)); break;
    case QVA_TYP_INT: { int16_t x = static_cast<int16_t>(v); std::memcpy(p, &x, 2); break; }
    case QVA_TYP_LONG: { int32_t x = static_cast<int32_t>(v); std::memcpy(p, &x, 4); break; }
    case QVA_TYP_LONG64: std::memcpy(p, &v, 8); break;
    case QVA_TYP_FLOAT:
    case QVA_TYP_DOUBLE: put_real(type, p, static_cast<double>(v)); break;
    default: break;
  }
}

void put_real(int type, char *p, double v) {
  if (type == QVA_TYP_DOUBLE) {
    std::memcpy(p, &v, 8);
  } else if (type == QVA_TYP_FLOAT) {
    float f = to_float(v);
    std::memcpy(p, &f, 4);
  } else {
    put_int(type, p, real_to_int(v));
  }
}

// ------------------------------------------------------------ shapes

namespace {

QVA_ARRAY *array_of(QVA_VPTR v) {
  if (v->flags & QVA_V_STRUCT) return qvahost::struct_array(v);
  if (v->flags & QVA_V_ARR) return v->value.arr;
  return nullptr;
}

}  // namespace

Dims dims_of(QVA_VPTR v) {
  const QVA_ARRAY *a = v->type == QVA_TYP_UNDEF ? nullptr : array_of(v);
  if (!a) return {};
  return Dims(a->dim, a->dim + a->n_dim);
}

QVA_MEMINT count_of(const Dims &dims) {
  QVA_MEMINT n = 1;
  for (QVA_MEMINT d : dims) n *= d;
  return n;
}

std::string dims_text(const Dims &dims) {
  std::string s = "[";
  for (size_t i = 0; i < dims.size(); ++i) s += (i ? ", " : "") + std::to_string(dims[i]);
  return s + "]";
}

View view_of(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF)
    qvahost::raise_error("Variable is undefined: " +
                         std::string(v->name ? QVA_IdentName(v->name) : "<Expression>") + ".");
  View w;
  w.type = v->type;
  char *data = nullptr;
  QVA_VarGetData(v, &w.n, &data, 0);
  w.data = data;
  w.array = !is_scalar(v);
  if (v->flags & QVA_V_STRUCT) {
    w.sdef = v->value.s.sdef;
    w.size = static_cast<size_t>(qvahost::struct_length(w.sdef));
  } else {
    w.size = elt_size(v->type);
  }
  return w;
}

Val make_array(int type, const Dims &dims, QVA_SDEF sdef) {
  if (dims.size() > QVA_MAX_ARRAY_DIM)
    qvahost::raise_error("Arrays have at most " + std::to_string(QVA_MAX_ARRAY_DIM) + " dimensions.");
  for (QVA_MEMINT d : dims)
    if (d <= 0) qvahost::raise_error("Array dimensions must be greater than 0.");
  if (dims.empty() && type != QVA_TYP_STRUCT) {
    Val v = Val::temp(QVA_Gettmp());
    v->type = static_cast<QVA_UCHAR>(type);
    std::memset(&v->value, 0, sizeof v->value);
    return v;
  }
  Dims shape = dims.empty() ? Dims{1} : dims;
  QVA_MEMINT n = 1;
  for (QVA_MEMINT d : shape)
    if (__builtin_mul_overflow(n, d, &n)) qvahost::raise_error("Array is too large.");
  QVA_VPTR out = nullptr;
  if (type == QVA_TYP_STRUCT) QVA_MakeTempStructVector(sdef, n, &out, 1);
  else QVA_MakeTempVector(type, n, 1, &out);
  Val v = Val::temp(out);
  reshape(out, shape);
  return v;
}

char *data_of(QVA_VPTR v) {
  if (QVA_ARRAY *a = array_of(v)) return reinterpret_cast<char *>(a->data);
  return reinterpret_cast<char *>(&v->value);
}

void reshape(QVA_VPTR v, const Dims &dims) {
  QVA_ARRAY *a = array_of(v);
  if (!a) qvahost::raise_error("Expression must be an array in this context.");
  if (dims.empty() || dims.size() > QVA_MAX_ARRAY_DIM || count_of(dims) != a->n_elts)
    qvahost::raise_error("New subscripts must not change the number elements in " +
                         qvahost::argument_label(v) + ".");
  a->n_dim = static_cast<QVA_LONG>(dims.size());
  std::copy(dims.begin(), dims.end(), a->dim);
}

Dims trim_dims(Dims dims) {
  while (dims.size() > 1 && dims.back() == 1) dims.pop_back();
  return dims;
}

// -------------------------------------------------------- subscripts

namespace {

[[noreturn]] void out_of_range(const std::string &name, QVA_MEMINT k, QVA_MEMINT n) {
  qvahost::raise_error("Subscript " + std::to_string(k) + " is out of range for " + name + " (" +
                       std::to_string(n) + " elements).");
}

// The positions one subscript names in a dimension of size n.
std::vector<QVA_MEMINT> positions(const Subscript &s, QVA_MEMINT n, const std::string &name) {
  std::vector<QVA_MEMINT> out;
  switch (s.kind) {
    case Subscript::All:
      out.reserve(static_cast<size_t>(n));
      for (QVA_MEMINT i = 0; i < n; ++i) out.push_back(i);
      break;
    case Subscript::Range: {
      QVA_MEMINT lo = s.lo < 0 ? s.lo + n : s.lo;
      QVA_MEMINT hi = s.open_hi ? n - 1 : s.hi < 0 ? s.hi + n : s.hi;
      if (s.stride <= 0) qvahost::raise_error("Range subscript stride must be >= 1.");
      if (lo > hi || lo < 0 || hi >= n)
        qvahost::raise_error(
            "Subscript range values of the form low:high must be >= 0, < size, with low <= high.");
      for (QVA_MEMINT i = lo; i <= hi; i += s.stride) out.push_back(i);
      break;
    }
    case Subscript::Values:
      out.reserve(s.values.size());
      for (QVA_MEMINT k : s.values) {
        QVA_MEMINT at = s.scalar && k < 0 ? k + n : k;  // a scalar may count from the end
        if (at < 0 || at >= n) out_of_range(name, k, n);
        out.push_back(at);
      }
      break;
  }
  return out;
}

}  // namespace

Selection select(const Dims &array_dims, const std::vector<Subscript> &subs, const std::string &name) {
  Selection sel;
  Dims dims = array_dims.empty() ? Dims{1} : array_dims;
  if (subs.size() == 1) {
    // One subscript indexes the elements in storage order.
    QVA_MEMINT n = count_of(dims);
    const Subscript &s = subs[0];
    sel.flat = positions(s, n, name);
    if (s.kind == Subscript::Values && s.scalar) sel.scalar = true;
    else if (s.kind == Subscript::Values) sel.dims = s.value_dims;
    else sel.dims = {static_cast<QVA_MEMINT>(sel.flat.size())};
    return sel;
  }
  if (subs.size() > QVA_MAX_ARRAY_DIM) qvahost::raise_error("Too many subscripts.");
  // Fewer subscripts than dimensions: the last one spans the rest.
  Dims eff(subs.size(), 1);
  for (size_t d = 0; d < dims.size(); ++d) {
    size_t k = std::min(d, subs.size() - 1);
    eff[k] *= dims[d];
  }
  std::vector<std::vector<QVA_MEMINT>> pos;
  bool all_scalar = true, all_arrays = true;
  for (size_t d = 0; d < subs.size(); ++d) {
    pos.push_back(positions(subs[d], eff[d], name));
    bool scalar = subs[d].kind == Subscript::Values && subs[d].scalar;
    all_scalar = all_scalar && scalar;
    all_arrays = all_arrays && subs[d].kind == Subscript::Values && !scalar;
  }
  std::vector<QVA_MEMINT> stride(subs.size(), 1);
  for (size_t d = 1; d < subs.size(); ++d) stride[d] = stride[d - 1] * eff[d - 1];
  if (all_arrays) {
    // Arrays in every dimension pick elements pairwise.
    size_t m = pos[0].size();
    for (auto &p : pos)
      if (p.size() != m) qvahost::raise_error("Array subscripts of " + name + " must have the same size.");
    for (size_t i = 0; i < m; ++i) {
      QVA_MEMINT at = 0;
      for (size_t d = 0; d < pos.size(); ++d) at += pos[d][i] * stride[d];
      sel.flat.push_back(at);
    }
    sel.dims = {static_cast<QVA_MEMINT>(m)};
    return sel;
  }
  Dims out;
  QVA_MEMINT total = 1;
  for (auto &p : pos) {
    out.push_back(static_cast<QVA_MEMINT>(p.size()));
    total *= static_cast<QVA_MEMINT>(p.size());
  }
  sel.flat.reserve(static_cast<size_t>(total));
  std::vector<size_t> at(pos.size(), 0);
  for (QVA_MEMINT i = 0; i < total; ++i) {
    QVA_MEMINT flat = 0;
    for (size_t d = 0; d < pos.size(); ++d) flat += pos[d][at[d]] * stride[d];
    sel.flat.push_back(flat);
    for (size_t d = 0; d < at.size() && ++at[d] == pos[d].size(); ++d) at[d] = 0;
  }
  sel.scalar = all_scalar;
  if (!all_scalar) sel.dims = trim_dims(out);
  return sel;
}

// ------------------------------------------------------ concatenation

Val concatenate(const std::vector<QVA_VPTR> &parts, int dim) {
  int type = QVA_TYP_UNDEF;
  QVA_SDEF sdef = nullptr;
  std::vector<Dims> shapes;
  size_t rank = static_cast<size_t>(dim) + 1;
  for (QVA_VPTR v : parts) {
    int t = v->type;
    if (type == QVA_TYP_UNDEF) {
      type = t;
      if (t == QVA_TYP_STRUCT) sdef = v->value.s.sdef;
    } else if (numeric_rank(type) && numeric_rank(t)) {
      type = promote(type, t);
    } else if (type != t || (t == QVA_TYP_STRUCT && v->value.s.sdef != sdef)) {
      qvahost::raise_error(std::string("Unable to concatenate variables of type ") +
                           qvahost::type_name(type) + " and " + qvahost::type_name(t) + ".");
    }
    Dims d = dims_of(v);
    if (d.empty()) d = {1};
    rank = std::max(rank, d.size());
    shapes.push_back(std::move(d));
  }
  if (type == QVA_TYP_UNDEF) return undefined_value();
  if (rank > QVA_MAX_ARRAY_DIM) qvahost::raise_error("Arrays have at most 8 dimensions.");
  for (Dims &d : shapes) d.resize(rank, 1);
  Dims out = shapes[0];
  out[static_cast<size_t>(dim)] = 0;
  for (const Dims &d : shapes) {
    for (size_t k = 0; k < rank; ++k)
      if (k != static_cast<size_t>(dim) && d[k] != out[k])
        qvahost::raise_error("Unable to concatenate variables because the dimensions do not agree.");
    out[static_cast<size_t>(dim)] += d[static_cast<size_t>(dim)];
  }
  Val result = make_array(type, trim_dims(out), sdef);
  QVA_MEMINT inner = 1, outer = 1;
  for (int k = 0; k < dim; ++k) inner *= out[static_cast<size_t>(k)];
  for (size_t k = static_cast<size_t>(dim) + 1; k < rank; ++k) outer *= out[k];
  QVA_MEMINT total_d = out[static_cast<size_t>(dim)], offset = 0;
  for (size_t p = 0; p < parts.size(); ++p) {
    QVA_MEMINT m = shapes[p][static_cast<size_t>(dim)];
    std::vector<QVA_MEMINT> idx;
    idx.reserve(static_cast<size_t>(inner * m * outer));
    for (QVA_MEMINT k = 0; k < outer; ++k)
      for (QVA_MEMINT j = 0; j < m; ++j)
        for (QVA_MEMINT i = 0; i < inner; ++i) idx.push_back(i + inner * (offset + j + total_d * k));
    qvahost::store_elements(result.get(), idx, parts[p]);
    offset += m;
  }
  return result;
}

}  // namespace qva
