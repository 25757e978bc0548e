// fw_messhndlr.h - QVAfwMessageHandler (structure QVAFWMESSAGEHANDLER).
//
// A handler keeps, for every message scoped at it, the list of behaviours
// registered there (its behaviour map: identifier -> behaviour list, both
// heap maps, so they travel with a saved session).  Sending a message runs
// the list of the nearest handler up the chain that has one; a message no
// handler claims is dropped at the top-level handler, which the module
// makes on first need and keeps in a module global.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwMessageHandlerStartup(void);

// Keywords of QVAFWMESSAGEHANDLER::INIT.
extern QVA_KW_PAR messageHandler_Keywords[];

// ---------------------------------------------------- top-level handler

int messagehandler_init(ClassPart handler, FwKeywordFields *kw);
QVA_HVID messagehandler_map(ClassPart handler);
void messagehandler_setMap(ClassPart handler, QVA_HVID map);
// The top-level handler, made (and held against heap collection) when
// there is none.
QVA_HVID TopLevelMessageHandler(void);
// The top-level handler if there is one, else 0; never makes one.
QVA_HVID currentTopLevelHandler(void);
// Forgets the top-level handler; deletes nothing.
void QVA_fwMessagehandler_RstTopLev(void);
int amITopLevel(QVA_HVID hvid);
// 1 when `hvid` named a top-level handler that the module deleted when its
// last scope went.  HANDLER hands the top-level handler out, so objects may
// name it as their parent; such a link still means "the top-level handler"
// and is read as the current one.
int messagehandler_retiredTopLevel(QVA_HVID hvid);
// Forgets the retired top-level handlers (at session reset: their
// identifiers are never issued again, and nothing names them any more).
void messagehandler_forgetRetired(void);

// ------------------------------------------------------------- dispatch

void messagehandler_cleanup(ClassPart handler);
// The behaviour list of `ident` at this handler, 0 when not scoped here.
QVA_HVID messagehandler_behaviorList(ClassPart handler, QVA_HVID ident);
// The behaviours of a list in list order, in a block from the host
// allocator that the caller frees (QVA_MemFreeQuiet); null when empty.
QVA_HVID *messagehandler_getBehaviors(QVA_HVID list, int *count);
void messagehandler_sendMessage(ClassPart handler, QVA_HVID ident, QVA_VPTR arg);
void messagehandler_execBehaviors(QVA_HVID list, QVA_VPTR arg);
void messagehandler_addBehavior(ClassPart handler, ClassPart behavior);
void messagehandler_removeBehavior(ClassPart handler, ClassPart behavior);
void messagehandler_restore(ClassPart handler);

// -------------------------------------------------------------- scoping

void messagehandler_scopeMessage(ClassPart handler, QVA_HVID ident);
void messagehandler_unscopeMessage(ClassPart handler, QVA_HVID ident);
void messagehandler_rescopeBehaviors(ClassPart handler, QVA_HVID ident);

// Registered routines.
QVA_VPTR QVA_fwMessageHandler_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwMessageHandler_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_SendMess(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_AddBehav(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_RemBehav(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwMessageHandler_Behaviors(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_Restore(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_ScopeMess(int argc, QVA_VPTR argv[]);
void QVA_fwMessageHandler_UnScopeMes(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwMessageHandler_IsScoped(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwMessageHandler_ScopedMess(int argc, QVA_VPTR argv[]);
