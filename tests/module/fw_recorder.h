// Shared helpers for the message framework tests: a behaviour class whose
// native EXECUTE records every call, and thin wrappers that drive the
// framework classes through their registered routines, as the language
// calls them.
//
// FWTEST_RECORDER inherits QVAFWBEHAVIOR.  Its EXECUTE appends one Exec
// record to Recorder::log() (self, the argument variable as received, its
// type, whether it is a temporary, its integer value when it has one), then
// runs Recorder::hook() if one is set: a test's way of acting from inside a
// dispatch.  Its RESTORE appends self to Recorder::restored(), runs the
// behaviour's RESTORE, then restores the object in its PEER field (through
// DORESTORE) when there is one.
#pragma once

#include <gtest/gtest.h>
#include <qva/qva.h>

#include <functional>
#include <string>
#include <vector>

#include "framework/fw_messhndlr.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace fwtest {

inline constexpr const char *kRecorder = "FWTEST_RECORDER";
inline constexpr const char *kHandler = "QVAFWMESSAGEHANDLER";
inline constexpr const char *kMessage = "QVAFWMESSAGE";
inline constexpr const char *kBehavior = "QVAFWBEHAVIOR";

// One EXECUTE call as the behaviour saw it.
struct Exec {
  QVA_HVID self = 0;
  QVA_VPTR arg = nullptr;  // the variable received, nullptr without one
  int type = 0;            // its type when it was received
  bool temporary = false;  // QVA_V_TEMP set when it was received
  QVA_LONG64 value = 0;    // its value when it is a scalar integer
};

class Recorder {
 public:
  static std::vector<Exec> &log() {
    static std::vector<Exec> entries;
    return entries;
  }
  using Hook = std::function<void(QVA_HVID self, QVA_VPTR arg)>;
  static Hook &hook() {
    static Hook h;
    return h;
  }
  static std::vector<QVA_HVID> &restored() {
    static std::vector<QVA_HVID> ids;
    return ids;
  }
  static std::vector<QVA_HVID> selves() {
    std::vector<QVA_HVID> out;
    for (const Exec &e : log()) out.push_back(e.self);
    return out;
  }
  static void Clear() {
    log().clear();
    restored().clear();
    hook() = nullptr;
  }

  // Defines the class and its EXECUTE once per process.
  static void Define() {
    qvatest::DefineStructOnce(kRecorder, kBehavior, {qvatest::Field("PEER", QVA_TYP_OBJREF)});
    if (qvahost::routine_exists(std::string(kRecorder) + "::EXECUTE", false)) return;
    qvahost::define_routine(std::string(kRecorder) + "::RESTORE", false, 1, 1, false,
                            [](int, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
                              const QVA_HVID self = argv[0]->value.hvid;
                              restored().push_back(self);
                              qvahost::call_procedure("QVAFWBEHAVIOR::RESTORE", {argv[0]});
                              if (QVA_HVID peer = *qvatest::FieldOf<QVA_HVID>(self, "PEER")) {
                                QVA_VPTR ref = qvahost::make_objref(peer);
                                struct Release {
                                  QVA_VPTR v;
                                  ~Release() { QVA_Deltmp(v); }
                                } release{ref};
                                qvahost::call_method_procedure(ref, "DORESTORE");
                              }
                              return nullptr;
                            });
    qvahost::define_routine(std::string(kRecorder) + "::EXECUTE", false, 1, 2, false,
                            [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
                              Exec e;
                              e.self = argv[0]->value.hvid;
                              if (argc >= 2) {
                                QVA_VPTR a = argv[1];
                                e.arg = a;
                                e.type = a->type;
                                e.temporary = (a->flags & QVA_V_TEMP) != 0;
                                if (!(a->flags & QVA_V_NOT_SCALAR) &&
                                    (a->type == QVA_TYP_LONG || a->type == QVA_TYP_INT ||
                                     a->type == QVA_TYP_BYTE || a->type == QVA_TYP_LONG64))
                                  e.value = qvahost::integer_value(a);
                              }
                              log().push_back(e);
                              if (Hook h = hook()) h(e.self, e.arg);
                              return nullptr;
                            });
  }
};

// ------------------------------------------------------------ building

inline qvahost::Keywords HandlerKeyword(QVA_HVID handler, qvahost::Keywords kw = {}) {
  if (handler) kw.push_back({"HANDLER", qvahost::make_objref(handler)});
  return kw;
}

// Releases the keyword temporaries a builder made.
inline void ReleaseKeywords(const qvahost::Keywords &kw) {
  for (const auto &k : kw) QVA_Deltmp(k.value);
}

