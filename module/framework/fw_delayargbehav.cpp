// fw_delayargbehav.cpp - QVAfwDelayArgBehav (structure QVAFWDELAYARGBEHAV).
//
// A delayed behaviour that keeps the largest integer argument it received.
#include "framework/fw_delayargbehav.h"

#include "framework/fw_delaybehav.h"

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

static FwClass delayArgBehavClass{"QVAFWDELAYARGBEHAV", "QVAfwDelayArgBehav", {}, {}, 0};

ClassPart DelayArgBehav_from_hvid(QVA_HVID hvid) { return fw_classPart(hvid, delayArgBehavClass); }

ClassPart DelayArgBehav_from_vptr(QVA_VPTR v) { return DelayArgBehav_from_hvid(fw_objrefOf(v)); }

ClassPart DelayBehav_from_DelayArgBehav(ClassPart part) { return part; }

// ------------------------------------------------- internal operations

int delayargbehav_init(ClassPart b, FwKeywordFields *kw) {
  if (!delaybehav_init(DelayBehav_from_DelayArgBehav(b), kw)) return 0;
  // QVAFWDELAYARGBEHAV_VERSION is left as the host made the instance.
  delayargbehav_resetArg(b);
  return 1;
}

void delayargbehav_cleanup(ClassPart b) { delaybehav_cleanup(DelayBehav_from_DelayArgBehav(b)); }

void delayargbehav_execute(ClassPart b, QVA_LONG value) {
  delaybehav_execute(DelayBehav_from_DelayArgBehav(b));
  DelayArgBehavData *d = delayargbehav_data(b);
  if (d->arg < value) d->arg = value;
}

void delayargbehav_delayexecute(ClassPart b) {
  QVA_VPTR arg = QVA_GettmpLong(delayargbehav_data(b)->arg);
  ScopedTemp release(arg);
  delaybehav_delayexecute(DelayBehav_from_DelayArgBehav(b), arg);
  // The deferred call may have run any code: the object is located afresh.
  if (QVA_ObjValidate(b.hvid, QVA_MSG_RET)) delayargbehav_resetArg(DelayArgBehav_from_hvid(b.hvid));
}

void delayargbehav_resetArg(ClassPart b) { delayargbehav_data(b)->arg = 0; }

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwDelayArgBehav_Init(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  return fw_initWithKeywords(argc, argv, argk, delayArgBehav_Keywords, DelayArgBehav_from_vptr,
                             delayargbehav_init);
}

void QVA_fwDelayArgBehav_Cleanup(int, QVA_VPTR argv[]) {
  delayargbehav_cleanup(DelayArgBehav_from_vptr(argv[0]));
}

void QVA_fwDelayArgBehav_Execute(int, QVA_VPTR argv[]) {
  QVA_VPTR given = argv[1];
  QVA_VPTR converted = QVA_CvtLng(1, &given);
  // Only a temporary the conversion made is released, never the caller's
  // argument (also when the conversion hands that back).
  struct Release {
    QVA_VPTR v, given;
    ~Release() {
      if (v != given) QVA_Deltmp(v);
    }
  } release{converted, given};
  if (converted->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(given, QVA_MSG_LONGJMP);
  delayargbehav_execute(DelayArgBehav_from_vptr(argv[0]), converted->value.l);
}

void QVA_fwDelayArgBehav_DelayExec(int, QVA_VPTR argv[]) {
  delayargbehav_delayexecute(DelayArgBehav_from_vptr(argv[0]));
}
