// fw_messhndlr.cpp - QVAfwMessageHandler (structure QVAFWMESSAGEHANDLER).
//
// Dispatches messages to the behaviours registered for them.
#include "framework/fw_messhndlr.h"

static QVA_STRUCT_TAG_DEF messageHandler_Tags[] = {
    {"QVAFWHASAHANDLER", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWMESSAGEHANDLER_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"BEHAVIORS", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR messageHandler_Keywords[] = {
    FW_KW_FIRST,
    FW_KW_HANDLER,
    FW_KW_END,
};

QVA_SDEF QVAfwMessageHandlerStartup(void) {
  return QVA_MakeStructInternal("QVAFWMESSAGEHANDLER", QVA_SDEF_REUSE, messageHandler_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart MessageHandler_from_hvid(QVA_HVID hvid) {
  return fw_classPart(hvid, "QVAfwMessageHandler");
}

ClassPart MessageHandler_from_vptr(QVA_VPTR v) { return MessageHandler_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_MessageHandler(ClassPart part) { return part; }
