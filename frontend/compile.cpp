// compile.cpp - compiling source files into the session: routines found by
// file name when first called, and the executive commands (.COMPILE, .RUN,
// .RESET) typed at the prompt or written in a script.
#include <cctype>
#include <cstdlib>
#include <sstream>

#include "interp.h"
#include "parser.h"
#include "source_files.h"

namespace qva {

namespace {

std::string upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The words of a command line after the command, split at blanks and commas.
std::vector<std::string> command_words(const std::string &rest) {
  std::vector<std::string> out;
  std::istringstream in(rest);
  std::string word;
  while (in >> word) {
    size_t b = 0;
    while (b <= word.size()) {
      size_t e = word.find(',', b);
      if (e == std::string::npos) e = word.size();
      if (e > b) out.push_back(word.substr(b, e - b));
      b = e + 1;
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> Interp::search_path() const {
  const char *env = std::getenv("QVA_PATH");
  return search_folders(script_dir_, env ? env : "", library_dir_);
}

void Interp::compile_file(const std::string &path, bool run_main, bool announce) {
  std::string error;
  std::optional<std::string> text = read_source(path, &error);
  if (!text) qvahost::raise_error("Unable to open file: " + path + " (" + error + ").");
  Program program;
  try {
    program = parse_program(*text, path);
  } catch (const SyntaxError &e) {
    qvahost::raise_error("Unable to compile " + file_name_of(path) + ", line " +
                         std::to_string(e.line) + ": " + e.what());
  }
  if (announce)
    for (auto &r : program.routines) qvahost::emit("% Compiled module: " + r->name + ".");
  if (!run_main) program.main.clear();
  // The file's main-level statements run in the main frame, which may be
  // running a statement list (and a CATCH) of its own right now.
  struct KeepMain {
    Frame &main;
    bool catch_armed = main.catch_armed;
    std::string catch_var = main.catch_var;
    const std::vector<StmtPtr> *catch_list = main.catch_list;
    size_t catch_next = main.catch_next;
    std::string file = main.file;
    ~KeepMain() {
      main.catch_armed = catch_armed;
      main.catch_var = catch_var;
      main.catch_list = catch_list;
      main.catch_next = catch_next;
      main.file = file;
    }
  } keep{main_};
  run_program(program, path);
}

bool Interp::load_routine(const std::string &name) {
  std::optional<std::string> path = find_routine_file(name, search_path());
  if (!path) return false;
  compile_file(*path, false, false);
  return true;
}

void Interp::exec_command(const std::string &text) {
  size_t end = text.find_first_of(" \t");
  std::string cmd = upper(text.substr(0, end));
  std::vector<std::string> words = command_words(end == std::string::npos ? "" : text.substr(end));
  if (cmd == ".RESET" || cmd == ".RESET_SESSION" || cmd == ".FULL_RESET_SESSION") {
    qvahost::reset_session();
    return;
  }
  if (cmd == ".COMPILE" || cmd == ".RUN") {
    if (frames_.size() > 1)
      qvahost::raise_error(cmd.substr(1) + " is only allowed at main level.");
    if (words.empty()) qvahost::raise_error(cmd.substr(1) + " needs a file name.");
    for (const std::string &w : words) {
      std::optional<std::string> path = find_source_file(w, search_path());
      if (!path) qvahost::raise_error("Unable to find " + w + " on the search path.");
      compile_file(*path, cmd == ".RUN", true);
    }
    return;
  }
  qvahost::raise_error("Unknown executive command: " + text + ".");
}

}  // namespace qva
