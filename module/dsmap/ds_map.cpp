// ds_map.cpp - QVAdsMap (structure QVADSMAP).
//
// An ordered map from strings to values of any type.  The class stands
// alone: its data block begins at QVADSMAP_VERSION.
#include "dsmap/ds_map.h"

#include "containers/maph.h"
#include "containers/rbh_check.h"
#include "frame/fw_text.h"
#include "frame/fw_trusted_map.h"
#include "frame/qva_cobalt.h"

static QVA_STRUCT_TAG_DEF dsMap_Tags[] = {
    {"QVADSMAP_VERSION", nullptr, QVA_TYP_LONG, 0},
    {"THE_MAP", nullptr, QVA_TYP_PTR, 0},
    {nullptr, nullptr, 0, 0},
};

QVA_SDEF QVAdsMapStartup(void) {
  return QVA_MakeStructInternal("QVADSMAP", QVA_SDEF_REUSE, dsMap_Tags, 0);
}

// ------------------------------------------------------------ locating

ClassPart DSMap_from_hvid(QVA_HVID hvid) {
  return ClassPart{fw_locateData(hvid, FW_DSMAP_TOP_FIELD, "QVAdsMap"), hvid};
}

ClassPart DSMap_from_vptr(QVA_VPTR v) { return DSMap_from_hvid(fw_objrefOf(v)); }

// ----------------------------------------------------------- operations
//
// Each entry of THE_MAP has as key the hvid of a key heap variable (a
// scalar string) and as value the hvid of a value heap variable; the map
// owns both.  Keys are ordered by the host's string comparison.

