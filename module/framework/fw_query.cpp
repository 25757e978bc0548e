// fw_query.cpp - QVAfwQuery (structure QVAFWQUERY).
//
// A message that collects a result.
#include "framework/fw_query.h"

#include "framework/fw_message.h"

static QVA_STRUCT_TAG_DEF query_Tags[] = {
    {"QVAFWMESSAGE", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWQUERY_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"QUERY_RESULT", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR query_Keywords[] = {
    FW_KW_FIRST, FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_SCOPE, FW_KW_END,
};

QVA_SDEF QVAfwQueryStartup(void) {
  return QVA_MakeStructInternal("QVAFWQUERY", QVA_SDEF_REUSE, query_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass queryClass{"QVAFWQUERY", "QVAfwQuery", {}, {}, 0};

ClassPart Query_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, queryClass); }

ClassPart Query_from_vptr(QVA_VPTR v) { return Query_from_hvid(fw_objrefOf(v)); }

ClassPart Message_from_Query(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int query_init(ClassPart q, FwKeywordFields *kw) {
  if (!message_init(Message_from_Query(q), kw)) return 0;
  QueryData *d = query_data(q);
  d->version = 1;
  d->query_result = 0;
  return 1;
}

void query_cleanup(ClassPart q) {
  fw_cellClear(&query_data(q)->query_result);
  message_cleanup(Message_from_Query(q));
}

QVA_VPTR query_sendQuery(ClassPart q) {
  QVA_VPTR self = fw_objrefTemp(q.hvid);
  struct Release {
    QVA_VPTR v;
    // Two or more behaviours leave it an undefined temporary: still ours.
    ~Release() {
      if (v->flags & QVA_V_TEMP) QVA_Deltmp(v);
    }
  } release{self};
  message_send(Message_from_Query(q), self);
  // The behaviours may have destroyed the query: locate it afresh.
  return query_result(Query_from_hvid(q.hvid));
}

QVA_VPTR query_result(ClassPart q) {
  return fw_cellValue(query_data(q)->query_result, "UnInitialized Result");
}

void query_setResult(ClassPart q, QVA_VPTR value) {
  if (value)
    fw_cellStore(&query_data(q)->query_result, value, "query result");
  else
    fw_cellClear(&query_data(q)->query_result);
}

void query_restore(ClassPart q) {
  message_restore(Message_from_Query(q));
  QueryData *d = query_data(q);
  if (d->version < 1) {
    d->version = 1;
    d->query_result = 0;
  }
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwQuery_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, query_Keywords, Query_from_vptr, query_init);
}

void QVA_fwQuery_Cleanup(int, QVA_VPTR argv[]) { query_cleanup(Query_from_vptr(argv[0])); }

QVA_VPTR QVA_fwQuery_SendQuery(int, QVA_VPTR argv[]) {
  return query_sendQuery(Query_from_vptr(argv[0]));
}

QVA_VPTR QVA_fwQuery_Result(int, QVA_VPTR argv[]) { return query_result(Query_from_vptr(argv[0])); }

void QVA_fwQuery_SetResult(int, QVA_VPTR argv[]) {
  query_setResult(Query_from_vptr(argv[0]), argv[1]);
}

void QVA_fwQuery_Restore(int, QVA_VPTR argv[]) { query_restore(Query_from_vptr(argv[0])); }
