// ast.h - the syntax tree the parser builds and the evaluator walks.
#pragma once

#include <qva/qva.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qva {

struct Expr;
using ExprPtr = std::unique_ptr<Expr>;
struct Stmt;
using StmtPtr = std::unique_ptr<Stmt>;

// One argument of a call: positional (keyword empty), KEY=value, or /KEY.
struct Arg {
  std::string keyword;  // upper case; "" for a positional argument
  bool flag = false;    // /KEY
  ExprPtr value;        // null for /KEY
};

// One subscript (of one dimension): a[i], a[i:j], a[i:*], a[i:j:step], a[*].
struct Index {
  enum Kind { Single, Range, All } kind = Single;
  ExprPtr lo, hi;  // hi null with Range: up to the end
  ExprPtr stride;  // null: 1
};

struct Expr {
  enum Kind {
    Int,        // ival, itype
    Real,       // dval, itype (FLOAT or DOUBLE)
    Str,        // text
    Var,        // name
    SysVar,     // name (!NULL, !ERROR_STATE, ...)
    Unary,      // op ("-", "NOT", "~"), kids[0]
    Binary,     // op, kids[0], kids[1]
    Array,      // kids
    Struct,     // name (may be empty), base, fields
    Call,       // name(args): a function call, or a subscript of variable `name`
    Subscript,  // kids[0][indices]
    Field,      // kids[0].name
    Method,     // kids[0]->name(args)
    MethodRef,  // kids[0]->name, a statement's head only
    Deref,      // *kids[0]
    Cond,       // kids[0] ? kids[1] : kids[2]
  };
  Kind kind;
  int line = 0;
  std::string name;  // variable, routine, tag, method, structure name
  std::string op;
  std::string text;  // a string literal; a variable's or a method's name as written
  int64_t ival = 0;
  int itype = QVA_TYP_LONG;
  double dval = 0;
  std::vector<ExprPtr> kids;
  std::vector<Arg> args;
  std::vector<Index> indices;
  std::string base;                                      // INHERITS
  std::vector<std::pair<std::string, ExprPtr>> fields;   // structure literal
  mutable QVA_SDEF anon_sdef = nullptr;                  // anonymous structure, reused

  Expr(Kind k, int l) : kind(k), line(l) {}
  Expr(const Expr &) = delete;
  Expr &operator=(const Expr &) = delete;
  // An expression tree is as deep as its source nests (a left chain
  // a+b+c..., s.a.b... is as deep as it is long): it is taken apart here
  // with a work list, so that freeing it never nests one call per level.
  ~Expr() {
    std::vector<ExprPtr> work;
    take_children(work);
    while (!work.empty()) {
      ExprPtr e = std::move(work.back());
      work.pop_back();
      if (e) e->take_children(work);  // e is freed childless: no recursion
    }
  }

 private:
  void take_children(std::vector<ExprPtr> &work) {
    for (ExprPtr &k : kids) work.push_back(std::move(k));
    for (Arg &a : args) work.push_back(std::move(a.value));
    for (Index &i : indices) {
      work.push_back(std::move(i.lo));
      work.push_back(std::move(i.hi));
    }
    for (auto &f : fields) work.push_back(std::move(f.second));
  }
};

struct Stmt {
  enum Kind {
    Eval,         // a function call whose result is dropped: kids[0]
    Assign,       // target = value; op "=" or "+=" ...
    Call,         // name, args
    MethodCall,   // obj->name, args
    If,           // cond, body[0], body[1] (else, may be empty)
    Block,        // body
    For,          // var = lo, hi [, step] DO body[0]
    Foreach,      // FOREACH var, expr [, index] DO body[0]
    While,        // WHILE cond DO body[0]
    Repeat,       // REPEAT body[0] UNTIL cond
    Break,
    Continue,
    Return,       // value may be null
    Exec,         // executive command; text
    Case,         // CASE or SWITCH (name) cond OF labels[i]: body[i] ... ENDCASE
  };
  Kind kind;
  int line = 0;
  std::string name;   // routine or method; loop variable
  std::string name2;  // FOREACH index variable
  std::string op;
  std::string text;   // executive command; a method's name as written
  ExprPtr target, value, cond, lo, hi, step, object;
  std::vector<Arg> args;
  std::vector<StmtPtr> body;
  std::vector<ExprPtr> labels;  // Case: one a branch; null for ELSE

  Stmt(Kind k, int l) : kind(k), line(l) {}
};

// A keyword parameter of a definition: KEYWORD=variable.
struct KeywordParam {
  std::string keyword;   // upper case
  std::string variable;  // upper case
};

// PRO or FUNCTION, plain or a method (CLASS::NAME).
struct RoutineDef {
  std::string name;  // upper case, CLASS::METHOD for a method
  bool is_function = false;
  bool is_method = false;
  std::vector<std::string> params;      // positional parameters
  std::vector<KeywordParam> keywords;
  std::string extra;                    // _EXTRA / _REF_EXTRA variable, or ""
  bool ref_extra = false;
  std::vector<StmtPtr> body;
  std::string file;
  int line = 0;
};

// A parsed source: routine definitions and main-level statements.
struct Program {
  std::vector<std::shared_ptr<RoutineDef>> routines;
  std::vector<StmtPtr> main;
};

}  // namespace qva
