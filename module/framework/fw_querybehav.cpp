// fw_querybehav.cpp - QVAfwQueryBehav (structure QVAFWQUERYBEHAV).
//
// A behaviour that answers a query.
#include "framework/fw_querybehav.h"

#include "framework/fw_behavior.h"
#include "framework/fw_query.h"

static QVA_STRUCT_TAG_DEF queryBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWQUERYBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"RESPONSE", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR queryBehav_Keywords[] = {
    FW_KW_FIRST,    FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_REGISTER,
    FW_KW_RESPONSE, FW_KW_SCOPE,   FW_KW_END,
};

QVA_SDEF QVAfwQueryBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWQUERYBEHAV", QVA_SDEF_REUSE, queryBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass queryBehavClass{"QVAFWQUERYBEHAV", "QVAfwQueryBehav", {}, {}, 0};

ClassPart QueryBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, queryBehavClass); }

ClassPart QueryBehav_from_vptr(QVA_VPTR v) { return QueryBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_QueryBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int querybehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!behavior_init(Behavior_from_QueryBehav(b), kw)) return 0;
  QueryBehavData *d = querybehav_data(b);
  d->version = 1;
  d->response = 0;
  if (kw->method_given) querybehav_setResponse(b, fw_kwResponse(kw));
  return 1;
}

void querybehav_cleanup(ClassPart b) {
  behavior_cleanup(Behavior_from_QueryBehav(b));
  querybehav_setResponse(b, nullptr);
}

void querybehav_execute(ClassPart b, QVA_VPTR query) {
  // Query_from_vptr refuses anything but a query, so no result is ever
  // stored into another kind of object.
  ClassPart q = Query_from_vptr(query);
  QVA_VPTR response = querybehav_response(b);
  ScopedTemp release(response);
  query_setResult(q, response);
}

QVA_VPTR querybehav_response(ClassPart b) {
  return fw_cellValue(querybehav_data(b)->response, "UnInitialized Response");
}

void querybehav_setResponse(ClassPart b, QVA_VPTR value) {
  if (value)
    fw_cellStore(&querybehav_data(b)->response, value, "response");
  else
    fw_cellClear(&querybehav_data(b)->response);
}

void querybehav_restore(ClassPart b) {
  behavior_restore(Behavior_from_QueryBehav(b));
  QueryBehavData *d = querybehav_data(b);
  if (d->version < 1) d->version = 1;
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwQueryBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, queryBehav_Keywords, QueryBehav_from_vptr,
                             querybehav_init);
}

void QVA_fwQueryBehav_Cleanup(int, QVA_VPTR argv[]) {
  querybehav_cleanup(QueryBehav_from_vptr(argv[0]));
}

void QVA_fwQueryBehav_Execute(int, QVA_VPTR argv[]) {
  querybehav_execute(QueryBehav_from_vptr(argv[0]), argv[1]);
}

QVA_VPTR QVA_fwQueryBehav_Response(int, QVA_VPTR argv[]) {
  return querybehav_response(QueryBehav_from_vptr(argv[0]));
}

void QVA_fwQueryBehav_SetResponse(int argc, QVA_VPTR argv[]) {
  querybehav_setResponse(QueryBehav_from_vptr(argv[0]), argc == 2 ? argv[1] : nullptr);
}

void QVA_fwQueryBehav_Restore(int, QVA_VPTR argv[]) {
  querybehav_restore(QueryBehav_from_vptr(argv[0]));
}
