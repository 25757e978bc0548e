// lineedit.h - reading lines at the interactive prompt, with editing and
// history (libedit's readline interface).
#pragma once

#include <string>

namespace qva {

// What one read gave: a line, Ctrl-C (the half-typed line is dropped), or
// the end of input.
struct ReadResult {
  enum Kind { Line, Interrupted, End } kind = End;
  std::string text;  // the line, without its newline
};

class LineEditor {
 public:
  // `history_file` ("" for none): its lines are the history at start, and
  // each line entered is appended to it at once, so that a session that is
  // killed loses nothing typed.
  explicit LineEditor(std::string history_file);
  ~LineEditor();
  LineEditor(const LineEditor &) = delete;
  LineEditor &operator=(const LineEditor &) = delete;
  ReadResult read(const std::string &prompt);
  void remember(const std::string &line);

 private:
  std::string history_file_;
  std::string last_;  // the newest history line
};

}  // namespace qva
