// parser.cpp - a recursive-descent parser for QVA statements and
// expressions.
//
// Operator precedence, lowest first:
//   ? :              (conditional, right-associative)
//   && ||            (short-circuit, logical)
//   ~                (logical not, prefix)
//   AND OR XOR
//   EQ NE LT LE GT GE
//   + - < >          (< and > give the lesser and the greater)
//   * / MOD
//   - + NOT          (prefix)
//   ^                (right-associative)
//   *                (pointer dereference, prefix)
//   () [] . ->       (calls, subscripts, fields, methods)
#include "parser.h"

#include <set>

namespace qva {
namespace {

const std::set<std::string> kEnds = {"END",      "ENDIF",    "ENDELSE", "ENDFOR", "ENDFOREACH",
                                     "ENDWHILE", "ENDREP",   "ENDCASE", "ENDSWITCH"};

class Parser {
 public:
  Parser(std::vector<Token> toks, std::string file) : t_(std::move(toks)), file_(std::move(file)) {}

  Program program() {
    Program p;
    for (;;) {
      skip_separators();
      if (at(Tok::End)) break;
      if (is_word("PRO") || is_word("FUNCTION")) {
        p.routines.push_back(routine());
      } else {
        p.main.push_back(statement());
        end_of_statement();
      }
    }
    return p;
  }

 private:
  // ------------------------------------------------------------ tokens
  const Token &cur() const { return t_[pos_]; }
  const Token &peek(size_t n = 1) const {
    return t_[pos_ + n < t_.size() ? pos_ + n : t_.size() - 1];
  }
  bool at(Tok k) const { return cur().kind == k; }
  bool is_op(const char *op) const { return cur().kind == Tok::Op && cur().text == op; }
  bool is_word(const char *w) const { return cur().kind == Tok::Ident && cur().text == w; }
  bool is_end_word() const { return cur().kind == Tok::Ident && kEnds.count(cur().text); }
  const Token &advance() { return t_[pos_ < t_.size() - 1 ? pos_++ : pos_]; }

  [[noreturn]] void fail(const std::string &what) const {
    bool incomplete = at(Tok::End);
    std::string near = at(Tok::Newline) || at(Tok::End) ? "end of line" : "'" + cur().text + "'";
    throw SyntaxError("Syntax error: " + what + " (near " + near + ").", cur().line, incomplete);
  }
  void expect_op(const char *op) {
    if (!is_op(op)) fail(std::string("expected '") + op + "'");
    advance();
  }
  void expect_word(const char *w) {
    if (!is_word(w)) fail(std::string("expected ") + w);
    advance();
  }
  std::string ident(const char *what) {
    if (!at(Tok::Ident)) fail(std::string("expected ") + what);
    return advance().text;
  }
  bool at_terminator() const {
    return at(Tok::Newline) || at(Tok::Amp) || at(Tok::End) || is_word("ELSE") || is_end_word() ||
           is_word("UNTIL");
  }
  void skip_separators() {
    while (at(Tok::Newline) || at(Tok::Amp)) advance();
  }
  void end_of_statement() {
    if (at(Tok::Newline) || at(Tok::Amp)) {
      advance();
      return;
    }
    if (at(Tok::End)) return;
    fail("unexpected text after the statement");
  }

  // ------------------------------------------------------- definitions
  std::shared_ptr<RoutineDef> routine() {
    auto r = std::make_shared<RoutineDef>();
    r->is_function = advance().text == "FUNCTION";
    r->line = cur().line;
    r->file = file_;
    r->name = ident("a routine name");
    if (is_op("::")) {
      advance();
      r->name += "::" + ident("a method name");
      r->is_method = true;
    }
    while (is_op(",")) {
      advance();
      std::string p = ident("a parameter name");
      if (is_op("=")) {
        advance();
        std::string var = ident("a keyword variable name");
        if (p == "_EXTRA" || p == "_REF_EXTRA") {
          r->extra = var;
          r->ref_extra = p == "_REF_EXTRA";
        } else {
          r->keywords.push_back({p, var});
        }
      } else {
        r->params.push_back(p);
      }
    }
    end_of_statement();
    for (;;) {
      skip_separators();
      if (at(Tok::End)) fail("the definition of " + r->name + " has no END");
      if (is_end_word()) {
        advance();
        end_of_statement();
        break;
      }
      if (is_word("PRO") || is_word("FUNCTION")) fail("a definition inside a definition");
      r->body.push_back(statement());
      if (!is_end_word()) end_of_statement();
    }
    return r;
  }

