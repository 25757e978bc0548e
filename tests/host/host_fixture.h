// Fixture and helpers of the host runtime tests: the leak check of HostTest,
// contract violations provoked on purpose, scope guards for temporaries and
// heap variables, and classes and objects made through OBJ_NEW and
// OBJ_DESTROY as the language calls them (so that an abandoned creation is
// cleaned up at the call boundary).
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "internal.h"
#include "test_support.h"

namespace hosttest {

using qvatest::ExpectHostError;

class CoreTest : public qvatest::HostTest {
 protected:
  // Runs `body`, which must report exactly `expected` contract violations;
  // they are accepted in the baseline so that the final leak check still
  // demands no other.  Returns what was printed on standard error.
  std::string ExpectViolations(int64_t expected, const std::function<void()> &body) {
    int64_t before = qvahost::accounting().violations;
    testing::internal::CaptureStderr();
    body();
    std::string err = testing::internal::GetCapturedStderr();
    int64_t reported = qvahost::accounting().violations - before;
    EXPECT_EQ(reported, expected) << err;
    if (expected > 0) EXPECT_NE(err.find("QVA host contract violation:"), std::string::npos);
    baseline_.violations += reported;
    return err;
  }
};

// Releases a temporary at scope exit.
class Tmp {
 public:
  explicit Tmp(QVA_VPTR v = nullptr) : v_(v) {}
  ~Tmp() {
    if (v_) QVA_Deltmp(v_);
  }
  Tmp(const Tmp &) = delete;
  Tmp &operator=(const Tmp &) = delete;
  QVA_VPTR get() const { return v_; }
  QVA_VPTR operator->() const { return v_; }

 private:
  QVA_VPTR v_;
};

// Deletes a heap variable at scope exit.
class HeapGuard {
 public:
  explicit HeapGuard(QVA_HVPTR h) : id_(h ? h->hash_id : 0) {}
  ~HeapGuard() { QVA_HeapVarDelete(id_, 0, 0); }
  HeapGuard(const HeapGuard &) = delete;
  HeapGuard &operator=(const HeapGuard &) = delete;
  QVA_HVID id() const { return id_; }

 private:
  QVA_HVID id_;
};

inline std::string Text(const QVA_STRING &s) {
  return std::string(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
}

// A scalar field of a test class.
inline qvahost::FieldSpec field(const std::string &name, int type) {
  return qvahost::FieldSpec{name, type, nullptr, {}};
}

// Defines a structure or class unless it exists (definitions last for the process).
inline QVA_SDEF ensure_class(const std::string &name, const std::string &base,
                             const std::vector<qvahost::FieldSpec> &fields) {
  if (QVA_SDEF s = qvahost::find_struct(name)) return s;
  return qvahost::define_struct(name, base, fields);
}

// An OBJREF temporary from OBJ_NEW(cls, args..., keywords).
inline QVA_VPTR obj_new(const std::string &cls, std::vector<QVA_VPTR> args = {},
                        const qvahost::Keywords &kw = {}) {
  if (!qvahost::routine_exists("OBJ_NEW", true))
    qvahost::define_routine("OBJ_NEW", true, 1, 16, true, QVA_ObjNew);
  Tmp name(qvahost::make_string(cls));
  args.insert(args.begin(), name.get());
  return qvahost::call_function("OBJ_NEW", args, kw);
}

inline void obj_destroy(std::vector<QVA_VPTR> refs, const qvahost::Keywords &kw = {}) {
  if (!qvahost::routine_exists("OBJ_DESTROY", false))
    qvahost::define_routine("OBJ_DESTROY", false, 0, 16, true,
                            [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
                              QVA_ObjDestroy(argc, argv, argk);
                              return nullptr;
                            });
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
