// lineedit.h - reading lines at the interactive prompt, with editing and
// history (GNU readline).
#pragma once

#include <optional>
#include <string>

namespace qva {

class LineEditor {
 public:
  // `history_file` ("" for none) is read at start and written at the end.
  explicit LineEditor(std::string history_file);
  ~LineEditor();
  LineEditor(const LineEditor &) = delete;
  LineEditor &operator=(const LineEditor &) = delete;
  // The next line, without its newline; nothing at end of input.
  std::optional<std::string> read(const std::string &prompt);
  void remember(const std::string &line);

 private:
  std::string history_file_;
};

}  // namespace qva
