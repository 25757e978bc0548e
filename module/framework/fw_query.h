// fw_query.h - QVAfwQuery (structure QVAFWQUERY).
//
// A message that collects a result.
#pragma once

#include <qva/qva.h>

#include "frame/fw_class.h"

QVA_SDEF QVAfwQueryStartup(void);

// Keywords of QVAFWQUERY::INIT.
extern QVA_KW_PAR query_Keywords[];

// Internal operations; `kw` is the keyword record without its free marker,
// or null.
int query_init(ClassPart q, FwKeywordFields *kw);
void query_cleanup(ClassPart q);
// Sends the query with a reference to itself as the argument; then a new
// temporary with a copy of the result.
QVA_VPTR query_sendQuery(ClassPart q);
// A new temporary with a copy of the result ("UnInitialized Result" when
// there is none).
QVA_VPTR query_result(ClassPart q);
// Stores a copy of `value` as the result (overwriting a result in place);
// no value clears the result.
void query_setResult(ClassPart q, QVA_VPTR value);
void query_restore(ClassPart q);

// Registered routines.
QVA_VPTR QVA_fwQuery_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk);
void QVA_fwQuery_Cleanup(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwQuery_SendQuery(int argc, QVA_VPTR argv[]);
QVA_VPTR QVA_fwQuery_Result(int argc, QVA_VPTR argv[]);
void QVA_fwQuery_SetResult(int argc, QVA_VPTR argv[]);
void QVA_fwQuery_Restore(int argc, QVA_VPTR argv[]);
