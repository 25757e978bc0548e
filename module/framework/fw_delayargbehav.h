// fw_delayargbehav.h - QVAfwDelayArgBehav (structure QVAFWDELAYARGBEHAV).
//
// A delayed behaviour that keeps the largest integer argument it received.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwDelayArgBehavStartup(void);

// Keywords of QVAFWDELAYARGBEHAV::INIT.
extern QVA_KW_PAR delayArgBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int delayargbehav_init(ClassPart b, FwKeywordFields *kw);
void delayargbehav_cleanup(ClassPart b);
// Arms the trigger and keeps the larger of ARG and `value`.
void delayargbehav_execute(ClassPart b, QVA_LONG value);
// The deferred call with ARG, then ARG back to 0.
void delayargbehav_delayexecute(ClassPart b);
void delayargbehav_resetArg(ClassPart b);

// Registered routines.
QVA_VPTR QVA_fwDelayArgBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwDelayArgBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwDelayArgBehav_Execute(int argc, QVA_VPTR argv[]);
void QVA_fwDelayArgBehav_DelayExec(int argc, QVA_VPTR argv[]);
