// fw_saveable.cpp - QVAfwSaveable (structure QVAFWSAVEABLE).
//
// Every framework object carries a restored marker.  A class's RESTORE runs
// its superclass's restore first, down to saveable_restore, which sets the
// marker; an object that is reached again during the same restore is then
// skipped by saveable_doRestore, so each RESTORE runs once however the
// objects refer to each other.
#include "framework/fw_saveable.h"

#include <vector>

static QVA_STRUCT_TAG_DEF saveable_Tags[] = {
    {"QVAFWSAVEABLE_TOP", nullptr, QVA_TYP_DOUBLE, 0},
    {"QVAFWSAVEABLE_VERSION", nullptr, QVA_TYP_LONG, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_SDEF QVAfwSaveableStartup(void) {
  return QVA_MakeStructInternal("QVAFWSAVEABLE", QVA_SDEF_REUSE, saveable_Tags, 0);
}

// ------------------------------------------------------------ locating

SaveableData *Saveable_from_hvid(QVA_HVID hvid) {
  return static_cast<SaveableData *>(fw_locateData(hvid, FW_SAVEABLE_TOP_FIELD, "QVAfwSaveable"));
}

SaveableData *Saveable_from_vptr(QVA_VPTR v) { return Saveable_from_hvid(fw_objrefOf(v)); }

// ------------------------------------------------- internal operations

int saveable_init(SaveableData *a) {
  a->version = 1;
  return 1;
}

void saveable_cleanup(SaveableData *) {}

void saveable_restore(SaveableData *a) {
  if (a->version <= 0) a->version = 1;
  saveable_setRestored(a, 1);
}

void saveable_setRestored(SaveableData *a, int flag) { a->top = flag ? 1.0 : 0.0; }

int saveable_isRestored(const SaveableData *a) { return a->top == 1.0 ? 1 : 0; }

void saveable_doRestore(SaveableData *a, QVA_HVID id) {
  if (saveable_isRestored(a)) return;
  // The object's own class decides which RESTORE runs; that RESTORE sets
  // the marker through its chain.
  QVA_IDENT method = QVA_IdentHash("RESTORE", 0, 0, QVA_MSG_LONGJMP, 0);
  QVA_HVPTR object = QVA_ObjValidate(id, QVA_MSG_LONGJMP);
  QVA_VPTR no_args[1] = {nullptr};
  QVA_ObjCallMethod(QVA_MSG_LONGJMP, method, object, 0, 0, no_args, nullptr, nullptr, 0);
}

// ------------------------------------------------- registered routines

QVA_VPTR QVA_fwSaveable_Init(int, QVA_VPTR argv[]) {
  return QVA_GettmpLong(saveable_init(Saveable_from_vptr(argv[0])));
}

void QVA_fwSaveable_Cleanup(int, QVA_VPTR argv[]) { saveable_cleanup(Saveable_from_vptr(argv[0])); }

void QVA_fwSaveable_Restore(int, QVA_VPTR argv[]) { saveable_restore(Saveable_from_vptr(argv[0])); }

void QVA_fwSaveable_DoRestore(int, QVA_VPTR argv[]) {
  SaveableData *a = Saveable_from_vptr(argv[0]);
  saveable_doRestore(a, argv[0]->value.hvid);
}

void QVA_fwSaveable_ResetRestored(int, QVA_VPTR argv[]) {
  saveable_setRestored(Saveable_from_vptr(argv[0]), 0);
}

// Restores a set of objects: first every marker is cleared, so markers
// that came back set from a saved session do not stop the restore; then
// each object is restored unless an earlier one restored it already (or
// destroyed it).
void QVA_fwSaveable_RestoreArray(int, QVA_VPTR argv[]) {
  QVA_VPTR list = argv[0];
  if (list->type != QVA_TYP_OBJREF) QVA_MessageVE_REQOBJREF(list, QVA_MSG_LONGJMP);

  QVA_MEMINT count = 0;
  char *data = nullptr;
  QVA_VarGetData(list, &count, &data, 0);
  // The RESTORE methods run language code that may change the argument's
  // variable, so work from a copy of the identifiers.
  const auto *first = reinterpret_cast<const QVA_HVID *>(data);
  const std::vector<QVA_HVID> ids(first, first + count);

  for (QVA_HVID id : ids) saveable_setRestored(Saveable_from_hvid(id), 0);

  for (QVA_HVID id : ids) {
    QVA_HVPTR hv = QVA_HeapVarHashFind(id);
    if (!hv) continue;
    auto *a =
        static_cast<SaveableData *>(fw_dataOfHeapVar(hv, FW_SAVEABLE_TOP_FIELD, "QVAfwSaveable"));
    saveable_doRestore(a, id);
  }
}
