// objects.cpp - built-ins about objects and the heap: OBJ_*, PTR_* and
// HEAP_GC.
#include <cstring>

#include "builtins.h"

namespace qva {

namespace {

// The heap identifiers held by a pointer or object reference value (none
// for an undefined one).
std::vector<QVA_HVID> ids_of(QVA_VPTR v, int type) {
  std::vector<QVA_HVID> ids;
  if (v->type == QVA_TYP_UNDEF) return ids;
  if (v->type != type)
    qvahost::raise_error(std::string(type == QVA_TYP_PTR ? "Pointer" : "Object reference") +
                         " type required in this context: " + var_name(v) + ".");
  char *data = nullptr;
  QVA_MEMINT n = 0;
  QVA_VarGetData(v, &n, &data, 1);
  for (QVA_MEMINT i = 0; i < n; ++i) {
    QVA_HVID id;
    std::memcpy(&id, data + i * sizeof id, sizeof id);
    ids.push_back(id);
  }
  return ids;
}

// OBJ_VALID / PTR_VALID: for each reference, whether it names a live
// object (or pointer heap variable).
QVA_VPTR valid_each(QVA_VPTR v, int type, bool object) {
  std::vector<QVA_HVID> ids = ids_of(v, type);
  auto ok = [&](QVA_HVID id) {
    QVA_HVPTR hv = id ? QVA_HeapVarHashFind(id) : nullptr;
    return hv && ((hv->flags & QVA_HV_OBJECT) != 0) == object;
  };
  if (v->type == QVA_TYP_UNDEF) return byte_result(false);
  if (is_scalar(v)) return byte_result(ok(ids[0]));
  QVA_VPTR out = nullptr;
  char *d = QVA_MakeTempVector(QVA_TYP_BYTE, static_cast<QVA_MEMINT>(ids.size()), 1, &out);
  for (size_t i = 0; i < ids.size(); ++i) d[i] = ok(ids[i]) ? 1 : 0;
  return out;
}

// Every live object, in the order of their heap identifiers.
std::vector<QVA_HVID> live_objects() {
  std::vector<QVA_HVID> ids;
  for (QVA_HVID id : qvahost::heap_ids()) {
    QVA_HVPTR hv = QVA_HeapVarHashFind(id);
    if (hv && (hv->flags & QVA_HV_OBJECT)) ids.push_back(id);
  }
  return ids;
}

// Object references for heap identifiers (integers, or references taken
// as their identifiers): the object where one lives, the null object
// elsewhere; a scalar for a scalar.
QVA_VPTR cast_objects(QVA_VPTR v) {
  bool integer = v->type == QVA_TYP_BYTE || v->type == QVA_TYP_INT || v->type == QVA_TYP_LONG ||
                 v->type == QVA_TYP_LONG64;
  if (v->type != QVA_TYP_OBJREF && !integer)
    qvahost::raise_error("OBJ_VALID with CAST takes heap identifiers (integers): " + var_name(v) + ".");
  std::vector<QVA_LONG64> ids;
  if (integer) {
    Val all = Val::temp(qvahost::convert_value(v, QVA_TYP_LONG64));
    char *data = nullptr;
    QVA_MEMINT n = 0;
    QVA_VarGetData(all.get(), &n, &data, 1);
    ids.resize(static_cast<size_t>(n));
    std::memcpy(ids.data(), data, ids.size() * sizeof(QVA_LONG64));
  } else {
    for (QVA_HVID id : ids_of(v, QVA_TYP_OBJREF)) ids.push_back(id);
  }
  std::vector<QVA_HVID> objects;
  for (QVA_LONG64 id : ids) {
    QVA_HVPTR hv = id > 0 && id <= static_cast<QVA_LONG64>(UINT32_MAX)
                       ? QVA_HeapVarHashFind(static_cast<QVA_HVID>(id)) : nullptr;
    objects.push_back(hv && (hv->flags & QVA_HV_OBJECT) ? static_cast<QVA_HVID>(id) : 0);
  }
  if (is_scalar(v)) return qvahost::make_objref(objects[0]);
  QVA_VPTR out = nullptr;
  char *d = QVA_MakeTempVector(QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(objects.size()), 0, &out);
  std::memcpy(d, objects.data(), objects.size() * sizeof(QVA_HVID));
  return out;
}

// OBJ_VALID(): every live object (the null object when none);
// OBJ_VALID(refs): whether each names a live object; OBJ_VALID(ids, /CAST):
// references to the objects with those heap identifiers.  COUNT= receives
// the number of live objects.
QVA_VPTR obj_valid(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("OBJ_VALID", argk, {"CAST", "COUNT"});
  std::vector<QVA_HVID> live = live_objects();
  if (kw[1]) {
    Val count = Val::temp(qvahost::make_long(static_cast<QVA_LONG>(live.size())));
    QVA_VarCopy(count.get(), kw[1]);
  }
  if (argc > 0) {
    if (keyword_set(kw[0])) return cast_objects(argv[0]);
    return valid_each(argv[0], QVA_TYP_OBJREF, true);
  }
  if (live.empty()) return qvahost::make_objref(0);
  QVA_VPTR out = nullptr;
  char *d = QVA_MakeTempVector(QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(live.size()), 0, &out);
  std::memcpy(d, live.data(), live.size() * sizeof(QVA_HVID));
  return out;
}

}  // namespace

std::vector<Builtin> object_builtins() {
  return {
      {"OBJ_NEW", true, 0, kManyArgs, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         if (argc == 0) return qvahost::make_objref(0);
         return QVA_ObjNew(argc, argv, argk);
       }},
      {"OBJ_DESTROY", false, 0, kManyArgs, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         QVA_ObjDestroy(argc, argv, argk);
         return static_cast<QVA_VPTR>(nullptr);
       }},
      {"OBJ_VALID", true, 0, 1, true, obj_valid},
      {"OBJ_ISA", true, 2, 2, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
         QVA_SDEF cls = class_of(argv[0]);
         return byte_result(cls && class_has(cls, qvahost::string_value(argv[1])));
       }},
      {"OBJ_CLASS", true, 1, 1, true,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("OBJ_CLASS", argk, {"SUPERCLASS"});
         QVA_VPTR v = argv[0];
         QVA_SDEF cls = nullptr;
         if (v->type == QVA_TYP_STRING) cls = qvahost::find_struct(qvahost::string_value(v));
         else cls = class_of(v);
         if (keyword_set(kw[0])) {
           QVA_SDEF super = cls ? qvahost::struct_super(cls) : nullptr;
           return qvahost::make_string(super ? qvahost::struct_name(super) : "");
         }
         return qvahost::make_string(cls ? qvahost::struct_name(cls) : "");
       }},
      {"PTR_NEW", true, 0, 1, true,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("PTR_NEW", argk, {"NO_COPY", "ALLOCATE_HEAP"});
         if (argc == 0 && !keyword_set(kw[1])) return qvahost::make_ptr(0);
         QVA_VPTR src = argc > 0 ? argv[0] : nullptr;
         Val none = undefined_value();
         if (!src) src = none.get();
         QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_PTR, src, keyword_set(kw[0]) ? 1 : 0, QVA_MSG_LONGJMP);
         if (keyword_set(kw[0]) && !(src->flags & QVA_V_TEMP)) QVA_Delvar(src);
         return qvahost::make_ptr(hv->hash_id);
       }},
      {"PTR_FREE", false, 0, kManyArgs, false,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
         std::vector<QVA_HVID> ids;
         for (int i = 0; i < argc; ++i)
           for (QVA_HVID id : ids_of(argv[i], QVA_TYP_PTR)) ids.push_back(id);
         // A module's own record goes only with the module's say: freeing
         // one from QVA code would cut a tree the module still walks.
         for (QVA_HVID id : ids)
           if (qvahost::is_module_record(id ? QVA_HeapVarHashFind(id) : nullptr))
             qvahost::raise_error("<PtrHeapVar" + std::to_string(id) +
                                  "> holds a module's own record, which QVA code may not free.");
         for (QVA_HVID id : ids) {
           QVA_HVPTR hv = id ? QVA_HeapVarHashFind(id) : nullptr;
           if (hv && !(hv->flags & QVA_HV_OBJECT)) QVA_HeapVarDelete(id, 0, QVA_MSG_LONGJMP);
         }
         return static_cast<QVA_VPTR>(nullptr);
       }},
      {"PTR_VALID", true, 1, 1, false,
       [](int, QVA_VPTR argv[], QVA_KW_ARGS *) { return valid_each(argv[0], QVA_TYP_PTR, false); }},
      {"HEAP_GC", false, 0, 0, true,
       [](int, QVA_VPTR[], QVA_KW_ARGS *argk) {
         auto kw = take_keywords("HEAP_GC", argk, {"VERBOSE"});
         size_t n = qvahost::heap_gc();
         if (keyword_set(kw[0]))
           current_interp().print("% HEAP_GC: " + std::to_string(n) + " heap variables freed.");
         return static_cast<QVA_VPTR>(nullptr);
       }},
  };
}

}  // namespace qva
