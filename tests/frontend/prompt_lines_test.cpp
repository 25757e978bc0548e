// The prompt's gathering of typed lines: when a text is complete, blocks
// and continued lines across lines, a definition with a syntax error
// dropped up to its END, and each line parsed a bounded number of times.
#include "prompt_lines.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using qva::PromptLines;
using V = PromptLines::Verdict;
using qvatest::OutputCapture;

// Types each line in turn and gives the verdicts.
std::vector<V> Type(PromptLines &p, const std::vector<std::string> &lines, int first = 1) {
  std::vector<V> out;
  for (const std::string &l : lines) out.push_back(p.add(l, first++));
  return out;
}

TEST(PromptLines, BlocksAndContinuedLinesWaitForTheirEnd) {
  PromptLines p;
  EXPECT_EQ(Type(p, {"IF 1 THEN BEGIN", "  x = 1", "ENDIF ELSE BEGIN", "  x = 2", "ENDELSE"}),
            (std::vector<V>{V::More, V::More, V::More, V::More, V::Ready}));
  EXPECT_EQ(p.first_line(), 1);
  EXPECT_EQ(p.take(), "IF 1 THEN BEGIN\n  x = 1\nENDIF ELSE BEGIN\n  x = 2\nENDELSE\n");
  EXPECT_TRUE(p.empty());
  // A CASE with a BEGIN after its label; a '$' before a keyword named
  // FUNCTION, which opens nothing; an END word inside a string.
  EXPECT_EQ(Type(p, {"CASE x OF", "1: BEGIN", "END", "ELSE: PRINT, 'end'", "ENDCASE"}, 6),
            (std::vector<V>{V::More, V::More, V::More, V::More, V::Ready}));
  EXPECT_EQ(p.first_line(), 6);
  p.take();
  EXPECT_EQ(Type(p, {"b = OBJ_NEW('QVAfwFuncBehav', $  ; the name", "FUNCTION='f', M='begin')"}),
            (std::vector<V>{V::More, V::Ready}));
  p.take();
  EXPECT_EQ(Type(p, {"x = 1 & REPEAT BEGIN & x = x + 1 & ENDREP UNTIL x GT 3"}),
            (std::vector<V>{V::Ready}));
  p.take();
  // Ctrl-C drops a half-typed block.
  EXPECT_EQ(Type(p, {"WHILE 1 DO BEGIN"}), (std::vector<V>{V::More}));
  p.clear();
  EXPECT_TRUE(p.empty());
  EXPECT_EQ(Type(p, {"PRINT, 1"}), (std::vector<V>{V::Ready}));
  EXPECT_EQ(p.take(), "PRINT, 1\n");
}

TEST(PromptLines, ASyntaxErrorInADefinitionDropsItUpToItsEnd) {
  OutputCapture out;
  PromptLines p;
  EXPECT_EQ(Type(p, {"pro broken", "x = (1 +)"}), (std::vector<V>{V::More, V::More}));
  ASSERT_EQ(out.lines().size(), 3u);  // reported at once, with its line
  EXPECT_EQ(out.lines()[1], "  At: <prompt>, line 2");
  EXPECT_FALSE(p.empty());
  EXPECT_EQ(Type(p, {"print, 'skipped'", "if 1 then begin", "endif", "end"}),
            (std::vector<V>{V::More, V::More, V::More, V::Dropped}));
  EXPECT_TRUE(p.empty());
  EXPECT_EQ(p.take(), "");
  // An error only seen at the END (inside a nested block) drops it too.
  out.clear();
  EXPECT_EQ(Type(p, {"function f", "if 1 then begin", "y = )", "endif", "return, 1", "end"}),
            (std::vector<V>{V::More, V::More, V::More, V::More, V::More, V::Dropped}));
  EXPECT_NE(out.all().find("discarded"), std::string::npos);
  // At main level the run reports a syntax error: the text is handed over.
  EXPECT_EQ(Type(p, {"IF 1 THEN BEGIN", "x = (1 +)"}), (std::vector<V>{V::More, V::Ready}));
  EXPECT_EQ(p.take(), "IF 1 THEN BEGIN\nx = (1 +)\n");
}

// Typing n lines parses each a bounded number of times (a text re-parsed
// from its start on every line costs n squared).
TEST(PromptLines, EachLineIsParsedABoundedNumberOfTimes) {
  PromptLines p;
  size_t typed = 0;
  auto type = [&](const std::string &line) {
    typed += line.size() + 1;
    return p.add(line, 1);
  };
  type("x = [0, $");
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(type(std::to_string(i) + ", $"), V::More);
  EXPECT_EQ(type("1]"), V::Ready);
  p.take();
  type("PRO long_one");
  for (int i = 0; i < 1000; ++i) {
    type("IF x GT " + std::to_string(i) + " THEN BEGIN");
    type("  x = x - 1");
    ASSERT_EQ(type("ENDIF"), V::More);
  }
  EXPECT_EQ(type("END"), V::Ready);
  EXPECT_LE(p.parsed_bytes(), 2 * typed);
}

}  // namespace
