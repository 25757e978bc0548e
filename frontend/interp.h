// interp.h - the evaluator: frames of running routines, statements,
// expressions and calls.  Routines written in QVA are registered with the
// host like native ones, so modules call them (and their methods) the
// same way.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ast.h"
#include "qva_host.h"
#include "arrays.h"

namespace qva {

// The variables of one running routine, or of the main level (whose
// variables are the host's main-level variables).
struct Frame {
  Frame() = default;
  ~Frame();
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;

  std::string routine;  // upper case; "" at main level
  std::string file;
  bool main = false;
  bool is_function = false;
  int line = 0;
  std::map<std::string, QVA_VPTR> vars;  // locals, and the caller's variables it was given
  std::vector<std::unique_ptr<QVA_VARIABLE>> owned;
  qvahost::Keywords extra;  // keywords passed on with _EXTRA / _REF_EXTRA
  std::string extra_name;
  int n_params = 0;
  int on_error = 0;  // ON_ERROR: 0 halt here, 1 at main level, 2 and 3 in the caller
  Val result;  // a function's RETURN value
  // CATCH: armed with the variable to set and where to go on.
  bool catch_armed = false;
  std::string catch_var;
  const std::vector<StmtPtr> *catch_list = nullptr;
  size_t catch_next = 0;
};

// Where an error stopped execution.
struct ErrorSite {
  bool set = false;
  std::string routine, file;
  int line = 0;
  bool to_main = false;  // ON_ERROR, 1 seen on the way out: main level halts
};

// EXIT: ends the program.
struct ExitRequest {
  int status = 0;
};

class Interp {
 public:
  Interp();
  ~Interp();
  Interp(const Interp &) = delete;
  Interp &operator=(const Interp &) = delete;

  // Parses and runs a source: its routines are defined, then its
  // main-level statements run.  An error is reported (with where it
  // happened) and ends the run; returns false then.
  bool run_source(const std::string &source, const std::string &file, int first_line = 1);
  // Defines the routines of a parsed program and runs its statements;
  // throws the HostError that was not caught.
  void run_program(Program &program, const std::string &file);

  // Where PRINT and HELP write (default: standard output).
  void set_print(std::function<void(const std::string &)> sink) { print_ = std::move(sink); }
  void print(const std::string &line) const;
  void set_args(std::vector<std::string> args) { args_ = std::move(args); }
  // Lets at most `steps` more statements run (0: no limit).  Passing the
  // budget raises an error that no CATCH stops, so that any program ends
  // (for sandboxed runs such as fuzzing).
  void set_step_limit(uint64_t steps) {
    step_limit_ = steps;
    steps_ = 0;
  }
  const std::vector<std::string> &args() const { return args_; }

  Frame &frame() { return *frames_.back(); }
  Frame &main_frame() { return main_; }
  const ErrorSite &last_site() const { return site_; }
  // Reports an error as the prompt and the script runner do.
  void report(const qvahost::HostError &e, const std::string &file);
  void clear_error_site() { site_ = {}; }
  // The error that CATCH caught last (for !ERROR_STATE).
  const qvahost::HostError &last_error() const { return last_error_; }
  void define_routine(std::shared_ptr<RoutineDef> def);

  // Routines found by file name (routine_loading.cpp).  The script's
  // folder comes first on the search path ("." at the prompt), the shipped
  // library last.
  void set_script_dir(std::string dir) { script_dir_ = std::move(dir); }
  void set_library_dir(std::string dir) { library_dir_ = std::move(dir); }
  std::vector<std::string> search_path() const;
  // Defines the routines of a source file (with `announce`, saying so);
  // with `run_main`, then runs its main-level statements.  A file that
  // cannot be read or parsed raises a HostError.
  void compile_file(const std::string &path, bool run_main, bool announce);
  // The host's routine loader: compiles name.pro from the search path.
  bool load_routine(const std::string &name);

  // Variables of a frame.
  QVA_VPTR lookup(Frame &f, const std::string &name);
  QVA_VPTR lookup_or_create(Frame &f, const std::string &name);

 private:
  enum class Flow { Next, Break, Continue, Return };

