// Shared helpers for the message framework and behaviour kind tests, driving
// the classes through their registered routines as the language calls them.
//
// FWTEST_RECORDER inherits QVAFWBEHAVIOR.  Its EXECUTE appends an Exec record
// to Log() (the argument as received) and then runs Hook(), a test's way of
// acting from inside a dispatch.  Its RESTORE appends self to Restored(), runs
// Hook() (without argument), the base RESTORE, then DORESTORE on the object in
// its PEER field, if any.
// Native targets record into Calls(): BTEST_TARGET::PING (0 or 1 argument),
// procedure BTEST_PROC and function BTEST_FUNC (which returns a new string);
// OnNextCall() runs once inside the next of them.
#pragma once

#include <gtest/gtest.h>
#include <qva/qva.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>
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

struct Exec {
  QVA_HVID self = 0;
  QVA_VPTR arg = nullptr;  // the variable received, nullptr without one
  int type = 0;            // its type when received
  bool temporary = false;  // QVA_V_TEMP when received
  QVA_LONG64 value = 0;    // its value when a scalar integer
};
struct TargetCall {
  std::string target;  // "PING", "BTEST_PROC", "BTEST_FUNC"
  QVA_HVID self = 0;   // the object, for PING
  int args = 0;        // positional arguments after self
  QVA_VPTR arg = nullptr;
  std::string value;  // the argument, Printed
};

// One process-wide value per type and tag.
template <typename T, int kTag = 0>
T &Static() {
  static T value;
  return value;
}
inline std::vector<Exec> &Log() { return Static<std::vector<Exec>>(); }
inline std::function<void(QVA_HVID, QVA_VPTR)> &Hook() {
  return Static<std::function<void(QVA_HVID, QVA_VPTR)>>();
}
inline std::vector<QVA_HVID> &Restored() { return Static<std::vector<QVA_HVID>, 1>(); }
inline std::vector<TargetCall> &Calls() { return Static<std::vector<TargetCall>>(); }
inline std::function<void()> &OnNextCall() { return Static<std::function<void()>>(); }
inline std::vector<QVA_HVID> Selves() {
  std::vector<QVA_HVID> out;
  for (const Exec &e : Log()) out.push_back(e.self);
  return out;
}

// A value as the tests compare it: "L:7", "S:text", "D:2.5", "O:12", "U"...
inline std::string Printed(QVA_VPTR v) {
  if (v->flags & QVA_V_NOT_SCALAR) return "ARRAY";
  std::ostringstream os;
  switch (v->type) {
    case QVA_TYP_UNDEF:
      return "U";
    case QVA_TYP_BYTE:
      os << "B:" << int(v->value.c);
      break;
    case QVA_TYP_LONG:
      os << "L:" << v->value.l;
      break;
    case QVA_TYP_DOUBLE:
      os << "D:" << v->value.d;
      break;
    case QVA_TYP_STRING:
      os << "S:" << qvahost::string_value(v);
      break;
    case QVA_TYP_OBJREF:
      os << "O:" << v->value.hvid;
      break;
    default:
      os << "T" << int(v->type);
  }
  return os.str();
}

// A temporary released at the end of the scope.
class Tmp {
 public:
  explicit Tmp(QVA_VPTR v) : v_(v) {}
  ~Tmp() { QVA_Deltmp(v_); }
  Tmp(const Tmp &) = delete;
  Tmp &operator=(const Tmp &) = delete;
  operator QVA_VPTR() const { return v_; }
  QVA_VPTR operator->() const { return v_; }

 private:
  QVA_VPTR v_;
};

// Temporaries owned by the test, released by ReleaseTemps() (at the latest in
// TearDown).
inline std::vector<QVA_VPTR> &Temps() { return Static<std::vector<QVA_VPTR>>(); }
inline QVA_VPTR Own(QVA_VPTR tmp) { return Temps().emplace_back(tmp); }
inline QVA_VPTR Str(const std::string &s) { return Own(qvahost::make_string(s)); }
inline QVA_VPTR Long(QVA_LONG v) { return Own(qvahost::make_long(v)); }
inline QVA_VPTR Ref(QVA_HVID id) { return Own(qvahost::make_objref(id)); }
inline void ReleaseTemps() {
  for (QVA_VPTR t : Temps()) QVA_Deltmp(t);
  Temps().clear();
}

