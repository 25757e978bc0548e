// fw_procbehav.cpp - QVAfwProcBehav (structure QVAFWPROCBEHAV).
//
// A behaviour that calls a procedure by name.
#include "framework/fw_procbehav.h"

static QVA_STRUCT_TAG_DEF procBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWPROCBEHAV_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"QVAFWPROCBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"PROC_STRING", nullptr, QVA_TYP_STRING, 0},
    {"QVAFWPROCBEHAV_BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR procBehav_Keywords[] = {
    FW_KW_FIRST,    FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_PROCEDURE,
    FW_KW_REGISTER, FW_KW_SCOPE,   FW_KW_END,
};

QVA_SDEF QVAfwProcBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWPROCBEHAV", QVA_SDEF_REUSE, procBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart ProcBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWPROCBEHAV", "QVAfwProcBehav");
}

ClassPart ProcBehav_from_vptr(QVA_VPTR v) { return ProcBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_ProcBehav(ClassPart part) { return part; }
