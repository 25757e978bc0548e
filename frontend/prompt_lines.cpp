// prompt_lines.cpp - gathering typed lines into statements, each line read
// once.
#include "prompt_lines.h"

#include <algorithm>

#include "parser.h"
#include "qva_host.h"

namespace qva {
namespace {

bool is_word(const Token &t, const char *w) { return t.kind == Tok::Ident && t.text == w; }

bool opens_block(const std::string &word) {
  return word == "BEGIN" || word == "CASE" || word == "SWITCH";
}

bool closes_block(const std::string &word) {
  return word == "END" || word == "ENDIF" || word == "ENDELSE" || word == "ENDFOR" ||
         word == "ENDFOREACH" || word == "ENDWHILE" || word == "ENDREP" || word == "ENDCASE" ||
         word == "ENDSWITCH";
}

// Nothing before it on its line (prev is the empty token at the start).
bool at_line_start(const Token &prev) {
  return prev.kind == Tok::End || prev.kind == Tok::Newline;
}

// Whether a statement begins after `prev`: only there is BEGIN, CASE or an
// END word a block's, not a keyword's name (FUNCTION='f') or a field.
bool at_statement_start(const Token &prev) {
  return at_line_start(prev) || prev.kind == Tok::Amp;
}
bool after_statement_intro(const Token &prev) {
  return at_statement_start(prev) || is_word(prev, "THEN") || is_word(prev, "ELSE") ||
         is_word(prev, "DO") || is_word(prev, "REPEAT") || (prev.kind == Tok::Op && prev.text == ":");
}

}  // namespace

void PromptLines::count_blocks(const std::vector<Token> &tokens) {
  for (const Token &t : tokens) {
    if (t.kind == Tok::End) continue;
    if (t.kind == Tok::Ident) {
      bool opens = ((t.text == "PRO" || t.text == "FUNCTION") && at_line_start(prev_)) ||
                   (opens_block(t.text) && after_statement_intro(prev_));
      if (opens && ++depth_ == 1) outer_holds_statements_ = t.text != "CASE" && t.text != "SWITCH";
      if (!opens && closes_block(t.text) && at_statement_start(prev_))
        chunk_floor_ = std::min(chunk_floor_, --depth_);
    }
    prev_ = t;
  }
}

PromptLines::Verdict PromptLines::add(const std::string &line, int line_no) {
  bool starting = text_.empty() && !skipping_;
  if (starting) {
    first_line_ = chunk_line_ = line_no;
    depth_ = chunk_floor_ = 0;
    prev_ = Token{};
    chunk_start_ = 0;
  }
  bool continues = false;
  std::vector<Token> tokens;
  try {
    tokens = tokenize_line(line, line_no, &continues);
  } catch (const SyntaxError &) {
    // The parse of the statement reports it.
  }
  if (continues) tokens.resize(tokens.size() - 2);  // its Newline and End: the statement goes on
  if (starting)
    in_definition_ = !tokens.empty() && (is_word(tokens[0], "PRO") || is_word(tokens[0], "FUNCTION"));
  count_blocks(tokens);
  if (skipping_) {
    if (depth_ > 0) return Verdict::More;
    clear();
    return Verdict::Dropped;
  }
  text_ += line;
  text_ += '\n';
  if (continues) return Verdict::More;
  return statement_ended(line_no);
}

PromptLines::Verdict PromptLines::statement_ended(int line_no) {
  if (depth_ > 0) {
    // A statement of the outermost block (a definition, a BEGIN) ended:
    // parse it on its own.  The block's first line alone is merely
    // incomplete; a text that left the block on the way (ENDIF ELSE BEGIN)
    // or the branches of a CASE are no statements, and wait for the whole.
    if (depth_ == 1) {
      std::string chunk = text_.substr(chunk_start_);
      int chunk_line = chunk_line_;
      bool whole_statements = outer_holds_statements_ && chunk_floor_ >= 1;
      chunk_start_ = text_.size();
      chunk_line_ = line_no + 1;
      chunk_floor_ = 1;
      if (whole_statements && parse(chunk, chunk_line) == Parse::Bad) {
        if (!in_definition_) return Verdict::Ready;  // the run reports it
        qvahost::emit("% The definition is discarded: its lines up to END are skipped.");
        text_.clear();
        skipping_ = true;
      }
    }
    return Verdict::More;
  }
  Parse whole = parse(text_, first_line_);
  if (whole == Parse::Incomplete) return Verdict::More;
  if (whole == Parse::Ok || !in_definition_) return Verdict::Ready;
  qvahost::emit("% The definition is discarded.");
  clear();
  return Verdict::Dropped;
}

// Inside a definition a syntax error is reported here; elsewhere the run
// reports it.
PromptLines::Parse PromptLines::parse(const std::string &source, int first_line) {
  parsed_bytes_ += source.size();
  try {
    parse_program(source, "<prompt>", first_line);
    return Parse::Ok;
  } catch (const SyntaxError &e) {
    if (e.incomplete) return Parse::Incomplete;
    if (in_definition_) {
      qvahost::emit(std::string("% ") + e.what());
      qvahost::emit("  At: <prompt>, line " + std::to_string(e.line));
    }
    return Parse::Bad;
  }
}

std::string PromptLines::take() {
  std::string out;
  out.swap(text_);
  return out;
}

void PromptLines::clear() {
  text_.clear();
  skipping_ = false;
  depth_ = 0;
}

}  // namespace qva
