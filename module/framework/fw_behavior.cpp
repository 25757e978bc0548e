// fw_behavior.cpp - QVAfwBehavior (structure QVAFWBEHAVIOR).
//
// What runs when a message arrives at the handler where the behaviour is
// registered.
#include "framework/fw_behavior.h"

static QVA_STRUCT_TAG_DEF behavior_Tags[] = {
    {"QVAFWHASAHANDLER", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWBEHAVIOR_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"IS_REGISTERED", nullptr, QVA_TYP_BYTE, 0},
    {"MESSIDENT", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR behavior_Keywords[] = {
    FW_KW_FIRST, FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_REGISTER, FW_KW_SCOPE, FW_KW_END,
};

QVA_SDEF QVAfwBehaviorStartup(void) {
  return QVA_MakeStructInternal("QVAFWBEHAVIOR", QVA_SDEF_REUSE, behavior_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart Behavior_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, "QVAfwBehavior"); }

ClassPart Behavior_from_vptr(QVA_VPTR v) { return Behavior_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_Behavior(ClassPart part) { return part; }
