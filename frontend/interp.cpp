// interp.cpp - running statements and routines.
#include "interp.h"

#include <cctype>
#include <iostream>

#include "interrupt.h"
#include "parser.h"

namespace qva {

namespace {

std::string base_name(const std::string &path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool starts_with(const std::string &s, const std::string &prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

Interp *g_current = nullptr;

}  // namespace

Interp &current_interp() {
  if (!g_current) qvahost::raise_error("No interpreter is running.");
  return *g_current;
}

Frame::~Frame() {
  for (auto &v : owned) QVA_Delvar(v.get());
}

int match_keyword(const std::string &given, const std::vector<std::string> &allowed) {
  std::string g = given;
  for (char &c : g) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  int found = -1;
  for (size_t i = 0; i < allowed.size(); ++i) {
    if (allowed[i] == g) return static_cast<int>(i);
    if (starts_with(allowed[i], g)) {
      if (found >= 0) qvahost::raise_error("Ambiguous keyword abbreviation: " + g + ".");
      found = static_cast<int>(i);
    }
  }
  return found;
}

Interp::Interp() {
  main_.main = true;
  frames_.push_back(&main_);
  print_ = [](const std::string &line) { std::cout << line << std::endl; };
  previous_ = g_current;
  g_current = this;
  register_builtins();
  qvahost::set_gc_root_hook([this](const qvahost::RootVisitor &visit) { visit_roots(visit); });
  qvahost::set_routine_loader([](const std::string &name, bool) {
    return current_interp().load_routine(name);
  });
}

Interp::~Interp() {
  g_current = previous_;
  if (g_current) {
    Interp *back = g_current;
    qvahost::set_gc_root_hook([back](const qvahost::RootVisitor &visit) { back->visit_roots(visit); });
  } else {
    qvahost::set_gc_root_hook(nullptr);
    qvahost::set_routine_loader(nullptr);
  }
}

void Interp::print(const std::string &line) const { print_(line); }

void Interp::visit_roots(const qvahost::RootVisitor &visit) {
  for (Frame *f : frames_) {
    if (f->main) continue;
    for (auto &[name, v] : f->vars) visit(v);
    for (auto &k : f->extra) visit(k.value);
    if (f->result) visit(f->result.get());
  }
}

QVA_VPTR Interp::lookup(Frame &f, const std::string &name) {
  if (f.main) return qvahost::find_main_variable(name);
  auto it = f.vars.find(name);
  return it == f.vars.end() ? nullptr : it->second;
}

QVA_VPTR Interp::lookup_or_create(Frame &f, const std::string &name) {
  if (f.main) return qvahost::main_variable(name);
  auto it = f.vars.find(name);
  if (it != f.vars.end()) return it->second;
  auto v = std::make_unique<QVA_VARIABLE>();
  v->name = QVA_IdentHash(name.c_str(), 0, 0, QVA_MSG_LONGJMP, 0);
  QVA_VPTR p = v.get();
  f.owned.push_back(std::move(v));
  f.vars[name] = p;
  return p;
}

// ------------------------------------------------------------- routines

void Interp::define_routine(std::shared_ptr<RoutineDef> def) {
  int max = static_cast<int>(def->params.size()) + (def->is_method ? 1 : 0);
  std::shared_ptr<const RoutineDef> d = def;
  qvahost::define_routine(def->name, def->is_function, 0, max, true,
                          [d](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                            return current_interp().invoke(*d, argc, argv, argk);
                          });
  routines_.push_back(std::move(def));
}

QVA_VPTR Interp::invoke(const RoutineDef &def, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  // Runaway recursion ends in the host's nesting error, raised as the host
  // enters this routine.
  Frame f;
  f.routine = def.name;
  f.is_function = def.is_function;
  f.file = def.file;
  f.line = def.line;
  int first = 0;
  if (def.is_method) {
    f.vars["SELF"] = argv[0];
    first = 1;
  }
  f.n_params = argc - first;
  for (size_t i = 0; i < def.params.size(); ++i) {
    int k = first + static_cast<int>(i);
    if (k < argc) f.vars[def.params[i]] = argv[k];
  }
  std::vector<std::string> names;
  for (const KeywordParam &k : def.keywords) names.push_back(k.keyword);
  for (const qvahost::Keyword &k : qvahost::keywords_of(argk)) {
    int i = match_keyword(k.name, names);
    if (i >= 0) {
      f.vars[def.keywords[static_cast<size_t>(i)].variable] = k.value;
    } else if (!def.extra.empty()) {
      f.extra.push_back(k);
    } else {
      qvahost::raise_error("Keyword " + k.name + " not allowed in call to: " + def.name);
    }
  }
  for (const std::string &p : def.params) lookup_or_create(f, p);
  for (const KeywordParam &k : def.keywords) lookup_or_create(f, k.variable);
  if (!def.extra.empty()) {
    f.extra_name = def.extra;
    QVA_VPTR ev = lookup_or_create(f, def.extra);
    if (!f.extra.empty()) {
      if (def.ref_extra) {
        std::vector<std::string> kwnames;
        for (auto &k : f.extra) kwnames.push_back(k.name);
        Val names_val = Val::temp(qvahost::make_string_array(kwnames));
        QVA_VarCopy(names_val.get(), ev);
      } else {
        // _EXTRA: a structure of the keywords' values.
        std::vector<qvahost::FieldSpec> specs;
        for (auto &k : f.extra) {
          if (k.value->type == QVA_TYP_UNDEF) continue;
          qvahost::FieldSpec s{k.name, k.value->type, nullptr, {}};
          if (k.value->flags & QVA_V_STRUCT) s.sdef = k.value->value.s.sdef;
          if (!is_scalar(k.value) || (k.value->flags & QVA_V_STRUCT)) {
            QVA_MEMINT n = qvahost::element_count(k.value);
            if (n > 1 || !(k.value->flags & QVA_V_STRUCT)) s.dims = {n};
          }
          specs.push_back(s);
        }
        if (!specs.empty()) {
          QVA_SDEF sd = qvahost::define_struct("", "", specs);
          QVA_VPTR t = nullptr;
          QVA_MakeTempStructVector(sd, 1, &t, 1);
          Val inst = Val::temp(t);
          for (auto &k : f.extra)
            if (k.value->type != QVA_TYP_UNDEF) qvahost::store_field(t, 0, k.name, k.value);
          QVA_VarCopy(t, ev);
        }
      }
    }
  }

  frames_.push_back(&f);
  struct Pop {
    std::vector<Frame *> &v;
    ~Pop() { v.pop_back(); }
  } pop{frames_};
  run_body(f, def.body);
  if (!def.is_function) return nullptr;
  if (!f.result) return qvahost::make_long(0);
  return f.result.give_temp();
}

// ----------------------------------------------------------- statements

bool Interp::handle_catch(Frame &f, const qvahost::HostError &e) {
  if (!f.catch_armed || out_of_steps() || interrupting_) return false;
  f.catch_armed = false;
  last_error_ = e;
  site_ = {};
  Val code = Val::temp(qvahost::make_long(e.code != 0 ? e.code : -1));
  QVA_VarCopy(code.get(), lookup_or_create(f, f.catch_var));
  return true;
}

Interp::Flow Interp::run_body(Frame &f, const std::vector<StmtPtr> &body) {
  const std::vector<StmtPtr> *list = &body;
  size_t from = 0;
  for (;;) {
    Flow flow = Flow::Next;
    try {
      qvahost::guarded([&] { flow = exec_list(f, *list, from); });
      return flow;
    } catch (const qvahost::HostError &e) {
      if (!handle_catch(f, e)) throw;
      list = f.catch_list;
      from = f.catch_next;
    }
  }
}

Interp::Flow Interp::exec_list(Frame &f, const std::vector<StmtPtr> &list, size_t from) {
  for (size_t i = from; i < list.size(); ++i) {
    Flow flow = exec(f, *list[i], list, i);
    if (flow != Flow::Next) return flow;
  }
  return Flow::Next;
}

void Interp::run_program(Program &program, const std::string &file) {
  auto keep = std::make_shared<Program>(std::move(program));
  programs_.push_back(keep);
  for (auto &r : keep->routines) {
    r->file = file;
    define_routine(r);
  }
  main_.file = file;
  Flow flow = run_body(main_, keep->main);
  (void)flow;  // RETURN at main level ends the run
  main_.catch_armed = false;
}

bool Interp::run_source(const std::string &source, const std::string &file, int first_line) {
  Program program;
  try {
    program = parse_program(source, file, first_line);
  } catch (const SyntaxError &e) {
    qvahost::emit(std::string("% ") + e.what());
    qvahost::emit("  At: " + base_name(file) + ", line " + std::to_string(e.line));
    return false;
  }
  site_ = {};
  interrupting_ = false;
  try {
    run_program(program, file);
    return true;
  } catch (const qvahost::HostError &e) {
    main_.catch_armed = false;
    report(e, file);
    return false;
  }
}

void Interp::report(const qvahost::HostError &e, const std::string &file) {
  std::string where = site_.set ? base_name(site_.file) : base_name(file);
  std::string routine = site_.set && !site_.routine.empty() ? site_.routine : "$MAIN$";
  if (interrupting_) {
    interrupting_ = false;
    qvahost::emit("% Interrupted at: " + routine + ", " + where + " line " +
                  std::to_string(site_.line));
    site_ = {};
    return;
  }
  qvahost::emit(e.report());
  if (site_.set)
    qvahost::emit("% Execution halted at: " + routine + ", " + where + " line " +
                  std::to_string(site_.line));
  site_ = {};
}

void Interp::exec_catch(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list, size_t index) {
  bool cancel = false;
  const Expr *var = nullptr;
  for (const Arg &a : s.args) {
    if (a.keyword.empty()) var = a.value.get();
    else if (match_keyword(a.keyword, {"CANCEL"}) == 0) cancel = true;
    else qvahost::raise_error("Keyword " + a.keyword + " not allowed in call to: CATCH");
  }
  if (cancel) {
    f.catch_armed = false;
    return;
  }
  if (!var || var->kind != Expr::Var) qvahost::raise_error("CATCH needs a named variable.");
  f.catch_armed = true;
  f.catch_var = var->name;
  f.catch_list = &list;
  f.catch_next = index + 1;
  Val zero = Val::temp(qvahost::make_long(0));
  QVA_VarCopy(zero.get(), lookup_or_create(f, var->name));
}

Interp::Flow Interp::exec(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list,
                          size_t index) {
  f.line = s.line;
  try {
    if (step_limit_ != 0 && ++steps_ > step_limit_)
      qvahost::raise_error("Statement budget of " + std::to_string(step_limit_) + " exhausted.");
    // Ctrl-C at the prompt: the running statement ends as an error that no
    // CATCH takes, back to the prompt.
    if (interrupt_pending()) {
      take_interrupt();
      interrupting_ = true;
      qvahost::raise_error("Interrupted.");
    }
    switch (s.kind) {
      case Stmt::Eval:
        eval(f, *s.value);
        return Flow::Next;
      case Stmt::Assign: {
        Val v = eval(f, *s.value);
        if (s.op != "=") {
          Val cur = eval(f, *s.target);
          v = binary_op(s.op.substr(0, 1), cur.get(), v.get());
        }
        assign(f, *s.target, std::move(v));
        return Flow::Next;
      }
      case Stmt::Call: {
        if (s.name == "CATCH") {
          exec_catch(f, s, list, index);
          return Flow::Next;
        }
        CallArgs a;
        build_args(f, s.args, a);
        qvahost::call_procedure(s.name, a.positional, a.keywords);
        return Flow::Next;
      }
      case Stmt::MethodCall: {
        Val obj = eval(f, *s.object);
        CallArgs a;
        build_args(f, s.args, a);
        try {
          qvahost::call_method_procedure(obj.get(), s.name, a.positional, a.keywords);
        } catch (const qvahost::HostError &) {
          check_method_kind(obj.get(), s.name, false, *s.object, s.text);
          throw;
        }
        return Flow::Next;
      }
      case Stmt::If: {
        bool yes;
        {
          Val c = eval(f, *s.cond);
          yes = truth(c.get());
        }
        if (yes) return exec(f, *s.body[0], list, index);
        if (s.body.size() > 1) return exec(f, *s.body[1], list, index);
        return Flow::Next;
      }
      case Stmt::Block:
        return exec_list(f, s.body, 0);
      case Stmt::For:
        return exec_for(f, s);
      case Stmt::Foreach:
        return exec_foreach(f, s);
      case Stmt::While:
        for (;;) {
          {
            Val c = eval(f, *s.cond);
            if (!truth(c.get())) break;
          }
          Flow flow = exec(f, *s.body[0], list, index);
          if (flow == Flow::Break) break;
          if (flow == Flow::Return) return flow;
        }
        return Flow::Next;
      case Stmt::Repeat:
        for (;;) {
          Flow flow = exec(f, *s.body[0], list, index);
          if (flow == Flow::Break) break;
          if (flow == Flow::Return) return flow;
          Val c = eval(f, *s.cond);
          if (truth(c.get())) break;
        }
        return Flow::Next;
      case Stmt::Break:
        return Flow::Break;
      case Stmt::Continue:
        return Flow::Continue;
      case Stmt::Return:
        if (s.value) {
          if (!f.is_function)
            qvahost::raise_error("Procedures cannot return a value.");
          f.result = eval(f, *s.value);
          if (!f.result.owned()) f.result = copy_of(f.result.get());
        }
        return Flow::Return;
      case Stmt::Exec:
        exec_command(s.text);
        return Flow::Next;
      case Stmt::Case:
        return exec_case(f, s, list, index);
    }
  } catch (const qvahost::HostError &) {
    if (!site_.set) {
      // An uncaught error halts in this routine unless its ON_ERROR sends
      // it up.
      if (f.on_error == 1) site_.to_main = true;
      if (f.main || (!site_.to_main && f.on_error < 2)) site_ = {true, f.routine, f.file, s.line};
    }
    throw;
  }
  return Flow::Next;
}

Interp::Flow Interp::exec_for(Frame &f, const Stmt &s) {
  Val lo = eval(f, *s.lo);
  Val hi = eval(f, *s.hi);
  Val step = s.step ? eval(f, *s.step) : Val::temp(qvahost::make_long(1));
  if (!is_scalar(lo.get()) || !is_numeric_type(lo->type) || !is_scalar(hi.get()) ||
      !is_numeric_type(hi->type) || !is_scalar(step.get()) || !is_numeric_type(step->type))
    qvahost::raise_error("FOR loop limits must be numeric scalars.");
  bool real = is_real_type(lo->type) || is_real_type(step->type);
  int type = is_real_type(lo->type) || !real ? lo->type : step->type;
  double dlo = qvahost::double_value(lo.get()), dhi = qvahost::double_value(hi.get());
  double dstep = qvahost::double_value(step.get());
  if (dstep == 0) qvahost::raise_error("FOR loop increment is zero.");
  int64_t ilo = real ? 0 : qvahost::integer_value(lo.get());
  int64_t istep = real ? 0 : qvahost::integer_value(step.get());
  for (int64_t k = 0;; ++k) {
    double dv = dlo + static_cast<double>(k) * dstep;
    int64_t iv = real ? 0 : ilo + k * istep;
    double cur = real ? dv : static_cast<double>(iv);
    if (dstep > 0 ? cur > dhi : cur < dhi) {
      break;
    }
    Val v = real ? Val::temp(qvahost::make_double(dv)) : Val::temp(qvahost::make_long64(iv));
    if (type != (real ? QVA_TYP_DOUBLE : QVA_TYP_LONG64)) v = Val::temp(qvahost::convert_value(v.get(), type));
    QVA_VarCopy(v.get(), lookup_or_create(f, s.name));
    static const std::vector<StmtPtr> none;
    Flow flow = exec(f, *s.body[0], none, 0);
    if (flow == Flow::Break) break;
    if (flow == Flow::Return) return flow;
  }
  return Flow::Next;
}

// CASE runs the first branch whose label equals the value (none at all
// is an error); SWITCH runs from the first match on until a BREAK.  BREAK
// ends either; CONTINUE and RETURN go on to the enclosing loop or routine.
Interp::Flow Interp::exec_case(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list,
                               size_t index) {
  bool is_switch = s.name == "SWITCH";
  Val value = eval(f, *s.cond);
  if (!is_scalar(value.get()) && qvahost::element_count(value.get()) != 1)
    qvahost::raise_error("Expression must be a scalar in this context.");
  size_t first = s.labels.size();
  for (size_t i = 0; i < s.labels.size() && first == s.labels.size(); ++i) {
    if (!s.labels[i]) {
      first = i;
      break;
    }
    Val label = eval(f, *s.labels[i]);
    Val same = binary_op("EQ", value.get(), label.get());
    if (qvahost::element_count(same.get()) == 1 && nonzero(same.get())) first = i;
  }
  if (first == s.labels.size()) {
    if (!is_switch) qvahost::raise_error("CASE statement found no matches.");
    return Flow::Next;
  }
  size_t last = is_switch ? s.body.size() : first + 1;
  for (size_t i = first; i < last; ++i) {
    Flow flow = exec(f, *s.body[i], list, index);
    if (flow == Flow::Break) return Flow::Next;
    if (flow != Flow::Next) return flow;
  }
  return Flow::Next;
}

Interp::Flow Interp::exec_foreach(Frame &f, const Stmt &s) {
  Val arr = eval(f, *s.value);
  if (!arr.owned()) arr = copy_of(arr.get());  // the loop may change the variable
  QVA_MEMINT n = qvahost::element_count(arr.get());
  for (QVA_MEMINT i = 0; i < n; ++i) {
    Val e = Val::temp(qvahost::element_values(arr.get(), {i}, true));
    QVA_VarCopy(e.get(), lookup_or_create(f, s.name));
    if (!s.name2.empty()) {
      Val idx = Val::temp(qvahost::make_long(static_cast<QVA_LONG>(i)));
      QVA_VarCopy(idx.get(), lookup_or_create(f, s.name2));
    }
    static const std::vector<StmtPtr> none;
    Flow flow = exec(f, *s.body[0], none, 0);
    if (flow == Flow::Break) break;
    if (flow == Flow::Return) return flow;
  }
  return Flow::Next;
}

}  // namespace qva
