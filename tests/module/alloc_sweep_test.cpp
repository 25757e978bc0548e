// Every routine the module registers, called with valid arguments on a small
// message network, run again and again with the n-th host allocation
// failing, n = 1, 2, ... until a run meets no failure.  After every run the
// session must be intact: no contract violation, the handlers' behaviour
// maps and the data map's tree valid, the network still working, and once
// every object has gone through CLEANUP and the identifiers are collected,
// the host's accounting back where it was before the network was built.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "containers/maph.h"
#include "frame/qva_cobalt_rtn_tbl.h"
#include "fw_support.h"
#include "internal.h"
#include "tree_check.h"

namespace fwtest {
namespace {

// The network every run starts from.  Messages PING, NUM, ASK and IDLE are
// scoped at h2, so the behaviours registered below h2 list there.
struct Net {
  QVA_HVID h1, h2, target, msg, behav, obj_b, proc_b, func_b, delay_b, delayarg_b, query,
      query_b, has, saveable, map, top;
  std::vector<QVA_HVID> all() const {
    return {h1,     h2,     target,  msg, behav,    obj_b, proc_b, func_b,
            delay_b, delayarg_b, query, query_b, has, saveable, map, top};
  }
  static Net of(const std::vector<QVA_HVID> &ids) {
    Net n;
    QVA_HVID *f[] = {&n.h1,     &n.h2,      &n.target,     &n.msg,   &n.behav,
                     &n.obj_b,  &n.proc_b,  &n.func_b,     &n.delay_b, &n.delayarg_b,
                     &n.query,  &n.query_b, &n.has,        &n.saveable, &n.map, &n.top};
    for (size_t i = 0; i < ids.size(); ++i) *f[i] = ids[i];
    return n;
  }
};

qvahost::Keywords Kw(QVA_HVID handler, const std::string &message, qvahost::Keywords more = {}) {
  more.push_back({"HANDLER", Ref(handler)});
  if (!message.empty()) {
    more.push_back({"MESSAGESTRING", Str(message)});
    more.push_back({"REGISTER", Long(1)});
  }
  return more;
}

Net Build() {
  Net n;
  n.h1 = NewHandler();
  n.h2 = NewHandler(n.h1);
  for (const char *m : {"PING", "NUM", "ASK", "IDLE"}) Scope(n.h2, m);
  n.target = New("BTEST_TARGET");
  const qvahost::Keywords to_target{{"OBJECT", Ref(n.target)}, {"METHOD", Str("PING")}};
  qvahost::Keywords delayed = to_target;
  delayed.push_back({"DELAYMESSAGESTRING", Str("IDLE")});
  n.msg = NewMessage("PING", n.h2);
  n.behav = New("QVAFWBEHAVIOR", Kw(n.h2, "PING"));
  n.obj_b = New("QVAFWOBJBEHAV", Kw(n.h2, "PING", to_target));
  n.proc_b = New("QVAFWPROCBEHAV", Kw(n.h2, "PING", {{"PROCEDURE", Str("BTEST_PROC")}}));
  n.func_b = New("QVAFWFUNCBEHAV", Kw(n.h2, "PING", {{"FUNCTION", Str("BTEST_FUNC")}}));
  n.delay_b = New("QVAFWDELAYBEHAV", Kw(n.h2, "PING", delayed));
  n.delayarg_b = New("QVAFWDELAYARGBEHAV", Kw(n.h2, "NUM", delayed));
  n.query = New("QVAFWQUERY", {{"MESSAGESTRING", Str("ASK")}, {"HANDLER", Ref(n.h2)}});
  n.query_b = New("QVAFWQUERYBEHAV", Kw(n.h2, "ASK", {{"RESPONSE", Str("answer")}}));
  n.has = New("QVAFWHASAHANDLER", {{"HANDLER", Ref(n.h2)}});
  n.saveable = New("QVAFWSAVEABLE");
  n.map = New("QVADSMAP");
  Proc(n.map, "INSERT", {Str("a"), Long(1)});
  Proc(n.map, "INSERT", {Str("b"), Str("two")});
  n.top = TopLevel();
  return n;
}

// A zero-filled instance of `cls` without INIT, for the INIT rows (OBJ_NEW
// would run INIT itself); it goes through CLEANUP with the rest.
QVA_HVID Bare(const std::string &cls) {
  QVA_VPTR value = nullptr;
  QVA_MakeTempStructVector(qvahost::find_struct(cls), 1, &value, 1);
  QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_OBJREF, value, 1, QVA_MSG_LONGJMP);
  QVA_Deltmp(value);
  return g_made.emplace_back(hv->hash_id);
}

QVA_HVID PingIdent() { return IdentOf("PING"); }

// Registers at `handler` more behaviours for `message` than a dispatch
// snapshot holds in itself, so that moving the list up the chain (when the
// handler goes, or unscopes the message) copies it through the allocator.
void AddLongList(QVA_HVID handler, const char *message) {
  for (int i = 0; i < 20; ++i) New("QVAFWBEHAVIOR", Kw(handler, message));
}

// One call: the routine's arguments (a method's first is self) and keywords.
struct Call {
  std::vector<QVA_VPTR> args;
  qvahost::Keywords kw;
  bool destroy = false;  // a CLEANUP: run by OBJ_DESTROY of args[0]
  bool init = false;     // an INIT: its object goes when it fails, as OBJ_NEW's does
};
// After a run: what a successful call holds that the teardown would count
// as left behind (an identifier reference it returned or took).
using Undo = std::function<void(QVA_VPTR result)>;

struct Row {
  const char *routine;
  bool restored;  // called on a restored network, before its RESTOREARRAY
  std::function<Call(Net &)> call;
  Undo undo = nullptr;
};

// Rows that meet a known fault whose fix is under way elsewhere: each names
// it.  Remove a routine here once its fix has landed.
const std::map<std::string, const char *> &KnownFaults() {
  static const std::map<std::string, const char *> known = {};
  return known;
}

// Every framework object of the session (a delayed behaviour's trigger
// included), as the language's RESTORE hands them to
// QVAFWSAVEABLERESTOREARRAY.
QVA_VPTR RestoredObjects() {
  std::vector<QVA_HVID> ids;
  for (QVA_HVID id : qvahost::heap_ids()) {
    QVA_HVPTR hv = QVA_HeapVarHashFind(id);
    if (!(hv->flags & QVA_HV_OBJECT)) continue;
    const std::string cls = qvahost::struct_name(hv->var.value.s.sdef);
    if (cls != "BTEST_TARGET" && cls != "QVADSMAP") ids.push_back(id);
  }
  QVA_VPTR array = nullptr;
  auto *data = reinterpret_cast<QVA_HVID *>(
      QVA_MakeTempVector(QVA_TYP_OBJREF, static_cast<QVA_MEMINT>(ids.size()), 1, &array));
  std::copy(ids.begin(), ids.end(), data);
  return Own(array);
}

Call Plain(std::vector<QVA_VPTR> args) { return {std::move(args), {}}; }
Call Self(QVA_HVID self, std::vector<QVA_VPTR> more = {}, qvahost::Keywords kw = {}) {
  more.insert(more.begin(), Ref(self));
  return {more, kw};
}
Call Init(const char *cls, qvahost::Keywords kw = {}) {
  Call c = Self(Bare(cls), {}, kw);
  c.init = true;
  return c;
}
Call ByDestroy(QVA_HVID self) { return {{Ref(self)}, {}, true}; }
void ReleaseResult(QVA_VPTR r) {
  if (r && r->type == QVA_TYP_PTR && r->value.hvid) IdentRoutine("FWIDENT_RELEASE", r->value.hvid);
}

const std::vector<Row> &Rows() {
  static const std::vector<Row> rows = [] {
    const auto delayed_kw = [](Net &n, const char *message) {
      return Kw(n.h2, message,
                {{"OBJECT", Ref(n.target)}, {"METHOD", Str("PING")},
                 {"DELAYMESSAGESTRING", Str("IDLE")}});
    };
    std::vector<Row> r = {
        {"GET_FWIDENT", false, [](Net &) { return Plain({Str("PING")}); }, ReleaseResult},
        {"ROLLOVER_FWIDENT", false,
         [](Net &) { return Plain({Own(qvahost::make_ptr(PingIdent()))}); }, ReleaseResult},
        {"FWIDENT_ACQUIRE", false,
         [](Net &) { return Plain({Own(qvahost::make_ptr(PingIdent()))}); },
         [](QVA_VPTR) { IdentRoutine("FWIDENT_RELEASE", PingIdent()); }},
        {"FWIDENT_RELEASE", false,
         [](Net &) {
           IdentRoutine("FWIDENT_ACQUIRE", PingIdent());
           return Plain({Own(qvahost::make_ptr(PingIdent()))});
         }},
        {"FWIDENT_GC", false, [](Net &) { return Call{}; }},

        {"QVADSMAP::INIT", false, [](Net &) { return Init("QVADSMAP"); }},
        {"QVADSMAP::CLEANUP", false, [](Net &n) { return ByDestroy(n.map); }},
        {"QVADSMAP::GETDATA", false, [](Net &n) { return Self(n.map, {Str("b")}); }},
        {"QVADSMAP::GETKEYS", false, [](Net &n) { return Self(n.map); }},
        {"QVADSMAP::GETSIZE", false, [](Net &n) { return Self(n.map); }},
        {"QVADSMAP::KEYEXISTS", false, [](Net &n) { return Self(n.map, {Str("a")}); }},
        {"QVADSMAP::INSERT", false, [](Net &n) { return Self(n.map, {Str("c"), Str("three")}); }},
        {"QVADSMAP::REMOVE", false, [](Net &n) { return Self(n.map, {Str("a")}); }},

        {"QVAFWBEHAVIOR::INIT", false,
         [](Net &n) { return Init("QVAFWBEHAVIOR", Kw(n.h2, "PING")); }},
        {"QVAFWBEHAVIOR::CLEANUP", false, [](Net &n) { return ByDestroy(n.behav); }},
        {"QVAFWBEHAVIOR::EXECUTE", false, [](Net &n) { return Self(n.behav, {Long(1)}); }},
        {"QVAFWBEHAVIOR::ISREGISTERED", false, [](Net &n) { return Self(n.behav); }},
        {"QVAFWBEHAVIOR::MESSAGESTRING", false, [](Net &n) { return Self(n.behav); }},
        {"QVAFWBEHAVIOR::REGISTER", false,
         [](Net &n) {
           return Self(New("QVAFWBEHAVIOR",
                           {{"HANDLER", Ref(n.h2)}, {"MESSAGESTRING", Str("NEWS")}}));
         }},
        {"QVAFWBEHAVIOR::UNREGISTER", false, [](Net &n) { return Self(n.behav); }},
        {"QVAFWBEHAVIOR::SETMESSAGESTRING", false,
         [](Net &n) { return Self(n.behav, {Str("OTHER")}); }},
        {"QVAFWBEHAVIOR::RESTORE", true, [](Net &n) { return Self(n.behav); }},

        {"QVAFWOBJBEHAV::INIT", false,
         [](Net &n) {
           return Init("QVAFWOBJBEHAV",
                       Kw(n.h2, "PING", {{"OBJECT", Ref(n.target)}, {"METHOD", Str("PING")}}));
         }},
        {"QVAFWOBJBEHAV::CLEANUP", false, [](Net &n) { return ByDestroy(n.obj_b); }},
        {"QVAFWOBJBEHAV::EXECUTE", false, [](Net &n) { return Self(n.obj_b, {Long(2)}); }},
        {"QVAFWOBJBEHAV::METHOD", false, [](Net &n) { return Self(n.obj_b); }},
        {"QVAFWOBJBEHAV::OBJECT", false, [](Net &n) { return Self(n.obj_b); }},
        {"QVAFWOBJBEHAV::SETMETHOD", false, [](Net &n) { return Self(n.obj_b, {Str("ping")}); }},
        {"QVAFWOBJBEHAV::SETOBJECT", false,
         [](Net &n) { return Self(n.obj_b, {Ref(New("BTEST_TARGET"))}); }},
        {"QVAFWOBJBEHAV::RESTORE", true, [](Net &n) { return Self(n.obj_b); }},

        {"QVAFWPROCBEHAV::INIT", false,
         [](Net &n) {
           return Init("QVAFWPROCBEHAV", Kw(n.h2, "PING", {{"PROCEDURE", Str("BTEST_PROC")}}));
         }},
        {"QVAFWPROCBEHAV::CLEANUP", false, [](Net &n) { return ByDestroy(n.proc_b); }},
        {"QVAFWPROCBEHAV::EXECUTE", false, [](Net &n) { return Self(n.proc_b, {Long(3)}); }},
        {"QVAFWPROCBEHAV::PROC", false, [](Net &n) { return Self(n.proc_b); }},
        {"QVAFWPROCBEHAV::SETPROC", false,
         [](Net &n) { return Self(n.proc_b, {Str("btest_proc")}); }},
        {"QVAFWPROCBEHAV::RESTORE", true, [](Net &n) { return Self(n.proc_b); }},

        {"QVAFWFUNCBEHAV::INIT", false,
         [](Net &n) {
           return Init("QVAFWFUNCBEHAV", Kw(n.h2, "PING", {{"FUNCTION", Str("BTEST_FUNC")}}));
         }},
        {"QVAFWFUNCBEHAV::CLEANUP", false, [](Net &n) { return ByDestroy(n.func_b); }},
        {"QVAFWFUNCBEHAV::EXECUTE", false, [](Net &n) { return Self(n.func_b, {Long(4)}); }},
        {"QVAFWFUNCBEHAV::FUNC", false, [](Net &n) { return Self(n.func_b); }},
        {"QVAFWFUNCBEHAV::SETFUNC", false,
         [](Net &n) { return Self(n.func_b, {Str("btest_func")}); }},
        {"QVAFWFUNCBEHAV::RESTORE", true, [](Net &n) { return Self(n.func_b); }},

        {"QVAFWDELAYBEHAV::INIT", false,
         [=](Net &n) { return Init("QVAFWDELAYBEHAV", delayed_kw(n, "PING")); }},
        {"QVAFWDELAYBEHAV::CLEANUP", false,
         [](Net &n) {
           Proc(n.delay_b, "EXECUTE");  // armed: its trigger is registered
           return ByDestroy(n.delay_b);
         }},
        {"QVAFWDELAYBEHAV::EXECUTE", false, [](Net &n) { return Self(n.delay_b); }},
        {"QVAFWDELAYBEHAV::DELAYEXECUTE", false,
         [](Net &n) {
           Proc(n.delay_b, "EXECUTE");
           return Self(n.delay_b);
         }},
        {"QVAFWDELAYBEHAV::SETMETHOD", false,
         [](Net &n) { return Self(n.delay_b, {Str("ping")}); }},
        {"QVAFWDELAYBEHAV::RESTORE", true, [](Net &n) { return Self(n.delay_b); }},

        {"QVAFWDELAYARGBEHAV::INIT", false,
         [=](Net &n) { return Init("QVAFWDELAYARGBEHAV", delayed_kw(n, "NUM")); }},
        {"QVAFWDELAYARGBEHAV::CLEANUP", false,
         [](Net &n) {
           Proc(n.delayarg_b, "EXECUTE", {Long(5)});
           return ByDestroy(n.delayarg_b);
         }},
        {"QVAFWDELAYARGBEHAV::EXECUTE", false,
         [](Net &n) { return Self(n.delayarg_b, {Long(6)}); }},
        {"QVAFWDELAYARGBEHAV::DELAYEXECUTE", false,
         [](Net &n) {
           Proc(n.delayarg_b, "EXECUTE", {Long(7)});
           return Self(n.delayarg_b);
         }},

        {"QVAFWHASAHANDLER::INIT", false,
         [](Net &n) { return Init("QVAFWHASAHANDLER", {{"HANDLER", Ref(n.h2)}}); }},
        {"QVAFWHASAHANDLER::CLEANUP", false, [](Net &n) { return ByDestroy(n.has); }},
        {"QVAFWHASAHANDLER::HANDLER", false, [](Net &n) { return Self(n.has); }},
        {"QVAFWHASAHANDLER::SETHANDLER", false, [](Net &n) { return Self(n.has, {Ref(n.h1)}); }},
        {"QVAFWHASAHANDLER::RESTORE", true, [](Net &n) { return Self(n.has); }},

        {"QVAFWMESSAGE::INIT", false,
         [](Net &n) {
           return Init("QVAFWMESSAGE", {{"MESSAGESTRING", Str("PING")}, {"HANDLER", Ref(n.h2)}});
         }},
        {"QVAFWMESSAGE::CLEANUP", false, [](Net &n) { return ByDestroy(n.msg); }},
        {"QVAFWMESSAGE::MESSAGESTRING", false, [](Net &n) { return Self(n.msg); }},
        {"QVAFWMESSAGE::SEND", false, [](Net &n) { return Self(n.msg); }},
        {"QVAFWMESSAGE::SETMESSAGESTRING", false,
         [](Net &n) { return Self(n.msg, {Str("NEWS")}); }},
        {"QVAFWMESSAGE::RESTORE", true, [](Net &n) { return Self(n.msg); }},

        {"QVAFWMESSAGEHANDLER::INIT", false,
         [](Net &n) { return Init("QVAFWMESSAGEHANDLER", {{"HANDLER", Ref(n.h1)}}); }},
        {"QVAFWMESSAGEHANDLER::CLEANUP", false,
         [](Net &n) {
           QVA_HVID leaf = NewHandler(n.h2);
           for (const char *m : {"PING", "LEAF"}) Scope(leaf, m);
           AddLongList(leaf, "LEAF");
           return ByDestroy(leaf);
         }},
        {"QVAFWMESSAGEHANDLER::ADDBEHAVIOR", false,
         [](Net &n) {
           QVA_HVID b = New("QVAFWBEHAVIOR", {{"MESSAGESTRING", Str("NEWS")}});
           return Self(n.h1, {Ref(b)});
         }},
        {"QVAFWMESSAGEHANDLER::REMOVEBEHAVIOR", false,
         [](Net &n) { return Self(n.h2, {Ref(n.proc_b)}); }},
        {"QVAFWMESSAGEHANDLER::BEHAVIORS", false,
         [](Net &n) { return Self(n.h2, {Str("PING")}); }},
        {"QVAFWMESSAGEHANDLER::ISSCOPED", false,
         [](Net &n) { return Self(n.h2, {Str("PING")}); }},
        {"QVAFWMESSAGEHANDLER::SCOPEDMESSAGES", false, [](Net &n) { return Self(n.h2); }},
        {"QVAFWMESSAGEHANDLER::SCOPEMESSAGE", false,
         [](Net &n) {
           AddLongList(n.h2, "PING");
           return Self(NewHandler(n.h2), {Str("PING")});
         }},
        {"QVAFWMESSAGEHANDLER::UNSCOPEMESSAGE", false,
         [](Net &n) {
           QVA_HVID leaf = NewHandler(n.h2);
           Scope(leaf, "LEAF");
           AddLongList(leaf, "LEAF");
           return Self(leaf, {Str("LEAF")});
         }},
        {"QVAFWMESSAGEHANDLER::SENDMESSAGE", false,
         [](Net &n) { return Self(n.h2, {Str("NUM"), Long(8)}); }},
        {"QVAFWMESSAGEHANDLER::RESTORE", true, [](Net &n) { return Self(n.h2); }},

        {"QVAFWQUERY::INIT", false,
         [](Net &n) {
           return Init("QVAFWQUERY", {{"MESSAGESTRING", Str("ASK")}, {"HANDLER", Ref(n.h2)}});
         }},
        {"QVAFWQUERY::CLEANUP", false, [](Net &n) { return ByDestroy(n.query); }},
        {"QVAFWQUERY::RESULT", false, [](Net &n) { return Self(n.query); }},
        {"QVAFWQUERY::SENDQUERY", false, [](Net &n) { return Self(n.query); }},
        {"QVAFWQUERY::SETRESULT", false, [](Net &n) { return Self(n.query, {Str("set")}); }},
        {"QVAFWQUERY::RESTORE", true, [](Net &n) { return Self(n.query); }},

        {"QVAFWQUERYBEHAV::INIT", false,
         [](Net &n) {
           return Init("QVAFWQUERYBEHAV", Kw(n.h2, "ASK", {{"RESPONSE", Long(9)}}));
         }},
        {"QVAFWQUERYBEHAV::CLEANUP", false, [](Net &n) { return ByDestroy(n.query_b); }},
        {"QVAFWQUERYBEHAV::EXECUTE", false,
         [](Net &n) { return Self(n.query_b, {Ref(n.query)}); }},
        {"QVAFWQUERYBEHAV::RESPONSE", false, [](Net &n) { return Self(n.query_b); }},
        {"QVAFWQUERYBEHAV::SETRESPONSE", false,
         [](Net &n) { return Self(n.query_b, {Str("another")}); }},
        {"QVAFWQUERYBEHAV::RESTORE", true, [](Net &n) { return Self(n.query_b); }},

        {"QVAFWSAVEABLE::INIT", false, [](Net &) { return Init("QVAFWSAVEABLE"); }},
        {"QVAFWSAVEABLE::CLEANUP", false, [](Net &n) { return ByDestroy(n.saveable); }},
        {"QVAFWSAVEABLE::RESETRESTORED", false, [](Net &n) { return Self(n.saveable); }},
        {"QVAFWSAVEABLE::RESTORE", true, [](Net &n) { return Self(n.saveable); }},
        {"QVAFWSAVEABLE::DORESTORE", true, [](Net &n) { return Self(n.h2); }},
        {"QVAFWSAVEABLERESTOREARRAY", true, [](Net &) { return Plain({RestoredObjects()}); }},
    };
    return r;
  }();
  return rows;
}

// qvahost::try_call, for bodies that own temporaries through Own(): those
// made in an abandoned body are released by the host, not by ReleaseTemps.
std::string Guarded(const std::function<void()> &body) {
  const size_t owned = g_temps.size();
  std::string error = qvahost::try_call(body);
  if (!error.empty() && g_temps.size() > owned) g_temps.resize(owned);
  return error;
}

class SweepNetwork : public qvatest::HostTest {
 protected:
  void SetUp() override {
    qvahost::reset_session();
    Define();
    HostTest::SetUp();
  }
  void TearDown() override {
    qvahost::reset_session();
    HostTest::TearDown();
  }

