// Helpers for host tests that need classes and objects: classes defined
// once per process, and object creation and destruction through the
// routines OBJ_NEW and OBJ_DESTROY, called as the language calls them (so
// that an abandoned creation is cleaned up at the call boundary).
#pragma once

#include <qva/qva.h>

#include <string>
#include <vector>

#include "internal.h"

namespace hosttest {

// A scalar field of a test class.
inline qvahost::FieldSpec field(const std::string &name, int type) {
  return qvahost::FieldSpec{name, type, nullptr, {}};
}

// Defines a class unless it exists (definitions last for the process).
inline QVA_SDEF ensure_class(const std::string &name, const std::string &base,
                             const std::vector<qvahost::FieldSpec> &fields) {
  if (QVA_SDEF s = qvahost::find_struct(name)) return s;
  return qvahost::define_struct(name, base, fields);
}

inline void ensure_object_routines() {
  if (!qvahost::routine_exists("OBJ_NEW", true))
    qvahost::define_routine("OBJ_NEW", true, 1, 16, true,
                            [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                              return QVA_ObjNew(argc, argv, argk);
                            });
  if (!qvahost::routine_exists("OBJ_DESTROY", false))
    qvahost::define_routine("OBJ_DESTROY", false, 0, 16, true,
                            [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
                              QVA_ObjDestroy(argc, argv, argk);
                              return nullptr;
                            });
}

// Releases a temporary at scope exit.
class Temp {
 public:
  explicit Temp(QVA_VPTR v = nullptr) : v_(v) {}
  ~Temp() {
    if (v_) QVA_Deltmp(v_);
  }
  Temp(const Temp &) = delete;
  Temp &operator=(const Temp &) = delete;
  QVA_VPTR get() const { return v_; }
  QVA_VPTR operator->() const { return v_; }

 private:
  QVA_VPTR v_;
};

// An OBJREF temporary from OBJ_NEW(cls, args..., keywords).
inline QVA_VPTR obj_new(const std::string &cls, std::vector<QVA_VPTR> args = {},
                        const qvahost::Keywords &kw = {}) {
  ensure_object_routines();
  Temp name(qvahost::make_string(cls));
  args.insert(args.begin(), name.get());
  return qvahost::call_function("OBJ_NEW", args, kw);
}

inline void obj_destroy(std::vector<QVA_VPTR> refs, const qvahost::Keywords &kw = {}) {
  ensure_object_routines();
  qvahost::call_procedure("OBJ_DESTROY", refs, kw);
}

// Destroys an object and releases its reference temporary at scope exit.
class Object {
 public:
  explicit Object(QVA_VPTR ref) : ref_(ref) {}
  ~Object() {
    if (!ref_) return;
    if (QVA_ObjValidate(ref_->value.hvid, QVA_MSG_RET)) obj_destroy({ref_});
    QVA_Deltmp(ref_);
  }
  Object(const Object &) = delete;
  Object &operator=(const Object &) = delete;
  QVA_VPTR ref() const { return ref_; }
  QVA_HVID id() const { return ref_->value.hvid; }
  QVA_HVPTR hv() const { return QVA_ObjValidate(id(), QVA_MSG_LONGJMP); }

 private:
  QVA_VPTR ref_;
};

// Address of a LONG field of a live object.
inline QVA_LONG *long_field(QVA_HVID obj, const char *tag) {
  QVA_HVPTR hv = QVA_ObjValidate(obj, QVA_MSG_LONGJMP);
  return static_cast<QVA_LONG *>(
      QVA_StructGetTagAddress(&hv->var, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
}

}  // namespace hosttest
