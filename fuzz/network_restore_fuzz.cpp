// Restores a saved message network whose pointer and object fields were
// changed first, then exercises every class on it.  The network holds one
// object of every module class; the input chooses, field by field, what
// each pointer or object field holds when the network is saved: nothing,
// another heap variable of the network (of either kind), or an identifier
// that names nothing.  The restore must refuse what it cannot trust, and
// whatever it accepts must survive sends, scoping, queries, lists,
// destruction and heap collection with an error at worst: never a crash,
// a hang or a broken host contract, and nothing left after a reset.
#include <qva/qva.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "qva_host.h"

namespace {

using qvahost::Keywords;

// Temporaries made while building and exercising, released together.
std::vector<QVA_VPTR> g_temps;
QVA_VPTR Own(QVA_VPTR t) { return g_temps.emplace_back(t); }
QVA_VPTR Str(const char *s) { return Own(qvahost::make_string(s)); }
QVA_VPTR Ref(QVA_HVID id) { return Own(qvahost::make_objref(id)); }
void ReleaseTemps() {
  for (QVA_VPTR t : g_temps) QVA_Deltmp(t);
  g_temps.clear();
}
// Runs `body`; an error it raises is expected, and what it made is
// released by the host (so it leaves the list).
void Try(const std::function<void()> &body) {
  size_t owned = g_temps.size();
  if (!qvahost::try_call(body).empty()) g_temps.resize(owned);
}

QVA_HVID New(const char *cls, const Keywords &kw = {}) {
  return Own(qvahost::new_object(cls, {}, kw))->value.hvid;
}
Keywords Registered(QVA_HVID handler, const char *message, Keywords kw = {}) {
  kw.push_back({"HANDLER", Ref(handler)});
  kw.push_back({"MESSAGESTRING", Str(message)});
  kw.push_back({"REGISTER", Own(qvahost::make_long(1))});
  return kw;
}

// One object of every class, under two handlers; returns them all.
std::vector<QVA_HVID> BuildNetwork() {
  const QVA_HVID h1 = New("QVAFWMESSAGEHANDLER");
  const QVA_HVID h2 = New("QVAFWMESSAGEHANDLER", {{"HANDLER", Ref(h1)}});
  qvahost::call_method_procedure(Ref(h2), "SCOPEMESSAGE", {Str("PING")});
  const QVA_HVID query = New("QVAFWQUERY", {{"MESSAGESTRING", Str("ASK")}, {"HANDLER", Ref(h2)}});
  const QVA_HVID map = New("QVADSMAP");
  qvahost::call_method_procedure(Ref(map), "INSERT", {Str("key"), Ref(query)});
  const Keywords target{{"OBJECT", Ref(query)}, {"METHOD", Str("SETRESULT")}};
  Keywords delayed = target;
  delayed.push_back({"DELAYMESSAGESTRING", Str("IDLE")});
  std::vector<QVA_HVID> all = {
      h1,
      h2,
      query,
      map,
      New("QVAFWMESSAGE", {{"MESSAGESTRING", Str("PING")}, {"HANDLER", Ref(h2)}}),
      New("QVAFWBEHAVIOR", Registered(h2, "PING")),
      New("QVAFWOBJBEHAV", Registered(h2, "PING", target)),
      New("QVAFWPROCBEHAV", Registered(h1, "PING", {{"PROCEDURE", Str("FWIDENT_GC")}})),
      New("QVAFWFUNCBEHAV", Registered(h2, "TEXT", {{"FUNCTION", Str("GET_FWIDENT")}})),
      New("QVAFWDELAYBEHAV", Registered(h2, "PING", delayed)),
      New("QVAFWDELAYARGBEHAV", Registered(h1, "NUM", delayed)),
      New("QVAFWQUERYBEHAV", Registered(h2, "ASK", {{"RESPONSE", Str("answer")}})),
      New("QVAFWHASAHANDLER", {{"HANDLER", Ref(h1)}}),
      New("QVAFWSAVEABLE"),
  };
  return all;
}

// The scalar pointer and object fields of an object.
std::vector<QVA_HVID *> ReferenceFields(QVA_HVID obj) {
  std::vector<QVA_HVID *> out;
  QVA_HVPTR hv = QVA_HeapVarHashFind(obj);
  for (const qvahost::FieldInfo &f : qvahost::struct_field_info(hv->var.value.s.sdef))
    if ((f.type == QVA_TYP_PTR || f.type == QVA_TYP_OBJREF) && f.dims.empty())
      out.push_back(static_cast<QVA_HVID *>(QVA_StructGetTagAddress(
          &hv->var, f.name.c_str(), nullptr, nullptr, QVA_MSG_LONGJMP)));
  return out;
}

// Each pair of input bytes changes one field: the first picks it (over all
// reference fields of the network), the second what it then holds.
void Mutate(const std::vector<QVA_HVID> &objects, const uint8_t *data, size_t size) {
  std::vector<QVA_HVID *> fields;
  for (QVA_HVID obj : objects)
    for (QVA_HVID *f : ReferenceFields(obj)) fields.push_back(f);
  const std::vector<QVA_HVID> ids = qvahost::heap_ids();
  for (size_t i = 0; i + 1 < size && i < 64; i += 2) {
    QVA_HVID *field = fields[data[i] % fields.size()];
    const size_t pick = data[i + 1] % (ids.size() + 2);
    QVA_HVID value = pick < ids.size() ? ids[pick] : pick == ids.size() ? 0 : ids.back() + 1000;
    *field = value;
  }
}

// Every class asked to do its work; each call may fail with an error.
void Exercise(const std::vector<QVA_HVID> &objects) {
  auto proc = [](QVA_HVID obj, const char *method, std::vector<QVA_VPTR> args = {}) {
    Try([&] { qvahost::call_method_procedure(Ref(obj), method, args); });
  };
  auto func = [](QVA_HVID obj, const char *method, std::vector<QVA_VPTR> args = {}) {
    Try([&] { Own(qvahost::call_method_function(Ref(obj), method, args)); });
  };
  std::vector<QVA_HVID> framework;  // all but the data map (index 3)
  for (size_t i = 0; i < objects.size(); ++i)
    if (i != 3 && QVA_ObjValidate(objects[i], QVA_MSG_RET)) framework.push_back(objects[i]);
  Try([&] {
    QVA_VPTR array = nullptr;
    auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(
        QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(framework.size()), 1, &array));
    std::copy(framework.begin(), framework.end(), ids);
    qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {Own(array)});
  });
  for (QVA_HVID obj : objects) {
    if (!QVA_ObjValidate(obj, QVA_MSG_RET)) continue;
    const std::string cls = qvahost::struct_name(QVA_HeapVarHashFind(obj)->var.value.s.sdef);
    if (cls == "QVAFWMESSAGEHANDLER") {
      proc(obj, "SENDMESSAGE", {Str("PING")});
      proc(obj, "SENDMESSAGE", {Str("TEXT"), Str("word")});
      proc(obj, "SENDMESSAGE", {Str("NUM"), Own(qvahost::make_long(4))});
      proc(obj, "SENDMESSAGE", {Str("IDLE")});
      proc(obj, "SCOPEMESSAGE", {Str("NUM")});
      func(obj, "SCOPEDMESSAGES");
      func(obj, "BEHAVIORS", {Str("PING")});
      proc(obj, "UNSCOPEMESSAGE", {Str("PING")});
    } else if (cls == "QVAFWMESSAGE") {
      proc(obj, "SEND");
      func(obj, "MESSAGESTRING");
    } else if (cls == "QVAFWQUERY") {
      func(obj, "SENDQUERY");
      func(obj, "RESULT");
    } else if (cls == "QVADSMAP") {
      func(obj, "GETKEYS");
      func(obj, "GETDATA", {Str("key")});
      proc(obj, "REMOVE", {Str("key")});
    } else if (cls == "QVAFWHASAHANDLER" || cls == "QVAFWSAVEABLE") {
      func(obj, cls == "QVAFWSAVEABLE" ? "INIT" : "HANDLER");
    } else {
      func(obj, "MESSAGESTRING");
      func(obj, "ISREGISTERED");
      proc(obj, "EXECUTE", {Own(qvahost::make_long(3))});
      proc(obj, "UNREGISTER");
      proc(obj, "REGISTER");
    }
    ReleaseTemps();
  }
  for (size_t i = 0; i < objects.size(); i += 2)
    Try([&] {
      QVA_VPTR ref = Ref(objects[i]);
      QVA_ObjDestroy(1, &ref, nullptr);
    });
  ReleaseTemps();
  Try([] { qvahost::heap_gc(); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const qvahost::Accounting empty = [] {
    qvahost::set_output([](const std::string &) {});
    if (qvahost::load_module(&QVA_Load, &QVA_ResetSession) != 1) std::abort();
    qvahost::reset_session();
    return qvahost::accounting();
  }();
  qvahost::reset_session();
  std::vector<uint8_t> saved;
  try {
    const std::vector<QVA_HVID> objects = BuildNetwork();
    QVA_VPTR net = nullptr;
    auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(
        QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(objects.size()), 1, &net));
    std::copy(objects.begin(), objects.end(), ids);
    QVA_VarCopy(Own(net), qvahost::main_variable("NET"));
    ReleaseTemps();
    Mutate(objects, data, size);
    saved = qvahost::save_all_to_bytes();
  } catch (const qvahost::HostError &) {
  }
  ReleaseTemps();
  qvahost::reset_session();
  if (!saved.empty()) {
    Try([&] { qvahost::restore_from_bytes(saved.data(), saved.size()); });
    if (QVA_VPTR net = qvahost::find_main_variable("NET"); net && (net->flags & QVA_V_ARR)) {
      auto *ids = reinterpret_cast<QVA_HVID *>(net->value.arr->data);
      Exercise(std::vector<QVA_HVID>(ids, ids + net->value.arr->n_elts));
    }
  }
  ReleaseTemps();
  qvahost::reset_session();
  if (!(qvahost::accounting() == empty)) std::abort();  // a leak or a broken contract
  return 0;
}
