// main.cpp - the qva program: runs a script, statements given with -e, or
// the interactive prompt, after loading the extension module.
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "interp.h"
#include "session.h"
#include "source_files.h"

namespace {

const char kUsage[] =
    "usage: qva [options] [script.pro [args...]]\n"
    "       qva [options] -e 'statements'\n"
    "options:\n"
    "  --module PATH   load this module (default: $QVA_MODULE, else qva_cobalt.so next to qva)\n"
    "  --no-module     load no module\n"
    "  --check-leaks   at exit, reset the session and fail unless the host's accounting\n"
    "                  is back where it was at start-up\n"
    "  --trace PATTERN trace the calls of the routines whose names match PATTERN\n"
    "                  (e.g. 'QVAFW*::EXECUTE', '*::SEND*'; may be repeated), as TRACE does\n"
    "  -h, --help      show this text\n"
    "exit status: 0 done, 1 stopped on an uncaught error, 2 bad usage or no module,\n"
    "             3 leak check failed, 4 both an uncaught error and a failed leak check\n";

std::string exe_dir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  std::string p(buf, static_cast<size_t>(n));
  size_t slash = p.find_last_of('/');
  return slash == std::string::npos ? "." : p.substr(0, slash);
}

std::string default_module() {
  if (const char *env = std::getenv("QVA_MODULE"); env && *env) return env;
  std::string dir = exe_dir();
  // Beside qva in the build tree; in the module folder of an installed tree.
  for (const std::string &cand : {dir + "/qva_cobalt.so", dir + "/../qva_cobalt.so",
                                  dir + "/../" QVA_INSTALL_MODULE_DIR "/qva_cobalt.so"})
    if (access(cand.c_str(), R_OK) == 0) return cand;
  return dir + "/qva_cobalt.so";
}

}  // namespace

int main(int argc, char **argv) {
  std::string module;
  bool no_module = false, check_leaks = false;
  std::string statements;
  bool have_statements = false;
  std::string script;
  std::vector<std::string> script_args;
  std::vector<std::string> trace;
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--module" && i + 1 < argc) module = argv[++i];
    else if (a == "--no-module") no_module = true;
    else if (a == "--check-leaks") check_leaks = true;
    else if (a == "--trace" && i + 1 < argc) trace.push_back(argv[++i]);
    else if (a == "-e" && i + 1 < argc) { statements = argv[++i]; have_statements = true; }
    else if (a == "-h" || a == "--help") { std::cout << kUsage; return 0; }
    else if (a.size() > 1 && a[0] == '-') { std::cerr << "qva: unknown option " << a << "\n" << kUsage; return 2; }
    else { script = a; ++i; break; }
  }
  for (; i < argc; ++i) script_args.push_back(argv[i]);

  // Messages and error reports go to standard error, after what PRINT wrote.
  qvahost::set_output([](const std::string &line) {
    std::cout.flush();
    std::cerr << line << std::endl;
  });
  if (!no_module) {
    if (module.empty()) module = default_module();
    std::string error;
    if (qvahost::load_module_file(module, &error) != 1) {
      std::cerr << "qva: cannot load module " << module << (error.empty() ? "" : ": " + error) << "\n";
      return 2;
    }
  }

  int status = 0;
  {
    qva::Interp in;
    in.set_args(script_args);
    in.set_library_dir(qva::shipped_library(exe_dir(), QVA_INSTALL_ROUTINE_DIR));
    // The baseline is a freshly reset session: a module may keep state that
    // a reset makes anew.
    if (check_leaks) qvahost::reset_session();
    qvahost::Accounting start = qvahost::accounting();
    qvahost::set_trace(trace);
    try {
      if (have_statements) status = in.run_source(statements, "<command line>") ? 0 : 1;
      else if (!script.empty()) status = qva::run_file(in, script) ? 0 : 1;
      else status = qva::run_prompt(in, std::getenv("HOME") ? std::string(std::getenv("HOME")) + "/.qva_history" : "");
    } catch (const qva::ExitRequest &e) {
      status = e.status;
    }
    if (check_leaks) {
      qvahost::reset_session();
      qvahost::Accounting end = qvahost::accounting();
      if (!(end == start)) {
        std::cerr << "% Leak check failed:\n  start: " << qvahost::to_string(start)
                  << "\n  end:   " << qvahost::to_string(end) << std::endl;
        if (status == 0) status = 3;
        else if (status == 1) status = 4;
      }
    }
  }
  return status;
}
