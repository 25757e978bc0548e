// The evaluator through whole sources: values and operators, parameters
// by reference, keywords, methods and superclasses, errors with their file
// and line, CATCH, and the heap.  Every test ends with the leak check.
#include "frontend_fixture.h"

namespace {

using fetest::FrontendTest;

class Eval : public FrontendTest {};

TEST_F(Eval, OperatorsFollowTypesAndPrecedence) {
  EXPECT_EQ(Run("PRINT, 2 + 3 * 4, 2 ^ 3 ^ 2, -2 ^ 2, 17 MOD 5, 7 / 2"),
            "          14         512          -4           2           3\n");
  // Types widen to the larger operand; integers wrap at their width.
  EXPECT_EQ(Run("PRINT, SIZE(1B + 1S, /TYPE), SIZE(1 + 1LL, /TYPE), SIZE(1 + 1.0, /TYPE)"),
            "           2          14           5\n");
  EXPECT_EQ(Run("PRINT, 200B + 100B, 2147483647 + 1"), "  44 -2147483648\n");
  EXPECT_EQ(Run("PRINT, 1 + 2 EQ 3, 'b' GT 'a', [1, 2, 3] * 2"),
            "   1   1           2           4           6\n");
  EXPECT_EQ(Run("PRINT, 'n=' + 5"), "n=           5\n");
  EXPECT_EQ(Run("PRINT, 3 ? 'odd' : 'even', 2 ? 'odd' : 'even', 0.5 ? 'set' : 'zero'"),
            "oddevenset\n");
  EXPECT_EQ(Run("PRINT, 6 AND 3, 6 OR 3, NOT 0, ~5, 0 && (1/0), 1 || (1/0)"),
            "           2           7          -1   0   0   1\n");
}

TEST_F(Eval, IntegerDivisionByZeroIsAnErrorWithItsLine) {
  std::string err = RunFails("x = 1\n\ny = x / 0\n", "div.pro");
  EXPECT_NE(err.find("Integer divide by 0"), std::string::npos) << err;
  EXPECT_NE(err.find("% Execution halted at: $MAIN$, div.pro line 3"), std::string::npos) << err;
}

TEST_F(Eval, SubscriptsReadAndWriteElementsAndRanges) {
  EXPECT_EQ(Run("a = [10, 20, 30, 40]\n"
                "a[1] = 5 & a[2:3] = [7, 8]\n"
                "PRINT, a, a[-1], N_ELEMENTS(a[1:*])\n"
                "s = ['x', 'y'] & s[0] = 'z' & PRINT, s\n"),
            "          10           5           7           8           8           3\nz y\n");
  std::string err = RunFails("a = [1, 2]\nPRINT, a[2]\n");
  EXPECT_NE(err.find("out of range"), std::string::npos) << err;
}

TEST_F(Eval, ParametersArePassedByReferenceOnlyForNamedVariables) {
  EXPECT_EQ(Run("PRO set_it, v, w\n  v = 'changed' & w = 2\nEND\n"
                "a = 'orig' & b = [1, 2]\n"
                "set_it, a, b[0]\n"        // b[0] is an expression: a temporary
                "set_it, new_var, 5\n"     // an undefined variable is created by the callee
                "PRINT, a, ' ', b, ' ', new_var\n"),
            "changed            1           2 changed\n");
}

TEST_F(Eval, KeywordsMayBeAbbreviatedAndFlagsSetOne) {
  Run("PRO kw, COLOR=color, COUNT=count, VERBOSE=verbose\n"
      "  IF N_ELEMENTS(color) THEN PRINT, 'color ', color\n"
      "  IF N_ELEMENTS(count) THEN PRINT, 'count', count\n"
      "  IF KEYWORD_SET(verbose) THEN PRINT, 'verbose'\n"
      "END\n");
  EXPECT_EQ(Run("kw, COL='red', COU=3, /V"), "color red\ncount           3\nverbose\n");
  EXPECT_EQ(Run("kw, color='exact'"), "color exact\n");
  std::string err = RunFails("kw, CO=1");
  EXPECT_NE(err.find("Ambiguous keyword abbreviation: CO."), std::string::npos) << err;
  err = RunFails("kw, SIZE=1");
  EXPECT_NE(err.find("Keyword SIZE not allowed in call to: KW"), std::string::npos) << err;
}

TEST_F(Eval, KeywordVariablesAreOutputsToo) {
  EXPECT_EQ(Run("PRO out, RESULT=r\n  r = 42\nEND\nout, RESULT=x\nPRINT, x"),
            "          42\n");
}

TEST_F(Eval, ExtraKeywordsPassOnToTheSuperclassInit) {
  EXPECT_EQ(Run("FUNCTION Base::Init, NAME=name, SIZE=size\n"
                "  self.name = name & self.size = size & RETURN, 1\nEND\n"
                "PRO Base__define\n  v = {Base, name: '', size: 0L}\nEND\n"
                "FUNCTION Derived::Init, EXTRA=extra, _REF_EXTRA=ex\n"
                "  self.extra = extra\n"
                "  RETURN, self->Base::Init(_EXTRA=ex)\nEND\n"
                "PRO Derived__define\n  v = {Derived, INHERITS Base, extra: 0L}\nEND\n"
                "o = OBJ_NEW('Derived', NAME='d', SIZE=3, EXTRA=7)\n"
                "PRINT, o.name, o.size, o.extra\n"
                "OBJ_DESTROY, o\n"),
            "d           3           7\n");
  EXPECT_EQ(Run("PRO show, _EXTRA=e\n  PRINT, TAG_NAMES(e), e.a\nEND\nshow, A=5, B='x'\n"),
            "A B           5\n");
}

TEST_F(Eval, MethodsResolveThroughTheClassChainAndSuperclassCalls) {
  Run("PRO Animal__define\n  v = {Animal, name: ''}\nEND\n"
      "FUNCTION Animal::Init, name\n  self.name = name & RETURN, 1\nEND\n"
      "FUNCTION Animal::Sound\n  RETURN, '...'\nEND\n"
      "PRO Animal::Speak\n  PRINT, self.name, ' says ', self->Sound()\nEND\n"
      "PRO Dog__define\n  v = {Dog, INHERITS Animal, tricks: 0L}\nEND\n"
      "FUNCTION Dog::Sound\n  RETURN, 'woof (not ' + self->Animal::Sound() + ')'\nEND\n"
      "PRO Dog::Learn, n\n  self.tricks = self.tricks + n\nEND\n");
  EXPECT_EQ(Run("d = OBJ_NEW('Dog', 'rex') & a = OBJ_NEW('Animal', 'cat')\n"
                "d->Speak & a->Speak\n"
                "d->Learn, 2 & d->Learn, 3 & PRINT, d.tricks\n"
                "PRINT, OBJ_ISA(d, 'Animal'), OBJ_ISA(a, 'Dog'), ' ', OBJ_CLASS(d), ' ',"
                " OBJ_CLASS(d, /SUPERCLASS)\n"
                "OBJ_DESTROY, d, a\n"),
            "rex says woof (not ...)\ncat says ...\n           5\n   1   0 DOG ANIMAL\n");
  std::string err = RunFails("a = OBJ_NEW('Animal', 'x')\na->Fly\n");
  EXPECT_NE(err.find("undefined method"), std::string::npos) << err;
  Run("OBJ_DESTROY, a");
}

TEST_F(Eval, ErrorsNameTheRoutineFileAndLine) {
  Run("PRO deep\n  x = 1\n  y = z_undefined\nEND\n"
      "PRO shallow\n  deep\nEND\n", "lib.pro");
  std::string err = RunFails("shallow\n", "main.pro");
  EXPECT_NE(err.find("% DEEP: Variable is undefined: Z_UNDEFINED."), std::string::npos) << err;
  EXPECT_NE(err.find("% Execution halted at: DEEP, lib.pro line 3"), std::string::npos) << err;
  err = RunFails("PRINT, 'a'\nMESSAGE, 'stop here'\nPRINT, 'b'\n", "m.pro");
  EXPECT_EQ(printed_, "a\n");
  EXPECT_NE(err.find("% stop here"), std::string::npos) << err;
  EXPECT_NE(err.find("m.pro line 2"), std::string::npos) << err;
  err = RunFails("x = 1\ny = (2 +\n", "syn.pro");
  EXPECT_NE(err.find("Syntax error"), std::string::npos) << err;
  EXPECT_NE(err.find("syn.pro, line 2"), std::string::npos) << err;
}

TEST_F(Eval, CatchResumesAfterTheCatchStatementWithTheErrorState) {
  EXPECT_EQ(Run("FUNCTION safe_div, a, b\n"
                "  CATCH, err\n"
                "  IF err NE 0 THEN BEGIN\n"
                "    CATCH, /CANCEL\n"
                "    PRINT, 'caught: ', !ERROR_STATE.MSG\n"
                "    RETURN, -1\n"
                "  ENDIF\n"
                "  RETURN, a / b\n"
                "END\n"
                "PRINT, safe_div(6, 3), safe_div(1, 0)\n"),
            "caught: Program caused arithmetic error: Integer divide by 0.\n"
            "           2          -1\n");
  // Cancelled, the next error is not caught.
  std::string err = RunFails("CATCH, e\nCATCH, /CANCEL\nMESSAGE, 'loose'\n");
  EXPECT_NE(err.find("loose"), std::string::npos);
  // Errors raised by module-style native routines are caught the same way.
  EXPECT_EQ(Run("CATCH, e\nIF e NE 0 THEN BEGIN\n  PRINT, 'code set: ', e NE 0\n"
                "  CATCH, /CANCEL\nENDIF ELSE x = OBJ_NEW('NoSuchClass')\n"),
            "code set:    1\n");
}

TEST_F(Eval, HeapGcKeepsWhatRunningRoutinesHold) {
  EXPECT_EQ(Run("PRO holder\n"
                "  local = PTR_NEW(5)\n"
                "  HEAP_GC, /VERBOSE\n"
                "  PRINT, PTR_VALID(local), *local\n"
                "  PTR_FREE, local\n"
                "END\n"
                "p = PTR_NEW('kept') & lost = PTR_NEW(1) & lost = 0\n"
                "holder\n"
                "HEAP_GC, /VERBOSE\n"
                "PRINT, *p\n"),
            "% HEAP_GC: 1 heap variables freed.\n   1           5\n"
            "% HEAP_GC: 0 heap variables freed.\nkept\n");
}

TEST_F(Eval, StructuresAndPointersAssignThroughPaths) {
  EXPECT_EQ(Run("s = {inner: {v: [1, 2, 3]}, name: 'n'}\n"
                "s.inner.v[1] = 9\n"
                "p = PTR_NEW(s)\n"
                "(*p).name = 'changed'\n"
                "PRINT, (*p).inner.v, ' ', (*p).name, ' ', s.name\n"
                "arr = [{kv, k: 1}, {kv, k: 2}]\n"
                "arr[1].k = 5\n"
                "PRINT, arr.k\n"
                "PTR_FREE, p\n"),
            "           1           9           3 changed n\n           1           5\n");
  std::string err = RunFails("s = {a: 1}\ns.b = 2\n");
  EXPECT_NE(err.find("Tag name B is undefined"), std::string::npos) << err;
}

TEST_F(Eval, SaveResetRestoreKeepsObjectsAndPointers) {
  std::string file = ::testing::TempDir() + "/frontend_eval_save.sav";
  Run("PRO Box__define\n  v = {Box, content: PTR_NEW()}\nEND\n"
      "b = OBJ_NEW('Box') & b.content = PTR_NEW([4, 5])\n"
      "n = 7\n"
      "SAVE, /ALL, FILENAME='" + file + "'\n"
      "RESET_SESSION\n");
  EXPECT_EQ(Run("PRINT, N_ELEMENTS(b), N_ELEMENTS(n)"), "           0           0\n");
  EXPECT_EQ(Run("RESTORE, '" + file + "'\nPRINT, n, *(b.content), OBJ_VALID(b)\n"),
            "           7           4           5   1\n");
  std::remove(file.c_str());
}

TEST_F(Eval, HelpShowsVariablesAndObjectFields) {
  std::string help = Run("PRO Pt__define\n  v = {Pt, x: 0L, label: ''}\nEND\n"
                         "o = OBJ_NEW('Pt') & o.x = 3 & n = 2.5\nHELP, o, n\nOBJ_DESTROY, o\n");
  EXPECT_EQ(help.substr(0, help.find('<')), "O               OBJREF    = ");
  EXPECT_EQ(help.substr(help.find("(PT)>\n")),
            "(PT)>\n"
            "** Object class PT, fields:\n"
            "   X               LONG      =            3\n"
            "   LABEL           STRING    = ''\n"
            "N               DOUBLE    =        2.5000000\n");
}

}  // namespace
