// session.cpp - script files and the interactive prompt.
#include "session.h"

#include <iostream>

#include "lineedit.h"
#include "parser.h"
#include "source_files.h"

namespace qva {

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
  std::string pending;
  int first_line = 1;
  int line_no = 0;
  for (;;) {
    auto line = editor.read(pending.empty() ? "QVA> " : "...> ");
    if (!line) {
      std::cout << std::endl;
      return 0;
    }
    ++line_no;
    editor.remember(*line);
    if (pending.empty()) first_line = line_no;
    pending += *line + "\n";
    // A construct left open (BEGIN, a definition, a '$') continues on the
    // next line.
    try {
      parse_program(pending, "<prompt>", first_line);
    } catch (const SyntaxError &e) {
      if (e.incomplete) continue;
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
