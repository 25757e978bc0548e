// fw_funcbehav.cpp - QVAfwFuncBehav (structure QVAFWFUNCBEHAV).
//
// A behaviour that calls a function by name.
#include "framework/fw_funcbehav.h"

#include "framework/fw_behavior.h"
#include "framework/fw_procbehav.h"

static QVA_STRUCT_TAG_DEF funcBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWFUNCBEHAV_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"QVAFWFUNCBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"FUNC_STRING", nullptr, QVA_TYP_STRING, 0},
    {"QVAFWFUNCBEHAV_BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR funcBehav_Keywords[] = {
    FW_KW_FIRST,    FW_KW_FUNCTION, FW_KW_HANDLER, FW_KW_MESSAGESTRING,
    FW_KW_REGISTER, FW_KW_SCOPE,    FW_KW_END,
};

QVA_SDEF QVAfwFuncBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWFUNCBEHAV", QVA_SDEF_REUSE, funcBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass funcBehavClass{"QVAFWFUNCBEHAV", "QVAfwFuncBehav", {}, {}, 0};

ClassPart FuncBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, funcBehavClass); }

ClassPart FuncBehav_from_vptr(QVA_VPTR v) { return FuncBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_FuncBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations
//
// The twin of the procedure behaviour: a function is called, for its
// effects; the host releases its result.

int funcbehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!behavior_init(Behavior_from_FuncBehav(b), kw)) return 0;
  FuncBehavData *d = funcbehav_data(b);
  d->version = 1;
  QVA_StrStore(&d->func_string, "UnitializedFuncedure");
  if (kw->method_given) funcbehav_setFunc(b, kw->method);
  return 1;
}

void funcbehav_cleanup(ClassPart b) {
  QVA_StrDelete(&funcbehav_data(b)->func_string, 1);
  behavior_cleanup(Behavior_from_FuncBehav(b));
}

int funcbehav_execute(ClassPart b, QVA_VPTR arg) {
  return fw_callRoutineNamed(1, funcbehav_data(b)->func_string, arg);
}

QVA_STRING funcbehav_func(ClassPart b) { return funcbehav_data(b)->func_string; }

void funcbehav_setFunc(ClassPart b, QVA_STRING name) {
  fw_setOwnedString(&funcbehav_data(b)->func_string, name);
}

void funcbehav_restore(ClassPart b) {
  behavior_restore(Behavior_from_FuncBehav(b));
  FuncBehavData *d = funcbehav_data(b);
  if (d->version < 1) {
    d->version = 1;
    QVA_StrDelete(&d->func_string, 1);
    QVA_StrStore(&d->func_string, "UnitializedFuncedure");
  }
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwFuncBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, funcBehav_Keywords, FuncBehav_from_vptr,
                             funcbehav_init);
}

void QVA_fwFuncBehav_Cleanup(int, QVA_VPTR argv[]) {
  funcbehav_cleanup(FuncBehav_from_vptr(argv[0]));
}

void QVA_fwFuncBehav_Execute(int argc, QVA_VPTR argv[]) {
  funcbehav_execute(FuncBehav_from_vptr(argv[0]), argc >= 2 ? argv[1] : nullptr);
}

QVA_VPTR QVA_fwFuncBehav_Func(int, QVA_VPTR argv[]) {
  return fw_stringTemp(funcbehav_func(FuncBehav_from_vptr(argv[0])));
}

void QVA_fwFuncBehav_SetFunc(int, QVA_VPTR argv[]) {
  fw_requireScalarString(argv[1], "QVAfwFuncBehav::SetFunc");
  funcbehav_setFunc(FuncBehav_from_vptr(argv[0]), argv[1]->value.str);
}

void QVA_fwFuncBehav_Restore(int, QVA_VPTR argv[]) {
  funcbehav_restore(FuncBehav_from_vptr(argv[0]));
}
