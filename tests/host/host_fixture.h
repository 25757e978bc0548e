// Fixture and helpers of the host runtime tests: the leak check of HostTest,
// contract violations provoked on purpose, scope guards, and objects made
// and destroyed through OBJ_NEW and OBJ_DESTROY as the language calls them
// (so that an abandoned creation is cleaned up at the call boundary).
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
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
    if (expected > 0) {
      EXPECT_NE(err.find("QVA host contract violation:"), std::string::npos);
    }
    baseline_.violations += reported;
    return err;
  }
};

// The code of the host error that `body` raises.
inline int Code(const std::function<void()> &body) { return ExpectHostError(body).code; }

// A temporary released at scope exit.
struct TmpRelease {
  void operator()(QVA_VPTR v) const { QVA_Deltmp(v); }
};
using Tmp = std::unique_ptr<QVA_VARIABLE, TmpRelease>;

// A heap variable deleted at scope exit.
struct HeapGuard {
  QVA_HVID id;
  ~HeapGuard() { QVA_HeapVarDelete(id, 0, 0); }
};

inline std::string Text(const QVA_STRING &s) {
  return std::string(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
}

// A scalar field of a test structure.
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

// An object reference whose object is destroyed, if still alive, and whose
// temporary is released at scope exit.
struct ObjectRelease {
  void operator()(QVA_VPTR ref) const {
    if (QVA_ObjValidate(ref->value.hvid, QVA_MSG_RET)) obj_destroy({ref});
    QVA_Deltmp(ref);
  }
};
using Object = std::unique_ptr<QVA_VARIABLE, ObjectRelease>;

// Address of a LONG field of a live object.
inline QVA_LONG *long_field(QVA_HVID obj, const char *tag) {
  QVA_HVPTR hv = QVA_ObjValidate(obj, QVA_MSG_LONGJMP);
  return static_cast<QVA_LONG *>(
      QVA_StructGetTagAddress(&hv->var, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
}

}  // namespace hosttest
