// fw_delayargbehav.cpp - QVAfwDelayArgBehav (structure QVAFWDELAYARGBEHAV).
//
// A delayed behaviour that keeps the largest integer argument it received.
#include "framework/fw_delayargbehav.h"

static QVA_STRUCT_TAG_DEF delayArgBehav_Tags[] = {
    {"QVAFWDELAYBEHAV", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWDELAYARGBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"ARG", nullptr, QVA_TYP_LONG, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR delayArgBehav_Keywords[] = {
    FW_KW_FIRST,  FW_KW_DELAYMESSAGESTRING, FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_METHOD,
    FW_KW_OBJECT, FW_KW_REGISTER,           FW_KW_SCOPE,   FW_KW_END,
};

QVA_SDEF QVAfwDelayArgBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWDELAYARGBEHAV", QVA_SDEF_REUSE, delayArgBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart DelayArgBehav_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAFWDELAYARGBEHAV", "QVAfwDelayArgBehav");
}

ClassPart DelayArgBehav_from_vptr(QVA_VPTR v) { return DelayArgBehav_from_hvid(fw_objrefOf(v)); }

ClassPart DelayBehav_from_DelayArgBehav(ClassPart part) { return part; }
