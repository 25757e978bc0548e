// fw_funcbehav.h - QVAfwFuncBehav (structure QVAFWFUNCBEHAV).
//
// A behaviour that calls a function by name.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwFuncBehavStartup(void);

// Keywords of QVAFWFUNCBEHAV::INIT.
extern QVA_KW_PAR funcBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int funcbehav_init(ClassPart b, FwKeywordFields *kw);
void funcbehav_cleanup(ClassPart b);
int funcbehav_execute(ClassPart b, QVA_VPTR arg);
// The function name; the text stays the structure's.
QVA_STRING funcbehav_func(ClassPart b);
void funcbehav_setFunc(ClassPart b, QVA_STRING name);
void funcbehav_restore(ClassPart b);

// Registered routines.
QVA_VPTR QVA_fwFuncBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwFuncBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwFuncBehav_Execute(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwFuncBehav_Func(int argc, QVA_VPTR argv[]);
void QVA_fwFuncBehav_SetFunc(int argc, QVA_VPTR argv[]);
void QVA_fwFuncBehav_Restore(int argc, QVA_VPTR argv[]);
