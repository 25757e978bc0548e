// fw_behavior.cpp - QVAfwBehavior (structure QVAFWBEHAVIOR).
//
// What runs when a message arrives at the handler where the behaviour is
// registered.
#include "framework/fw_behavior.h"

#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_messhndlr.h"

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

static FwClass behaviorClass{"QVAFWBEHAVIOR", "QVAfwBehavior", {}, {}, 0};

ClassPart Behavior_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, behaviorClass); }

ClassPart Behavior_from_vptr(QVA_VPTR v) { return Behavior_from_hvid(fw_objrefOf(v)); }

ClassPart HasAHandler_from_Behavior(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int behavior_init(ClassPart behavior, FwKeywordFields *kw) {
  if (!hasahandler_init(HasAHandler_from_Behavior(behavior), kw)) return 0;
  BehaviorData *d = behavior_data(behavior);
  d->version = 1;
  d->is_registered = 0;
  d->messident = fwIdent_get(HostString("Generic Message").get());
  if (!kw) return 1;
  // The string is final before scoping, and the scope exists before the
  // behaviour registers, so it lands in the list just made.
  if (kw->messagestring_given) behavior_setMessString(behavior, kw->messagestring);
  if (kw->scope) {
    QVA_HVID handler = hasahandler_handler(HasAHandler_from_Behavior(behavior));
    messagehandler_scopeMessage(MessageHandler_from_hvid(handler), behavior_messIdent(behavior));
  }
  if (kw->register_value) behavior_register(behavior);
  return 1;
}

void behavior_cleanup(ClassPart behavior) {
  if (behavior_isRegistered(behavior)) behavior_unregister(behavior);
  fwIdent_releaseHVID(behavior_data(behavior)->messident);
}

void behavior_execute(ClassPart) {}

IdentText behavior_messString(ClassPart behavior) {
  return IdentText(behavior_data(behavior)->messident);
}

void behavior_setMessString(ClassPart behavior, QVA_STRING s) {
  bool registered = behavior_isRegistered(behavior);
  if (registered) behavior_unregister(behavior);
  fwIdent_setField(&behavior_data(behavior)->messident, &s);
  if (registered) behavior_register(behavior);
}

void behavior_restore(ClassPart behavior) {
  hasahandler_restore(HasAHandler_from_Behavior(behavior));
  BehaviorData *d = behavior_data(behavior);
  if (d->version < 1) {
    d->version = 1;
    d->is_registered = 0;
  }
  bool registered = behavior_isRegistered(behavior);
  if (registered) behavior_unregister(behavior);
  d->messident = fwIdent_rollover(d->messident);
  if (registered) behavior_register(behavior);
}

// ------------------------------------------------- registration

QVA_HVID behavior_messIdent(ClassPart behavior) { return behavior_data(behavior)->messident; }

void behavior_setRegistered(ClassPart behavior, int flag) {
  behavior_data(behavior)->is_registered = flag ? 1 : 0;
}

int behavior_isRegistered(ClassPart behavior) { return behavior_data(behavior)->is_registered; }

void behavior_register(ClassPart behavior) {
  if (behavior_isRegistered(behavior)) return;
  QVA_HVID handler = hasahandler_handler(HasAHandler_from_Behavior(behavior));
  messagehandler_addBehavior(MessageHandler_from_hvid(handler), behavior);
  behavior_setRegistered(behavior, 1);
}

void behavior_unregister(ClassPart behavior) {
  if (!behavior_isRegistered(behavior)) return;
  QVA_HVID handler = hasahandler_handler(HasAHandler_from_Behavior(behavior));
  messagehandler_removeBehavior(MessageHandler_from_hvid(handler), behavior);
  behavior_setRegistered(behavior, 0);
}

void behavior_reregister(ClassPart behavior) {
  if (!behavior_isRegistered(behavior)) return;
  behavior_unregister(behavior);
  behavior_register(behavior);
}

int behavior_call_execute(ClassPart behavior, QVA_VPTR arg) {
  // Method names are interned for the life of the process.
  static const QVA_IDENT execute = QVA_IdentHash("EXECUTE", 0, 0, QVA_MSG_LONGJMP, 0);
  // Validating the object, resolving EXECUTE in its class and calling it
  // (QVA_ObjValidate, then QVA_ObjCallMethod) in one host call.
  QVA_ObjCallProcMethod(execute, behavior.hvid, arg ? 1 : 0, &arg);
  return 1;
}

int behavior_compare(QVA_HVID a, QVA_HVID b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwBehavior_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, behavior_Keywords, Behavior_from_vptr,
                             behavior_init);
}

void QVA_fwBehavior_Cleanup(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  behavior_cleanup(Behavior_from_vptr(argv[0]));
}

QVA_VPTR QVA_fwBehavior_MessageString(int, QVA_VPTR argv[]) {
  IdentText text = behavior_messString(Behavior_from_vptr(argv[0]));
  return fw_stringTemp(text.get());
}

void QVA_fwBehavior_SetMessageString(int, QVA_VPTR argv[]) {
  if (argv[1]->type != QVA_TYP_STRING)
    QVA_Message(QVA_M_WRONG_TYPE, QVA_MSG_LONGJMP, "QVAfwBehavior::SetMessageString");
  if (argv[1]->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(argv[1], QVA_MSG_LONGJMP);
  behavior_setMessString(Behavior_from_vptr(argv[0]), argv[1]->value.str);
}

void QVA_fwBehavior_Execute(int, QVA_VPTR argv[]) { behavior_execute(Behavior_from_vptr(argv[0])); }

void QVA_fwBehavior_Register(int, QVA_VPTR argv[]) {
  behavior_register(Behavior_from_vptr(argv[0]));
}

void QVA_fwBehavior_Unregister(int, QVA_VPTR argv[]) {
  behavior_unregister(Behavior_from_vptr(argv[0]));
}

QVA_VPTR QVA_fwBehavior_IsRegistered(int, QVA_VPTR argv[]) {
  int flag = behavior_isRegistered(Behavior_from_vptr(argv[0]));
  QVA_VPTR result = QVA_Gettmp();
  result->type = QVA_TYP_BYTE;
  result->value.c = static_cast<QVA_UCHAR>(flag);
  return result;
}

void QVA_fwBehavior_Restore(int, QVA_VPTR argv[]) { behavior_restore(Behavior_from_vptr(argv[0])); }
