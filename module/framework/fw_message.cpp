// fw_message.cpp - QVAfwMessage (structure QVAFWMESSAGE).
//
// A named event sent to a message handler.
#include "framework/fw_message.h"

#include "frame/fw_text.h"
#include "frame/qva_cobalt.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_messhndlr.h"

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

static FwClass messageClass{"QVAFWMESSAGE", "QVAfwMessage", {}, {}, 0};

ClassPart Message_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, messageClass); }

ClassPart Message_from_vptr(QVA_VPTR v) { return Message_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_Message(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int message_init(ClassPart message, FwKeywordFields *kw) {
  if (!hasahandler_init(HasAHandler_from_Message(message), kw)) return 0;
  MessageData *d = message_data(message);
  d->version = 1;
  d->mess_ident = fwIdent_get(HostString("Generic Message").get());
  if (kw) {
    if (kw->messagestring_given) message_setString(message, kw->messagestring);
    if (kw->scope) {
      QVA_HVID handler = hasahandler_handler(HasAHandler_from_Message(message));
      messagehandler_scopeMessage(MessageHandler_from_hvid(handler),
                                  message_data(message)->mess_ident);
    }
  }
  return 1;
}

void message_cleanup(ClassPart message) { fwIdent_releaseHVID(message_data(message)->mess_ident); }

void message_setString(ClassPart message, QVA_STRING s) {
  fwIdent_setField(&message_data(message)->mess_ident, &s);
}

IdentText message_string(ClassPart message) { return IdentText(message_data(message)->mess_ident); }

void message_send(ClassPart message, QVA_VPTR arg) {
  QVA_HVID handler = hasahandler_handler(HasAHandler_from_Message(message));
  if (!handler) return;
  messagehandler_sendMessage(MessageHandler_from_hvid(handler), message_data(message)->mess_ident,
                             arg);
}

void message_restore(ClassPart message) {
  hasahandler_restore(HasAHandler_from_Message(message));
  MessageData *d = message_data(message);
  if (d->version < 1) d->version = 1;
  d->mess_ident = fwIdent_rollover(d->mess_ident);
}

ClassPart createMessage(void) {
  QVA_HVID id = fw_newObject("QVAFWMESSAGE");
  ClassPart message = Message_from_hvid(id);
  message_init(message, nullptr);
  return message;
}

ClassPart cloneMessage(ClassPart message) {
  ClassPart copy = createMessage();
  IdentText text = message_string(message);
  message_setString(copy, text.get());
  return copy;
}

int message_compare(QVA_HVID a, QVA_HVID b) {
  IdentText ta = message_string(Message_from_hvid(a));
  IdentText tb = message_string(Message_from_hvid(b));
  return QVA_StrCmp(&ta.get(), &tb.get());
}

// ---------------------------------------------------- message identity

QVA_HVID message_ident(ClassPart message) { return message_data(message)->mess_ident; }

int messageIdentCompare(QVA_HVID searched, QVA_HVID stored) {
  QVA_HVPTR a = QVA_HeapVarFind(searched);
  // Interned texts: a look-up that finds its message ends on the very same
  // identifier, which needs no text comparison (only the check below).
  QVA_HVPTR b = stored == searched ? a : QVA_HeapVarFind(stored);
  if (!a || !b || a->var.type != QVA_TYP_STRING || b->var.type != QVA_TYP_STRING)
    QVA_MessageFromBlock(qva_cobalt_msg_block, QVA_M_COBALT_FWMSG_IDCORRUPT, QVA_MSG_LONGJMP);
  return a == b ? 0 : fw_strCompare(&a->var.value.str, &b->var.value.str);
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwMessage_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, message_Keywords, Message_from_vptr, message_init);
}

void QVA_fwMessage_Cleanup(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  message_cleanup(Message_from_vptr(argv[0]));
}

QVA_VPTR QVA_fwMessage_MessageString(int, QVA_VPTR argv[]) {
  IdentText text = message_string(Message_from_vptr(argv[0]));
  return fw_stringTemp(text.get());
}

void QVA_fwMessage_SetMessageString(int, QVA_VPTR argv[]) {
  if (argv[1]->type != QVA_TYP_STRING)
    QVA_Message(QVA_M_WRONG_TYPE, QVA_MSG_LONGJMP, "QVAfwMessage::SetMessageString");
  if (argv[1]->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(argv[1], QVA_MSG_LONGJMP);
  message_setString(Message_from_vptr(argv[0]), argv[1]->value.str);
}

void QVA_fwMessage_Send(int argc, QVA_VPTR argv[]) {
  message_send(Message_from_vptr(argv[0]), argc >= 2 ? argv[1] : nullptr);
}

void QVA_fwMessage_Restore(int, QVA_VPTR argv[]) { message_restore(Message_from_vptr(argv[0])); }
