// fw_query.cpp - QVAfwQuery (structure QVAFWQUERY).
//
// A message that collects a result.
#include "framework/fw_query.h"

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

ClassPart Query_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, "QVAFWQUERY", "QVAfwQuery"); }

ClassPart Query_from_vptr(QVA_VPTR v) { return Query_from_hvid(fw_objrefOf(v)); }

ClassPart Message_from_Query(ClassPart part) { return part; }
