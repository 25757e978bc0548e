// fw_class.cpp - locating an object's data and the INIT-with-keywords body
// shared by the module's classes.
#include "frame/fw_class.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "containers/rbh.h"

QVA_VPTR fw_kwResponse(const FwKeywordFields *kw) {
  QVA_VPTR var = nullptr;
  std::memcpy(&var, &kw->method, sizeof var);
  return var;
}

IdentText::IdentText(QVA_HVID ident) {
  QVA_HVPTR hv = QVA_HeapVarHashFind(ident);
  if (hv && hv->var.type == QVA_TYP_STRING && !(hv->var.flags & QVA_V_NOT_SCALAR)) {
    text_ = hv->var.value.str;
    return;
  }
  QVA_StrStore(&text_, "ERROR");
  owned_ = true;
}

IdentText::~IdentText() {
  if (owned_) QVA_StrDelete(&text_, 1);
}

QVA_STRING fw_ownedText(const QVA_STRING &s) {
  QVA_STRING copy = s;
  QVA_StrDup(&copy, 1);
  return copy;
}

QVA_VPTR fw_stringTemp(const QVA_STRING &s) {
  QVA_VPTR result = QVA_Gettmp();
  result->type = QVA_TYP_STRING;
  result->value.str = fw_ownedText(s);
  return result;
}

QVA_VPTR fw_objrefTemp(QVA_HVID h) {
  QVA_VPTR result = QVA_Gettmp();
  result->type = QVA_TYP_OBJREF;
  result->value.hvid = h;
  return result;
}

void fw_requireScalarString(QVA_VPTR v, const char *routine) {
  if (v->type != QVA_TYP_STRING) QVA_Message(QVA_M_WRONG_TYPE, QVA_MSG_LONGJMP, routine);
  if (v->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(v, QVA_MSG_LONGJMP);
}

QVA_HVPTR fw_plainHeapVar(QVA_HVID id) {
  QVA_HVPTR hv = QVA_HeapVarFind(id);
  if (!hv || (hv->flags & (QVA_HV_OBJECT | QVA_HV_HELD)) || map_rbh_peek(id)) return nullptr;
  return hv;
}

void fw_cellStore(QVA_HVID *cell, QVA_VPTR value, const char *what) {
  if (*cell) {
    QVA_HVPTR hv = fw_plainHeapVar(*cell);
    if (!hv && QVA_HeapVarHashFind(*cell))
      QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP,
                  "The heap variable <PtrHeapVar%u> named as the %s is not the object's own.", *cell,
                  what);
    if (!hv)
      QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP,
                  "The heap variable <PtrHeapVar%u> holding the %s no longer exists.", *cell, what);
    QVA_VarCopy_strip(value, &hv->var, 0);
    return;
  }
  if (QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_PTR, value, 0, QVA_MSG_RET)) *cell = hv->hash_id;
}

void fw_cellClear(QVA_HVID *cell) {
  if (*cell && fw_plainHeapVar(*cell)) QVA_HeapVarDelete(*cell, 0, 0);
  *cell = 0;
}

QVA_VPTR fw_cellValue(QVA_HVID cell, const char *unset_text) {
  QVA_VPTR result = QVA_Gettmp();
  if (!cell) {
    result->type = QVA_TYP_STRING;
    QVA_StrStore(&result->value.str, unset_text);
  } else if (QVA_HVPTR hv = QVA_HeapVarHashFind(cell)) {
    QVA_VarCopy(&hv->var, result);
  }
  return result;
}

QVA_HVID fw_objrefOf(QVA_VPTR v) {
  if (v->type != QVA_TYP_OBJREF) QVA_MessageVE_REQOBJREF(v, QVA_MSG_LONGJMP);
  if (v->flags & QVA_V_NOT_SCALAR) QVA_MessageVE_NOTSCALAR(v, QVA_MSG_LONGJMP);
  return v->value.hvid;
}

void *fw_dataOfHeapVar(QVA_HVPTR hv, const char *first_field, const char *class_name) {
  void *data = QVA_StructGetTagAddress(&hv->var, first_field, nullptr, nullptr, QVA_MSG_RET);
  // No such field: the object is not of one of the module's classes, and
  // the fixed positions must not be applied to it.
  if (!data) QVA_Message(QVA_M_NOT_OF_CLASS, QVA_MSG_LONGJMP, "object", class_name);
  return data;
}

void *fw_locateData(QVA_HVID hvid, const char *first_field, const char *class_name) {
  QVA_HVPTR hv = QVA_ObjValidate(hvid, QVA_MSG_LONGJMP);
  return fw_dataOfHeapVar(hv, first_field, class_name);
}

namespace {

[[noreturn, gnu::cold]] void notOfClass(const char *class_name) {
  QVA_Message(QVA_M_NOT_OF_CLASS, QVA_MSG_LONGJMP, "object", class_name);
  std::abort();  // action 2 never returns
}

}  // namespace

ClassPart fw_classPartChecked(QVA_HVID hvid, FwClass &cls) {
  // Anything but a live object goes to the host, which reports it.
  QVA_HVPTR hv = QVA_HeapVarFind(hvid);
  if (!hv || !(hv->flags & QVA_HV_OBJECT)) hv = QVA_ObjValidate(hvid, QVA_MSG_LONGJMP);
  if (!(hv->var.flags & QVA_V_STRUCT)) notOfClass(cls.class_name);
  QVA_SDEF sdef = hv->var.value.s.sdef;
  if (!QVA_ObjContainsClassByStr(sdef, cls.structure, 0, 0, QVA_MSG_LONGJMP))
    notOfClass(cls.class_name);
  QVA_MEMINT offset = 0;
  if (!QVA_StructGetTagAddress(&hv->var, FW_SAVEABLE_TOP_FIELD, &offset, nullptr, QVA_MSG_RET))
    notOfClass(cls.class_name);
  unsigned way = cls.next;
  cls.next = (way + 1) % FwClass::kRemembered;
  cls.passed[way] = sdef;
  cls.offset[way] = offset;
  return ClassPart{QVA_HeapVarStructData(hv) + offset, hvid};
}

QVA_HVID fw_newObject(const char *structure) {
  QVA_SDEF sdef = QVA_ObjRuntimeDefine(QVA_IdentHash(structure, 0, 0, QVA_MSG_LONGJMP, 0));
  return QVA_HeapVarNewStruct(QVA_TYP_OBJREF, sdef, QVA_MSG_LONGJMP)->hash_id;
}

namespace {

// Calls QVA_KWFree when the host asked for it, also when the routine is
// abandoned between keyword processing and its return.
class KeywordRelease {
 public:
  explicit KeywordRelease(const FwKeywordRecord &record) : record_(record) {}
  ~KeywordRelease() {
    if (record_.free_marker) QVA_KWFree();
  }
  KeywordRelease(const KeywordRelease &) = delete;
  KeywordRelease &operator=(const KeywordRelease &) = delete;

 private:
  const FwKeywordRecord &record_;
};

}  // namespace

QVA_VPTR fw_initWithKeywords(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk, QVA_KW_PAR *keywords,
                             FwLocateFn locate, FwInitFn init) {
  FwKeywordRecord record{};
  // INIT methods are registered with the object as their only positional
  // argument; the array still takes whatever count the host passes.
  std::vector<QVA_VPTR> plain(argc > 0 ? static_cast<size_t>(argc) : 1, nullptr);
  QVA_KWProcessByOffset(argc, argv, argk, keywords, plain.data(), 1, &record);
  KeywordRelease release(record);

  ClassPart part = locate(plain[0]);
  return QVA_GettmpLong(init(part, &record.fields));
}
