// interrupt.cpp - the Ctrl-C flag.
#include "interrupt.h"

#include <csignal>

namespace qva {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void on_interrupt(int) { g_interrupted = 1; }

}  // namespace

void catch_interrupts() {
  struct sigaction sa {};
  sa.sa_handler = on_interrupt;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART
  sigaction(SIGINT, &sa, nullptr);
}

bool interrupt_pending() { return g_interrupted != 0; }

bool take_interrupt() {
  bool was = g_interrupted != 0;
  g_interrupted = 0;
  return was;
}

}  // namespace qva
