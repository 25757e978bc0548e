#include "behaviour_kinds_support.h"

#include <sstream>

#include "framework/fw_messhndlr.h"

namespace qvatest {

std::vector<TargetCall> &TargetCalls() {
  static std::vector<TargetCall> calls;
  return calls;
}

namespace {

std::function<void()> &NextAction() {
  static std::function<void()> action;
  return action;
}

void Record(const std::string &target, QVA_HVID self, int args, QVA_VPTR arg) {
  TargetCalls().push_back({target, self, args, arg, arg ? Printed(arg) : ""});
  if (auto action = std::move(NextAction())) {
    NextAction() = nullptr;
    action();
  }
}

}  // namespace

void OnNextTargetCall(std::function<void()> action) { NextAction() = std::move(action); }

std::string Printed(QVA_VPTR v) {
  std::ostringstream os;
  if (v->flags & QVA_V_NOT_SCALAR) return "ARRAY";
  switch (v->type) {
    case QVA_TYP_UNDEF:
      return "U";
    case QVA_TYP_BYTE:
      os << "B:" << int(v->value.c);
      break;
    case QVA_TYP_INT:
      os << "I:" << v->value.i;
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
    case QVA_TYP_PTR:
      os << "P:" << v->value.hvid;
      break;
    default:
      os << "T" << int(v->type);
      break;
  }
  return os.str();
}

void DefineTargets() {
  DefineStructOnce("BTEST_TARGET", "", {Field("N", QVA_TYP_LONG)});
  if (qvahost::routine_exists("BTEST_TARGET::PING", false)) return;
  qvahost::define_routine("BTEST_TARGET::PING", false, 1, 2, false,
                          [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
                            Record("PING", argv[0]->value.hvid, argc - 1,
                                   argc > 1 ? argv[1] : nullptr);
                            return nullptr;
                          });
  qvahost::define_routine("BTEST_PROC", false, 0, 1, false,
                          [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
                            Record("BTEST_PROC", 0, argc, argc > 0 ? argv[0] : nullptr);
                            return nullptr;
                          });
  qvahost::define_routine("BTEST_FUNC", true, 0, 1, false,
                          [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) -> QVA_VPTR {
                            Record("BTEST_FUNC", 0, argc, argc > 0 ? argv[0] : nullptr);
                            return qvahost::make_string("a result the caller must release");
                          });
}

void BehaviourTest::SetUp() {
  qvahost::reset_session();
  DefineTargets();
  TargetCalls().clear();
  OnNextTargetCall(nullptr);
  HostTest::SetUp();
}

void BehaviourTest::TearDown() {
  // Objects go through CLEANUP, newest first; what they held must go
  // with them (the top-level handler when its last scope goes, identifier
  // references, lists, sub-behaviours, result variables).
  for (auto it = objects_.rbegin(); it != objects_.rend(); ++it)
    if (QVA_ObjValidate(*it, QVA_MSG_RET)) DestroyObject(*it);
  for (QVA_VPTR t : temps_) QVA_Deltmp(t);
  // A top-level handler with scopes left would be a leak; one that was made
  // for a HANDLER question and never scoped anything is let go here.
  if (QVA_HVID top = currentTopLevelHandler()) {
    EXPECT_TRUE(Listed(top, "M").empty()) << "behaviours left at the top-level handler";
    DestroyObject(top);
  }
  qvahost::call_procedure("FWIDENT_GC");
  HostTest::TearDown();
  qvahost::reset_session();
}

QVA_HVID BehaviourTest::New(const std::string &cls, const qvahost::Keywords &kw) {
  QVA_VPTR ref = qvahost::new_object(cls, {}, kw);
  QVA_HVID id = ref->value.hvid;
  QVA_Deltmp(ref);
  if (id) objects_.push_back(id);
  return id;
}

QVA_VPTR BehaviourTest::Str(const std::string &s) {
  return temps_.emplace_back(qvahost::make_string(s));
}
QVA_VPTR BehaviourTest::Long(QVA_LONG v) { return temps_.emplace_back(qvahost::make_long(v)); }
QVA_VPTR BehaviourTest::Obj(QVA_HVID id) { return temps_.emplace_back(qvahost::make_objref(id)); }

void BehaviourTest::Proc(QVA_HVID obj, const std::string &method, std::vector<QVA_VPTR> args) {
  ObjRef self(obj);
  qvahost::call_method_procedure(self, method, std::move(args));
}

std::string BehaviourTest::Func(QVA_HVID obj, const std::string &method,
                                std::vector<QVA_VPTR> args) {
  ObjRef self(obj);
  QVA_VPTR r = qvahost::call_method_function(self, method, std::move(args));
  std::string printed = Printed(r);
  QVA_Deltmp(r);
  return printed;
}

QVA_HVID BehaviourTest::FuncObj(QVA_HVID obj, const std::string &method,
                                std::vector<QVA_VPTR> args) {
  ObjRef self(obj);
  QVA_VPTR r = qvahost::call_method_function(self, method, std::move(args));
  QVA_HVID id = r->value.hvid;
  QVA_Deltmp(r);
  return id;
}

std::vector<QVA_HVID> BehaviourTest::Listed(QVA_HVID handler, const std::string &message) {
  ObjRef self(handler);
  QVA_VPTR name = qvahost::make_string(message);
  QVA_VPTR r = qvahost::call_method_function(self, "BEHAVIORS", {name});
  QVA_Deltmp(name);
  std::vector<QVA_HVID> ids;
  QVA_MEMINT n = 0;
  char *data = nullptr;
  QVA_VarGetData(r, &n, &data, 0);
  const auto *first = reinterpret_cast<const QVA_HVID *>(data);
  for (QVA_MEMINT i = 0; i < n; ++i)
    if (first[i]) ids.push_back(first[i]);
  QVA_Deltmp(r);
  return ids;
}

QVA_HVID BehaviourTest::TopLevel() {
  // Any unparented framework object answers HANDLER with the top-level
  // handler; a throwaway message asks.
  QVA_HVID probe = New("QVAfwMessage");
  QVA_HVID top = FuncObj(probe, "HANDLER");
  DestroyObject(probe);
  return top;
}

}  // namespace qvatest
