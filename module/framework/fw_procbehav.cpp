// fw_procbehav.cpp - QVAfwProcBehav (structure QVAFWPROCBEHAV).
//
// A behaviour that calls a procedure by name.
#include "framework/fw_procbehav.h"

#include <string>

#include "framework/fw_behavior.h"

static QVA_STRUCT_TAG_DEF procBehav_Tags[] = {
    {"QVAFWBEHAVIOR", nullptr, 0, QVA_STD_INHERIT},
    {"QVAFWPROCBEHAV_TOP", nullptr, QVA_TYP_LONG64, 0},
    {"QVAFWPROCBEHAV_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"PROC_STRING", nullptr, QVA_TYP_STRING, 0},
    {"QVAFWPROCBEHAV_BOTTOM", nullptr, QVA_TYP_LONG64, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_KW_PAR procBehav_Keywords[] = {
    FW_KW_FIRST,    FW_KW_HANDLER, FW_KW_MESSAGESTRING, FW_KW_PROCEDURE,
    FW_KW_REGISTER, FW_KW_SCOPE,   FW_KW_END,
};

QVA_SDEF QVAfwProcBehavStartup(void) {
  return QVA_MakeStructInternal("QVAFWPROCBEHAV", QVA_SDEF_REUSE, procBehav_Tags, 0);
}

// ------------------------------------------------------------ locating

static FwClass procBehavClass{"QVAFWPROCBEHAV", "QVAfwProcBehav", {}, {}, 0};

ClassPart ProcBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, procBehavClass); }

ClassPart ProcBehav_from_vptr(QVA_VPTR v) { return ProcBehav_from_hvid(fw_objrefOf(v)); }

ClassPart Behavior_from_ProcBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

void fw_setOwnedString(QVA_STRING *field, const QVA_STRING &name) {
  QVA_STRING copy = fw_ownedText(name);
  QVA_StrDelete(field, 1);
  *field = copy;
}

int fw_callRoutineNamed(QVA_UCHAR kind, const QVA_STRING &name, QVA_VPTR arg) {
  QVA_VPTR args[2] = {arg, nullptr};
  QVA_CALL_RECORD rec{};
  rec.kind = kind;
  rec.one = 1;
  rec.args = args;
  std::string text = name.slen ? QVA_STRING_STR(&name) : "";
  rec.name = QVA_IdentHash(text.c_str(), 0, 1, QVA_MSG_LONGJMP, 0);
  return QVA_InterpCallFromSysproc(&rec);
}

int procbehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!behavior_init(Behavior_from_ProcBehav(b), kw)) return 0;
  ProcBehavData *d = procbehav_data(b);
  d->version = 1;
  QVA_StrStore(&d->proc_string, "UnitializedProcedure");
  if (kw->method_given) procbehav_setProc(b, kw->method);
  return 1;
}

void procbehav_cleanup(ClassPart b) {
  QVA_StrDelete(&procbehav_data(b)->proc_string, 1);
  behavior_cleanup(Behavior_from_ProcBehav(b));
}

int procbehav_execute(ClassPart b, QVA_VPTR arg) {
  return fw_callRoutineNamed(0, procbehav_data(b)->proc_string, arg);
}

QVA_STRING procbehav_proc(ClassPart b) { return procbehav_data(b)->proc_string; }

void procbehav_setProc(ClassPart b, QVA_STRING name) {
  fw_setOwnedString(&procbehav_data(b)->proc_string, name);
}

void procbehav_restore(ClassPart b) {
  behavior_restore(Behavior_from_ProcBehav(b));
  ProcBehavData *d = procbehav_data(b);
  if (d->version < 1) {
    d->version = 1;
    QVA_StrDelete(&d->proc_string, 1);
    QVA_StrStore(&d->proc_string, "UnitializedProcedure");
  }
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwProcBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, procBehav_Keywords, ProcBehav_from_vptr,
                             procbehav_init);
}

void QVA_fwProcBehav_Cleanup(int, QVA_VPTR argv[]) {
  procbehav_cleanup(ProcBehav_from_vptr(argv[0]));
}

void QVA_fwProcBehav_Execute(int argc, QVA_VPTR argv[]) {
  procbehav_execute(ProcBehav_from_vptr(argv[0]), argc >= 2 ? argv[1] : nullptr);
}

QVA_VPTR QVA_fwProcBehav_Proc(int, QVA_VPTR argv[]) {
  return fw_stringTemp(procbehav_proc(ProcBehav_from_vptr(argv[0])));
}

void QVA_fwProcBehav_SetProc(int, QVA_VPTR argv[]) {
  fw_requireScalarString(argv[1], "QVAfwProcBehav::SetProc");
  procbehav_setProc(ProcBehav_from_vptr(argv[0]), argv[1]->value.str);
}

void QVA_fwProcBehav_Restore(int, QVA_VPTR argv[]) {
  procbehav_restore(ProcBehav_from_vptr(argv[0]));
}
