// prompt_lines.h - gathers the lines typed at the prompt into complete
// statements or definitions.
//
// Each line is read once: its tokens keep a count of the blocks left open
// (BEGIN, CASE, SWITCH, a PRO or FUNCTION definition) and say whether it
// ends in a '$'.  The gathered text is parsed only when both say it may be
// complete, so typing n lines costs time in proportion to their length,
// not to its square.  Inside a definition each finished body statement is
// parsed on its own as soon as it is typed, so a syntax error is reported
// at once; the definition is then discarded and its lines are skipped up
// to its END.
#pragma once

#include <string>

#include "lexer.h"

namespace qva {

class PromptLines {
 public:
  enum class Verdict {
    More,       // the text goes on: read another line
    Ready,      // take() the text and run it
    Dropped,    // nothing to run: a discarded definition's last line was read
  };

  // Adds the line typed as `line_no` of the session.
  Verdict add(const std::string &line, int line_no);
  // The gathered text (from the line `first_line()` on), handed over.
  std::string take();
  int first_line() const { return first_line_; }
  // Forgets a half-typed text (Ctrl-C).
  void clear();
  bool empty() const { return text_.empty() && !skipping_; }
  // Bytes given to the parser so far: the prompt's cost.
  size_t parsed_bytes() const { return parsed_bytes_; }

 private:
  void count_blocks(const std::vector<Token> &tokens);
  Verdict statement_ended(int line_no);
  enum class Parse { Ok, Incomplete, Bad };
  Parse parse(const std::string &source, int first_line);

  std::string text_;
  int first_line_ = 1;
  int depth_ = 0;              // blocks left open
  bool in_definition_ = false; // the text began with PRO or FUNCTION
  bool outer_holds_statements_ = false;  // the outermost block is no CASE or SWITCH
  size_t chunk_start_ = 0;     // where the body statement being typed begins
  int chunk_floor_ = 0;        // the fewest blocks open since it began
  int chunk_line_ = 1;
  bool skipping_ = false;      // dropping a discarded definition's lines
  Token prev_;                 // the token before, across joined lines
  size_t parsed_bytes_ = 0;
};

}  // namespace qva
