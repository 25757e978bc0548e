// Helpers for module tests that need objects: creating them as the
// language does (running INIT), making bare instances (no INIT), reading
// fields through the host, and destroying whatever a test leaves alive.
#pragma once

#include <gtest/gtest.h>
#include <qva/qva.h>

#include <string>
#include <vector>

#include "qva_host.h"

namespace qvatest {

// A scalar field of a test structure.
inline qvahost::FieldSpec Field(const std::string &name, int type) {
  return qvahost::FieldSpec{name, type, nullptr, {}};
}

// Defines a structure once per process (the host keeps definitions).
inline QVA_SDEF DefineStructOnce(const std::string &name, const std::string &base,
                                 const std::vector<qvahost::FieldSpec> &fields) {
  if (QVA_SDEF existing = qvahost::find_struct(name)) return existing;
  return qvahost::define_struct(name, base, fields);
}

// The address of field `tag` of object `id`, as the host lays it out.
template <typename T>
T *FieldOf(QVA_HVID id, const char *tag) {
  QVA_HVPTR hv = QVA_ObjValidate(id, QVA_MSG_LONGJMP);
  return static_cast<T *>(
      QVA_StructGetTagAddress(&hv->var, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
}

inline bool IsAlive(QVA_HVID id) { return id != 0 && QVA_HeapVarHashFind(id) != nullptr; }

// Destroys an object as OBJ_DESTROY does (running CLEANUP).
inline void DestroyObject(QVA_HVID id) {
  QVA_VPTR ref = qvahost::make_objref(id);
  QVA_ObjDestroy(1, &ref, nullptr);
  QVA_Deltmp(ref);
}

// An object owned by a test: created on construction, destroyed at the
// end of the scope unless something destroyed it already.
class ScopedObject {
 public:
  // Created as OBJ_NEW does, running the class's INIT.
  static ScopedObject New(const std::string &cls) {
    QVA_VPTR name = qvahost::make_string(cls);
    QVA_VPTR ref = QVA_ObjNew(1, &name, nullptr);
    QVA_Deltmp(name);
    QVA_HVID id = ref->value.hvid;
    QVA_Deltmp(ref);
    EXPECT_NE(id, 0u) << "OBJ_NEW of " << cls << " gave a null reference";
    return ScopedObject(id, true);
  }
  // A zero-filled instance of `sdef`, without INIT (and later without
  // CLEANUP): enough to look at the layout.
  static ScopedObject Bare(QVA_SDEF sdef) {
    QVA_VPTR value = nullptr;
    QVA_MakeTempStructVector(sdef, 1, &value, 1);
    QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_OBJREF, value, 1, QVA_MSG_LONGJMP);
    QVA_Deltmp(value);
    return ScopedObject(hv->hash_id, false);
  }

  ScopedObject(ScopedObject &&other) noexcept : id_(other.id_), cleanup_(other.cleanup_) {
    other.id_ = 0;
  }
  ScopedObject(const ScopedObject &) = delete;
  ScopedObject &operator=(const ScopedObject &) = delete;
  ~ScopedObject() {
    if (!IsAlive(id_)) return;
    if (cleanup_)
      DestroyObject(id_);
    else
      QVA_HeapVarDelete(id_, 0, QVA_MSG_LONGJMP);
  }

  QVA_HVID id() const { return id_; }

 private:
  ScopedObject(QVA_HVID id, bool cleanup) : id_(id), cleanup_(cleanup) {}
  QVA_HVID id_;
  bool cleanup_;
};

// An object reference temporary released at the end of the scope.
class ObjRef {
 public:
  explicit ObjRef(QVA_HVID id) : ref_(qvahost::make_objref(id)) {}
  ~ObjRef() { QVA_Deltmp(ref_); }
  ObjRef(const ObjRef &) = delete;
  ObjRef &operator=(const ObjRef &) = delete;
  QVA_VPTR get() const { return ref_; }
  operator QVA_VPTR() const { return ref_; }

 private:
  QVA_VPTR ref_;
};

}  // namespace qvatest

namespace qvatest {

// An object reference array temporary released at the end of the scope.
class ObjRefArray {
 public:
  explicit ObjRefArray(const std::vector<QVA_HVID> &ids) {
    char *data =
        QVA_MakeTempVector(QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(ids.size()), 1, &array_);
    auto *elements = reinterpret_cast<QVA_HVID *>(data);
    for (size_t i = 0; i < ids.size(); ++i) elements[i] = ids[i];
  }
  ~ObjRefArray() { QVA_Deltmp(array_); }
  ObjRefArray(const ObjRefArray &) = delete;
  ObjRefArray &operator=(const ObjRefArray &) = delete;
  operator QVA_VPTR() const { return array_; }

 private:
  QVA_VPTR array_ = nullptr;
};

}  // namespace qvatest
