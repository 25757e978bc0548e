// fw_objbehav.h - QVAfwObjBehav (structure QVAFWOBJBEHAV).
//
// A behaviour that calls a method of an object.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwObjBehavStartup(void);

// Keywords of QVAFWOBJBEHAV::INIT.
extern QVA_KW_PAR objBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int objbehav_init(ClassPart b, FwKeywordFields *kw);
void objbehav_cleanup(ClassPart b);
void objbehav_execute(ClassPart b, QVA_VPTR arg);
IdentText objbehav_meth(ClassPart b);
void objbehav_setMeth(ClassPart b, QVA_STRING name);
QVA_HVID objbehav_obj(ClassPart b);
void objbehav_setObj(ClassPart b, QVA_HVID object);
void objbehav_restore(ClassPart b);

// Calls the procedure method named by identifier `meth_ident` on `object`
// with `arg` as its one argument (or none).  A vanished identifier, or a
// name the host takes for no identifier, calls nothing.
void fw_callMethodNamed(QVA_HVPTR object, QVA_HVID meth_ident, QVA_VPTR arg);

// Registered routines.
QVA_VPTR QVA_fwObjBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwObjBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwObjBehav_Execute(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwObjBehav_Method(int argc, QVA_VPTR argv[]);
void QVA_fwObjBehav_SetMethod(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwObjBehav_Object(int argc, QVA_VPTR argv[]);
void QVA_fwObjBehav_SetObject(int argc, QVA_VPTR argv[]);
void QVA_fwObjBehav_Restore(int argc, QVA_VPTR argv[]);