  // -------------------------------------------------------- statements
  StmtPtr make(Stmt::Kind k) { return std::make_unique<Stmt>(k, cur().line); }

  // Limits the nesting of statements and expressions (deep input must
  // give a syntax error, not exhaust the stack).
  struct Depth {
    explicit Depth(Parser *p) : p_(p) {
      if (++p_->depth_ > 200) p_->fail("nested too deeply");
    }
    ~Depth() { --p_->depth_; }
    Parser *p_;
  };

  // COMPILE_OPT names and FORWARD_FUNCTION names: nothing to run.  Integers
  // are LONG and calls are told from subscripts without them.
  StmtPtr declaration() {
    auto s = make(Stmt::Block);
    advance();
    do {
      ident("a name");
    } while (is_op(",") && advance().kind == Tok::Op);
    return s;
  }

  StmtPtr statement() {
    Depth depth(this);
    if (at(Tok::Exec)) {
      auto s = make(Stmt::Exec);
      s->text = advance().text;
      return s;
    }
    if (at(Tok::Ident)) {
      const std::string &w = cur().text;
      if (w == "IF") return if_statement();
      if (w == "BEGIN") return block();
      if (w == "FOR") return for_statement();
      if (w == "FOREACH") return foreach_statement();
      if (w == "WHILE") return while_statement();
      if (w == "REPEAT") return repeat_statement();
      if (w == "BREAK" || w == "CONTINUE") {
        auto s = make(w == "BREAK" ? Stmt::Break : Stmt::Continue);
        advance();
        return s;
      }
      if (w == "RETURN") {
        auto s = make(Stmt::Return);
        advance();
        if (is_op(",")) {
          advance();
          s->value = expression();
        }
        return s;
      }
      if (w == "COMPILE_OPT" || w == "FORWARD_FUNCTION") return declaration();
      if (w == "PRO" || w == "FUNCTION") fail("a definition inside a statement");
      if (w == "CASE" || w == "SWITCH") return case_statement();
      // name, args   or   name alone: a procedure call
      if (peek().kind != Tok::Op || peek().text == ",") {
        if (peek().kind == Tok::Op || peek().kind == Tok::Newline || peek().kind == Tok::Amp ||
            peek().kind == Tok::End ||
            (peek().kind == Tok::Ident && (peek().text == "ELSE" || kEnds.count(peek().text)))) {
          auto s = make(Stmt::Call);
          s->name = advance().text;
          if (is_op(",")) {
            advance();
            s->args = arguments(nullptr);
          }
          return s;
        }
      }
    }
    int line = cur().line;
    // x++, x--, ++x, --x: statements that add or take one.
    if (is_op("++") || is_op("--")) {
      std::string op = advance().text;
      return step_statement(expression(), op, line);
    }
    ExprPtr e = expression();
    if (is_op("++") || is_op("--")) return step_statement(std::move(e), advance().text, line);
    if (is_op("=") || is_op("+=") || is_op("-=") || is_op("*=") || is_op("/=")) {
      auto s = std::make_unique<Stmt>(Stmt::Assign, line);
      s->op = advance().text;
      check_target(*e);
      s->target = std::move(e);
      s->value = expression();
      return s;
    }
    if (e->kind == Expr::MethodRef) {
      auto s = std::make_unique<Stmt>(Stmt::MethodCall, line);
      s->name = e->name;
      s->text = e->text;
      s->object = std::move(e->kids[0]);
      if (is_op(",")) {
        advance();
        s->args = arguments(nullptr);
      }
      return s;
    }
    if (e->kind == Expr::Call || e->kind == Expr::Method) {
      auto s = std::make_unique<Stmt>(Stmt::Eval, line);
      s->value = std::move(e);
      return s;
    }
    fail("not a statement");
  }

