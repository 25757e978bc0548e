// The identifier service.
#include "framework/fw_ident.h"

#include <cstdint>

#include "containers/map.h"
#include "frame/fw_class.h"
#include "frame/fw_text.h"

namespace {

// One interned text.  The count may go below zero; only a collection
// deletes the identifier.
struct FW_IDENT_RECORD {
  QVA_HVID hvid;
  QVA_LONG count;
};

MAP_RB_NODE *_fw_IdentList_ = nullptr;
MAP_RB_NODE *_fw_IdentGarbageList_ = nullptr;

int fwIdentCompare(const void *a, const void *b) {
  return fw_strCompare(static_cast<const QVA_STRING *>(a), static_cast<const QVA_STRING *>(b));
}

// Keys of the garbage list are heap identifiers stored in the key word.
QVA_HVID hvid_of(const void *key) {
  return static_cast<QVA_HVID>(reinterpret_cast<uintptr_t>(key));
}
void *key_of(QVA_HVID id) { return reinterpret_cast<void *>(static_cast<uintptr_t>(id)); }

int fwIdentHVIDCompare(const void *a, const void *b) {
  return static_cast<int32_t>(hvid_of(a) - hvid_of(b));
}

MAP_RB_NODE *made_or_failed(MAP_RB_NODE **global, const char *what) {
  if (!*global) {
    *global = mapInit();
    if (!*global)
      QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "Unable to allocate memory: to make %s.", what);
  }
  return *global;
}

MAP_RB_NODE *IdentList() { return made_or_failed(&_fw_IdentList_, "FW_Ident list"); }
MAP_RB_NODE *IdentGarbageList() {
  return made_or_failed(&_fw_IdentGarbageList_, "FW_Ident garbage list");
}

// The text an identifier heap variable holds; null when it is not a
// scalar string (then it is treated as never interned).
const QVA_STRING *held_text(QVA_HVID id) {
  QVA_HVPTR h = QVA_HeapVarHashFind(id);
  if (!h || h->var.type != QVA_TYP_STRING || (h->var.flags & QVA_V_NOT_SCALAR)) return nullptr;
  return &h->var.value.str;
}

// Frees an interning that was given up half way (an error unwinding
// through fwIdent_get); disarmed once the entry is in the list.
struct PendingIdent {
  QVA_STRING *key = nullptr;
  QVA_HVID hvid = 0;
  FW_IDENT_RECORD *record = nullptr;
  void disarm() {
    key = nullptr;
    hvid = 0;
    record = nullptr;
  }
  ~PendingIdent() {
    if (record) QVA_MemFreeQuiet(record);
    if (hvid) QVA_HeapVarDelete(hvid, 0, 0);
    if (key) {
      QVA_StrDelete(key, 1);
      QVA_MemFreeQuiet(key);
    }
  }
};

// Makes the identifier heap variable of a key's text; its record has count 0.
FW_IDENT_RECORD *fwIdent_new(QVA_STRING *key, PendingIdent &pending) {
  QVA_VPTR t = QVA_Gettmp();
  t->type = QVA_TYP_STRING;
  // The temporary never names the key's own text: the host releases it on
  // the way out of a failed call, and the key is released by its owner.
  t->value.str = fw_ownedText(*key);
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, t, 1, QVA_MSG_LONGJMP);
  h->flags |= QVA_HV_HELD;
  pending.hvid = h->hash_id;
  if (t->flags & QVA_V_TEMP) QVA_Deltmp(t);
  auto *r = static_cast<FW_IDENT_RECORD *>(
      QVA_MemAllocMSG_LONGJMP(sizeof(FW_IDENT_RECORD), "FW_Ident data"));
  r->hvid = pending.hvid;
  r->count = 0;
  return r;
}

FW_IDENT_RECORD *record_of_text(const QVA_STRING *s) {
  MAP_RB_NODE *entry = mapFind(IdentList(), s, fwIdentCompare);
  return entry ? static_cast<FW_IDENT_RECORD *>(mapData(entry)) : nullptr;
}

void fwIdent_acquire(FW_IDENT_RECORD *r) { r->count++; }
void fwIdent_release(FW_IDENT_RECORD *r) { r->count--; }

// Deletes one entry of the identifier list and what it owns.
void drop_ident(MAP_RB_NODE *entry) {
  auto *key = static_cast<QVA_STRING *>(mapKey(entry));
  auto *r = static_cast<FW_IDENT_RECORD *>(mapData(entry));
  QVA_StrDelete(key, 1);
  QVA_MemFreeQuiet(key);
  QVA_HeapVarDelete(r->hvid, 0, 0);
  QVA_MemFreeQuiet(r);
  mapErase(entry);
}

}  // namespace