inline void RecordCall(const char *target, QVA_HVID self, int args, QVA_VPTR arg) {
  Calls().push_back({target, self, args, arg, arg ? Printed(arg) : ""});
  if (auto action = std::exchange(OnNextCall(), nullptr)) action();
}

// Defines the test classes and routines once per process.
inline void Define() {
  qvatest::DefineStructOnce(kRecorder, kBehavior, {qvatest::Field("PEER", QVA_TYP_OBJREF)});
  qvatest::DefineStructOnce("BTEST_TARGET", "", {qvatest::Field("N", QVA_TYP_LONG)});
  qvatest::DefineStructOnce("FWTEST_FOREIGN", "", {qvatest::Field("VALUE", QVA_TYP_LONG)});
  if (qvahost::routine_exists("FWTEST_RECORDER::EXECUTE", false)) return;
  using qvahost::define_routine;
  define_routine("FWTEST_RECORDER::RESTORE", false, 1, 1, false, [](int, QVA_VPTR argv[], auto) {
    Restored().push_back(argv[0]->value.hvid);
    if (auto h = Hook()) h(argv[0]->value.hvid, nullptr);
    qvahost::call_procedure("QVAFWBEHAVIOR::RESTORE", {argv[0]});
    if (QVA_HVID peer = *qvatest::FieldOf<QVA_HVID>(argv[0]->value.hvid, "PEER")) {
      qvatest::ObjRef ref(peer);
      qvahost::call_method_procedure(ref, "DORESTORE");
    }
    return QVA_VPTR{};
  });
  define_routine("FWTEST_RECORDER::EXECUTE", false, 1, 2, false,
                 [](int argc, QVA_VPTR argv[], auto) {
                   Exec e{argv[0]->value.hvid};
                   if (argc >= 2) {
                     QVA_VPTR a = e.arg = argv[1];
                     e.type = a->type;
                     e.temporary = (a->flags & QVA_V_TEMP) != 0;
                     if (!(a->flags & QVA_V_NOT_SCALAR) &&
                         (a->type == QVA_TYP_LONG || a->type == QVA_TYP_INT ||
                          a->type == QVA_TYP_BYTE || a->type == QVA_TYP_LONG64))
                       e.value = qvahost::integer_value(a);
                   }
                   Log().push_back(e);
                   if (auto h = Hook()) h(e.self, e.arg);
                   return QVA_VPTR{};
                 });
  define_routine("BTEST_TARGET::PING", false, 1, 2, false, [](int argc, QVA_VPTR argv[], auto) {
    RecordCall("PING", argv[0]->value.hvid, argc - 1, argc > 1 ? argv[1] : nullptr);
    return QVA_VPTR{};
  });
  define_routine("BTEST_PROC", false, 0, 1, false, [](int argc, QVA_VPTR argv[], auto) {
    RecordCall("BTEST_PROC", 0, argc, argc > 0 ? argv[0] : nullptr);
    return QVA_VPTR{};
  });
  define_routine("BTEST_FUNC", true, 0, 1, false, [](int argc, QVA_VPTR argv[], auto) {
    RecordCall("BTEST_FUNC", 0, argc, argc > 0 ? argv[0] : nullptr);
    return qvahost::make_string("a result the caller must release");
  });
}

// ------------------------------------------------------------ objects

// Every object a test makes; TearDown takes them down through CLEANUP.
inline std::vector<QVA_HVID> &Made() { return Static<std::vector<QVA_HVID>, 2>(); }

// OBJ_NEW(cls, KEYWORDS...).
inline QVA_HVID New(const std::string &cls, const qvahost::Keywords &kw = {}) {
  Tmp ref(qvahost::new_object(cls, {}, kw));
  return Made().emplace_back(ref->value.hvid);
}
inline qvahost::Keywords Under(QVA_HVID handler, qvahost::Keywords kw = {}) {
  if (handler) kw.push_back({"HANDLER", Ref(handler)});
  return kw;
}
// A message handler below `parent` (0: below the top-level handler).
inline QVA_HVID NewHandler(QVA_HVID parent = 0) { return New(kHandler, Under(parent)); }

