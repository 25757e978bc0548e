// Message dispatch through SEND and SENDMESSAGE (which list runs, in which
// order, what the behaviours receive, changes made while they run) and the
// handler links of HANDLER and SETHANDLER.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "fw_support.h"
#include "internal.h"

namespace fwtest {
namespace {

using qvatest::ExpectHostError;
using Ids = std::vector<QVA_HVID>;

class DispatchTest : public FwTest {};

TEST_F(DispatchTest, TheNearestScopeClaimsAnEmptyListStopsAndTheUnclaimedAreDropped) {
  const QVA_HVID a = NewHandler(), b = NewHandler(a);
  Scope(a, "M");
  const QVA_HVID at_a = NewBehavior("M", {.handler = a});
  const QVA_HVID at_top = NewBehavior("M");  // unscoped below: lands at the top
  const QVA_HVID other = NewBehavior("N", {.handler = b});
  EXPECT_EQ(Behaviors(a, "M"), Ids{at_a});
  EXPECT_EQ(Behaviors(TopLevel(), "M"), Ids{at_top});
  EXPECT_EQ(Behaviors(TopLevel(), "N"), Ids{other});
  Send(NewMessage("M", b));
  Send(NewMessage("M"));
  SendText(b, "N");
  EXPECT_EQ(Selves(), (Ids{at_a, at_top, other})) << "claimed at A, never reaches T";
  for (const Exec &e : Log()) EXPECT_EQ(e.arg, nullptr) << "sent without argument";

  // Three designators of the same message.
  Log().clear();
  const QVA_HVID ident = GetIdent("N");
  Proc(b, "SENDMESSAGE", {Own(qvahost::make_ptr(ident))});
  Proc(b, "SENDMESSAGE", {Ref(NewMessage("N"))});
  EXPECT_EQ(Selves(), (Ids{other, other}));
  IdentRoutine("FWIDENT_RELEASE", ident);

  // A's list emptied: it stops the message, whose temporary stays the caller's.
  Proc(at_a, "UNREGISTER");
  Log().clear();
  QVA_VPTR tmp = Long(7);
  SendText(b, "M", tmp);
  EXPECT_TRUE(Log().empty());
  Unscope(a, "M");
  Send(NewMessage("M", b));
  EXPECT_EQ(Selves(), Ids{at_top});

  // Nobody listens: dropped at the top without a word.
  Log().clear();
  qvatest::OutputCapture out;
  Send(NewMessage("Nobody Listens", b));
  SendText(a, "Nobody Listens", tmp);
  EXPECT_TRUE(Log().empty());
  EXPECT_TRUE(out.lines().empty()) << out.all();
  EXPECT_EQ(Printed(tmp), "L:7");
}

TEST_F(DispatchTest, BehavioursRunInAscendingIdentifierOrderWhateverTheRegistrationOrder) {
  const QVA_HVID h = NewHandler();
  Scope(h, "M");
  // The base class's EXECUTE does nothing.
  const QVA_HVID plain = NewBehavior("M", {.handler = h, .cls = kBehavior});
  Ids made;
  for (int i = 0; i < 6; ++i)
    made.push_back(NewBehavior("M", {.handler = h, .register_it = false}));
  for (size_t i : {3u, 5u, 0u, 4u, 1u, 2u}) Proc(made[i], "REGISTER");
  Ids all{plain};
  all.insert(all.end(), made.begin(), made.end());
  EXPECT_EQ(Behaviors(h, "M"), all);
  SendText(h, "M");
  EXPECT_EQ(Selves(), made);
  Proc(made[2], "UNREGISTER");
  Proc(made[2], "REGISTER");
  EXPECT_EQ(Behaviors(h, "M"), all) << "re-registering moves nothing";
}

// ------------------------------------------------------------ argument

TEST_F(DispatchTest, OneBehaviourReceivesTheCallersTemporaryItself) {
  const QVA_HVID x = NewBehavior("M");
  QVA_VPTR tmp = Long(41);
  Hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };
  Send(NewMessage("M"), tmp);
  ASSERT_EQ(Log().size(), 1u);
  EXPECT_EQ(Log()[0].self, x);
  EXPECT_EQ(Log()[0].arg, tmp);
  EXPECT_TRUE(Log()[0].temporary);
  EXPECT_EQ(Log()[0].value, 41);
  EXPECT_EQ(Printed(tmp), "L:42") << "changed in place";
}

TEST_F(DispatchTest, SeveralBehavioursShareOneCopyOfATemporaryAndTheCallersEndsUndefined) {
  const QVA_HVID h = NewHandler();
  Ids xs;
  for (int i = 0; i < 3; ++i) xs.push_back(NewBehavior("M", {.handler = h, .scope = i == 0}));
  QVA_VPTR tmp = Long(10);
  Hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };  // each sees the one before
  Send(NewMessage("M", h), tmp);
  ASSERT_EQ(Log().size(), 3u);
  EXPECT_NE(Log()[0].arg, tmp);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(Log()[i].self, xs[i]);
    EXPECT_EQ(Log()[i].arg, Log()[0].arg) << "one shared variable";
    EXPECT_FALSE(Log()[i].temporary) << "the shared copy is no temporary";
    EXPECT_EQ(Log()[i].type, QVA_TYP_LONG);
    EXPECT_EQ(Log()[i].value, 10 + static_cast<QVA_LONG64>(i));
  }
  EXPECT_EQ(tmp->type, QVA_TYP_UNDEF);
  EXPECT_TRUE(tmp->flags & QVA_V_TEMP) << "still the caller's temporary to release";

  // Arrays and strings too, freed once with the dispatch (the leak check).
  Hook() = nullptr;
  for (QVA_VPTR t : {Own(qvahost::make_string_array({"a", "bb"})), Str("text"),
                     Own(qvahost::make_long_array({1, 2, 3}))}) {
    const int type = t->type;
    Log().clear();
    SendText(h, "M", t);
    ASSERT_EQ(Log().size(), 3u);
    EXPECT_EQ(Log()[0].type, type);
    EXPECT_EQ(Log()[2].arg, Log()[0].arg);
    EXPECT_EQ(t->type, QVA_TYP_UNDEF);
  }

  // A variable that is no temporary goes to every behaviour as it is.
  qvahost::Variable var("V");
  var.take(qvahost::make_long(5));
  Hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l *= 2; };
  Log().clear();
  SendText(h, "M", var.get());
  for (const Exec &e : Log()) EXPECT_TRUE(e.arg == var.get() && !e.temporary);
  EXPECT_EQ(Log()[2].value, 20);
  EXPECT_EQ(Printed(var.get()), "L:40");
}

