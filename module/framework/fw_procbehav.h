// fw_procbehav.h - QVAfwProcBehav (structure QVAFWPROCBEHAV).
//
// A behaviour that calls a procedure by name.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwProcBehavStartup(void);

// Keywords of QVAFWPROCBEHAV::INIT.
extern QVA_KW_PAR procBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int procbehav_init(ClassPart b, FwKeywordFields *kw);
void procbehav_cleanup(ClassPart b);
int procbehav_execute(ClassPart b, QVA_VPTR arg);
// The procedure name; the text stays the structure's.
QVA_STRING procbehav_proc(ClassPart b);
void procbehav_setProc(ClassPart b, QVA_STRING name);
void procbehav_restore(ClassPart b);

// Shared with the function behaviour: calls the language procedure
// (kind 0) or function (kind 1) named `name` with `arg` as its one
// argument, or with none.
int fw_callRoutineNamed(QVA_UCHAR kind, const QVA_STRING &name, QVA_VPTR arg);
// Replaces the text a name field owns by a copy of `name`.
void fw_setOwnedString(QVA_STRING *field, const QVA_STRING &name);

// Registered routines.
QVA_VPTR QVA_fwProcBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwProcBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwProcBehav_Execute(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwProcBehav_Proc(int argc, QVA_VPTR argv[]);
void QVA_fwProcBehav_SetProc(int argc, QVA_VPTR argv[]);
void QVA_fwProcBehav_Restore(int argc, QVA_VPTR argv[]);