struct BehaviorOptions {
  QVA_HVID handler = 0;
  bool register_it = true;
  bool scope = false;
  std::string cls = kRecorder;
};
inline QVA_HVID NewBehavior(const std::string &message, const BehaviorOptions &o = {}) {
  qvahost::Keywords kw = Under(o.handler, {{"MESSAGESTRING", Str(message)}});
  if (o.register_it) kw.push_back({"REGISTER", Long(1)});
  if (o.scope) kw.push_back({"SCOPE", Long(1)});
  return New(o.cls, kw);
}
inline QVA_HVID NewMessage(const std::string &message, QVA_HVID handler = 0, bool scope = false) {
  qvahost::Keywords kw = Under(handler, {{"MESSAGESTRING", Str(message)}});
  if (scope) kw.push_back({"SCOPE", Long(1)});
  return New(kMessage, kw);
}
inline void Destroy(QVA_HVID id) { qvatest::DestroyObject(id); }
inline bool Alive(QVA_HVID id) { return qvatest::IsAlive(id); }
// The top-level handler if there is one; never makes one.
inline QVA_HVID TopLevel() { return currentTopLevelHandler(); }
template <typename T>
T &FieldRef(QVA_HVID id, const char *tag) {
  return *qvatest::FieldOf<T>(id, tag);
}

// ------------------------------------------------------------ calling

inline void Proc(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  qvatest::ObjRef ref(self);
  qvahost::call_method_procedure(ref, method, std::move(args));
}
// A function method's result, released by the caller.
inline QVA_VPTR Func(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  qvatest::ObjRef ref(self);
  return qvahost::call_method_function(ref, method, std::move(args));
}
// A function method's result, Printed.
inline std::string Call(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  return Printed(Tmp(Func(self, method, std::move(args))));
}
inline QVA_HVID CallId(QVA_HVID self, const std::string &method) {
  Tmp r(Func(self, method));
  EXPECT_EQ(r->type, QVA_TYP_OBJREF);
  return r->value.hvid;
}
inline QVA_HVID HandlerOf(QVA_HVID obj) { return CallId(obj, "HANDLER"); }
inline void SetHandler(QVA_HVID obj, QVA_HVID handler) { Proc(obj, "SETHANDLER", {Ref(handler)}); }
inline void Send(QVA_HVID message, QVA_VPTR arg = nullptr) {
  Proc(message, "SEND", arg ? std::vector<QVA_VPTR>{arg} : std::vector<QVA_VPTR>{});
}
// handler->SENDMESSAGE, text [, arg]
inline void SendText(QVA_HVID handler, const std::string &text, QVA_VPTR arg = nullptr) {
  std::vector<QVA_VPTR> args{Str(text)};
  if (arg) args.push_back(arg);
  Proc(handler, "SENDMESSAGE", args);
}
inline void Scope(QVA_HVID handler, const std::string &text) {
  Proc(handler, "SCOPEMESSAGE", {Str(text)});
}
inline void Unscope(QVA_HVID handler, const std::string &text) {
  Proc(handler, "UNSCOPEMESSAGE", {Str(text)});
}
inline void SetMessageString(QVA_HVID obj, const std::string &text) {
  Proc(obj, "SETMESSAGESTRING", {Str(text)});
}

