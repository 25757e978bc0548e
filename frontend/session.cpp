// session.cpp - script files and the interactive prompt.
#include "session.h"

#include <iostream>

#include "interrupt.h"
#include "lineedit.h"
#include "parser.h"
#include "source_files.h"

namespace qva {

namespace {

bool opens_block(const std::string &word) {
  return word == "PRO" || word == "FUNCTION" || word == "BEGIN" || word == "CASE" ||
         word == "SWITCH";
}

bool closes_block(const std::string &word) {
  return word == "END" || word == "ENDIF" || word == "ENDELSE" || word == "ENDFOR" ||
         word == "ENDFOREACH" || word == "ENDWHILE" || word == "ENDREP" || word == "ENDCASE" ||
         word == "ENDSWITCH";
}

// The words of the lines typed so far, line by line; a line the lexer
// refuses gives none.
std::vector<Token> words_of(const std::string &source) {
  std::vector<Token> out;
  size_t b = 0;
  while (b < source.size()) {
    size_t e = source.find('\n', b);
    if (e == std::string::npos) e = source.size();
    try {
      for (Token &t : tokenize(source.substr(b, e - b)))
        if (t.kind == Tok::Ident) out.push_back(std::move(t));
    } catch (const SyntaxError &) {
    }
    b = e + 1;
  }
  return out;
}

// Whether the text typed so far begins a routine definition.
bool starts_definition(const std::string &source) {
  std::vector<Token> words = words_of(source);
  return !words.empty() && (words[0].text == "PRO" || words[0].text == "FUNCTION");
}

// How many blocks (the definition itself, BEGIN, CASE, SWITCH) the text
// leaves open.
int open_blocks(const std::string &source) {
  int open = 0;
  for (const Token &t : words_of(source)) {
    if (opens_block(t.text)) ++open;
    else if (closes_block(t.text)) --open;
  }
  return open;
}

}  // namespace

bool run_file(Interp &in, const std::string &path) {
  std::string error;
  std::optional<std::string> text = read_source(path, &error);
  if (!text) {
    qvahost::emit("% Unable to open file: " + path + " (" + error + ").");
    return false;
  }
  // Routines the script calls are looked for beside it first.
  in.set_script_dir(folder_of(path));
  return in.run_source(*text, path);
}

int run_prompt(Interp &in, const std::string &history_file) {
  LineEditor editor(history_file);
  catch_interrupts();
  std::string pending;
  // After a syntax error inside a definition, the lines up to its END are
  // read and dropped: none of them may run at main level.
  bool skipping = false;
  int first_line = 1;
  int line_no = 0;
  for (;;) {
    ReadResult read = editor.read(pending.empty() ? "QVA> " : "...> ");
    if (read.kind == ReadResult::End) {
      std::cout << std::endl;
      return 0;
    }
    if (read.kind == ReadResult::Interrupted) {
      pending.clear();
      skipping = false;
      continue;
    }
    ++line_no;
    editor.remember(read.text);
    if (pending.empty()) first_line = line_no;
    pending += read.text + "\n";
    if (skipping) {
      if (open_blocks(pending) > 0) continue;
      pending.clear();
      skipping = false;
      continue;
    }
    // A construct left open (BEGIN, a definition, a '$') continues on the
    // next line.
    try {
      parse_program(pending, "<prompt>", first_line);
    } catch (const SyntaxError &e) {
      if (e.incomplete) continue;
      if (starts_definition(pending)) {
        qvahost::emit(std::string("% ") + e.what());
        qvahost::emit("  At: <prompt>, line " + std::to_string(e.line));
        if (open_blocks(pending) > 0) {
          qvahost::emit("% The definition is discarded: its lines up to END are skipped.");
          skipping = true;
        } else {
          qvahost::emit("% The definition is discarded.");
          pending.clear();
        }
        continue;
      }
    }
    std::string source;
    source.swap(pending);
    try {
      in.run_source(source, "<prompt>", first_line);
    } catch (const ExitRequest &e) {
      return e.status;
    }
  }
}

}  // namespace qva
