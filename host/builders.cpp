// Temporaries built and read by callers outside the runtime (the front end
// and tests), and the caller-owned Variable.
#include <cstring>

#include "internal.h"

namespace qvahost {
namespace {

QVA_VPTR scalar_tmp(int type, const QVA_ALLTYPES &value) {
  QVA_VPTR v = tmp_new();
  v->type = static_cast<QVA_UCHAR>(type);
  v->value = value;
  return v;
}

void require_scalar(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", var_label(v).c_str());
  if (v->flags & QVA_V_NOT_SCALAR)
    raise_fmt(M_NOTSCALAR, "Expression must be a scalar in this context: %s.",
              var_label(v).c_str());
}

}  // namespace

QVA_VPTR make_long(QVA_LONG v) { return QVA_GettmpLong(v); }

QVA_VPTR make_long64(QVA_LONG64 v) {
  QVA_ALLTYPES value{};
  value.l64 = v;
  return scalar_tmp(QVA_TYP_LONG64, value);
}

QVA_VPTR make_double(double v) {
  QVA_ALLTYPES value{};
  value.d = v;
  return scalar_tmp(QVA_TYP_DOUBLE, value);
}

QVA_VPTR make_byte(QVA_UCHAR v) {
  QVA_ALLTYPES value{};
  value.c = v;
  return scalar_tmp(QVA_TYP_BYTE, value);
}

QVA_VPTR make_string(const std::string &s) {
  QVA_ALLTYPES value{};
  string_set(&value.str, s.data(), s.size());
  try {
    return scalar_tmp(QVA_TYP_STRING, value);
  } catch (...) {
    text_release(value.str.s);
    throw;
  }
}

QVA_VPTR make_objref(QVA_HVID h) {
  QVA_ALLTYPES value{};
  value.hvid = h;
  return scalar_tmp(QVA_TYP_OBJREF, value);
}

QVA_VPTR make_ptr(QVA_HVID h) {
  QVA_ALLTYPES value{};
  value.hvid = h;
  return scalar_tmp(QVA_TYP_PTR, value);
}

QVA_VPTR make_long_array(const std::vector<QVA_LONG> &v) {
  QVA_VPTR out = nullptr;
  char *data = QVA_MakeTempVector(QVA_TYP_LONG, static_cast<QVA_MEMINT>(v.size()), 0, &out);
  if (!v.empty()) std::memcpy(data, v.data(), v.size() * sizeof(QVA_LONG));
  return out;
}

QVA_VPTR make_string_array(const std::vector<std::string> &v) {
  QVA_VPTR out = nullptr;
  auto *s = reinterpret_cast<QVA_STRING *>(
      QVA_MakeTempVector(QVA_TYP_STRING, static_cast<QVA_MEMINT>(v.size()), 1, &out));
  try {
    for (size_t i = 0; i < v.size(); ++i) string_set(&s[i], v[i].data(), v[i].size());
  } catch (...) {
    QVA_Deltmp(out);  // releases the texts stored so far
    throw;
  }
  return out;
}

std::string string_value(QVA_VPTR v) {
  if (v->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(v, QVA_MSG_LONGJMP);
  require_scalar(v);
  return std::string(QVA_STRING_STR(&v->value.str), static_cast<size_t>(v->value.str.slen));
}

QVA_LONG64 integer_value(QVA_VPTR v) {
  switch (v->type) {
    case QVA_TYP_BYTE:
    case QVA_TYP_INT:
    case QVA_TYP_LONG:
    case QVA_TYP_LONG64:
      require_scalar(v);
      return scalar_as(v, QVA_TYP_LONG64).l64;
    default:
      raise_fmt(M_BAD_ARG, "Integer expression required in this context: %s.",
                var_label(v).c_str());
  }
}

double double_value(QVA_VPTR v) {
  switch (v->type) {
    case QVA_TYP_BYTE:
    case QVA_TYP_INT:
    case QVA_TYP_LONG:
    case QVA_TYP_LONG64:
    case QVA_TYP_FLOAT:
    case QVA_TYP_DOUBLE:
      require_scalar(v);
      return scalar_as(v, QVA_TYP_DOUBLE).d;
    default:
      raise_fmt(M_BAD_ARG, "Numeric expression required in this context: %s.",
                var_label(v).c_str());
  }
}

Variable::Variable(const char *name) {
  if (name) var_.name = ident_of(name);
}

Variable::~Variable() { var_free_value(&var_); }

void Variable::take(QVA_VPTR tmp) {
  var_move_value(tmp, &var_);
  QVA_Deltmp(tmp);
}

}  // namespace qvahost
