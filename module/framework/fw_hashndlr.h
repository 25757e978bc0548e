// fw_hashndlr.h - QVAfwHasAHandler (structure QVAFWHASAHANDLER).
//
// The link from a message, behaviour or message handler to its parent
// message handler.  An object without an explicit parent belongs to the
// top-level handler; the top-level handler itself has no parent.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwHasAHandlerStartup(void);

// Keywords of QVAFWHASAHANDLER::INIT.
extern QVA_KW_PAR hasahandler_Keywords[];

// Internal operations.  `kw` is the keyword record without its free marker,
// or null when the object is made without keywords.
int hasahandler_init(ClassPart part, FwKeywordFields *kw);
// Links the object to handler `h` (0 clears the link).  A handler that is
// no live message handler, or that would close a cycle in the handler
// chain, is refused with a host error and the link is left as it was.
void hasahandler_setHandler(ClassPart part, QVA_HVID h);
// The explicit parent, else the top-level handler (made on first need),
// else 0 for the top-level handler itself.
QVA_HVID hasahandler_handler(ClassPart part);
void hasahandler_cleanup(ClassPart part);
void hasahandler_restore(ClassPart part);

// Guards a walk up a handler chain: the walk visits each handler it
// reaches, and a handler met a second time (a chain that loops, as a
// restored session can hold) ends the routine with a host error instead of
// walking forever.  Brent's cycle finding: one comparison a step, no
// allocation, and a loop is met within about three times its distance.
struct HandlerChainGuard {
  QVA_HVID saved = 0;  // the handler a later step must not meet again
  uint32_t steps = 0;  // steps since it was saved
  uint32_t span = 1;   // steps before the next handler is saved
};
// Ends the routine with the error of a chain that loops at `handler`.
[[noreturn]] void handlerChain_loops(QVA_HVID handler);
// Inline: a dispatch visits every handler it climbs past.
inline void handlerChain_visit(HandlerChainGuard *guard, QVA_HVID handler) {
  if (__builtin_expect(handler == guard->saved, 0)) handlerChain_loops(handler);
  if (++guard->steps == guard->span) {
    guard->saved = handler;
    guard->span *= 2;
    guard->steps = 0;
  }
}

// Registered routines.
QVA_VPTR QVA_fwHasAHandler_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
QVA_VPTR QVA_fwHasAHandler_Handler(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_SetHandler(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_Restore(int argc, QVA_VPTR argv[]);
