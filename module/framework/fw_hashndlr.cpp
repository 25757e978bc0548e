// fw_hashndlr.cpp - QVAfwHasAHandler (structure QVAFWHASAHANDLER).
//
// The link from a message, behaviour or message handler to its parent message
// handler.
#include "framework/fw_hashndlr.h"

static QVA_STRUCT_TAG_DEF hasahandler_Tags[] = {
    {"QVAFWSAVEABLE", nullptr, 0, QVA_STD_INHERIT},
    {"HASAHANDLER_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"MYHANDLER", nullptr, QVA_TYP_OBJREF, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR hasahandler_Keywords[] = {
    FW_KW_FIRST,
    FW_KW_HANDLER,
    FW_KW_END,
};

QVA_SDEF QVAfwHasAHandlerStartup(void) {
  return QVA_MakeStructInternal("QVAFWHASAHANDLER", QVA_SDEF_REUSE, hasahandler_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart HasAHandler_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, "QVAfwHasAHandler"); }

ClassPart HasAHandler_from_vptr(QVA_VPTR v) { return HasAHandler_from_hvid(fw_objrefOf(v)); }

SaveableData *Saveable_from_HasAHandler(ClassPart part) {
  return static_cast<SaveableData *>(part.data);
}
