// Helpers for the message framework and behaviour kind tests, which drive the
// classes through their registered routines as the language calls them.
//
// Native routines record each call in g_log and then run g_hook, a test's way
// of acting from inside a dispatch: FWTEST_RECORDER::EXECUTE (a behaviour
// class), BTEST_TARGET::PING (0 or 1 argument), procedure BTEST_PROC and
// function BTEST_FUNC (which returns a new string).  FWTEST_RECORDER::RESTORE
// appends self to g_restored, runs g_hook (without argument), the base RESTORE,
// then DORESTORE on the object in its PEER field, if any.
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

using Ids = std::vector<QVA_HVID>;
using Texts = std::vector<std::string>;

// A value as the tests compare it: "L:7", "S:text", "O:12", "U"...
inline std::string Printed(QVA_VPTR v) {
  const int t = v->type;
  if (v->flags & QVA_V_NOT_SCALAR) return "ARRAY";
  if (t == QVA_TYP_UNDEF) return "U";
  if (t == QVA_TYP_BYTE) return "B:" + std::to_string(v->value.c);
  if (t == QVA_TYP_INT) return "I:" + std::to_string(v->value.i);
  if (t == QVA_TYP_LONG) return "L:" + std::to_string(v->value.l);
  if (t == QVA_TYP_STRING) return "S:" + qvahost::string_value(v);
  if (t == QVA_TYP_OBJREF) return "O:" + std::to_string(v->value.hvid);
  return "T" + std::to_string(t);
}

struct Exec {
  std::string routine;     // "FWTEST_RECORDER::EXECUTE", "BTEST_PROC"...
  QVA_HVID self = 0;       // the object, for methods
  int args = 0;            // positional arguments after self
  QVA_VPTR arg = nullptr;  // the first of them as received, its value
  std::string value;       // (Printed) and whether it was a temporary
  bool temporary = false;
};
inline std::vector<Exec> g_log;
inline std::function<void(QVA_HVID self, QVA_VPTR arg)> g_hook;
inline Ids g_restored;
inline Ids Selves() {
  Ids out;
  for (const Exec &e : g_log) out.push_back(e.self);
  return out;
}
inline QVA_VPTR Record(const std::string &routine, QVA_HVID self, int args, QVA_VPTR arg) {
  g_log.push_back(
      {routine, self, args, arg, arg ? Printed(arg) : "", arg && (arg->flags & QVA_V_TEMP) != 0});
  if (auto hook = g_hook) hook(self, arg);  // a copy: the hook may replace itself
  return nullptr;
}

// Temporaries owned by the test until ReleaseTemps() (at the latest in TearDown).
inline std::vector<QVA_VPTR> g_temps;
inline QVA_VPTR Own(QVA_VPTR tmp) { return g_temps.emplace_back(tmp); }
inline QVA_VPTR Str(const std::string &s) { return Own(qvahost::make_string(s)); }
inline QVA_VPTR Long(QVA_LONG v) { return Own(qvahost::make_long(v)); }
inline QVA_VPTR Ref(QVA_HVID id) { return Own(qvahost::make_objref(id)); }
inline void ReleaseTemps() {
  for (QVA_VPTR t : g_temps) QVA_Deltmp(t);
  g_temps.clear();
}

// Defines the test classes and routines once per process.
inline void Define() {
  qvatest::DefineStructOnce("FWTEST_RECORDER", "QVAFWBEHAVIOR",
                            {qvatest::Field("PEER", QVA_TYP_OBJREF)});
  qvatest::DefineStructOnce("BTEST_TARGET", "", {qvatest::Field("N", QVA_TYP_LONG)});
  qvatest::DefineStructOnce("FWTEST_FOREIGN", "", {qvatest::Field("VALUE", QVA_TYP_LONG)});
  if (qvahost::routine_exists("FWTEST_RECORDER::EXECUTE", false)) return;
  using qvahost::define_routine;
  define_routine("FWTEST_RECORDER::RESTORE", false, 1, 1, false, [](int, QVA_VPTR v[], auto) {
    g_restored.push_back(v[0]->value.hvid);
    if (auto hook = g_hook) hook(v[0]->value.hvid, nullptr);
    qvahost::call_procedure("QVAFWBEHAVIOR::RESTORE", {v[0]});
    if (QVA_HVID peer = *qvatest::FieldOf<QVA_HVID>(v[0]->value.hvid, "PEER"))
      qvahost::call_method_procedure(qvatest::ObjRef(peer), "DORESTORE");
    return QVA_VPTR{};
  });
  // The recording routines: methods get self first; BTEST_FUNC returns a string.
  for (std::string name : {"FWTEST_RECORDER::EXECUTE", "BTEST_TARGET::PING", "BTEST_PROC"}) {
    const int self = name.find("::") != std::string::npos ? 1 : 0;
    define_routine(name, false, self, self + 1, false, [=](int n, QVA_VPTR v[], auto) {
      return Record(name, self ? v[0]->value.hvid : 0, n - self, n > self ? v[self] : nullptr);
    });
  }
  define_routine("BTEST_FUNC", true, 0, 1, false, [](int n, QVA_VPTR v[], auto) {
    Record("BTEST_FUNC", 0, n, n > 0 ? v[0] : nullptr);
    return qvahost::make_string("a result the caller must release");
  });
}

