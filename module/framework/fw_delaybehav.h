// fw_delaybehav.h - QVAfwDelayBehav (structure QVAFWDELAYBEHAV).
//
// A behaviour that defers a method call until a second message arrives.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwDelayBehavStartup(void);

// Keywords of QVAFWDELAYBEHAV::INIT.
extern QVA_KW_PAR delayBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int delaybehav_init(ClassPart b, FwKeywordFields *kw);
void delaybehav_cleanup(ClassPart b);
// Arms the trigger: registers the sub-behaviour for the delay message.
void delaybehav_execute(ClassPart b);
// The deferred call with `arg` (or none), then the trigger disarmed.
void delaybehav_delayexecute(ClassPart b, QVA_VPTR arg);
void delaybehav_createSubBehav(ClassPart b);
void delaybehav_destroySubBehav(ClassPart b);
void delaybehav_setMeth(ClassPart b, const QVA_STRING *name);
void delaybehav_setObj(ClassPart b, QVA_HVID object);
void delaybehav_setDelayString(ClassPart b, QVA_STRING s);
void delaybehav_restore(ClassPart b);

// Registered routines.
QVA_VPTR QVA_fwDelayBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwDelayBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwDelayBehav_Execute(int argc, QVA_VPTR argv[]);
void QVA_fwDelayBehav_DelayExec(int argc, QVA_VPTR argv[]);
void QVA_fwDelayBehav_SetMethod(int argc, QVA_VPTR argv[]);
void QVA_fwDelayBehav_Restore(int argc, QVA_VPTR argv[]);
