// lineedit.cpp - the prompt's line editing and history through libedit's
// readline interface.  The history file is plain text, one line per entry;
// libedit's own history files are not used, as they encode blanks.
#include "lineedit.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <vector>

#include <editline/readline.h>

#include "interrupt.h"

namespace qva {

namespace {

constexpr size_t kHistoryKept = 1000;

// Reads one key for libedit.  Ctrl-C interrupts the read (the handler does
// not restart it) or came before it: either way the read ends as if the
// input had ended, and read() below sees the flag.
int read_key(FILE *in) {
  for (;;) {
    if (interrupt_pending()) return EOF;
    unsigned char c;
    ssize_t n = ::read(fileno(in), &c, 1);
    if (n == 1) return c;
    if (n == 0 || errno != EINTR) return EOF;
  }
}

}  // namespace

LineEditor::LineEditor(std::string history_file) : history_file_(std::move(history_file)) {
  rl_readline_name = "qva";
  // Ctrl-C is the program's: the read just ends (see read()).
  rl_catch_signals = 0;
  rl_getc_function = read_key;
  using_history();
  if (history_file_.empty()) return;
  std::vector<std::string> lines;
  {
    std::ifstream in(history_file_);
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) lines.push_back(line);
  }
  if (lines.size() > kHistoryKept) {
    lines.erase(lines.begin(), lines.end() - kHistoryKept);
    std::ofstream out(history_file_, std::ios::trunc);
    for (const std::string &line : lines) out << line << '\n';
  }
  for (const std::string &line : lines) add_history(line.c_str());
  if (!lines.empty()) last_ = lines.back();
}

LineEditor::~LineEditor() { clear_history(); }

ReadResult LineEditor::read(const std::string &prompt) {
  char *line = readline(prompt.c_str());
  // After Ctrl-C the half-typed line is dropped (one that came after the
  // last statement ended just gives a fresh prompt).
  if (take_interrupt()) {
    std::free(line);
    std::cout << std::endl;
    return {ReadResult::Interrupted, {}};
  }
  if (!line) return {ReadResult::End, {}};
  ReadResult r{ReadResult::Line, line};
  std::free(line);
  return r;
}

void LineEditor::remember(const std::string &line) {
  if (line.find_first_not_of(" \t") == std::string::npos || line == last_) return;
  last_ = line;
  add_history(line.c_str());
  if (history_file_.empty()) return;
  std::ofstream out(history_file_, std::ios::app);
  out << line << '\n';
}

}  // namespace qva
