// fw_querybehav.h - QVAfwQueryBehav (structure QVAFWQUERYBEHAV).
//
// A behaviour that answers a query.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwQueryBehavStartup(void);

// Keywords of QVAFWQUERYBEHAV::INIT.
extern QVA_KW_PAR queryBehav_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker.
int querybehav_init(ClassPart b, FwKeywordFields *kw);
void querybehav_cleanup(ClassPart b);
// Answers the query `query` references with a copy of the response.
void querybehav_execute(ClassPart b, QVA_VPTR query);
QVA_VPTR querybehav_response(ClassPart b);
// Stores a copy of `value` as the response; no value clears it.
void querybehav_setResponse(ClassPart b, QVA_VPTR value);
void querybehav_restore(ClassPart b);

// Registered routines.
QVA_VPTR QVA_fwQueryBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwQueryBehav_Cleanup(int argc, QVA_VPTR argv[]);
void QVA_fwQueryBehav_Execute(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwQueryBehav_Response(int argc, QVA_VPTR argv[]);
void QVA_fwQueryBehav_SetResponse(int argc, QVA_VPTR argv[]);
void QVA_fwQueryBehav_Restore(int argc, QVA_VPTR argv[]);