QVA_HVID fwIdent_get(const QVA_STRING *s) {
  MAP_RB_NODE *list = IdentList();
  FW_IDENT_RECORD *r = record_of_text(s);
  if (!r) {
    PendingIdent pending;
    pending.key =
        static_cast<QVA_STRING *>(QVA_MemAllocMSG_LONGJMP(sizeof(QVA_STRING), "FW_Ident key"));
    *pending.key = QVA_STRING{};  // owns nothing until its copy is made
    *pending.key = fw_ownedText(*s);
    r = pending.record = fwIdent_new(pending.key, pending);
    if (!mapInsert(list, pending.key, r, fwIdentCompare))
      QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "Unable to allocate memory: to make %s.",
                  "FW_Ident entry");
    pending.disarm();  // the list owns them now
  }
  fwIdent_acquire(r);
  return r->hvid;
}

QVA_HVID fwIdent_rollover(QVA_HVID id) {
  const QVA_STRING *text = held_text(id);
  if (!text) return 0;
  FW_IDENT_RECORD *r = record_of_text(text);
  if (r && r->hvid == id) {
    fwIdent_acquire(r);
    return id;
  }
  // A stale identifier is listed as garbage before this session's is
  // counted, so that a failure in between leaves no holder counted.
  MAP_RB_NODE *garbage = IdentGarbageList();
  if (!mapFind(garbage, key_of(id), fwIdentHVIDCompare) &&
      !mapInsert(garbage, key_of(id), nullptr, fwIdentHVIDCompare))
    QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "Unable to allocate memory: to make %s.",
                "FW_Ident garbage entry");
  return fwIdent_get(text);
}

void fwIdent_acquireHVID(QVA_HVID id) {
  const QVA_STRING *text = held_text(id);
  if (FW_IDENT_RECORD *r = text ? record_of_text(text) : nullptr) fwIdent_acquire(r);
}

void fwIdent_setField(QVA_HVID *field, const QVA_STRING *s) {
  // Interned before the old one is given up: a failed interning leaves the
  // field naming what it named, never a null identifier a send then meets.
  const QVA_HVID interned = fwIdent_get(s);
  if (*field) fwIdent_releaseHVID(*field);
  *field = interned;
}

int fwIdent_isIdentifier(QVA_HVID id) {
  QVA_HVPTR h = QVA_HeapVarHashFind(id);
  return h && !(h->flags & QVA_HV_OBJECT) && (h->flags & QVA_HV_HELD) && held_text(id) ? 1 : 0;
}

void fwIdent_releaseHVID(QVA_HVID id) {
  const QVA_STRING *text = held_text(id);
  if (FW_IDENT_RECORD *r = text ? record_of_text(text) : nullptr) fwIdent_release(r);
}

void fwIdent_garbageCollect(int full) {
  if (_fw_IdentGarbageList_) {
    MAP_RB_NODE *garbage = _fw_IdentGarbageList_;
    for (MAP_RB_NODE *e = mapBegin(garbage); e != garbage; e = e->flink)
      QVA_HeapVarDelete(hvid_of(mapKey(e)), 0, 0);
    _fw_IdentGarbageList_ = nullptr;
    mapFree(garbage);
  }
  MAP_RB_NODE *list = IdentList();
  for (MAP_RB_NODE *e = mapBegin(list); e != list; e = e->flink) {
    auto *r = static_cast<FW_IDENT_RECORD *>(mapData(e));
    if (full || r->count <= 0) {
      MAP_RB_NODE *back = e->blink;  // may be the list itself
      drop_ident(e);
      e = back;
    }
  }
}

// ------------------------------------------------------------ routines

namespace {

void require_string(QVA_VPTR v) {
  if (v->type != QVA_TYP_STRING || (v->flags & QVA_V_NOT_SCALAR))
    QVA_MessageVE_REQSTR(v, QVA_MSG_LONGJMP);
}

QVA_HVID pointer_argument(QVA_VPTR v) {
  if (v->type != QVA_TYP_PTR || (v->flags & QVA_V_NOT_SCALAR))
    QVA_MessageVE_REQPTR(v, QVA_MSG_LONGJMP);
  return v->value.hvid;
}

QVA_VPTR pointer_result(QVA_HVID id) {
  QVA_VPTR t = QVA_Gettmp();
  t->type = QVA_TYP_PTR;
  t->value.hvid = id;
  return t;
}

}  // namespace

QVA_VPTR QVA_fwIdent_getIdent(int, QVA_VPTR argv[]) {
  require_string(argv[0]);
  return pointer_result(fwIdent_get(&argv[0]->value.str));
}

QVA_VPTR QVA_fwIdent_rolloverIdent(int, QVA_VPTR argv[]) {
  return pointer_result(fwIdent_rollover(pointer_argument(argv[0])));
}

void QVA_fwIdent_acquire(int, QVA_VPTR argv[]) { fwIdent_acquireHVID(pointer_argument(argv[0])); }
void QVA_fwIdent_release(int, QVA_VPTR argv[]) { fwIdent_releaseHVID(pointer_argument(argv[0])); }

void QVA_fwIdent_garbageCollection(int argc, QVA_VPTR argv[]) {
  int full = 0;
  if (argc == 1) {
    QVA_VPTR v = QVA_CvtLng(1, argv);
    full = !(v->flags & QVA_V_ARR) && v->value.l == 1;
    QVA_Deltmp(v);
  }
  fwIdent_garbageCollect(full);
}