  StmtPtr step_statement(ExprPtr target, const std::string &op, int line) {
    check_target(*target);
    auto s = std::make_unique<Stmt>(Stmt::Assign, line);
    s->op = op == "++" ? "+=" : "-=";
    s->target = std::move(target);
    s->value = std::make_unique<Expr>(Expr::Int, line);
    s->value->ival = 1;
    s->value->itype = QVA_TYP_LONG;
    return s;
  }

  void check_target(const Expr &e) {
    switch (e.kind) {
      case Expr::Var:
      case Expr::Deref:
      case Expr::Field:
      case Expr::Subscript:
      case Expr::Call:  // a(i) = v: a subscript in parentheses
        return;
      default:
        fail("expression cannot be assigned to");
    }
  }

  StmtPtr body_statement() {
    if (at(Tok::Newline) || at(Tok::End)) fail("a statement is missing");
    return statement();
  }

  StmtPtr if_statement() {
    auto s = make(Stmt::If);
    advance();
    s->cond = expression();
    expect_word("THEN");
    s->body.push_back(body_statement());
    if (is_word("ELSE")) {
      advance();
      s->body.push_back(body_statement());
    }
    return s;
  }

  StmtPtr block() {
    auto s = make(Stmt::Block);
    expect_word("BEGIN");
    for (;;) {
      skip_separators();
      if (at(Tok::End)) fail("BEGIN without END");
      if (is_end_word()) {
        advance();
        return s;
      }
      s->body.push_back(statement());
      if (!is_end_word()) end_of_statement();
    }
  }

  // CASE x OF  label: statement  ...  ELSE: statement  ENDCASE (SWITCH
  // alike, ending in ENDSWITCH).
  StmtPtr case_statement() {
    auto s = make(Stmt::Case);
    s->name = advance().text;
    s->cond = expression();
    expect_word("OF");
    for (;;) {
      skip_separators();
      if (at(Tok::End)) fail(s->name + " without END" + s->name);
      if (is_end_word()) {
        advance();
        return s;
      }
      if (is_word("ELSE") && peek().kind == Tok::Op && peek().text == ":") {
        advance();
        s->labels.push_back(nullptr);
      } else {
        s->labels.push_back(expression());
      }
      expect_op(":");
      if (at(Tok::Newline) || at(Tok::Amp))  // an empty branch
        s->body.push_back(std::make_unique<Stmt>(Stmt::Block, cur().line));
      else
        s->body.push_back(statement());
      if (!is_end_word()) end_of_statement();
    }
  }

  StmtPtr for_statement() {
    auto s = make(Stmt::For);
    advance();
    s->name = ident("a loop variable");
    expect_op("=");
    s->lo = expression();
    expect_op(",");
    s->hi = expression();
    if (is_op(",")) {
      advance();
      s->step = expression();
    }
    expect_word("DO");
    s->body.push_back(body_statement());
    return s;
  }

  StmtPtr foreach_statement() {
    auto s = make(Stmt::Foreach);
    advance();
    s->name = ident("a loop variable");
    expect_op(",");
    s->value = expression();
    if (is_op(",")) {
      advance();
      s->name2 = ident("an index variable");
    }
    expect_word("DO");
    s->body.push_back(body_statement());
    return s;
  }

  StmtPtr while_statement() {
    auto s = make(Stmt::While);
    advance();
    s->cond = expression();
    expect_word("DO");
    s->body.push_back(body_statement());
    return s;
  }

  StmtPtr repeat_statement() {
    auto s = make(Stmt::Repeat);
    advance();
    s->body.push_back(body_statement());
    expect_word("UNTIL");
    s->cond = expression();
    return s;
  }

  // Arguments up to the end of the statement (close == nullptr) or up to
  // the closing parenthesis.
  std::vector<Arg> arguments(const char *close) {
    std::vector<Arg> args;
    if (close && is_op(close)) return args;
    for (;;) {
      Arg a;
      if (is_op("/") && peek().kind == Tok::Ident) {
        advance();
        a.keyword = advance().text;
        a.flag = true;
      } else if (at(Tok::Ident) && peek().kind == Tok::Op && peek().text == "=") {
        a.keyword = advance().text;
        advance();
        a.value = expression();
      } else {
        a.value = expression();
      }
      args.push_back(std::move(a));
      if (!is_op(",")) break;
      advance();
    }
    return args;
  }

