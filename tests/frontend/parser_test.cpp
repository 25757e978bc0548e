// The parser: precedence and the shape of statements, continuation lines,
// and syntax errors with their lines.
#include "parser.h"

#include <gtest/gtest.h>

namespace {

using qva::Expr;
using qva::Stmt;

// A compact picture of an expression tree: (op a b).
std::string Show(const Expr &e) {
  auto open = [&](std::string s) {  // the head and the operands, unclosed
    for (const auto &k : e.kids) s += " " + Show(*k);
    return s;
  };
  auto args = [&](std::string s) {
    for (const auto &a : e.args)
      s += " " +
           (a.flag ? "/" + a.keyword : (a.keyword.empty() ? "" : a.keyword + "=") + Show(*a.value));
    return s + ")";
  };
  switch (e.kind) {
    case Expr::Int:
      return std::to_string(e.ival) +
             (e.itype == QVA_TYP_LONG ? "" : "t" + std::to_string(e.itype));
    case Expr::Var:
      return e.name;
    case Expr::Unary:
    case Expr::Binary:
      return open("(" + e.op) + ")";
    case Expr::Array:
      return open("([]") + ")";
    case Expr::Deref:
      return open("(*") + ")";
    case Expr::Cond:
      return open("(?") + ")";
    case Expr::Field:
      return open("(.") + " " + e.name + ")";
    case Expr::Call:
      return args("(call " + e.name);
    case Expr::Method:
      return args("(-> " + Show(*e.kids[0]) + " " + e.name);
    case Expr::Real: {
      std::string d = std::to_string(e.dval);
      return d.substr(0, d.find_last_not_of('0') + 1) + (e.itype == QVA_TYP_FLOAT ? "f" : "d");
    }
    case Expr::Subscript: {
      std::string s = open("([");
      for (const auto &ix : e.indices) {
        if (ix.kind == qva::Index::All) {
          s += " *";
          continue;
        }
        s += " " + Show(*ix.lo);
        if (ix.kind == qva::Index::Range) s += ":" + (ix.hi ? Show(*ix.hi) : "*");
        if (ix.stride) s += ":" + Show(*ix.stride);
      }
      return s + ")";
    }
    default:
      return "?";
  }
}

std::string ExprOf(const std::string &src) {
  qva::Program p = qva::parse_program("x = " + src, "t.pro");
  EXPECT_EQ(p.main.size(), 1u);
  return Show(*p.main[0]->value);
}

TEST(Parser, PrecedenceAssociativityAndLiteralTypes) {
  EXPECT_EQ(ExprOf("1 + 2 * 3"), "(+ 1 (* 2 3))");
  EXPECT_EQ(ExprOf("1 - 2 - 3"), "(- (- 1 2) 3)");
  EXPECT_EQ(ExprOf("2 ^ 3 ^ 2"), "(^ 2 (^ 3 2))");
  EXPECT_EQ(ExprOf("-2 ^ 2"), "(- (^ 2 2))");
  EXPECT_EQ(ExprOf("a MOD b * c"), "(* (MOD A B) C)");
  EXPECT_EQ(ExprOf("2 * -3"), "(* 2 (- 3))");
  EXPECT_EQ(ExprOf("[1B, 2S, 3L, 4LL, 3000000000]"), "([] 1t1 2t2 3 4t14 3000000000t14)");
  EXPECT_EQ(ExprOf("a + 1 EQ b AND c"), "(AND (EQ (+ A 1) B) C)");
  EXPECT_EQ(ExprOf("NOT a EQ b"), "(EQ (NOT A) B)");
  EXPECT_EQ(ExprOf("~a EQ b && c || d"), "(|| (&& (~ (EQ A B)) C) D)");
  EXPECT_EQ(ExprOf("a ? b : c ? d : e + 1"), "(? A B (? C D (+ E 1)))");
  EXPECT_EQ(ExprOf("a || b ? 1 : 2"), "(? (|| A B) 1 2)");
  // Postfix operators bind tighter than dereference.
  EXPECT_EQ(ExprOf("*self.data"), "(* (. SELF DATA))");
  EXPECT_EQ(ExprOf("(*p)[2]"), "([ (* P) 2)");
  EXPECT_EQ(ExprOf("s.list[i:*]"), "([ (. S LIST) I:*)");
  EXPECT_EQ(ExprOf("a[*]"), "([ A *)");
  EXPECT_EQ(ExprOf("o->Get(1, KEY=2, /F)->Next()"), "(-> (-> O GET 1 KEY=2 /F) NEXT)");
  EXPECT_EQ(ExprOf("o->Base::Get()"), "(-> O BASE::GET)");
  EXPECT_EQ(ExprOf("f(1, /K) + a[1]"), "(+ (call F 1 /K) ([ A 1))");
}

TEST(Parser, RealLiteralsSubscriptsInSeveralDimensionsAndMinMax) {
  EXPECT_EQ(ExprOf("[1.5, 1.5d, 1e3, 2D0, .5]"), "([] 1.5f 1.5d 1000.f 2.d 0.5f)");
  EXPECT_EQ(ExprOf("a[i, *, 1:2, 0:*:2]"), "([ A I * 1:2 0:*:2)");
  EXPECT_EQ(ExprOf("a[[0, 1], j]"), "([ A ([] 0 1) J)");
  // < and > bind as + and - do.
  EXPECT_EQ(ExprOf("a < b + c > d"), "(> (+ (< A B) C) D)");
  EXPECT_EQ(ExprOf("a < b * 2 EQ c"), "(EQ (< A (* B 2)) C)");
  EXPECT_EQ(ExprOf("o->M() > 1"), "(> (-> O M) 1)");
}

TEST(Parser, CaseAndSwitchBranches) {
  qva::Program p = qva::parse_program(
      "CASE x OF\n  1: y = 1\n  'a': BEGIN\n    y = 2\n  END\n  ELSE:\nENDCASE\n"
      "SWITCH x + 1 OF & 2: BREAK & ELSE: y = 0 & ENDSWITCH\n",
      "t.pro");
  ASSERT_EQ(p.main.size(), 2u);
  const Stmt &c = *p.main[0];
  EXPECT_EQ(c.kind, Stmt::Case);
  EXPECT_EQ(c.name, "CASE");
  ASSERT_EQ(c.labels.size(), 3u);
  ASSERT_EQ(c.body.size(), 3u);
  EXPECT_EQ(Show(*c.labels[0]), "1");
  EXPECT_EQ(c.body[1]->kind, Stmt::Block);
  EXPECT_EQ(c.labels[2], nullptr);  // ELSE, with an empty branch
  EXPECT_TRUE(c.body[2]->body.empty());
  const Stmt &s = *p.main[1];
  EXPECT_EQ(s.name, "SWITCH");
  EXPECT_EQ(Show(*s.cond), "(+ X 1)");
  ASSERT_EQ(s.body.size(), 2u);
  EXPECT_EQ(s.body[0]->kind, Stmt::Break);
}

TEST(Parser, StatementsDefinitionsBlocksAndContinuation) {
  qva::Program p = qva::parse_program(
      "print, a, 'b', KEY=1, /FLAG ; comment\n"
      "obj->Method, 1 & obj->Base::Method\n"
      "heap_gc\n"
      "PRO Shape::Draw, a, b, COLOR=c, _REF_EXTRA=ex\n"
      "  IF a THEN BEGIN\n"
      "    b = 1\n"
      "  ENDIF ELSE BEGIN\n"
      "    b = $ ; joined\n"
      "        2\n"
      "  ENDELSE\n"
      "  FOR i = 0, 3 DO BEGIN & ENDFOR\n"
      "  WHILE 0 DO x = 1\n"
      "  REPEAT BEGIN\n  ENDREP UNTIL 1\n"
      "END\n"
      "FUNCTION f\n  RETURN, 1\nEND\n"
      "y = 3\n",
      "t.pro");
  std::string main;  // name@line of each statement, and the arguments of the first
  for (const auto &st : p.main) main += st->name + "@" + std::to_string(st->line) + " ";
  ASSERT_EQ(main, "PRINT@1 METHOD@2 BASE::METHOD@2 HEAP_GC@3 @19 ");
  ASSERT_EQ(p.main[0]->args.size(), 4u);
  EXPECT_EQ(p.main[0]->args[2].keyword, "KEY");
  EXPECT_TRUE(p.main[0]->args[3].flag);
  EXPECT_EQ(p.main[2]->kind, Stmt::MethodCall);
  EXPECT_EQ(p.main[4]->kind, Stmt::Assign);
  ASSERT_EQ(p.routines.size(), 2u);
  const qva::RoutineDef &d = *p.routines[0];
  EXPECT_EQ(d.name, "SHAPE::DRAW");
  EXPECT_TRUE(d.is_method && !d.is_function && p.routines[1]->is_function);
  EXPECT_EQ(d.params, (std::vector<std::string>{"A", "B"}));
  ASSERT_EQ(d.keywords.size(), 1u);
  EXPECT_EQ(d.keywords[0].keyword + "=" + d.keywords[0].variable, "COLOR=C");
  EXPECT_EQ(d.extra, "EX");
  EXPECT_TRUE(d.ref_extra);
  ASSERT_EQ(d.body.size(), 4u);  // IF, FOR, WHILE, REPEAT
  ASSERT_EQ(d.body[0]->kind, Stmt::If);
  ASSERT_EQ(d.body[0]->body.size(), 2u);
  EXPECT_EQ(d.body[0]->body[1]->body[0]->line, 8);
}

TEST(Parser, StepStatementsAndDeclarations) {
  qva::Program p = qva::parse_program(
      "i++ & --a[2]\nCOMPILE_OPT idl2, hidden\nFORWARD_FUNCTION f\n", "t.pro");
  ASSERT_EQ(p.main.size(), 4u);
  EXPECT_EQ(p.main[0]->kind, Stmt::Assign);
  EXPECT_EQ(p.main[0]->op, "+=");
  EXPECT_EQ(Show(*p.main[0]->value), "1");
  EXPECT_EQ(p.main[1]->op, "-=");
  EXPECT_EQ(p.main[1]->target->kind, Expr::Subscript);
  EXPECT_EQ(p.main[2]->kind, Stmt::Block);  // nothing to run
  EXPECT_TRUE(p.main[2]->body.empty());
  EXPECT_EQ(p.main[3]->kind, Stmt::Block);
  EXPECT_THROW(qva::parse_program("x = 5--3\n", "t.pro"), qva::SyntaxError);  // '--' steps, never negates twice
  EXPECT_THROW(qva::parse_program("x = 5 + (i++)\n", "t.pro"), qva::SyntaxError);
  EXPECT_THROW(qva::parse_program("3++\n", "t.pro"), qva::SyntaxError);
  EXPECT_THROW(qva::parse_program("COMPILE_OPT\n", "t.pro"), qva::SyntaxError);
}

TEST(Parser, SyntaxErrorsGiveTheLineAndWhetherInputWasCut) {
  struct Case {
    std::string src;
    int line;
    bool incomplete;
  } cases[] = {
      {"x = 1\ny = (2 +\n", 2, false},
      {"x = 1 +", 1, false},
      {"IF 1 THEN BEGIN\n  x = 1\n", 3, true},
      {"PRO p\n  x = 1\n", 3, true},
      {"x = 'open", 1, false},
      {"x = 1 2", 1, false},
      {"\n\n5 = x", 3, false},
      {"x = 12Q", 1, false},
      {"x = #", 1, false},
      {"CASE x OF\n  1 y = 1\nENDCASE", 2, false},
      {"SWITCH x OF\n  1: y = 1\n", 3, true},
      {"CASE x\n  1: y = 1\nENDCASE", 1, false},
      {"y = a[1, 2, 3, 4, 5, 6, 7, 8, 9]", 1, false},
  };
  for (const Case &c : cases) {
    try {
      qva::parse_program(c.src, "t.pro");
      ADD_FAILURE() << "no syntax error for: " << c.src;
    } catch (const qva::SyntaxError &e) {
      EXPECT_EQ(e.line, c.line) << c.src << ": " << e.what();
      EXPECT_EQ(e.incomplete, c.incomplete) << c.src << ": " << e.what();
    }
  }
  // Deep nesting is a syntax error, not a stack overflow.
  std::string ifs;
  for (int i = 0; i < 3000; ++i) ifs += "IF 1 THEN ";
  EXPECT_THROW(qva::parse_program(ifs + "x = 1", "t.pro"), qva::SyntaxError);
  EXPECT_THROW(qva::parse_program("x = " + std::string(5000, '('), "t.pro"), qva::SyntaxError);
}

TEST(Parser, LeftChainsOfAnyLengthParseAndAreFreed) {
  // A left chain is one node deep per link; building and freeing it must
  // not nest a call per link.
  std::string src = "x = a";
  for (int i = 0; i < 100000; ++i) src += ".t[1]";
  for (int i = 0; i < 100000; ++i) src += "+b";
  {
    qva::Program p = qva::parse_program(src, "t.pro");
    const Expr *e = p.main.at(0)->value.get();
    int depth = 0;
    for (; !e->kids.empty(); e = e->kids[0].get()) ++depth;
    EXPECT_EQ(depth, 300000);
    EXPECT_EQ(e->name, "A");
  }
}

}  // namespace