inline QVA_HVID NewObject(const std::string &cls, const qvahost::Keywords &kw) {
  QVA_VPTR ref = nullptr;
  try {
    ref = qvahost::new_object(cls, {}, kw);
  } catch (...) {
    ReleaseKeywords(kw);
    throw;
  }
  ReleaseKeywords(kw);
  QVA_HVID id = ref->value.hvid;
  QVA_Deltmp(ref);
  return id;
}

// A message handler below `parent` (0: below the top-level handler).
inline QVA_HVID NewHandler(QVA_HVID parent = 0) {
  return NewObject(kHandler, HandlerKeyword(parent));
}

struct BehaviorOptions {
  QVA_HVID handler = 0;
  bool register_it = true;
  bool scope = false;
  std::string cls = kRecorder;
};

inline QVA_HVID NewBehavior(const std::string &message, const BehaviorOptions &o = {}) {
  qvahost::Keywords kw = HandlerKeyword(o.handler);
  kw.push_back({"MESSAGESTRING", qvahost::make_string(message)});
  if (o.register_it) kw.push_back({"REGISTER", qvahost::make_long(1)});
  if (o.scope) kw.push_back({"SCOPE", qvahost::make_long(1)});
  return NewObject(o.cls, kw);
}

inline QVA_HVID NewMessage(const std::string &message, QVA_HVID handler = 0, bool scope = false) {
  qvahost::Keywords kw = HandlerKeyword(handler);
  kw.push_back({"MESSAGESTRING", qvahost::make_string(message)});
  if (scope) kw.push_back({"SCOPE", qvahost::make_long(1)});
  return NewObject(kMessage, kw);
}

inline void Destroy(QVA_HVID id) { qvatest::DestroyObject(id); }

// ----------------------------------------------------------- calling

// obj->METHOD, arg... with objects given as ids; temporaries made here are
// released here, also when the call fails.
class Args {
 public:
  Args() = default;
  Args(const Args &) = delete;
  Args &operator=(const Args &) = delete;
  ~Args() {
    for (QVA_VPTR t : owned_) QVA_Deltmp(t);
  }
  QVA_VPTR Own(QVA_VPTR tmp) {
    owned_.push_back(tmp);
    return tmp;
  }
  QVA_VPTR Ref(QVA_HVID id) { return Own(qvahost::make_objref(id)); }
  QVA_VPTR Str(const std::string &s) { return Own(qvahost::make_string(s)); }

 private:
  std::vector<QVA_VPTR> owned_;
};

inline void Proc(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  qvatest::ObjRef ref(self);
  qvahost::call_method_procedure(ref, method, std::move(args));
}

// A function method's result, released by the caller.
inline QVA_VPTR Func(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  qvatest::ObjRef ref(self);
  return qvahost::call_method_function(ref, method, std::move(args));
}

inline void Send(QVA_HVID message, QVA_VPTR arg = nullptr) {
  Proc(message, "SEND", arg ? std::vector<QVA_VPTR>{arg} : std::vector<QVA_VPTR>{});
}

// handler->SENDMESSAGE, text [, arg]
inline void SendText(QVA_HVID handler, const std::string &text, QVA_VPTR arg = nullptr) {
  Args a;
  std::vector<QVA_VPTR> args{a.Str(text)};
  if (arg) args.push_back(arg);
  Proc(handler, "SENDMESSAGE", args);
}

inline void Scope(QVA_HVID handler, const std::string &text) {
  Args a;
  Proc(handler, "SCOPEMESSAGE", {a.Str(text)});
}

inline void Unscope(QVA_HVID handler, const std::string &text) {
  Args a;
  Proc(handler, "UNSCOPEMESSAGE", {a.Str(text)});
}

inline int IsScoped(QVA_HVID handler, const std::string &text) {
  Args a;
  QVA_VPTR r = a.Own(Func(handler, "ISSCOPED", {a.Str(text)}));
  EXPECT_EQ(r->type, QVA_TYP_INT);
  return static_cast<int>(qvahost::integer_value(r));
}

// SCOPEDMESSAGES as a list; the scalar empty string reads as no texts.
inline std::vector<std::string> ScopedMessages(QVA_HVID handler) {
  Args a;
  QVA_VPTR r = a.Own(Func(handler, "SCOPEDMESSAGES"));
  std::vector<std::string> out;
  if (r->type == QVA_TYP_UNDEF) return out;  // nothing scoped: no elements
  EXPECT_EQ(r->type, QVA_TYP_STRING);
  EXPECT_TRUE(r->flags & QVA_V_ARR) << "texts come as a vector";
  if (r->flags & QVA_V_ARR) {
    auto *s = reinterpret_cast<QVA_STRING *>(r->value.arr->data);
    for (QVA_MEMINT i = 0; i < r->value.arr->n_elts; ++i) out.push_back(QVA_STRING_STR(&s[i]));
  }
  return out;
}