// ------------------------------------------- changes during the dispatch

TEST_F(DispatchTest, TheListIsSnapshotBeforeTheBehavioursRun) {
  const QVA_HVID h = NewHandler();
  const QVA_HVID first = NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID second = NewBehavior("M", {.handler = h});
  QVA_HVID added = 0;
  Hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self != first || added) return;
    added = NewBehavior("M", {.handler = h});
    Proc(second, "UNREGISTER");
  };
  SendText(h, "M");
  EXPECT_EQ(Selves(), (Ids{first, second})) << "the newcomer waits for the next message";
  Log().clear();
  SendText(h, "M");
  EXPECT_EQ(Selves(), (Ids{first, added}));
}

TEST_F(DispatchTest, ABehaviourDestroyedByAnEarlierOneEndsTheDispatchWithoutLeaks) {
  const QVA_HVID h = NewHandler();
  const QVA_HVID killer = NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID victim = NewBehavior("M", {.handler = h});
  const QVA_HVID last = NewBehavior("M", {.handler = h});
  Hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == killer) Destroy(victim);
  };
  const int64_t objects_before = Objects();
  const qvahost::Accounting before = qvahost::accounting();
  {
    Tmp tmp(qvahost::make_string_array({"shared", "value"})), text(qvahost::make_string("M"));
    qvahost::HostError e = ExpectHostError([&] { Proc(h, "SENDMESSAGE", {text, tmp}); });
    EXPECT_EQ(e.code, qvahost::M_INVALID_OBJ);
    EXPECT_NE(e.text.find(std::to_string(victim)), std::string::npos) << e.text;
  }
  EXPECT_EQ(Selves(), Ids{killer}) << "nothing after the dead one";
  EXPECT_EQ(Objects(), objects_before - 1);
  EXPECT_EQ(qvahost::accounting().temporaries, before.temporaries);
  EXPECT_EQ(qvahost::accounting().allocations, before.allocations) << "the snapshot went too";
  // The victim unregistered in its CLEANUP: the next dispatch runs the rest.
  Hook() = nullptr;
  Log().clear();
  SendText(h, "M");
  EXPECT_EQ(Selves(), (Ids{killer, last}));
}

TEST_F(DispatchTest, AnErrorInsideABehaviourReleasesTheSharedCopy) {
  const QVA_HVID h = NewHandler();
  const QVA_HVID failing = NewBehavior("M", {.handler = h, .scope = true});
  NewBehavior("M", {.handler = h});
  Hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == failing) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "behaviour fails");
  };
  const qvahost::Accounting before = qvahost::accounting();
  {
    Tmp tmp(qvahost::make_string("a text the copy owns")), text(qvahost::make_string("M"));
    ASSERT_EQ(ExpectHostError([&] {
                Proc(h, "SENDMESSAGE", {text, tmp});
              }).text,
              "behaviour fails");
  }
  EXPECT_EQ(Log().size(), 1u);
  EXPECT_EQ(qvahost::accounting(), before);
}