// The readers below leave no temporary behind.
inline int IsScoped(QVA_HVID handler, const std::string &text) {
  Tmp s(qvahost::make_string(text)), r(Func(handler, "ISSCOPED", {s}));
  EXPECT_EQ(r->type, QVA_TYP_INT);
  return static_cast<int>(qvahost::integer_value(r));
}
inline bool IsRegistered(QVA_HVID behavior) {
  Tmp r(Func(behavior, "ISREGISTERED"));
  EXPECT_EQ(r->type, QVA_TYP_BYTE);
  return r->value.c != 0;
}
inline std::string MessageString(QVA_HVID obj) {
  return qvahost::string_value(Tmp(Func(obj, "MESSAGESTRING")));
}
// SCOPEDMESSAGES as a list: the undefined value when nothing is scoped.
inline std::vector<std::string> ScopedMessages(QVA_HVID handler) {
  Tmp r(Func(handler, "SCOPEDMESSAGES"));
  std::vector<std::string> out;
  if (r->type == QVA_TYP_UNDEF) return out;
  EXPECT_EQ(r->type, QVA_TYP_STRING);
  EXPECT_TRUE(r->flags & QVA_V_ARR) << "texts come as a vector";
  if (!(r->flags & QVA_V_ARR)) return out;
  auto *s = reinterpret_cast<QVA_STRING *>(r->value.arr->data);
  for (QVA_MEMINT i = 0; i < r->value.arr->n_elts; ++i) out.push_back(QVA_STRING_STR(&s[i]));
  return out;
}
// BEHAVIORS(text): the listed behaviours; empty for the null object.
inline std::vector<QVA_HVID> Behaviors(QVA_HVID handler, const std::string &text) {
  Tmp s(qvahost::make_string(text)), r(Func(handler, "BEHAVIORS", {s}));
  EXPECT_EQ(r->type, QVA_TYP_OBJREF);
  if (!(r->flags & QVA_V_ARR)) {
    EXPECT_EQ(r->value.hvid, 0u) << "a scalar result is the null object";
    return {};
  }
  auto *ids = reinterpret_cast<QVA_HVID *>(r->value.arr->data);
  return std::vector<QVA_HVID>(ids, ids + r->value.arr->n_elts);
}

// --------------------------------------------------------- identifiers

// GET_FWIDENT(text): counts one more holder.
inline QVA_HVID GetIdent(const std::string &text) {
  Tmp s(qvahost::make_string(text)), p(qvahost::call_function("GET_FWIDENT", {s}));
  EXPECT_EQ(p->type, QVA_TYP_PTR);
  return p->value.hvid;
}
inline void IdentRoutine(const char *routine, QVA_HVID id) {
  Tmp p(qvahost::make_ptr(id));
  qvahost::call_procedure(routine, {p});
}
inline void CollectIdents() { qvahost::call_procedure("FWIDENT_GC"); }
// The identifier of `text` without counting a holder.
inline QVA_HVID IdentOf(const std::string &text) {
  QVA_HVID id = GetIdent(text);
  IdentRoutine("FWIDENT_RELEASE", id);
  return id;
}
// Whether identifier `id` outlives giving up `k` references and a collection:
// true exactly when it has more than k holders.  Survivors get them back.
inline bool SurvivesRelease(QVA_HVID id, int k) {
  for (int i = 0; i < k; ++i) IdentRoutine("FWIDENT_RELEASE", id);
  CollectIdents();
  if (!Alive(id)) return false;
  for (int i = 0; i < k; ++i) IdentRoutine("FWIDENT_ACQUIRE", id);
  return true;
}

// Every test starts from an empty session.  At its end every object it made
// goes through CLEANUP, newest first, and what they held must go with them
// (the top-level handler, identifier references, lists, sub-behaviours,
// result variables): the host's accounting must be back where it started.
// A test that replaces the session (reset or restore) sets session_replaced_
// and is checked after a final reset instead.
class FwTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    qvahost::reset_session();
    Define();
    Log().clear(), Restored().clear(), Calls().clear(), Made().clear();
    Hook() = nullptr, OnNextCall() = nullptr;
    HostTest::SetUp();
  }
  void TearDown() override {
    Hook() = nullptr, OnNextCall() = nullptr;
    ReleaseTemps();
    if (!session_replaced_) {
      for (auto it = Made().rbegin(); it != Made().rend(); ++it)
        if (QVA_ObjValidate(*it, QVA_MSG_RET)) Destroy(*it);
      // One made for a HANDLER question and never scoped anything goes here.
      if (QVA_HVID top = TopLevel()) {
        EXPECT_EQ(ScopedMessages(top), std::vector<std::string>{}) << "left at the top";
        Destroy(top);
      }
      CollectIdents();
      ExpectNoLeaks("after every object's CLEANUP");
    }
    qvahost::reset_session();
    HostTest::TearDown();
  }
  static int64_t Objects() { return qvahost::accounting().objects; }
  bool session_replaced_ = false;
};

}  // namespace fwtest