  // ------------------------------------------------------- expressions
  ExprPtr node(Expr::Kind k) { return std::make_unique<Expr>(k, cur().line); }
  ExprPtr binary(std::string op, ExprPtr a, ExprPtr b) {
    auto e = std::make_unique<Expr>(Expr::Binary, a->line);
    e->op = std::move(op);
    e->kids.push_back(std::move(a));
    e->kids.push_back(std::move(b));
    return e;
  }
  ExprPtr unary(std::string op, ExprPtr a) {
    auto e = std::make_unique<Expr>(Expr::Unary, a->line);
    e->op = std::move(op);
    e->kids.push_back(std::move(a));
    return e;
  }

  ExprPtr expression() {
    Depth depth(this);
    ExprPtr e = logical_or();
    if (!is_op("?")) return e;
    auto c = std::make_unique<Expr>(Expr::Cond, e->line);
    advance();
    c->kids.push_back(std::move(e));
    c->kids.push_back(expression());
    expect_op(":");
    c->kids.push_back(expression());
    return c;
  }

  ExprPtr logical_or() {
    ExprPtr e = logical_not();
    while (is_op("&&") || is_op("||")) {
      std::string op = advance().text;
      e = binary(op, std::move(e), logical_not());
    }
    return e;
  }

  ExprPtr logical_not() {
    if (is_op("~")) {
      advance();
      return unary("~", nest([&] { return logical_not(); }));
    }
    return bitwise();
  }

  ExprPtr bitwise() {
    ExprPtr e = relational();
    while (is_word("AND") || is_word("OR") || is_word("XOR")) {
      std::string op = advance().text;
      e = binary(op, std::move(e), relational());
    }
    return e;
  }

  ExprPtr relational() {
    ExprPtr e = additive();
    while (is_word("EQ") || is_word("NE") || is_word("LT") || is_word("LE") || is_word("GT") ||
           is_word("GE")) {
      std::string op = advance().text;
      e = binary(op, std::move(e), additive());
    }
    return e;
  }

  ExprPtr additive() {
    ExprPtr e = multiplicative();
    while (is_op("+") || is_op("-") || is_op("<") || is_op(">")) {
      std::string op = advance().text;
      e = binary(op, std::move(e), multiplicative());
    }
    return e;
  }

  ExprPtr multiplicative() {
    ExprPtr e = prefix();
    while (is_op("*") || is_op("/") || is_word("MOD")) {
      std::string op = advance().text;
      e = binary(op, std::move(e), prefix());
    }
    return e;
  }

  template <class F>
  ExprPtr nest(F f) {
    Depth depth(this);
    return f();
  }

  ExprPtr prefix() {
    if (is_op("-") || is_op("+") || is_word("NOT")) {
      std::string op = advance().text;
      ExprPtr a = nest([&] { return prefix(); });
      return op == "+" ? std::move(a) : unary(op, std::move(a));
    }
    return power();
  }

  ExprPtr power() {
    ExprPtr e = deref();
    if (is_op("^")) {
      advance();
      e = binary("^", std::move(e), nest([&] { return prefix(); }));
    }
    return e;
  }

  ExprPtr deref() {
    if (is_op("*")) {
      auto e = node(Expr::Deref);
      advance();
      e->kids.push_back(nest([&] { return deref(); }));
      return e;
    }
    return postfix();
  }

