// fw_querybehav.cpp - QVAfwQueryBehav (structure QVAFWQUERYBEHAV).
//
// A behaviour that answers a query.
#include "framework/fw_querybehav.h"

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

ClassPart QueryBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWQUERYBEHAV", "QVAfwQueryBehav");
}

ClassPart QueryBehav_from_vptr(QVA_VPTR v) { return QueryBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_QueryBehav(ClassPart part) { return part; }
