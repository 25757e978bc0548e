// fw_message.h - QVAfwMessage (structure QVAFWMESSAGE).
//
// A named event sent to a message handler.  The message string is held as
// an interned identifier (fw_ident.h) with one reference while the message
// lives; handlers order their behaviour maps by the identifiers' texts.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwMessageStartup(void);

// Keywords of QVAFWMESSAGE::INIT.
extern QVA_KW_PAR message_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker,
// or null.
int message_init(ClassPart message, FwKeywordFields *kw);
void message_cleanup(ClassPart message);
void message_setString(ClassPart message, QVA_STRING s);
// The message string; copy its text to keep it.
IdentText message_string(ClassPart message);
void message_send(ClassPart message, QVA_VPTR arg);
void message_restore(ClassPart message);
ClassPart createMessage(void);
ClassPart cloneMessage(ClassPart message);
int message_compare(QVA_HVID a, QVA_HVID b);

// Message identity.
QVA_HVID message_ident(ClassPart message);
// The order of identifiers by their texts; a vanished identifier is
// reported as "FWIdent corruption".
int messageIdentCompare(QVA_HVID searched, QVA_HVID stored);

// Registered routines.
QVA_VPTR QVA_fwMessage_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwMessage_Cleanup(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
QVA_VPTR QVA_fwMessage_MessageString(int argc, QVA_VPTR argv[]);
void QVA_fwMessage_SetMessageString(int argc, QVA_VPTR argv[]);
void QVA_fwMessage_Send(int argc, QVA_VPTR argv[]);
void QVA_fwMessage_Restore(int argc, QVA_VPTR argv[]);