namespace {

// The variable inside a heap variable the map holds; a heap variable that
// language code deleted is reported as a dereference error.
QVA_VPTR dsMap_makeVar(QVA_HVID h) {
  QVA_HVPTR hv = QVA_HeapVarFind(h);
  if (!hv) QVA_MessageFromBlock(qva_cobalt_msg_block, QVA_M_COBALT_DSMAP_HEAPDEREFERR, QVA_MSG_LONGJMP);
  return &hv->var;
}

int dsMap_compare(QVA_HVID a, QVA_HVID b) {
  QVA_VPTR va = dsMap_makeVar(a);
  QVA_VPTR vb = dsMap_makeVar(b);
  if (va->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(va, QVA_MSG_LONGJMP);
  if (vb->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(vb, QVA_MSG_LONGJMP);
  return fw_strCompare(&va->value.str, &vb->value.str);
}

QVA_HVID dsMap_makeHeapVar(QVA_VPTR v) { return QVA_HeapVarNew(QVA_TYP_PTR, v, 0, QVA_MSG_LONGJMP)->hash_id; }
void dsMap_deleteHeapVar(QVA_HVID h) { QVA_HeapVarDelete(h, 0, 0); }

// A search for the key in heap variable `probe`, compared as dsMap_compare
// does.  The probe's variable and text are looked up at the first
// comparison only, and texts are read inline; a text the table does not
// hold goes to the host's comparison, which reports it.
struct ProbeCompare {
  QVA_HVID probe;
  QVA_VPTR var = nullptr;
  const char *text = nullptr;  // null: not read inline
  size_t len = 0;
};

int dsMap_compareProbe(void *ctx, QVA_HVID stored) {
  auto *pc = static_cast<ProbeCompare *>(ctx);
  if (!pc->var) {
    pc->var = dsMap_makeVar(pc->probe);
    if (pc->var->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(pc->var, QVA_MSG_LONGJMP);
    pc->text = QVA_StrText(&pc->var->value.str, &pc->len);
  }
  QVA_VPTR vb = dsMap_makeVar(stored);
  if (vb->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(vb, QVA_MSG_LONGJMP);
  size_t len;
  const char *text = QVA_StrText(&vb->value.str, &len);
  if (!text || !pc->text) return QVA_StrCmp(&pc->var->value.str, &vb->value.str);
  return QVA_TextCompare(pc->text, pc->len, text, len);
}

// The entry with the probe's key (*found = 1), or the insertion point.
QVA_HVID dsMap_search(QVA_HVID map, QVA_HVID probe, int *found) {
  ProbeCompare pc{probe};
  return map_rbh_find_ctx_n(map, dsMap_compareProbe, &pc, found);
}

QVA_HVID dsMap_find(QVA_HVID map, QVA_HVID key) {
  if (!map) return 0;
  int found;
  QVA_HVID e = dsMap_search(map, key, &found);
  return found ? e : 0;
}

// The probe: a heap variable holding a copy of the key, because the map
// compares heap identifiers.  It is deleted when the look-up is over, also
// when an error ends the routine, unless it became an entry's key.
struct Probe {
  QVA_HVID hvid;
  explicit Probe(QVA_VPTR key) : hvid(dsMap_makeHeapVar(key)) {}
  ~Probe() {
    if (hvid) dsMap_deleteHeapVar(hvid);
  }
  Probe(const Probe &) = delete;
  Probe &operator=(const Probe &) = delete;
};

// What an entry of a restored map must hold before the map deletes it or
// compares its key.
const char *dsMap_entryFault(void *, QVA_HVID key, QVA_HVID val) {
  QVA_HVPTR k = fw_plainHeapVar(key);
  if (!k || k->var.type != QVA_TYP_STRING || (k->var.flags & QVA_V_NOT_SCALAR))
    return "a key is not a string heap variable";
  if (!fw_plainHeapVar(val)) return "a value is not a heap variable of the map's own";
  return nullptr;
}

std::string dsMap_checkMap(QVA_HVID map, std::vector<QVA_HVID> &heads) {
  static const map_rbh_shape shape{dsMap_compare, dsMap_entryFault, nullptr};
  if (const char *fault = map_rbh_check(map, shape)) return fault;
  heads.push_back(map);
  return {};
}

QVA_HVID the_map(ClassPart m) {
  return fw_trustedMap(m.hvid, &dsmap_data(m)->the_map, dsMap_checkMap, "QVAdsMap", "THE_MAP");
}

// A key must be a scalar string.
void require_key(QVA_VPTR key) {
  if (key->type != QVA_TYP_STRING || (key->flags & QVA_V_NOT_SCALAR)) QVA_MessageVE_REQSTR(key, QVA_MSG_LONGJMP);
}

}  // namespace

int dsMap_init(ClassPart m) {
  dsmap_data(m)->the_map = maphInit();
  return 1;
}

void dsMap_cleanup(ClassPart m) {
  QVA_HVID map = the_map(m);
  if (!map) return;
  for (QVA_HVID e = maphBegin(map); e != map; e = map_rbh_deref(e)->FLINK) {
    dsMap_deleteHeapVar(maphData(e));
    dsMap_deleteHeapVar(maphKey(e));
  }
  maphFree(map);
}

int dsMap_keyExists(ClassPart m, QVA_VPTR key) {
  Probe p(key);
  return dsMap_find(the_map(m), p.hvid) != 0;
}

void dsMap_insert(ClassPart m, QVA_VPTR key, QVA_VPTR value) {
  Probe p(key);
  QVA_HVID map = the_map(m);
  int found = 0;
  QVA_HVID at = map ? dsMap_search(map, p.hvid, &found) : 0;
  if (found) {
    QVA_VarCopy_strip(value, dsMap_makeVar(maphData(at)), 0);
    return;
  }
  QVA_HVID v = dsMap_makeHeapVar(value);
  struct ValueGuard {
    QVA_HVID v;
    ~ValueGuard() {
      if (v) dsMap_deleteHeapVar(v);
    }
  } value_guard{v};
  // Making the value did not change the tree: the search's insertion point
  // still stands.  A map of 0 goes through maphInsert, which reports it.
  if (at)
    map_rbh_insert_b(at, p.hvid, v);
  else
    maphInsert(map, p.hvid, v, dsMap_compare);
  p.hvid = 0;  // the probe is the new entry's key now
  value_guard.v = 0;
}

void dsMap_remove(ClassPart m, QVA_VPTR key) {
  QVA_HVID node;
  {
    Probe p(key);
    node = dsMap_find(the_map(m), p.hvid);
  }
  if (!node) return;
  dsMap_deleteHeapVar(maphData(node));
  dsMap_deleteHeapVar(maphKey(node));
  maphErase(node);
}

QVA_VPTR dsMap_data(ClassPart m, QVA_VPTR key) {
  QVA_VPTR t = QVA_Gettmp();
  QVA_HVID node;
  {
    Probe p(key);
    node = dsMap_find(the_map(m), p.hvid);
  }
  if (node) QVA_VarCopy(dsMap_makeVar(maphData(node)), t);
  return t;
}

int dsMap_size(ClassPart m) { return maphSize(the_map(m)); }

QVA_VPTR dsMap_keys(ClassPart m) {
  int n = dsMap_size(m);
  QVA_VPTR result;
  if (n < 1) {
    result = QVA_Gettmp();
    result->type = QVA_TYP_STRING;
    QVA_StrStore(&result->value.str, "");
    return result;
  }
  auto *keys = reinterpret_cast<QVA_STRING *>(QVA_MakeTempVector(QVA_TYP_STRING, n, 1, &result));
  QVA_HVID map = the_map(m);
  int i = 0;
  for (QVA_HVID e = maphBegin(map); e != map; e = map_rbh_deref(e)->FLINK, ++i) {
    QVA_VPTR k = dsMap_makeVar(maphKey(e));
    if (k->type != QVA_TYP_STRING) QVA_MessageVE_REQSTR(k, QVA_MSG_LONGJMP);
    keys[i] = fw_ownedText(k->value.str);
  }
  return result;
}

// ------------------------------------------------------------ routines

QVA_VPTR QVA_dsMap_Init(int, QVA_VPTR argv[]) { return QVA_GettmpLong(dsMap_init(DSMap_from_vptr(argv[0]))); }

void QVA_dsMap_Cleanup(int, QVA_VPTR argv[]) { dsMap_cleanup(DSMap_from_vptr(argv[0])); }

QVA_VPTR QVA_dsMap_KeyExists(int, QVA_VPTR argv[]) {
  QVA_VPTR t = QVA_Gettmp();
  t->type = QVA_TYP_BYTE;
  require_key(argv[1]);
  t->value.c = static_cast<QVA_UCHAR>(dsMap_keyExists(DSMap_from_vptr(argv[0]), argv[1]));
  return t;
}

void QVA_dsMap_Insert(int, QVA_VPTR argv[]) {
  require_key(argv[1]);
  dsMap_insert(DSMap_from_vptr(argv[0]), argv[1], argv[2]);
}

void QVA_dsMap_Remove(int, QVA_VPTR argv[]) {
  require_key(argv[1]);
  dsMap_remove(DSMap_from_vptr(argv[0]), argv[1]);
}

QVA_VPTR QVA_dsMap_GetKeys(int argc, QVA_VPTR argv[]) {
  ClassPart m = DSMap_from_vptr(argv[0]);
  QVA_VPTR result = dsMap_keys(m);
  if (argc == 2) {
    QVA_Delvar(argv[1]);
    argv[1]->type = QVA_TYP_LONG;
    argv[1]->value.l = dsMap_size(m);
  }
  return result;
}

QVA_VPTR QVA_dsMap_GetData(int, QVA_VPTR argv[]) {
  require_key(argv[1]);
  return dsMap_data(DSMap_from_vptr(argv[0]), argv[1]);
}

QVA_VPTR QVA_dsMap_GetSize(int, QVA_VPTR argv[]) { return QVA_GettmpLong(dsMap_size(DSMap_from_vptr(argv[0]))); }