  // A fresh network; for `restored`, the network saved, the session reset
  // and the save restored (its objects not yet through RESTORE).
  Net Fresh(bool restored) {
    g_log.clear(), g_made.clear(), g_hook = nullptr;
    Net n = Build();
    if (!restored) return n;
    std::vector<QVA_HVID> ids = n.all();
    QVA_VarCopy(qvatest::ObjRefArray(ids), qvahost::main_variable("NET"));
    // Identifiers nobody holds any more would be saved too, and nothing
    // after the restore would name them for collection.
    CollectIdents();
    std::vector<uint8_t> saved = qvahost::save_all_to_bytes();
    ReleaseTemps();
    qvahost::reset_session();
    qvahost::restore_from_bytes(saved.data(), saved.size());
    QVA_VPTR net = qvahost::find_main_variable("NET");
    auto *data = reinterpret_cast<QVA_HVID *>(net->value.arr->data);
    ids.assign(data, data + net->value.arr->n_elts);
    qvahost::delete_main_variable("NET");
    g_made = ids;
    return Net::of(ids);
  }

  // What must hold after every run: the trees are valid and the network
  // answers.  Objects the run destroyed are left out.
  void ExpectIntact(Net &n, const std::string &where) {
    for (QVA_HVID h : {n.h1, n.h2, TopLevel()}) {
      if (!Alive(h)) continue;
      QVA_HVID map = FieldRef<QVA_HVID>(h, "BEHAVIORS");
      if (!map) continue;
      ASSERT_EQ(treecheck::check<treecheck::RbhTree>(map), "") << where << ": behaviour map";
      for (QVA_HVID e = maphBegin(map); e != map; e = map_rbh_deref(e)->FLINK)
        ASSERT_EQ(treecheck::check<treecheck::RbhTree>(maphData(e)), "")
            << where << ": a behaviour list";
    }
    if (Alive(n.map)) {
      ASSERT_EQ(treecheck::check<treecheck::RbhTree>(FieldRef<QVA_HVID>(n.map, "THE_MAP")), "")
          << where << ": data map";
    }
    std::string error = Guarded([&] {
      if (Alive(n.msg)) Send(n.msg);
      if (Alive(n.h2)) {
        SendText(n.h2, "NUM", Long(11));
        SendText(n.h2, "IDLE");
        ScopedMessages(n.h2);
      }
      if (Alive(n.query)) Func(n.query, "SENDQUERY");
      if (Alive(n.map)) {
        Func(n.map, "GETKEYS");
        Proc(n.map, "INSERT", {Str("probe"), Long(12)});
        Proc(n.map, "REMOVE", {Str("probe")});
      }
      ReleaseTemps();
    });
    EXPECT_EQ(error, "") << where << ": the network no longer answers";
  }