  Flow run_body(Frame &f, const std::vector<StmtPtr> &body);
  Flow exec_list(Frame &f, const std::vector<StmtPtr> &list, size_t from);
  Flow exec(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list, size_t index);
  Flow exec_for(Frame &f, const Stmt &s);
  Flow exec_foreach(Frame &f, const Stmt &s);
  Flow exec_case(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list, size_t index);
  void exec_catch(Frame &f, const Stmt &s, const std::vector<StmtPtr> &list, size_t index);
  void exec_command(const std::string &text);
  bool handle_catch(Frame &f, const qvahost::HostError &e);

  Val eval(Frame &f, const Expr &e);
  Val eval_node(Frame &f, const Expr &e);
  Val apply_link(Frame &f, const Expr &e, Val left);
  Val eval_sysvar(const Expr &e);
  Val eval_array(Frame &f, const Expr &e);
  Val eval_struct(Frame &f, const Expr &e);
  Val eval_call(Frame &f, const Expr &e);
  Val eval_field(Frame &f, const Expr &e, Val base);
  Val eval_deref(Frame &f, const Expr &e);
  // The heap variable of object `obj` (written `base` in the source) whose
  // `field` the running routine reads or writes: refused outside the
  // methods of the object's class chain.
  // After a failed method call: when the object's class chain has `method`
  // only as the other kind (function for procedure or the reverse), raises
  // the error that says how to call it.
  void check_method_kind(QVA_VPTR obj, const std::string &method, bool as_function,
                         const Expr &object, const std::string &spelling);
  QVA_HVPTR instance_data(Frame &f, QVA_VPTR obj, const Expr &base, const std::string &field);
  // Subscripts evaluated: a[...] and a(...) on a variable.
  std::vector<Subscript> subscripts(Frame &f, const std::vector<Index> &ix);
  std::vector<Subscript> call_subscripts(Frame &f, const std::vector<Arg> &args);
  void assign(Frame &f, const Expr &target, Val value);
  void store_back(Frame &f, const Expr &base, Val copy);
  QVA_VPTR addressable(Frame &f, const Expr &e);

  // Arguments of a call as the language passes them: a named variable by
  // reference, anything else as a temporary that `hold` keeps.
  struct CallArgs {
    std::vector<Val> hold;
    std::vector<QVA_VPTR> positional;
    qvahost::Keywords keywords;
  };
  void build_args(Frame &f, const std::vector<Arg> &args, CallArgs &out);
  Val pass(Frame &f, const Expr &e);

  bool out_of_steps() const { return step_limit_ != 0 && steps_ > step_limit_; }

  Interp *previous_ = nullptr;
  uint64_t step_limit_ = 0, steps_ = 0;
  // Set while the error that unwinds is a Ctrl-C: no CATCH takes it.
  bool interrupting_ = false;
  std::string script_dir_ = ".";
  std::string library_dir_;
 public:
  // Runs a routine written in QVA (the body the host calls).
  QVA_VPTR invoke(const RoutineDef &def, int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
  void visit_roots(const qvahost::RootVisitor &visit);

  Frame main_;
  std::vector<Frame *> frames_;
  std::vector<std::shared_ptr<RoutineDef>> routines_;
  std::vector<std::shared_ptr<Program>> programs_;  // keep the syntax trees of defined routines
  std::function<void(const std::string &)> print_;
  std::vector<std::string> args_;
  ErrorSite site_;
  qvahost::HostError last_error_;
  QVA_SDEF error_state_sdef_ = nullptr;
  QVA_SDEF values_sdef_ = nullptr;  // !VALUES
};

// Registers the built-in routines (PRINT, HELP, OBJ_NEW, ...) with the host.
void register_builtins();
// The interpreter routines and built-ins run in: the one made last that is
// still alive.
Interp &current_interp();

// Resolves a keyword as given (possibly abbreviated) against the allowed
// names: the index of the match, or -1 when none.  An ambiguous
// abbreviation raises a HostError.
int match_keyword(const std::string &given, const std::vector<std::string> &allowed);

}  // namespace qva
