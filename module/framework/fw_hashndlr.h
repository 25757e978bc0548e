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

// Registered routines.
QVA_VPTR QVA_fwHasAHandler_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
QVA_VPTR QVA_fwHasAHandler_Handler(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_SetHandler(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwHasAHandler_Restore(int argc, QVA_VPTR argv[]);