TEST_F(DispatchTest, BehavioursDestroyingThemselvesTheMessageOrScopingElsewhere) {
  // Destroying itself at the top takes the top-level handler with it.
  const QVA_HVID lone = NewBehavior("Lone");
  const QVA_HVID top = TopLevel();
  ASSERT_NE(top, 0u);
  Hook() = [&](QVA_HVID self, QVA_VPTR) { Destroy(self); };
  const QVA_HVID lone_msg = NewMessage("Lone");
  Send(lone_msg);
  EXPECT_EQ(Selves(), Ids{lone});
  EXPECT_FALSE(Alive(lone));
  EXPECT_FALSE(Alive(top)) << "its last scope went";
  EXPECT_EQ(TopLevel(), 0u);
  Send(lone_msg);
  EXPECT_EQ(Log().size(), 1u);

  // Destroying the message lets the dispatch finish.
  const QVA_HVID a = NewHandler(), b = NewHandler(a);
  const QVA_HVID msg = NewMessage("M", a);
  const QVA_HVID x = NewBehavior("M", {.handler = a, .scope = true});
  const QVA_HVID y = NewBehavior("M", {.handler = b});
  Hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == x && Alive(msg)) Destroy(msg);
    if (self == x && !IsScoped(b, "M")) Scope(b, "M");  // moves Y for the next dispatch
  };
  Log().clear();
  Send(msg);
  EXPECT_EQ(Selves(), (Ids{x, y}));
  EXPECT_FALSE(Alive(msg));
  EXPECT_EQ(Behaviors(a, "M"), Ids{x});
  EXPECT_EQ(Behaviors(b, "M"), Ids{y});
  Log().clear();
  SendText(b, "M");
  EXPECT_EQ(Selves(), Ids{y}) << "B claims it now";
}

// ------------------------------------------------------- handler links

TEST_F(DispatchTest, UnparentedObjectsBelongToOneTopLevelHandlerAndSetHandlerLinks) {
  const QVA_HVID msg = NewMessage("M"), h = NewHandler();
  const QVA_HVID beh = NewBehavior("M", {.register_it = false});
  EXPECT_EQ(TopLevel(), 0u) << "nothing needed it yet";
  const QVA_HVID top = HandlerOf(msg);
  ASSERT_NE(top, 0u);
  EXPECT_EQ(TopLevel(), top);
  for (QVA_HVID obj : {msg, beh, h}) EXPECT_EQ(HandlerOf(obj), top) << "made once";
  EXPECT_EQ(HandlerOf(top), 0u) << "the null object";
  EXPECT_TRUE(QVA_HeapVarHashFind(top)->flags & QVA_HV_HELD);
  const QVA_HVID target = NewHandler();
  for (QVA_HVID obj : {msg, beh, h}) {
    SetHandler(obj, target);
    EXPECT_EQ(HandlerOf(obj), target);
    EXPECT_EQ(FieldRef<QVA_HVID>(obj, "MYHANDLER"), target);
    SetHandler(obj, 0);
    EXPECT_EQ(FieldRef<QVA_HVID>(obj, "MYHANDLER"), 0u);
    EXPECT_EQ(HandlerOf(obj), top);
  }
}

TEST_F(DispatchTest, ALinkThatWouldCloseACycleIsRefusedAndLeftAsItWas) {
  const QVA_HVID a = NewHandler(), b = NewHandler(a), c = NewHandler(b);
  const QVA_HVID outside = NewHandler();
  SetHandler(a, outside);
  const QVA_HVID top = HandlerOf(outside);
  struct Case {
    QVA_HVID obj, target;
  };
  for (Case k :
       {Case{a, a}, Case{a, b}, Case{a, c}, Case{b, c}, Case{c, c}, Case{top, a}, Case{top, top}}) {
    SCOPED_TRACE(testing::Message() << k.obj << " -> " << k.target);
    const QVA_HVID before = FieldRef<QVA_HVID>(k.obj, "MYHANDLER");
    qvahost::HostError e = ExpectHostError([&] { SetHandler(k.obj, k.target); });
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    if (k.obj != top) {
      EXPECT_NE(e.text.find("cycle"), std::string::npos) << e.text;
    }
    EXPECT_EQ(FieldRef<QVA_HVID>(k.obj, "MYHANDLER"), before);
  }
  EXPECT_EQ(HandlerOf(top), 0u);
  // Above: allowed, and the chain still climbs.
  SetHandler(c, a);
  Scope(outside, "M");
  EXPECT_EQ(Behaviors(outside, "M"), Ids{NewBehavior("M", {.handler = c})});
}

}  // namespace
}  // namespace fwtest
