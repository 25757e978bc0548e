// fw_funcbehav.cpp - QVAfwFuncBehav (structure QVAFWFUNCBEHAV).
//
// A behaviour that calls a function by name.
#include "framework/fw_funcbehav.h"

static QVA_STRUCT_TAG_DEF funcBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWFUNCBEHAV_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"QVAFWFUNCBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"FUNC_STRING", nullptr, QVA_TYP_STRING, 0},
    {"QVAFWFUNCBEHAV_BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR funcBehav_Keywords[] = {
    FW_KW_FIRST,    FW_KW_FUNCTION, FW_KW_HANDLER, FW_KW_MESSAGESTRING,
    FW_KW_REGISTER, FW_KW_SCOPE,    FW_KW_END,
};

QVA_SDEF QVAfwFuncBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWFUNCBEHAV", QVA_SDEF_REUSE, funcBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart FuncBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWFUNCBEHAV", "QVAfwFuncBehav");
}

ClassPart FuncBehav_from_vptr(QVA_VPTR v) { return FuncBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_FuncBehav(ClassPart part) { return part; }
