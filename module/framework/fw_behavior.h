// fw_behavior.h - QVAfwBehavior (structure QVAFWBEHAVIOR).
//
// What runs when a message arrives at the handler where the behaviour is
// registered: the dispatch calls the behaviour object's EXECUTE method, so
// the object's own class decides what happens.  The message string is held
// as an interned identifier with one reference while the behaviour lives.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwBehaviorStartup(void);

// Keywords of QVAFWBEHAVIOR::INIT.
extern QVA_KW_PAR behavior_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int behavior_init(ClassPart behavior, FwKeywordFields *kw);
void behavior_cleanup(ClassPart behavior);
void behavior_execute(ClassPart behavior);
// The message string; copy its text to keep it.
IdentText behavior_messString(ClassPart behavior);
// Changes the message string; a registered behaviour moves its
// registration to the new identifier, so it keeps answering.
void behavior_setMessString(ClassPart behavior, QVA_STRING s);
void behavior_restore(ClassPart behavior);

// Registration and the execution call.
QVA_HVID behavior_messIdent(ClassPart behavior);
void behavior_setRegistered(ClassPart behavior, int flag);
int behavior_isRegistered(ClassPart behavior);
void behavior_register(ClassPart behavior);
void behavior_unregister(ClassPart behavior);
void behavior_reregister(ClassPart behavior);
// Calls the object's EXECUTE with `arg` as its one argument, or with none.
int behavior_call_execute(ClassPart behavior, QVA_VPTR arg);
// The order of behaviour lists: ascending heap identifier.
int behavior_compare(QVA_HVID a, QVA_HVID b);

// Registered routines.
QVA_VPTR QVA_fwBehavior_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwBehavior_Cleanup(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
QVA_VPTR QVA_fwBehavior_MessageString(int argc, QVA_VPTR argv[]);
void QVA_fwBehavior_SetMessageString(int argc, QVA_VPTR argv[]);
void QVA_fwBehavior_Execute(int argc, QVA_VPTR argv[]);
void QVA_fwBehavior_Register(int argc, QVA_VPTR argv[]);
void QVA_fwBehavior_Unregister(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwBehavior_IsRegistered(int argc, QVA_VPTR argv[]);
void QVA_fwBehavior_Restore(int argc, QVA_VPTR argv[]);