// Every object a test makes (OBJ_NEW(cls, KEYWORDS...)); TearDown takes them
// down through CLEANUP.
inline Ids g_made;
inline QVA_HVID New(const std::string &cls, const qvahost::Keywords &kw = {}) {
  return g_made.emplace_back(Own(qvahost::new_object(cls, {}, kw))->value.hvid);
}
inline qvahost::Keywords Under(QVA_HVID handler, qvahost::Keywords kw = {}) {
  if (handler) kw.push_back({"HANDLER", Ref(handler)});
  return kw;
}
// A message handler below `parent` (0: below the top-level handler).
inline QVA_HVID NewHandler(QVA_HVID parent = 0) {
  return New("QVAFWMESSAGEHANDLER", Under(parent));
}
struct BehaviorOptions {
  QVA_HVID handler = 0;
  bool register_it = true;
  bool scope = false;
  std::string cls = "FWTEST_RECORDER";
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
  return New("QVAFWMESSAGE", kw);
}
inline void Destroy(QVA_HVID id) { qvatest::DestroyObject(id); }
inline bool Alive(QVA_HVID id) { return qvatest::IsAlive(id); }
// The top-level handler if there is one; never makes one.
inline QVA_HVID TopLevel() { return currentTopLevelHandler(); }
template <typename T>
T &FieldRef(QVA_HVID id, const char *tag) {
  return *qvatest::FieldOf<T>(id, tag);
}

// obj->METHOD, args...: a procedure, a function (its result owned by the test)
// and a function's result Printed.
inline void Proc(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  qvahost::call_method_procedure(Ref(self), method, std::move(args));
}
inline QVA_VPTR Func(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  return Own(qvahost::call_method_function(Ref(self), method, std::move(args)));
}
inline std::string Call(QVA_HVID self, const std::string &method, std::vector<QVA_VPTR> args = {}) {
  return Printed(Func(self, method, std::move(args)));
}
inline QVA_HVID HandlerOf(QVA_HVID obj) { return Func(obj, "HANDLER")->value.hvid; }
inline void SetHandler(QVA_HVID obj, QVA_HVID handler) { Proc(obj, "SETHANDLER", {Ref(handler)}); }
inline void Send(QVA_HVID message, QVA_VPTR arg = nullptr) {
  Proc(message, "SEND", arg ? std::vector<QVA_VPTR>{arg} : std::vector<QVA_VPTR>{});
}
// handler->SENDMESSAGE, text [, arg]
inline void SendText(QVA_HVID handler, const std::string &text, QVA_VPTR arg = nullptr) {
  Proc(handler, "SENDMESSAGE", arg ? std::vector{Str(text), arg} : std::vector{Str(text)});
}
inline void Scope(QVA_HVID h, const std::string &t) { Proc(h, "SCOPEMESSAGE", {Str(t)}); }
inline void Unscope(QVA_HVID h, const std::string &t) { Proc(h, "UNSCOPEMESSAGE", {Str(t)}); }
inline bool IsScoped(QVA_HVID h, const std::string &t) {
  return Call(h, "ISSCOPED", {Str(t)}) == "I:1";
}
inline bool IsRegistered(QVA_HVID behavior) { return Call(behavior, "ISREGISTERED") == "B:1"; }
inline std::string MessageString(QVA_HVID obj) {
  return qvahost::string_value(Func(obj, "MESSAGESTRING"));
}
// SCOPEDMESSAGES as a list: the undefined value when nothing is scoped.
inline Texts ScopedMessages(QVA_HVID handler) {
  QVA_VPTR r = Func(handler, "SCOPEDMESSAGES");
  if (r->type == QVA_TYP_UNDEF) return {};
  EXPECT_TRUE(r->type == QVA_TYP_STRING && (r->flags & QVA_V_ARR)) << "texts come as a vector";
  auto *s = reinterpret_cast<QVA_STRING *>(r->value.arr->data);
  Texts out;
  for (QVA_MEMINT i = 0; i < r->value.arr->n_elts; ++i) out.push_back(QVA_STRING_STR(&s[i]));
  return out;
}
// BEHAVIORS(text): the listed behaviours; empty for the null object.
inline Ids Behaviors(QVA_HVID handler, const std::string &text) {
  QVA_VPTR r = Func(handler, "BEHAVIORS", {Str(text)});
  EXPECT_EQ(r->type, QVA_TYP_OBJREF);
  if (!(r->flags & QVA_V_ARR)) return Ids(r->value.hvid ? 1 : 0, r->value.hvid);
  auto *ids = reinterpret_cast<QVA_HVID *>(r->value.arr->data);
  return Ids(ids, ids + r->value.arr->n_elts);
}

inline void IdentRoutine(const char *routine, QVA_HVID id) {
  qvahost::call_procedure(routine, {Own(qvahost::make_ptr(id))});
}
inline void CollectIdents() { qvahost::call_procedure("FWIDENT_GC"); }
// The identifier of `text` (GET_FWIDENT) without counting a holder.
inline QVA_HVID IdentOf(const std::string &text) {
  const QVA_HVID id = Own(qvahost::call_function("GET_FWIDENT", {Str(text)}))->value.hvid;
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
// A test that replaces the session sets session_replaced_ and is checked
// after a final reset instead.
class FwTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    qvahost::reset_session();
    Define();
    g_log.clear(), g_restored.clear(), g_made.clear(), g_hook = nullptr;
    HostTest::SetUp();
  }
  void TearDown() override {
    g_hook = nullptr;
    ReleaseTemps();
    if (!session_replaced_) {
      for (auto it = g_made.rbegin(); it != g_made.rend(); ++it)
        if (QVA_ObjValidate(*it, QVA_MSG_RET)) Destroy(*it);
      // One made for a HANDLER question and never scoped anything goes here.
      if (QVA_HVID top = TopLevel()) {
        EXPECT_EQ(ScopedMessages(top), Texts{}) << "left at the top";
        Destroy(top);
      }
      ReleaseTemps();
      CollectIdents();
      ExpectNoLeaks("after every object's CLEANUP");
    }
    qvahost::reset_session();
    HostTest::TearDown();
  }
  bool session_replaced_ = false;
};

}  // namespace fwtest
