// fw_objbehav.cpp - QVAfwObjBehav (structure QVAFWOBJBEHAV).
//
// A behaviour that calls a method of an object.
#include "framework/fw_objbehav.h"

static QVA_STRUCT_TAG_DEF objBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWOBJBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"OBJECT", nullptr, QVA_TYP_OBJREF, 0},
    {"METH_IDENT", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR objBehav_Keywords[] = {
    FW_KW_FIRST,  FW_KW_HANDLER,  FW_KW_MESSAGESTRING, FW_KW_METHOD,
    FW_KW_OBJECT, FW_KW_REGISTER, FW_KW_SCOPE,         FW_KW_END,
};

QVA_SDEF QVAfwObjBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWOBJBEHAV", QVA_SDEF_REUSE, objBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart ObjBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWOBJBEHAV", "QVAfwObjBehav");
}

ClassPart ObjBehav_from_vptr(QVA_VPTR v) { return ObjBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_ObjBehav(ClassPart part) { return part; }
