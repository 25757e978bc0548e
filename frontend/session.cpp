// session.cpp - script files and the interactive prompt.
#include "session.h"

#include <iostream>

#include "interrupt.h"
#include "lineedit.h"
#include "prompt_lines.h"
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
  catch_interrupts();
  PromptLines lines;
  int line_no = 0;
  for (;;) {
    ReadResult read = editor.read(lines.empty() ? "QVA> " : "...> ");
    if (read.kind == ReadResult::End) {
      std::cout << std::endl;
      return 0;
    }
    if (read.kind == ReadResult::Interrupted) {
      lines.clear();
      continue;
    }
    editor.remember(read.text);
    if (lines.add(read.text, ++line_no) != PromptLines::Verdict::Ready) continue;
    int first_line = lines.first_line();
    std::string source = lines.take();
    try {
      in.run_source(source, "<prompt>", first_line);
    } catch (const ExitRequest &e) {
      return e.status;
    }
  }
}

}  // namespace qva
