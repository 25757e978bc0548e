// session.h - the qva program's ways of running code: a script file,
// statements given on the command line, and the interactive prompt.
#pragma once

#include <string>

#include "interp.h"

namespace qva {

// Runs a script file; false when it could not be read or stopped on an
// error.
bool run_file(Interp &in, const std::string &path);
// Runs the interactive prompt until end of input or EXIT; returns the exit
// status.
int run_prompt(Interp &in, const std::string &history_file);

}  // namespace qva