// BEHAVIORS(text): the listed behaviours; empty for the null object.
inline std::vector<QVA_HVID> Behaviors(QVA_HVID handler, const std::string &text) {
  Args a;
  QVA_VPTR r = a.Own(Func(handler, "BEHAVIORS", {a.Str(text)}));
  EXPECT_EQ(r->type, QVA_TYP_OBJREF);
  std::vector<QVA_HVID> out;
  if (r->flags & QVA_V_ARR) {
    auto *ids = reinterpret_cast<QVA_HVID *>(r->value.arr->data);
    out.assign(ids, ids + r->value.arr->n_elts);
  } else {
    EXPECT_EQ(r->value.hvid, 0u) << "a scalar result is the null object";
  }
  return out;
}

inline QVA_HVID HandlerOf(QVA_HVID obj) {
  QVA_VPTR r = Func(obj, "HANDLER");
  EXPECT_EQ(r->type, QVA_TYP_OBJREF);
  QVA_HVID h = r->value.hvid;
  QVA_Deltmp(r);
  return h;
}

inline void SetHandler(QVA_HVID obj, QVA_HVID handler) {
  Args a;
  Proc(obj, "SETHANDLER", {a.Ref(handler)});
}

inline bool IsRegistered(QVA_HVID behavior) {
  QVA_VPTR r = Func(behavior, "ISREGISTERED");
  EXPECT_EQ(r->type, QVA_TYP_BYTE);
  bool yes = r->value.c != 0;
  QVA_Deltmp(r);
  return yes;
}

inline std::string MessageString(QVA_HVID obj) {
  QVA_VPTR r = Func(obj, "MESSAGESTRING");
  std::string s = qvahost::string_value(r);
  QVA_Deltmp(r);
  return s;
}

inline void SetMessageString(QVA_HVID obj, const std::string &text) {
  Args a;
  Proc(obj, "SETMESSAGESTRING", {a.Str(text)});
}

// --------------------------------------------------------- identifiers

// GET_FWIDENT(text): counts one more holder.
inline QVA_HVID GetIdent(const std::string &text) {
  Args a;
  QVA_VPTR p = a.Own(qvahost::call_function("GET_FWIDENT", {a.Str(text)}));
  EXPECT_EQ(p->type, QVA_TYP_PTR);
  return p->value.hvid;
}

inline void IdentRoutine(const char *routine, QVA_HVID id) {
  Args a;
  qvahost::call_procedure(routine, {a.Own(qvahost::make_ptr(id))});
}

inline void CollectIdents() { qvahost::call_procedure("FWIDENT_GC"); }

inline bool Alive(QVA_HVID id) { return qvatest::IsAlive(id); }

// Whether identifier `id` outlives giving up `k` of its references and a
// collection: true exactly when it has more than k holders.  The
// references are taken back when it survives.
inline bool SurvivesRelease(QVA_HVID id, int k) {
  for (int i = 0; i < k; ++i) IdentRoutine("FWIDENT_RELEASE", id);
  CollectIdents();
  if (!Alive(id)) return false;
  for (int i = 0; i < k; ++i) IdentRoutine("FWIDENT_ACQUIRE", id);
  return true;
}

// The identifier of `text` without counting a holder (0 when not interned
// or, for a text nobody holds, after the probe's collection).
inline QVA_HVID IdentOf(const std::string &text) {
  QVA_HVID id = GetIdent(text);
  IdentRoutine("FWIDENT_RELEASE", id);
  return id;
}

// The top-level handler if there is one; never makes one.
inline QVA_HVID TopLevel() { return currentTopLevelHandler(); }

// A field of an object by tag name.
template <typename T>
T &FieldRef(QVA_HVID id, const char *tag) {
  return *qvatest::FieldOf<T>(id, tag);
}

// Every test starts from an empty session with the recorder class defined
// and an empty log.
class FwTest : public qvatest::FreshSessionTest {
 protected:
  void SetUp() override {
    Recorder::Define();
    Recorder::Clear();
    qvatest::FreshSessionTest::SetUp();
  }
  void TearDown() override {
    Recorder::Clear();
    qvatest::FreshSessionTest::TearDown();
  }
  // The number of live objects (framework objects and others).
  static int64_t Objects() { return qvahost::accounting().objects; }
};

}  // namespace fwtest
