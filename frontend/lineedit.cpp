// lineedit.cpp - the prompt's line editing and history through readline.
#include "lineedit.h"

#include <cstdio>
#include <cstdlib>
#include <readline/history.h>
#include <readline/readline.h>

namespace qva {

LineEditor::LineEditor(std::string history_file) : history_file_(std::move(history_file)) {
  rl_readline_name = "qva";
  using_history();
  if (!history_file_.empty()) read_history(history_file_.c_str());
}

LineEditor::~LineEditor() {
  if (!history_file_.empty()) {
    write_history(history_file_.c_str());
    history_truncate_file(history_file_.c_str(), 1000);
  }
}

std::optional<std::string> LineEditor::read(const std::string &prompt) {
  char *line = readline(prompt.c_str());
  if (!line) return std::nullopt;
  std::string out(line);
  std::free(line);
  return out;
}

void LineEditor::remember(const std::string &line) {
  if (line.find_first_not_of(" \t") == std::string::npos) return;
  HIST_ENTRY *last = history_length > 0 ? history_get(history_base + history_length - 1) : nullptr;
  if (!last || line != last->line) add_history(line.c_str());
}

}  // namespace qva
