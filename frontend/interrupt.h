// interrupt.h - Ctrl-C at the prompt: the signal only sets a flag, which
// the line reader and the evaluator (before each statement) look at.
#pragma once

namespace qva {

// Installs the SIGINT handler (for the interactive prompt only: a script
// run from a shell stops on Ctrl-C as programs do).  System calls it
// interrupts fail with EINTR instead of restarting, so a read waiting for
// a key sees it at once.
void catch_interrupts();
// True when Ctrl-C was pressed since the flag was last taken.
bool interrupt_pending();
// Reads and clears the flag.
bool take_interrupt();

}  // namespace qva
