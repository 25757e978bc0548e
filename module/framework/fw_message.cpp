// fw_message.cpp - QVAfwMessage (structure QVAFWMESSAGE).
//
// A named event sent to a message handler.
#include "framework/fw_message.h"

static QVA_STRUCT_TAG_DEF message_Tags[] = {
    {"QVAFWHASAHANDLER", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWMESSAGE_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"MESS_IDENT", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR message_Keywords[] = {
    FW_KW_FIRST, FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_SCOPE, FW_KW_END,
};

QVA_SDEF QVAfwMessageStartup(void) {
  return QVA_MakeStructInternal("QVAFWMESSAGE", QVA_SDEF_REUSE, message_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart Message_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, "QVAfwMessage"); }

ClassPart Message_from_vptr(QVA_VPTR v) { return Message_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_Message(ClassPart part) { return part; }