  // Every object through CLEANUP, newest first, then the identifiers
  // collected: nothing of the network may remain.  `every_ident` collects
  // identifiers still counted too: the restore rows run RESTORE and then
  // the whole RESTOREARRAY, and a second RESTORE takes a second reference
  // on what the first rolled over, which nothing gives back.
  void TearDownNetwork(const std::string &where, bool every_ident = false) {
    g_hook = nullptr;
    ReleaseTemps();
    std::string error = Guarded([&] {
      for (auto it = g_made.rbegin(); it != g_made.rend(); ++it)
        if (QVA_ObjValidate(*it, QVA_MSG_RET)) Destroy(*it);
      if (QVA_HVID top = TopLevel()) Destroy(top);
      ReleaseTemps();
      if (every_ident) {
        qvahost::call_procedure("FWIDENT_GC", {Long(1)});
        ReleaseTemps();
      } else {
        CollectIdents();
      }
    });
    EXPECT_EQ(error, "") << where << ": tearing the network down";
    ExpectNoLeaks(where.c_str());
    qvahost::reset_session();
  }
};

class AllocSweep : public SweepNetwork, public ::testing::WithParamInterface<std::string> {};

TEST(AllocSweepTable, HasOneRowForEveryRegisteredRoutine) {
  std::set<std::string> registered, rows;
  for (int i = 0; i < function_addr_count; ++i) registered.insert(function_addr[i].name);
  for (int i = 0; i < procedure_addr_count; ++i) registered.insert(procedure_addr[i].name);
  for (const Row &r : Rows()) EXPECT_TRUE(rows.insert(r.routine).second) << r.routine << " twice";
  EXPECT_EQ(rows, registered);
}

TEST_P(AllocSweep, EveryFailingAllocationLeavesTheSessionIntact) {
  const Row *row = nullptr;
  for (const Row &r : Rows())
    if (GetParam() == r.routine) row = &r;
  ASSERT_NE(row, nullptr);
  if (auto known = KnownFaults().find(GetParam()); known != KnownFaults().end())
    GTEST_SKIP() << "known fault, fix pending: " << known->second;
  bool is_function = false;
  for (int i = 0; i < function_addr_count; ++i) is_function |= GetParam() == function_addr[i].name;

  int failures = 0;
  for (int64_t n = 1;; ++n) {
    ASSERT_LT(n, 20000) << "the call never completed";
    const std::string where = GetParam() + ", allocation " + std::to_string(n) + " failing";
    Net net = Fresh(row->restored);
    Call call = row->call(net);
    QVA_VPTR result = nullptr;
    bool failed = false;
    qvahost::fail_allocation_after(n);
    try {
      if (call.destroy) QVA_ObjDestroy(1, call.args.data(), nullptr);
      else if (is_function) result = qvahost::call_function(GetParam(), call.args, call.kw);
      else qvahost::call_procedure(GetParam(), call.args, call.kw);
    } catch (const qvahost::HostError &e) {
      failed = true;
      // The host's allocation error, or the module's own with its text.
      EXPECT_NE(e.text.find("Unable to allocate memory"), std::string::npos)
          << where << ": " << e.report();
    }
    const bool reached = qvahost::allocations_since_hook() >= n;
    qvahost::fail_allocation_after(0);
    if (failed && call.init) Guarded([&] { QVA_ObjDestroy(1, call.args.data(), nullptr); });
    if (!failed && row->undo) row->undo(result);
    if (result) Own(result);
    if (row->restored)
      qvahost::try_call([&] {
        qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {RestoredObjects()});
      });
    ExpectIntact(net, where);
    TearDownNetwork(where, row->restored && GetParam().find("RESTORE") != std::string::npos);
    failures += failed;
    if (HasFailure() || !reached) break;
  }
  RecordProperty("failed_runs", failures);
}

std::vector<std::string> RowNames() {
  std::vector<std::string> names;
  for (const Row &r : Rows()) names.push_back(r.routine);
  return names;
}

std::string TestName(const ::testing::TestParamInfo<std::string> &info) {
  std::string s;
  for (char c : info.param) s += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return s;
}

INSTANTIATE_TEST_SUITE_P(Routines, AllocSweep, ::testing::ValuesIn(RowNames()), TestName);

}  // namespace
}  // namespace fwtest