  ExprPtr postfix() {
    ExprPtr e = primary();
    for (;;) {
      if (is_op("[")) {
        advance();
        auto s = std::make_unique<Expr>(Expr::Subscript, e->line);
        s->kids.push_back(std::move(e));
        s->indices = subscripts("]");
        expect_op("]");
        e = std::move(s);
      } else if (is_op(".") && peek().kind == Tok::Ident) {
        advance();
        auto f = std::make_unique<Expr>(Expr::Field, e->line);
        f->name = advance().text;
        f->kids.push_back(std::move(e));
        e = std::move(f);
      } else if (is_op("->")) {
        advance();
        std::string spelling = at(Tok::Ident) ? cur().spelling : "";
        std::string name = ident("a method name");
        if (is_op("::")) {
          advance();
          name += "::" + ident("a method name");
        }
        bool call = is_op("(");
        auto m = std::make_unique<Expr>(call ? Expr::Method : Expr::MethodRef, e->line);
        m->name = name;
        m->text = spelling;
        m->kids.push_back(std::move(e));
        if (call) {
          advance();
          m->args = arguments(")");
          expect_op(")");
        }
        e = std::move(m);
      } else {
        return e;
      }
    }
  }

  std::vector<Index> subscripts(const char *close) {
    std::vector<Index> out;
    for (;;) {
      Index ix;
      if (is_op("*") && (peek().kind == Tok::Op && (peek().text == close || peek().text == ","))) {
        advance();
        ix.kind = Index::All;
      } else {
        ix.lo = expression();
        if (is_op(":")) {
          advance();
          ix.kind = Index::Range;
          if (is_op("*")) advance();
          else ix.hi = expression();
          if (is_op(":")) {
            advance();
            ix.stride = expression();
          }
        }
      }
      out.push_back(std::move(ix));
      if (!is_op(",")) break;
      advance();
    }
    if (out.size() > QVA_MAX_ARRAY_DIM) fail("more than 8 subscripts");
    return out;
  }

  ExprPtr primary() {
    const Token &t = cur();
    switch (t.kind) {
      case Tok::Integer: {
        auto e = node(Expr::Int);
        e->ival = t.ival;
        e->itype = t.int_type;
        advance();
        return e;
      }
      case Tok::Real: {
        auto e = node(Expr::Real);
        e->dval = t.dval;
        e->itype = t.int_type;
        advance();
        return e;
      }
      case Tok::String: {
        auto e = node(Expr::Str);
        e->text = t.text;
        advance();
        return e;
      }
      case Tok::SysVar: {
        auto e = node(Expr::SysVar);
        e->name = t.text;
        advance();
        return e;
      }
      case Tok::Ident: {
        if (kEnds.count(t.text) || t.text == "THEN" || t.text == "ELSE" || t.text == "DO" ||
            t.text == "BEGIN")
          fail("an expression is missing");
        auto e = node(Expr::Var);
        e->name = t.text;
        e->text = t.spelling;
        advance();
        if (is_op("(")) {
          advance();
          e->kind = Expr::Call;
          e->args = arguments(")");
          expect_op(")");
        }
        return e;
      }
      case Tok::Op:
        if (t.text == "(") {
          advance();
          ExprPtr e = expression();
          expect_op(")");
          return e;
        }
        if (t.text == "[") return array();
        if (t.text == "{") return structure();
        break;
      default:
        break;
    }
    fail("an expression is missing");
  }

  ExprPtr array() {
    auto e = node(Expr::Array);
    advance();
    if (!is_op("]")) {
      for (;;) {
        e->kids.push_back(expression());
        if (!is_op(",")) break;
        advance();
      }
    }
    expect_op("]");
    return e;
  }

  ExprPtr structure() {
    auto e = node(Expr::Struct);
    advance();
    // {NAME, ...} or {NAME}: a named structure
    if (at(Tok::Ident) && peek().kind == Tok::Op && (peek().text == "," || peek().text == "}")) {
      e->name = advance().text;
      if (is_op(",")) advance();
    }
    while (!is_op("}")) {
      if (is_word("INHERITS")) {
        advance();
        if (!e->base.empty()) fail("only one INHERITS is supported");
        e->base = ident("a structure name");
      } else {
        std::string tag = ident("a tag name");
        expect_op(":");
        e->fields.emplace_back(tag, expression());
      }
      if (!is_op(",")) break;
      advance();
    }
    expect_op("}");
    return e;
  }

  std::vector<Token> t_;
  std::string file_;
  size_t pos_ = 0;
  int depth_ = 0;
};

}  // namespace

Program parse_program(const std::string &source, const std::string &file, int first_line) {
  Parser p(tokenize(source, first_line), file);
  return p.program();
}

}  // namespace qva
