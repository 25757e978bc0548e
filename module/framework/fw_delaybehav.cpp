// fw_delaybehav.cpp - QVAfwDelayBehav (structure QVAFWDELAYBEHAV).
//
// A behaviour that defers a method call until a second message arrives.
#include "framework/fw_delaybehav.h"

#include "framework/fw_behavior.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_ident.h"
#include "framework/fw_objbehav.h"
#include "framework/fw_saveable.h"

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

static FwClass delayBehavClass{"QVAFWDELAYBEHAV", "QVAfwDelayBehav", {}, {}, 0};

ClassPart DelayBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, delayBehavClass); }

ClassPart DelayBehav_from_vptr(QVA_VPTR v) { return DelayBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_DelayBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int delaybehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!behavior_init(Behavior_from_DelayBehav(b), kw)) return 0;
  DelayBehavData *d = delaybehav_data(b);
  d->version = 1;
  delaybehav_setMeth(b, HostString("UnitializedMethod").get());
  d->object = 0;
  delaybehav_createSubBehav(b);
  if (kw->handler_given)
    hasahandler_setHandler(HasAHandler_from_hvid(delaybehav_data(b)->sub_behavior), kw->handler);
  if (kw->method_given) delaybehav_setMeth(b, &kw->method);
  if (kw->object_given) delaybehav_setObj(b, kw->object);
  if (kw->delaymessagestring_given) delaybehav_setDelayString(b, kw->delaymessagestring);
  return 1;
}

void delaybehav_createSubBehav(ClassPart b) {
  QVA_VPTR class_name = QVA_StrToSTRING("QVAFWOBJBEHAV");
  QVA_VPTR args[2] = {class_name, nullptr};
  QVA_VPTR ref = QVA_ObjNew(1, args, nullptr);
  QVA_HVID sub = ref->value.hvid;
  QVA_Deltmp(ref);
  QVA_Deltmp(class_name);
  delaybehav_data(b)->sub_behavior = sub;
  ClassPart trigger = ObjBehav_from_hvid(sub);
  objbehav_setObj(trigger, b.hvid);
  objbehav_setMeth(trigger, *HostString("DELAYEXECUTE").get());
}

void delaybehav_destroySubBehav(ClassPart b) {
  QVA_VPTR ref = fw_objrefTemp(delaybehav_data(b)->sub_behavior);
  ScopedTemp release(ref);
  QVA_VPTR args[2] = {ref, nullptr};
  QVA_ObjDestroy(1, args, nullptr);
}

void delaybehav_execute(ClassPart b) {
  behavior_register(Behavior_from_hvid(delaybehav_data(b)->sub_behavior));
}

void delaybehav_delayexecute(ClassPart b, QVA_VPTR arg) {
  DelayBehavData *d = delaybehav_data(b);
  QVA_HVPTR object = d->object ? QVA_ObjValidate(d->object, QVA_MSG_RET) : nullptr;
  if (object)
    fw_callMethodNamed(object, d->meth_ident, arg);
  else
    behavior_unregister(Behavior_from_DelayBehav(b));
  // The call may have run any code, even destroyed this behaviour (whose
  // cleanup took the trigger down): the fields are read afresh.
  if (!QVA_ObjValidate(b.hvid, QVA_MSG_RET)) return;
  QVA_HVID sub = delaybehav_data(DelayBehav_from_hvid(b.hvid))->sub_behavior;
  behavior_unregister(Behavior_from_hvid(sub));
}

void delaybehav_setMeth(ClassPart b, const QVA_STRING *name) {
  fwIdent_setField(&delaybehav_data(b)->meth_ident, name);
}

void delaybehav_setObj(ClassPart b, QVA_HVID object) { delaybehav_data(b)->object = object; }

void delaybehav_setDelayString(ClassPart b, QVA_STRING s) {
  behavior_setMessString(Behavior_from_hvid(delaybehav_data(b)->sub_behavior), s);
}

void delaybehav_cleanup(ClassPart b) {
  fwIdent_releaseHVID(delaybehav_data(b)->meth_ident);
  // A sub-behaviour destroyed already (a heap collection destroys objects
  // in any order) leaves nothing to take down.
  if (QVA_ObjValidate(delaybehav_data(b)->sub_behavior, QVA_MSG_RET)) delaybehav_destroySubBehav(b);
  behavior_cleanup(Behavior_from_DelayBehav(b));
}

void delaybehav_restore(ClassPart b) {
  behavior_restore(Behavior_from_DelayBehav(b));
  QVA_HVID sub = delaybehav_data(b)->sub_behavior;
  saveable_doRestore(Saveable_from_hvid(sub), sub);
  DelayBehavData *d = delaybehav_data(b);
  if (d->version < 1) d->version = 1;
  d->meth_ident = fwIdent_rollover(d->meth_ident);
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwDelayBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, delayBehav_Keywords, DelayBehav_from_vptr,
                             delaybehav_init);
}

void QVA_fwDelayBehav_Cleanup(int, QVA_VPTR argv[]) {
  delaybehav_cleanup(DelayBehav_from_vptr(argv[0]));
}

void QVA_fwDelayBehav_Execute(int, QVA_VPTR argv[]) {
  delaybehav_execute(DelayBehav_from_vptr(argv[0]));
}

void QVA_fwDelayBehav_DelayExec(int, QVA_VPTR argv[]) {
  delaybehav_delayexecute(DelayBehav_from_vptr(argv[0]), nullptr);
}

void QVA_fwDelayBehav_SetMethod(int, QVA_VPTR argv[]) {
  QVA_VPTR name = argv[1];
  if (name->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(name, QVA_MSG_LONGJMP);
  if (name->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(name, QVA_MSG_LONGJMP);
  QVA_STRING *s = QVA_VarGet1EltStringDesc(name, nullptr, 1);
  delaybehav_setMeth(DelayBehav_from_vptr(argv[0]), s);
}

void QVA_fwDelayBehav_Restore(int, QVA_VPTR argv[]) {
  delaybehav_restore(DelayBehav_from_vptr(argv[0]));
}
