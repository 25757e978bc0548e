// fw_objbehav.cpp - QVAfwObjBehav (structure QVAFWOBJBEHAV).
//
// A behaviour that calls a method of an object.
#include "framework/fw_objbehav.h"

#include <string>

#include "framework/fw_behavior.h"
#include "framework/fw_ident.h"

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

static FwClass objBehavClass{"QVAFWOBJBEHAV", "QVAfwObjBehav", {}, {}, 0};

ClassPart ObjBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, objBehavClass); }

ClassPart ObjBehav_from_vptr(QVA_VPTR v) { return ObjBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_ObjBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int objbehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!behavior_init(Behavior_from_ObjBehav(b), kw)) return 0;
  ObjBehavData *d = objbehav_data(b);
  d->version = 1;
  d->meth_ident = fwIdent_get(HostString("UnitializedMethod").get());
  d->object = 0;
  if (kw->method_given) objbehav_setMeth(b, kw->method);
  if (kw->object_given) objbehav_setObj(b, kw->object);
  return 1;
}

void objbehav_cleanup(ClassPart b) {
  fwIdent_releaseHVID(objbehav_data(b)->meth_ident);
  behavior_cleanup(Behavior_from_ObjBehav(b));
}

void fw_callMethodNamed(QVA_HVPTR object, QVA_HVID meth_ident, QVA_VPTR arg) {
  QVA_VPTR args[2] = {arg, nullptr};
  int count = arg ? 1 : 0;
  QVA_HVPTR name_var = QVA_HeapVarHashFind(meth_ident);
  if (!name_var || name_var->var.type != QVA_TYP_STRING) return;
  const QVA_STRING &s = name_var->var.value.str;
  // The text is copied: the call may run code that deletes the identifier.
  std::string name = s.slen ? QVA_STRING_STR(&s) : "";
  QVA_IDENT method = QVA_IdentHash(name.c_str(), 0, 1, QVA_MSG_RET, 0);
  if (!method) return;
  QVA_ObjCallMethod(QVA_MSG_LONGJMP, method, object, 0, count, args, nullptr, nullptr, 0);
}

void objbehav_execute(ClassPart b, QVA_VPTR arg) {
  ObjBehavData *d = objbehav_data(b);
  QVA_HVPTR object = d->object ? QVA_ObjValidate(d->object, QVA_MSG_RET) : nullptr;
  if (!object) {
    // Its object has gone: the behaviour leaves its handler's list.
    behavior_unregister(Behavior_from_ObjBehav(b));
    return;
  }
  fw_callMethodNamed(object, d->meth_ident, arg);
}

IdentText objbehav_meth(ClassPart b) { return IdentText(objbehav_data(b)->meth_ident); }

void objbehav_setMeth(ClassPart b, QVA_STRING name) {
  fwIdent_setField(&objbehav_data(b)->meth_ident, &name);
}

QVA_HVID objbehav_obj(ClassPart b) { return objbehav_data(b)->object; }

void objbehav_setObj(ClassPart b, QVA_HVID object) { objbehav_data(b)->object = object; }

void objbehav_restore(ClassPart b) {
  behavior_restore(Behavior_from_ObjBehav(b));
  ObjBehavData *d = objbehav_data(b);
  if (d->version < 1) {
    d->version = 1;
    d->object = 0;
  }
  d->meth_ident = fwIdent_rollover(d->meth_ident);
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwObjBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, objBehav_Keywords, ObjBehav_from_vptr,
                             objbehav_init);
}

void QVA_fwObjBehav_Cleanup(int, QVA_VPTR argv[]) { objbehav_cleanup(ObjBehav_from_vptr(argv[0])); }

void QVA_fwObjBehav_Execute(int argc, QVA_VPTR argv[]) {
  objbehav_execute(ObjBehav_from_vptr(argv[0]), argc >= 2 ? argv[1] : nullptr);
}

QVA_VPTR QVA_fwObjBehav_Method(int, QVA_VPTR argv[]) {
  IdentText text = objbehav_meth(ObjBehav_from_vptr(argv[0]));
  return fw_stringTemp(text.get());
}

void QVA_fwObjBehav_SetMethod(int, QVA_VPTR argv[]) {
  fw_requireScalarString(argv[1], "QVAfwObjBehav::SetMethod");
  objbehav_setMeth(ObjBehav_from_vptr(argv[0]), argv[1]->value.str);
}

QVA_VPTR QVA_fwObjBehav_Object(int, QVA_VPTR argv[]) {
  return fw_objrefTemp(objbehav_obj(ObjBehav_from_vptr(argv[0])));
}

void QVA_fwObjBehav_SetObject(int, QVA_VPTR argv[]) {
  if (argv[1]->type != QVA_TYP_OBJREF)
    QVA_Message(QVA_M_WRONG_TYPE, QVA_MSG_LONGJMP, "QVAfwObjBehav::SetObject");
  QVA_HVID object = fw_objrefOf(argv[1]);
  objbehav_setObj(ObjBehav_from_vptr(argv[0]), object);
}

void QVA_fwObjBehav_Restore(int, QVA_VPTR argv[]) { objbehav_restore(ObjBehav_from_vptr(argv[0])); }
