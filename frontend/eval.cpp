// eval.cpp - expressions, calls and assignment.
#include <algorithm>
#include <cstring>
#include <limits>

#include "interp.h"

namespace qva {

namespace {

[[noreturn]] void undefined_var(const std::string &name) {
  qvahost::raise_error("Variable is undefined: " + name + ".");
}

QVA_HVPTR heap_of_ptr(QVA_VPTR p, bool object) {
  if (p->type != (object ? QVA_TYP_OBJREF : QVA_TYP_PTR) || !is_scalar(p))
    qvahost::raise_error(object ? "Object reference type required in this context."
                                : "Pointer type required in this context.");
  QVA_HVID id = p->value.hvid;
  if (!id)
    qvahost::raise_error(object ? "Unable to use a null object reference."
                                : "Unable to dereference NULL pointer.");
  QVA_HVPTR hv = QVA_HeapVarHashFind(id);
  if (!hv || ((hv->flags & QVA_HV_OBJECT) != 0) != object)
    qvahost::raise_error((object ? "Invalid object reference: <ObjHeapVar" : "Invalid pointer: <PtrHeapVar") +
                         std::to_string(id) + ">.");
  return hv;
}

// A pointer whose target the statement would change: a module's own
// record (a node of its heap trees) is refused, since a changed link makes
// the module's walks go wrong.
QVA_HVPTR changeable_heap_of_ptr(QVA_VPTR p) {
  QVA_HVPTR hv = heap_of_ptr(p, false);
  if (qvahost::is_module_record(hv))
    qvahost::raise_error("<PtrHeapVar" + std::to_string(hv->hash_id) +
                         "> holds a module's own record, which QVA code may read but not change.");
  return hv;
}

// The field description of a value stored in a new structure.
qvahost::FieldSpec spec_of(const std::string &name, QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Structure tag " + name + " has no value.");
  qvahost::FieldSpec s{name, v->type, nullptr, {}};
  if (v->flags & QVA_V_STRUCT) {
    s.sdef = v->value.s.sdef;
    QVA_MEMINT n = qvahost::element_count(v);
    if (n > 1) s.dims = {n};
  } else if (!is_scalar(v)) {
    s.dims = {qvahost::element_count(v)};
  }
  return s;
}

bool same_fields(QVA_SDEF sd, const std::vector<qvahost::FieldSpec> &specs) {
  auto info = qvahost::struct_field_info(sd);
  if (info.size() != specs.size()) return false;
  for (size_t i = 0; i < specs.size(); ++i)
    if (info[i].name != specs[i].name || info[i].type != specs[i].type ||
        info[i].sdef != specs[i].sdef || info[i].dims != specs[i].dims)
      return false;
  return true;
}

// A subscript given by a value: its elements as positions (a scalar
// subscript, or an array whose shape a lone subscript gives the result).
Subscript value_subscript(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Variable is undefined: subscript.");
  Val l = Val::temp(qvahost::convert_value(v, QVA_TYP_LONG64));
  QVA_MEMINT count = qvahost::element_count(l.get());
  char *data = nullptr;
  QVA_VarGetData(l.get(), nullptr, &data, 1);
  Subscript s;
  s.kind = Subscript::Values;
  s.values.resize(static_cast<size_t>(count));
  if (count) std::memcpy(s.values.data(), data, static_cast<size_t>(count) * 8);
  s.scalar = is_scalar(v);
  s.value_dims = dims_of(v);
  return s;
}

// How deeply array literals nest in a literal: 1 for [1, 2], 2 for
// [[1, 2], [3, 4]].  Bounded by the parser's nesting limit.
int bracket_depth(const Expr &e) {
  int inner = 0;
  for (const ExprPtr &k : e.kids)
    if (k->kind == Expr::Array) inner = std::max(inner, bracket_depth(*k));
  return inner + 1;
}

// The name of what is subscripted, for error messages.
std::string subject_name(const Expr &e) {
  return e.kind == Expr::Var || e.kind == Expr::Call ? e.name : "<Expression>";
}

// The elements of `base` a selection names: a scalar, or an array of the
// selection's shape.
Val selected(QVA_VPTR base, const Selection &sel) {
  Val out = Val::temp(qvahost::element_values(base, sel.flat, sel.scalar));
  if (!sel.scalar && sel.dims.size() > 1) reshape(out.get(), sel.dims);
  return out;
}

// Nodes whose first kid is their left operand.
bool is_chain_link(const Expr &e) {
  return e.kind == Expr::Binary || e.kind == Expr::Field || e.kind == Expr::Subscript ||
         e.kind == Expr::Method;
}

// s.tag = value for every element of a structure array: one value for
// all, one field's worth for each, or the elements of the value shared out
// in order.
void store_field_of_each(QVA_VPTR dst, const std::string &tag, QVA_VPTR value) {
  QVA_MEMINT n = qvahost::element_count(dst);
  if (n == 1) return qvahost::store_field(dst, 0, tag, value);
  QVA_MEMINT per = qvahost::element_count(Val::temp(qvahost::field_value(dst, 0, tag)).get());
  QVA_MEMINT m = qvahost::element_count(value);
  if (m == 1 || m == per) {
    for (QVA_MEMINT i = 0; i < n; ++i) qvahost::store_field(dst, i, tag, value);
    return;
  }
  if (m != n * per) qvahost::raise_error("Conflicting data structures: " + qvahost::argument_label(dst) + "." + tag + ".");
  std::vector<QVA_MEMINT> picks(static_cast<size_t>(per));
  for (QVA_MEMINT i = 0; i < n; ++i) {
    for (QVA_MEMINT k = 0; k < per; ++k) picks[static_cast<size_t>(k)] = i * per + k;
    qvahost::store_field(dst, i, tag, Val::temp(qvahost::element_values(value, picks, true)).get());
  }
}

}  // namespace

// A left chain (a+b+c..., s.a.b..., a[i].b->m()) is evaluated from its
// innermost operand outwards in a loop, so the C stack does not grow with
// the chain's length; every other nesting is bounded by the parser.
Val Interp::eval(Frame &f, const Expr &e) {
  if (!is_chain_link(e)) return eval_node(f, e);
  const Expr *inner = e.kids[0].get();
  if (!is_chain_link(*inner)) return apply_link(f, e, eval_node(f, *inner));
  std::vector<const Expr *> links{&e};
  for (; is_chain_link(*inner); inner = inner->kids[0].get()) links.push_back(inner);
  Val v = eval_node(f, *inner);
  for (size_t i = links.size(); i-- > 0;) v = apply_link(f, *links[i], std::move(v));
  return v;
}

// One link of a left chain, given the value of its left operand.
Val Interp::apply_link(Frame &f, const Expr &e, Val left) {
  switch (e.kind) {
    case Expr::Binary: {
      if (e.op == "&&" || e.op == "||") {
        bool x = nonzero(left.get());
        bool r = e.op == "&&" ? (x && nonzero(eval(f, *e.kids[1]).get()))
                              : (x || nonzero(eval(f, *e.kids[1]).get()));
        return Val::temp(qvahost::make_byte(r ? 1 : 0));
      }
      Val b = eval(f, *e.kids[1]);
      return binary_op(e.op, left.get(), b.get());
    }
    case Expr::Subscript: {
      Selection sel = select(dims_of(left.get()), subscripts(f, e.indices), subject_name(*e.kids[0]));
      return selected(left.get(), sel);
    }
    case Expr::Field:
      return eval_field(f, e, std::move(left));
    case Expr::Method: {
      CallArgs a;
      build_args(f, e.args, a);
      try {
        return Val::temp(qvahost::call_method_function(left.get(), e.name, a.positional, a.keywords));
      } catch (const qvahost::HostError &) {
        check_method_kind(left.get(), e.name, true, *e.kids[0], e.text);
        throw;
      }
    }
    default:  // not a link
      return eval_node(f, e);
  }
}

Val Interp::eval_node(Frame &f, const Expr &e) {
  switch (e.kind) {
    case Expr::Int: {
      Val v = Val::temp(QVA_Gettmp());
      v->type = static_cast<QVA_UCHAR>(e.itype);
      switch (e.itype) {
        case QVA_TYP_BYTE: v->value.c = static_cast<QVA_UCHAR>(e.ival); break;
        case QVA_TYP_INT: v->value.i = static_cast<QVA_INT>(e.ival); break;
        case QVA_TYP_LONG: v->value.l = static_cast<QVA_LONG>(e.ival); break;
        default: v->value.l64 = e.ival; break;
      }
      return v;
    }
    case Expr::Real: {
      Val v = make_array(e.itype, {});
      put_real(e.itype, data_of(v.get()), e.dval);
      return v;
    }
    case Expr::Str:
      return Val::temp(qvahost::make_string(e.text));
    case Expr::Var: {
      QVA_VPTR v = lookup(f, e.name);
      if (!v || v->type == QVA_TYP_UNDEF) undefined_var(e.name);
      return Val::ref(v);
    }
    case Expr::SysVar:
      return eval_sysvar(e);
    case Expr::Unary: {
      Val a = eval(f, *e.kids[0]);
      return unary_op(e.op, a.get());
    }
    case Expr::Array:
      return eval_array(f, e);
    case Expr::Struct:
      return eval_struct(f, e);
    case Expr::Call:
      return eval_call(f, e);
    case Expr::MethodRef:
      qvahost::raise_error("Syntax error: a function method call needs parentheses: ->" + e.name +
                           "().");
    case Expr::Deref:
      return eval_deref(f, e);
    case Expr::Binary:  // chain links: eval takes them
    case Expr::Subscript:
    case Expr::Field:
    case Expr::Method:
      return eval(f, e);
    case Expr::Cond: {
      bool yes;
      {
        Val c = eval(f, *e.kids[0]);
        yes = truth(c.get());
      }
      return eval(f, *e.kids[yes ? 1 : 2]);
    }
  }
  return undefined_value();
}

Val Interp::eval_sysvar(const Expr &e) {
  if (e.name == "NULL") return undefined_value();
  if (e.name == "PI" || e.name == "DPI") {
    int type = e.name == "PI" ? QVA_TYP_FLOAT : QVA_TYP_DOUBLE;
    Val v = make_array(type, {});
    put_real(type, data_of(v.get()), 3.14159265358979323846);
    return v;
  }
  if (e.name == "ERROR_STATE") {
    if (!error_state_sdef_)
      error_state_sdef_ = qvahost::define_struct(
          "", "", {{"NAME", QVA_TYP_STRING, nullptr, {}}, {"CODE", QVA_TYP_LONG, nullptr, {}}, {"MSG", QVA_TYP_STRING, nullptr, {}}});
    QVA_VPTR t = nullptr;
    QVA_MakeTempStructVector(error_state_sdef_, 1, &t, 1);
    Val v = Val::temp(t);
    Val name = Val::temp(qvahost::make_string(last_error_.routine));
    Val code = Val::temp(qvahost::make_long(last_error_.code));
    Val msg = Val::temp(qvahost::make_string(last_error_.text));
    qvahost::store_field(t, 0, "NAME", name.get());
    qvahost::store_field(t, 0, "CODE", code.get());
    qvahost::store_field(t, 0, "MSG", msg.get());
    return v;
  }
  if (e.name == "VALUES") {
    // Infinity and NaN in FLOAT and DOUBLE.
    static const char *const names[] = {"F_INFINITY", "F_NAN", "D_INFINITY", "D_NAN"};
    if (!values_sdef_) {
      std::vector<qvahost::FieldSpec> fields;
      for (int i = 0; i < 4; ++i) fields.push_back({names[i], i < 2 ? QVA_TYP_FLOAT : QVA_TYP_DOUBLE, nullptr, {}});
      values_sdef_ = qvahost::define_struct("", "", fields);
    }
    QVA_VPTR t = nullptr;
    QVA_MakeTempStructVector(values_sdef_, 1, &t, 1);
    Val v = Val::temp(t);
    for (int i = 0; i < 4; ++i) {
      int type = i < 2 ? QVA_TYP_FLOAT : QVA_TYP_DOUBLE;
      Val x = make_array(type, {});
      put_real(type, data_of(x.get()), i % 2 ? std::numeric_limits<double>::quiet_NaN()
                                             : std::numeric_limits<double>::infinity());
      qvahost::store_field(t, 0, names[i], x.get());
    }
    return v;
  }
  qvahost::raise_error("Not a legal system variable: !" + e.name + ".");
}

// [a, b] joins along the first dimension, [[a], [b]] along the second:
// a literal joins along the dimension of its bracket depth.
Val Interp::eval_array(Frame &f, const Expr &e) {
  int depth = 0;
  for (const ExprPtr &k : e.kids)
    if (k->kind == Expr::Array) depth = std::max(depth, bracket_depth(*k));
  std::vector<Val> parts;
  std::vector<QVA_VPTR> defined;
  for (const ExprPtr &k : e.kids) {
    // !NULL, and a variable holding it (b = [] & b = [b, 1]), add nothing.
    parts.push_back(k->kind == Expr::Var ? pass(f, *k) : eval(f, *k));
    if (parts.back()->type != QVA_TYP_UNDEF) defined.push_back(parts.back().get());
  }
  return concatenate(defined, depth);
}

Val Interp::eval_struct(Frame &f, const Expr &e) {
  std::vector<Val> values;
  std::vector<qvahost::FieldSpec> specs;
  for (const auto &[tag, x] : e.fields) {
    values.push_back(eval(f, *x));
    specs.push_back(spec_of(tag, values.back().get()));
  }
  QVA_SDEF sd = nullptr;
  if (!e.name.empty()) {
    sd = qvahost::find_struct(e.name);
    if (!sd && specs.empty() && e.base.empty())
      sd = QVA_ObjRuntimeDefine(QVA_IdentHash(e.name.c_str(), 0, 0, QVA_MSG_LONGJMP, 0));
    if (!sd || !specs.empty() || !e.base.empty()) {
      if (!e.base.empty() && !qvahost::find_struct(e.base))
        QVA_ObjRuntimeDefine(QVA_IdentHash(e.base.c_str(), 0, 0, QVA_MSG_LONGJMP, 0));
      sd = qvahost::define_struct(e.name, e.base, specs);
    }
  } else {
    if (specs.empty()) qvahost::raise_error("A structure needs at least one tag.");
    if (!e.base.empty()) qvahost::raise_error("An anonymous structure cannot inherit.");
    if (!e.anon_sdef || !same_fields(e.anon_sdef, specs))
      e.anon_sdef = qvahost::define_struct("", "", specs);
    sd = e.anon_sdef;
  }
  QVA_VPTR t = nullptr;
  QVA_MakeTempStructVector(sd, 1, &t, 1);
  Val inst = Val::temp(t);
  for (size_t i = 0; i < specs.size(); ++i)
    qvahost::store_field(t, 0, specs[i].name, values[i].get());
  return inst;
}

Val Interp::eval_call(Frame &f, const Expr &e) {
  // name(i): a subscript when `name` is a variable of this frame.
  bool has_kw = false;
  for (const Arg &a : e.args) has_kw |= !a.keyword.empty();
  QVA_VPTR v = has_kw ? nullptr : lookup(f, e.name);
  if (v && v->type != QVA_TYP_UNDEF && !e.args.empty()) {
    Selection sel = select(dims_of(v), call_subscripts(f, e.args), e.name);
    return selected(v, sel);
  }
  CallArgs a;
  build_args(f, e.args, a);
  return Val::temp(qvahost::call_function(e.name, a.positional, a.keywords));
}

Val Interp::eval_field(Frame &f, const Expr &e, Val base) {
  if (base->type == QVA_TYP_OBJREF) {
    QVA_HVPTR hv = instance_data(f, base.get(), *e.kids[0], e.name);
    return Val::temp(qvahost::field_value(&hv->var, 0, e.name));
  }
  if (!(base->flags & QVA_V_STRUCT))
    qvahost::raise_error("Expression must be a structure in this context: ." + e.name + ".");
  QVA_MEMINT n = qvahost::element_count(base.get());
  if (n == 1) return Val::temp(qvahost::field_value(base.get(), 0, e.name));
  // The field of every element, as one array: the field's dimensions, then
  // one more for the elements.
  std::vector<Val> parts;
  for (QVA_MEMINT i = 0; i < n; ++i) parts.push_back(Val::temp(qvahost::field_value(base.get(), i, e.name)));
  QVA_VPTR first = parts[0].get();
  Dims dims = is_scalar(first) ? Dims{} : dims_of(first);
  QVA_MEMINT per = count_of(dims);
  dims.push_back(n);
  Val result = make_array(first->type, dims, (first->flags & QVA_V_STRUCT) ? first->value.s.sdef : nullptr);
  std::vector<QVA_MEMINT> picks(static_cast<size_t>(per));
  for (QVA_MEMINT i = 0; i < n; ++i) {
    for (QVA_MEMINT k = 0; k < per; ++k) picks[static_cast<size_t>(k)] = i * per + k;
    qvahost::store_elements(result.get(), picks, parts[static_cast<size_t>(i)].get());
  }
  return result;
}

void Interp::check_method_kind(QVA_VPTR obj, const std::string &method, bool as_function,
                               const Expr &object, const std::string &spelling) {
  if (method.find("::") != std::string::npos || obj->type != QVA_TYP_OBJREF || !is_scalar(obj))
    return;
  QVA_HVPTR hv = QVA_HeapVarHashFind(obj->value.hvid);
  if (!hv || !(hv->flags & QVA_HV_OBJECT) || !(hv->var.flags & QVA_V_STRUCT)) return;
  bool called = false, other = false;
  for (const qvahost::MethodInfo &m : qvahost::class_methods(hv->var.value.s.sdef)) {
    if (m.name != method) continue;
    (m.is_function == as_function ? called : other) = true;
  }
  // Only when the method itself is missing: an error raised inside it
  // stays as it was.
  if (called || !other) return;
  std::string target = object.kind == Expr::Var && !object.text.empty() ? object.text : "obj";
  std::string name = spelling.empty() ? method : spelling;
  if (as_function)
    qvahost::raise_error(method + " is a procedure method: call it as " + target + "->" + name +
                         ", ...");
  qvahost::raise_error(method + " is a function method: call it as " + target + "->" + name + "()");
}

QVA_HVPTR Interp::instance_data(Frame &f, QVA_VPTR obj, const Expr &base,
                                const std::string &field) {
  QVA_HVPTR hv = heap_of_ptr(obj, true);
  // Only a method of the object's class, or of a class it inherits, sees
  // the object's fields.
  size_t sep = f.routine.find("::");
  if (sep != std::string::npos && (hv->var.flags & QVA_V_STRUCT)) {
    std::string method_class = f.routine.substr(0, sep);
    for (QVA_SDEF c = hv->var.value.s.sdef; c; c = qvahost::struct_super(c))
      if (qvahost::struct_name(c) == method_class) return hv;
  }
  std::string label = base.kind == Expr::Var ? base.name : "<Expression>";
  qvahost::raise_error("Object instance data is not visible outside class methods: " + label +
                       "." + field + ".");
}

Val Interp::eval_deref(Frame &f, const Expr &e) {
  Val p = eval(f, *e.kids[0]);
  QVA_HVPTR hv = heap_of_ptr(p.get(), false);
  if (hv->var.type == QVA_TYP_UNDEF)
    qvahost::raise_error("Variable is undefined: <PtrHeapVar" + std::to_string(hv->hash_id) + ">.");
  return Val::ref(&hv->var);
}

std::vector<Subscript> Interp::subscripts(Frame &f, const std::vector<Index> &ix) {
  auto scalar_index = [&](const Expr &ex) {
    Val v = eval(f, ex);
    if (!is_scalar(v.get())) qvahost::raise_error("Range subscripts must be scalars.");
    return static_cast<QVA_MEMINT>(
        qvahost::integer_value(Val::temp(qvahost::convert_value(v.get(), QVA_TYP_LONG64)).get()));
  };
  std::vector<Subscript> out;
  for (const Index &x : ix) {
    Subscript s;
    if (x.kind == Index::Range) {
      s.kind = Subscript::Range;
      s.lo = scalar_index(*x.lo);
      s.open_hi = !x.hi;
      if (x.hi) s.hi = scalar_index(*x.hi);
      if (x.stride) s.stride = scalar_index(*x.stride);
    } else if (x.kind == Index::Single) {
      Val v = eval(f, *x.lo);
      s = value_subscript(v.get());
    }
    out.push_back(std::move(s));
  }
  return out;
}

std::vector<Subscript> Interp::call_subscripts(Frame &f, const std::vector<Arg> &args) {
  if (args.size() > QVA_MAX_ARRAY_DIM) qvahost::raise_error("Too many subscripts.");
  std::vector<Subscript> out;
  for (const Arg &a : args) {
    Val v = eval(f, *a.value);
    out.push_back(value_subscript(v.get()));
  }
  return out;
}

// ------------------------------------------------------------ assignment

QVA_VPTR Interp::addressable(Frame &f, const Expr &e) {
  if (e.kind == Expr::Var) return lookup_or_create(f, e.name);
  if (e.kind == Expr::Deref) {
    Val p = eval(f, *e.kids[0]);
    return &changeable_heap_of_ptr(p.get())->var;
  }
  return nullptr;
}

// Storing into a field or element of a value that is not a variable
// changes a copy of that value and stores the copy back, one nested call
// per link of the target; that nesting is bounded here.
constexpr size_t kMaxStoreBackLinks = 1000;

void Interp::store_back(Frame &f, const Expr &base, Val copy) {
  size_t links = 0;
  for (const Expr *x = &base; is_chain_link(*x) && links <= kMaxStoreBackLinks; x = x->kids[0].get())
    ++links;
  if (links > kMaxStoreBackLinks)
    qvahost::raise_error("Expression too deep: an assignment through more than " +
                         std::to_string(kMaxStoreBackLinks) + " fields and subscripts.");
  assign(f, base, std::move(copy));
}

void Interp::assign(Frame &f, const Expr &target, Val value) {
  switch (target.kind) {
    case Expr::Var:
    case Expr::Deref: {
      QVA_VPTR dst = addressable(f, target);
      if (dst != value.get()) QVA_VarCopy(value.get(), dst);
      return;
    }
    case Expr::Subscript:
    case Expr::Call: {
      const Expr &base = target.kind == Expr::Subscript ? *target.kids[0] : target;
      QVA_VPTR dst = nullptr;
      if (target.kind == Expr::Call) {
        dst = lookup(f, target.name);
        if (!dst) undefined_var(target.name);
      } else {
        dst = addressable(f, base);
      }
      Val copy;
      if (!dst) {
        copy = eval(f, base);
        if (!copy.owned()) copy = copy_of(copy.get());
        dst = copy.get();
      }
      if (dst->type == QVA_TYP_UNDEF)
        undefined_var(base.kind == Expr::Var || base.kind == Expr::Call ? base.name : "<Expression>");
      Selection sel = select(dims_of(dst),
                             target.kind == Expr::Subscript ? subscripts(f, target.indices)
                                                            : call_subscripts(f, target.args),
                             subject_name(base));
      QVA_MEMINT m = qvahost::element_count(value.get());
      if (sel.scalar && m > 1) {
        // a[i] = array: the array goes in from position i on.
        QVA_MEMINT at = sel.flat[0];
        if (at + m > qvahost::element_count(dst))
          qvahost::raise_error("Out of range subscript encountered: " + subject_name(base) + ".");
        sel.flat.clear();
        for (QVA_MEMINT i = 0; i < m; ++i) sel.flat.push_back(at + i);
      } else if (m != 1 && m != static_cast<QVA_MEMINT>(sel.flat.size())) {
        qvahost::raise_error("Array subscript for " + subject_name(base) +
                             " must have same size as source expression.");
      }
      qvahost::store_elements(dst, sel.flat, value.get());
      if (copy) store_back(f, base, std::move(copy));
      return;
    }
    case Expr::Field: {
      const Expr &base = *target.kids[0];
      QVA_VPTR dst = base.kind == Expr::Var ? lookup(f, base.name) : addressable(f, base);
      Val held;
      if (!dst) {
        held = eval(f, base);
        dst = held.get();
      }
      if (dst->type == QVA_TYP_UNDEF)
        undefined_var(base.kind == Expr::Var ? base.name : "<Expression>");
      if (dst->type == QVA_TYP_OBJREF) {
        QVA_HVPTR hv = instance_data(f, dst, base, target.name);
        qvahost::store_field(&hv->var, 0, target.name, value.get());
        return;
      }
      if (!(dst->flags & QVA_V_STRUCT))
        qvahost::raise_error("Expression must be a structure in this context: ." + target.name + ".");
      if (held) {
        // A field of a value that is not a variable: change a copy and
        // store the copy back where the value came from.
        if (!held.owned()) held = copy_of(held.get());
        store_field_of_each(held.get(), target.name, value.get());
        store_back(f, base, std::move(held));
        return;
      }
      store_field_of_each(dst, target.name, value.get());
      return;
    }
    default:
      qvahost::raise_error("Expression cannot be assigned to.");
  }
}

// --------------------------------------------------------------- calls

Val Interp::pass(Frame &f, const Expr &e) {
  if (e.kind == Expr::Var) return Val::ref(lookup_or_create(f, e.name));
  // *p goes by reference even while its heap variable is undefined
  // (N_ELEMENTS(*p) is 0; a routine may set it).
  if (e.kind == Expr::Deref) {
    Val p = eval(f, *e.kids[0]);
    QVA_HVPTR hv = heap_of_ptr(p.get(), false);
    // A module's record goes as a copy: the routine may not change it.
    if (qvahost::is_module_record(hv)) return eval(f, e);
    return Val::ref(&hv->var);
  }
  return eval(f, e);
}

void Interp::build_args(Frame &f, const std::vector<Arg> &args, CallArgs &out) {
  out.hold.reserve(args.size() + 4);
  for (const Arg &a : args) {
    if (a.keyword.empty()) {
      out.hold.push_back(pass(f, *a.value));
      out.positional.push_back(out.hold.back().get());
      continue;
    }
    if (a.flag) {
      out.hold.push_back(Val::temp(qvahost::make_long(1)));
      out.keywords.push_back({a.keyword, out.hold.back().get()});
      continue;
    }
    if (a.keyword == "_EXTRA" || a.keyword == "_REF_EXTRA") {
      if (a.value->kind == Expr::Var && a.value->name == f.extra_name && !f.extra_name.empty()) {
        for (const qvahost::Keyword &k : f.extra) out.keywords.push_back(k);
        continue;
      }
      Val v = pass(f, *a.value);
      if (v->type == QVA_TYP_UNDEF) continue;
      if (!(v->flags & QVA_V_STRUCT))
        qvahost::raise_error("_EXTRA must be a structure.");
      for (const qvahost::FieldInfo &fi : qvahost::struct_field_info(v->value.s.sdef)) {
        out.hold.push_back(Val::temp(qvahost::field_value(v.get(), 0, fi.name)));
        out.keywords.push_back({fi.name, out.hold.back().get()});
      }
      out.hold.push_back(std::move(v));
      continue;
    }
    out.hold.push_back(pass(f, *a.value));
    out.keywords.push_back({a.keyword, out.hold.back().get()});
  }
}

}  // namespace qva
