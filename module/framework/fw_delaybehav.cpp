// fw_delaybehav.cpp - QVAfwDelayBehav (structure QVAFWDELAYBEHAV).
//
// A behaviour that defers a method call until a second message arrives.
#include "framework/fw_delaybehav.h"

static QVA_STRUCT_TAG_DEF delayBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWDELAYBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"OBJECT", nullptr, QVA_TYP_OBJREF, 0},
    {"METH_IDENT", nullptr, QVA_TYP_PTR, 0},
    {"SUB_BEHAVIOR", nullptr, QVA_TYP_OBJREF, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR delayBehav_Keywords[] = {
    FW_KW_FIRST,  FW_KW_DELAYMESSAGESTRING, FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_METHOD,
    FW_KW_OBJECT, FW_KW_REGISTER,           FW_KW_SCOPE,   FW_KW_END,
};

QVA_SDEF QVAfwDelayBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWDELAYBEHAV", QVA_SDEF_REUSE, delayBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart DelayBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWDELAYBEHAV", "QVAfwDelayBehav");
}

ClassPart DelayBehav_from_vptr(QVA_VPTR v) { return DelayBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_DelayBehav(ClassPart part) { return part; }
