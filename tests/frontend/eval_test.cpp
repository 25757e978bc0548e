// The evaluator through whole sources: operators, parameters by reference,
// keywords, methods and superclasses, errors with their file and line,
// CATCH and the heap.  Every test ends with the leak check of the fixture.
#include <memory>
#include <string>

#include "interp.h"
#include "test_support.h"

namespace {

class Eval : public qvatest::FreshSessionTest {
 protected:
  void SetUp() override {
    FreshSessionTest::SetUp();
    interp_ = std::make_unique<qva::Interp>();
    interp_->set_print([this](const std::string &line) { printed_ += line + "\n"; });
  }
  void TearDown() override {
    interp_.reset();
    FreshSessionTest::TearDown();
  }
  // Runs a source that must succeed (ok) or stop on an error (!ok); returns
  // what it printed, or for an error the error report.
  std::string Run(const std::string &source, const std::string &file = "t.pro", bool ok = true) {
    printed_.clear();
    qvatest::OutputCapture errors;
    EXPECT_EQ(interp_->run_source(source, file), ok) << printed_ << errors.all();
    return ok ? printed_ : errors.all();
  }

  std::unique_ptr<qva::Interp> interp_;
  std::string printed_;
};

TEST_F(Eval, OperatorsFollowPrecedenceAndTypes) {
  EXPECT_EQ(Run("PRINT, 2 + 3 * 4, 2 ^ 3 ^ 2, -2 ^ 2, 17 MOD 5, 7 / 2"),
            "          14         512          -4           2           3\n");
  EXPECT_EQ(
      Run("PRINT, SIZE(1B + 1S, /TYPE), SIZE(1 + 1LL, /TYPE), SIZE(1 + 1.0, /TYPE), "
          "SIZE(1LL + 1.0, /TYPE), SIZE(1.0 + 1d, /TYPE), 'n=' + 5"),
      "           2          14           4           4           5n=           5\n");
  EXPECT_EQ(Run("PRINT, 3 ? 'odd' : 'even', 2 ? 'odd' : 'even', 6 AND 3, 6 OR 3, 0 && (1/0), "
                "1 || (1/0), 'b' GT 'a', [1, 2] * 2"),
            "oddeven           2           7   0   1   1           2           4\n");
}

TEST_F(Eval, ParametersArePassedByReferenceOnlyForNamedVariables) {
  EXPECT_EQ(Run("PRO set_it, v, w\n  v = 'changed' & w = 2\nEND\n"
                "PRO out, RESULT=r\n  r = 42\nEND\n"
                "a = 'orig' & b = [1, 2]\n"
                "set_it, a, b[0]\n"     // b[0] is an expression: a temporary
                "set_it, new_var, 5\n"  // an undefined variable is created by the callee
                "out, RESULT=x\n"       // keyword variables are outputs too
                "PRINT, a, ' ', b, ' ', new_var, x\n"),
            "changed            1           2 changed          42\n");
}

TEST_F(Eval, KeywordsMayBeAbbreviatedAndFlagsSetOne) {
  Run("PRO kw, COLOR=color, COUNT=count, VERBOSE=verbose\n"
      "  IF N_ELEMENTS(color) THEN PRINT, 'color ', color\n"
      "  IF N_ELEMENTS(count) THEN PRINT, 'count', count\n"
      "  IF KEYWORD_SET(verbose) THEN PRINT, 'verbose'\n"
      "END\n");
  EXPECT_EQ(Run("kw, COL='red', COU=3, /V"), "color red\ncount           3\nverbose\n");
  EXPECT_EQ(Run("kw, color='exact'"), "color exact\n");
  std::string err = Run("kw, CO=1", "t.pro", false);
  EXPECT_NE(err.find("Ambiguous keyword abbreviation: CO."), std::string::npos) << err;
  err = Run("kw, SIZE=1", "t.pro", false);
  EXPECT_NE(err.find("Keyword SIZE not allowed in call to: KW"), std::string::npos) << err;
  EXPECT_EQ(Run("PRO show, _EXTRA=e\n  PRINT, TAG_NAMES(e), e.a\nEND\nshow, A=5, B='x'\n"),
            "A B           5\n");
}

TEST_F(Eval, MethodsResolveThroughTheClassChainAndSuperclassCalls) {
  Run("PRO Animal__define\n  v = {Animal, name: ''}\nEND\n"
      "FUNCTION Animal::Init, NAME=name\n  self.name = name & RETURN, 1\nEND\n"
      "FUNCTION Animal::Sound\n  RETURN, '...'\nEND\n"
      "PRO Animal::Speak\n  PRINT, self.name, ' says ', self->Sound()\nEND\n"
      "PRO Dog__define\n  v = {Dog, INHERITS Animal, tricks: 0L}\nEND\n"
      "FUNCTION Dog::Init, TRICKS=tricks, _REF_EXTRA=ex\n"
      "  self.tricks = tricks & RETURN, self->Animal::Init(_EXTRA=ex)\nEND\n"
      "FUNCTION Dog::Sound\n  RETURN, 'woof (not ' + self->Animal::Sound() + ')'\nEND\n"
      "FUNCTION Dog::Tricks\n  RETURN, self.tricks\nEND\n");
  EXPECT_EQ(Run("d = OBJ_NEW('Dog', NAME='rex', TRICKS=3) & a = OBJ_NEW('Animal', NAME='cat')\n"
                "d->Speak & a->Speak\n"
                "PRINT, d->Tricks(), OBJ_ISA(d, 'Animal'), OBJ_ISA(a, 'Dog'), ' ', OBJ_CLASS(d), ' ',"
                " OBJ_CLASS(d, /SUPERCLASS)\n"),
            "rex says woof (not ...)\ncat says ...\n           3   1   0 DOG ANIMAL\n");
  std::string err = Run("a->Fly\n", "t.pro", false);
  EXPECT_NE(err.find("undefined method"), std::string::npos) << err;
  Run("OBJ_DESTROY, d, a");
}

TEST_F(Eval, ErrorsNameTheRoutineFileAndLine) {
  Run("PRO deep\n  x = 1\n  y = z_undefined\nEND\nPRO shallow\n  deep\nEND\n", "lib.pro");
  std::string err = Run("shallow\n", "main.pro", false);
  EXPECT_NE(err.find("% DEEP: Variable is undefined: Z_UNDEFINED."), std::string::npos) << err;
  EXPECT_NE(err.find("% Execution halted at: DEEP, lib.pro line 3"), std::string::npos) << err;
  err = Run("PRINT, 'a'\nMESSAGE, 'stop here'\nPRINT, 'b'\n", "m.pro", false);
  EXPECT_EQ(printed_, "a\n");
  EXPECT_NE(err.find("% $MAIN$: stop here"), std::string::npos) << err;
  EXPECT_NE(err.find("m.pro line 2"), std::string::npos) << err;
  err = Run("x = 1\n\ny = x / 0\n", "div.pro", false);
  EXPECT_NE(err.find("Integer divide by 0"), std::string::npos) << err;
  EXPECT_NE(err.find("% Execution halted at: $MAIN$, div.pro line 3"), std::string::npos) << err;
  err = Run("x = 1\ny = (2 +\n", "syn.pro", false);
  EXPECT_NE(err.find("Syntax error"), std::string::npos) << err;
  EXPECT_NE(err.find("syn.pro, line 2"), std::string::npos) << err;
}

TEST_F(Eval, CatchResumesAfterTheCatchStatementWithTheErrorState) {
  EXPECT_EQ(Run("FUNCTION safe_div, a, b\n  CATCH, err\n"
                "  IF err NE 0 THEN BEGIN\n"
                "    CATCH, /CANCEL & PRINT, 'caught: ', !ERROR_STATE.MSG & RETURN, -1\n"
                "  ENDIF\n  RETURN, a / b\nEND\n"
                "PRINT, safe_div(6, 3), safe_div(1, 0)\n"),
            "caught: Program caused arithmetic error: Integer divide by 0.\n"
            "           2          -1\n");
  std::string err = Run("CATCH, e\nCATCH, /CANCEL\nMESSAGE, 'loose'\n", "t.pro", false);
  EXPECT_NE(err.find("loose"), std::string::npos);
}

TEST_F(Eval, SubscriptsSelectAndStoreInSeveralDimensions) {
  Run("a = LINDGEN(4, 3)");
  // Column-major: a[i, j] is element i + 4 j.
  EXPECT_EQ(Run("PRINT, a[3, 2], a(1, 2), a[-1], SIZE((a[1:2, *])[*, 2], /DIMENSIONS)"),
            "          11           9          11           2\n");
  EXPECT_EQ(Run("PRINT, a[0:*:2, 1], a[[0, 3], [1, 2]]"),  // a stride; arrays pick pairwise
            "           4           6           4          11\n");
  EXPECT_EQ(Run("PRINT, SIZE(a[[1, 2], 0:1], /DIMENSIONS), a[5]"), "           2           2           5\n");
  EXPECT_EQ(Run("b = a & b[*, 1] = [-1, -2, -3, -4] & b[2, 2] = 99 & b[0] = [7, 8]\n"
                "PRINT, b[*, 1], b[10], b[0:1, 0]"),
            "          -1          -2          -3          -4          99           7\n"
            "           8\n");  // a seventh LONG would pass 80 columns
  // Too few subscripts: the last spans the rest; a vector takes a second 0.
  EXPECT_EQ(Run("c = INDGEN(2, 2, 2) & v = [5, 6]\nPRINT, c[1, 3], v[1, 0]"), "       7           6\n");
  std::string err = Run("b[*, 1] = [1, 2]", "t.pro", false);
  EXPECT_NE(err.find("Array subscript for B must have same size as source expression."), std::string::npos)
      << err;
  err = Run("b[11] = [1, 2]", "t.pro", false);
  EXPECT_NE(err.find("Out of range subscript encountered: B."), std::string::npos) << err;
  err = Run("x = a[0, 3]", "t.pro", false);
  EXPECT_NE(err.find("Subscript 3 is out of range for A (3 elements)."), std::string::npos) << err;
}

TEST_F(Eval, ArrayLiteralsJoinAlongTheDimensionOfTheirDepth) {
  EXPECT_EQ(Run("r = [1, 2] & m = [[r], [r + 2], [!NULL]]\n"
                "PRINT, SIZE(m, /DIMENSIONS), SIZE([r, r], /DIMENSIONS), SIZE([[[1]], [[2]]], /DIMENSIONS)"),
            "           2           2           4           1           1           2\n");
  EXPECT_EQ(Run("PRINT, [[1, 2], [3.5, 4]]"), "      1.00000      2.00000\n      3.50000      4.00000\n");
  std::string err = Run("x = [[1, 2], ['a', 'b']]", "t.pro", false);
  EXPECT_NE(err.find("Unable to concatenate variables of type LONG and STRING."), std::string::npos) << err;
}

TEST_F(Eval, FloatComputesInSinglePrecisionAndPromotes) {
  // 2^24 + 1 is not a FLOAT; the same sum in DOUBLE keeps it.
  EXPECT_EQ(Run("PRINT, LONG(16777216.0 + 1) - 16777216L, LONG(16777216d + 1) - 16777216L"),
            "           0           1\n");
  EXPECT_EQ(Run("x = 3 & x += 0.5 & y = 1B & y *= 2.5d\nPRINT, SIZE(x, /TNAME), ' ', SIZE(y, /TNAME), "
                "FIX(-2.5), [1.5, 2] GT 1.75"),
            "FLOAT DOUBLE      -2   0   1\n");
  EXPECT_EQ(Run("FOR f = 0.0, 1, 0.5 DO PRINT, f"), "      0.00000\n     0.500000\n      1.00000\n");
  // Beyond FLOAT's range: infinities, from a literal, a conversion or arithmetic.
  EXPECT_EQ(Run("PRINT, 1e39, FLOAT('-1e40'), 3e38 * 10, FLOAT(1d300)"),
            "          Inf         -Inf          Inf          Inf\n");
}

TEST_F(Eval, CaseAndSwitchRunTheirBranchesInLoopsAndRoutines) {
  Run("FUNCTION grade, n\n  CASE 1 OF\n    n GE 90: RETURN, 'A'\n    n GE 50: RETURN, 'B'\n"
      "    ELSE: RETURN, 'C'\n  ENDCASE\nEND\n");
  EXPECT_EQ(Run("PRINT, grade(95), grade(50), grade(3)"), "ABC\n");
  // BREAK ends the SWITCH, not the loop; CONTINUE goes to the loop.
  EXPECT_EQ(Run("FOR i = 0, 3 DO BEGIN\n  SWITCH i OF\n    0: CONTINUE\n    1: PRINT, 'one'\n"
                "    2: BEGIN & PRINT, 'two' & BREAK & END\n    ELSE: PRINT, 'else'\n  ENDSWITCH\n"
                "  PRINT, 'end', i\nENDFOR"),
            "one\ntwo\nend           1\ntwo\nend           2\nelse\nend           3\n");
  std::string err = Run("CASE 'x' OF\n  'y': PRINT, 1\nENDCASE", "t.pro", false);
  EXPECT_NE(err.find("CASE statement found no matches."), std::string::npos) << err;
  err = Run("CASE [1, 2] OF\n  1: PRINT, 1\nENDCASE", "t.pro", false);
  EXPECT_NE(err.find("Expression must be a scalar in this context."), std::string::npos) << err;
}

TEST_F(Eval, HeapGcKeepsWhatRunningRoutinesHold) {
  EXPECT_EQ(Run("PRO holder\n  local = PTR_NEW(5)\n  HEAP_GC, /VERBOSE\n"
                "  PRINT, PTR_VALID(local), *local\n  PTR_FREE, local\nEND\n"
                "p = PTR_NEW('kept') & lost = PTR_NEW(1) & lost = 0\n"
                "holder\nHEAP_GC, /VERBOSE\nPRINT, *p\n"),
            "% HEAP_GC: 1 heap variables freed.\n   1           5\n"
            "% HEAP_GC: 0 heap variables freed.\nkept\n");
}

// Left chains are evaluated in a loop: their length does not reach the C
// stack.  A target that must be copied and stored back link by link is
// bounded instead, with a catchable error.
TEST_F(Eval, LongOperatorFieldAndMethodChainsEndInAResult) {
  std::string sum = "x = 1";
  for (int i = 1; i < 50000; ++i) sum += "+1";
  EXPECT_EQ(Run(sum + "\nPRINT, x\n"), "       50000\n");
  std::string lines = "y = 0 $\n";
  for (int i = 0; i < 100000; ++i) lines += (i % 2 ? "- 1 $\n" : "+ 3 $\n");
  EXPECT_EQ(Run(lines + "+ 0\nPRINT, y\n"), "      100000\n");

  // Instance data is reached inside methods only, so the chains are bodies.
  Run("PRO Link__define\n  v = {Link, a: OBJ_NEW(), v: 0L}\nEND\n"
      "FUNCTION Link::Me\n  RETURN, self\nEND\n"
      "FUNCTION Link::V\n  RETURN, self.v\nEND\n"
      "PRO Link::Tie\n  self.a = self & self.v = 7\nEND\n"
      "o = OBJ_NEW('Link') & o->Tie\n");
  std::string fields = "self";
  for (int i = 0; i < 30000; ++i) fields += ".a";
  EXPECT_EQ(Run("FUNCTION Link::Far\n  RETURN, " + fields + ".v\nEND\nPRINT, o->Far()\n"),
            "           7\n");
  EXPECT_EQ(Run("PRO Link::SetFar\n  " + fields + ".v = 8\nEND\no->SetFar & PRINT, o->V()\n"),
            "           8\n");
  std::string mixed = "self";
  for (int i = 0; i < 10000; ++i) mixed += "->Me().a[0]";
  EXPECT_EQ(Run("FUNCTION Link::Mixed\n  RETURN, " + mixed + ".v\nEND\nPRINT, o->Mixed()\n"),
            "           8\n");
  Run("OBJ_DESTROY, o");
}

TEST_F(Eval, DeepTargetsAndNestingEndInACatchableError) {
  std::string target = "x";
  for (int i = 0; i < 30000; ++i) target += "[0]";
  EXPECT_EQ(Run("x = [4]\nCATCH, e\nIF e NE 0 THEN BEGIN\n  PRINT, !ERROR_STATE.MSG\n"
                "  CATCH, /CANCEL\nENDIF ELSE " + target + " = 5\nPRINT, x\n"),
            "Expression too deep: an assignment through more than 1000 fields and subscripts.\n"
            "           4\n");
  EXPECT_EQ(Run("x[0][0][0] = 6 & PRINT, x\n"), "           6\n");
  for (const char *open : {"(", "[", "{a:", "-(", "f("}) {
    std::string deep = "x = ";
    for (int i = 0; i < 5000; ++i) deep += open;
    std::string err = Run(deep + "1\n", "t.pro", false);
    EXPECT_NE(err.find("nested too deeply"), std::string::npos) << open << ": " << err;
  }
}

TEST_F(Eval, AStatementBudgetEndsEveryProgramPastItsCatch) {
  interp_->set_step_limit(1000);
  std::string err = Run("CATCH, e\nIF e NE 0 THEN PRINT, 'caught'\nWHILE 1 DO BEGIN\nEND\n",
                        "t.pro", false);
  EXPECT_NE(err.find("Statement budget of 1000 exhausted."), std::string::npos) << err;
  EXPECT_EQ(printed_, "");
  interp_->set_step_limit(0);
  EXPECT_EQ(Run("x = 0\nFOR i = 1, 2000 DO x += 1\nPRINT, x\n"), "        2000\n");
}

}  // namespace
