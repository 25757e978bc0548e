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

class DispatchTest : public FwTest {};

TEST_F(DispatchTest, TheNearestScopeClaimsAnEmptyListStopsAndTheUnclaimedAreDropped) {
  const QVA_HVID a = NewHandler(), b = NewHandler(a);
  Scope(a, "M");
  const QVA_HVID at_a = NewBehavior("M", {.handler = a});
  const QVA_HVID at_top = NewBehavior("M");  // unscoped below: lands at the top
  const QVA_HVID other = NewBehavior("N", {.handler = b});
  EXPECT_EQ(Behaviors(a, "M"), Ids{at_a});
  EXPECT_EQ(Behaviors(TopLevel(), "M"), Ids{at_top});
  Send(NewMessage("M", b));
  Send(NewMessage("M"));
  SendText(b, "N");
  EXPECT_EQ(Selves(), (Ids{at_a, at_top, other})) << "claimed at A, never reaches T";
  for (const Exec &e : g_log) EXPECT_EQ(e.args, 0);
  // The other designators: an identifier and a message.
  const QVA_HVID ident = GetIdent("N");
  Proc(b, "SENDMESSAGE", {Own(qvahost::make_ptr(ident))});
  Proc(b, "SENDMESSAGE", {Ref(NewMessage("N"))});
  IdentRoutine("FWIDENT_RELEASE", ident);
  EXPECT_EQ(Selves(), (Ids{at_a, at_top, other, other, other}));

  // A's list emptied stops the message; its temporary stays the caller's.
  g_log.clear();
  Proc(at_a, "UNREGISTER");
  QVA_VPTR tmp = Long(7);
  SendText(b, "M", tmp);
  EXPECT_TRUE(g_log.empty());
  Unscope(a, "M");
  SendText(b, "M");
  EXPECT_EQ(Selves(), Ids{at_top});
  // Nobody listens: dropped at the top without a word.
  qvatest::OutputCapture out;
  Send(NewMessage("Nobody Listens", b));
  SendText(a, "Nobody Listens", tmp);
  EXPECT_EQ(g_log.size(), 1u);
  EXPECT_TRUE(out.lines().empty()) << out.all();
  EXPECT_EQ(Printed(tmp), "L:7");
}

TEST_F(DispatchTest, BehavioursRunInAscendingIdentifierOrderWhateverTheRegistrationOrder) {
  const QVA_HVID h = NewHandler();
  Scope(h, "M");
  const QVA_HVID plain = NewBehavior("M", {.handler = h, .cls = "QVAFWBEHAVIOR"});  // runs nothing
  Ids made;
  for (int i = 0; i < 6; ++i)
    made.push_back(NewBehavior("M", {.handler = h, .register_it = false}));
  for (size_t i : {3u, 5u, 0u, 4u, 1u, 2u}) Proc(made[i], "REGISTER");
  Proc(made[2], "UNREGISTER");
  Proc(made[2], "REGISTER");
  Ids all{plain};
  all.insert(all.end(), made.begin(), made.end());
  EXPECT_EQ(Behaviors(h, "M"), all);
  SendText(h, "M");
  EXPECT_EQ(Selves(), made);
}

TEST_F(DispatchTest, OneBehaviourReceivesTheCallersTemporaryItself) {
  const QVA_HVID x = NewBehavior("M");
  QVA_VPTR tmp = Long(41);
  g_hook = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };
  Send(NewMessage("M"), tmp);
  ASSERT_EQ(g_log.size(), 1u);
  EXPECT_EQ(g_log[0].self, x);
  EXPECT_EQ(g_log[0].arg, tmp);
  EXPECT_TRUE(g_log[0].temporary);
  EXPECT_EQ(g_log[0].value, "L:41");
  EXPECT_EQ(Printed(tmp), "L:42") << "changed in place";
}

TEST_F(DispatchTest, SeveralBehavioursShareOneCopyOfATemporaryAndTheCallersEndsUndefined) {
  const QVA_HVID h = NewHandler();
  Ids xs;
  for (int i = 0; i < 3; ++i) xs.push_back(NewBehavior("M", {.handler = h, .scope = i == 0}));
  QVA_VPTR tmp = Long(10);
  g_hook = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };  // each sees the one before
  Send(NewMessage("M", h), tmp);
  EXPECT_EQ(Selves(), xs);
  EXPECT_NE(g_log[0].arg, tmp);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(g_log[i].arg, g_log[0].arg) << "one shared variable";
    EXPECT_FALSE(g_log[i].temporary) << "the shared copy is no temporary";
    EXPECT_EQ(g_log[i].value, "L:" + std::to_string(10 + i));
  }
  EXPECT_EQ(tmp->type, QVA_TYP_UNDEF);
  EXPECT_TRUE(tmp->flags & QVA_V_TEMP) << "still the caller's temporary to release";
  // Arrays and strings too, freed once with the dispatch (the leak check).
  g_hook = nullptr;
  for (QVA_VPTR t : {Own(qvahost::make_string_array({"a", "bb"})), Str("text")}) {
    const std::string value = Printed(t);
    g_log.clear();
    SendText(h, "M", t);
    EXPECT_EQ(g_log[2].value, value);
    EXPECT_EQ(g_log[2].arg, g_log[0].arg);
    EXPECT_EQ(t->type, QVA_TYP_UNDEF);
  }
  // A variable that is no temporary goes to every behaviour as it is.
  qvahost::Variable var("V");
  var.take(qvahost::make_long(5));
  g_hook = [](QVA_HVID, QVA_VPTR arg) { arg->value.l *= 2; };
  g_log.clear();
  SendText(h, "M", var.get());
  for (const Exec &e : g_log) EXPECT_TRUE(e.arg == var.get() && !e.temporary);
  EXPECT_EQ(Printed(var.get()), "L:40");
}

TEST_F(DispatchTest, TheListIsSnapshotBeforeTheBehavioursRun) {
  const QVA_HVID h = NewHandler();
  const QVA_HVID first = NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID second = NewBehavior("M", {.handler = h});
  QVA_HVID added = 0;
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self != first || added) return;
    added = NewBehavior("M", {.handler = h});
    Proc(second, "UNREGISTER");
  };
  SendText(h, "M");
  SendText(h, "M");
  EXPECT_EQ(Selves(), (Ids{first, second, first, added})) << "a newcomer waits for the next";
}

TEST_F(DispatchTest, AnErrorOrADestroyedBehaviourEndsTheDispatchReleasingTheCopy) {
  const QVA_HVID h = NewHandler();
  const QVA_HVID first = NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID victim = NewBehavior("M", {.handler = h});
  const QVA_HVID last = NewBehavior("M", {.handler = h});
  auto send = [&] {
    auto e = ExpectHostError([&] {
      SendText(h, "M", Own(qvahost::make_string_array({"shared", "value"})));
    });
    ReleaseTemps();
    return e;
  };
  ReleaseTemps();
  const qvahost::Accounting before = qvahost::accounting();
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self == first) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "behaviour fails");
  };
  EXPECT_EQ(send().text, "behaviour fails");
  EXPECT_EQ(qvahost::accounting(), before);
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self == first) Destroy(victim);
  };
  qvahost::HostError e = send();
  EXPECT_EQ(e.code, qvahost::M_INVALID_OBJ);
  EXPECT_NE(e.text.find(std::to_string(victim)), std::string::npos) << e.text;
  EXPECT_EQ(Selves(), (Ids{first, first})) << "nothing after the dead one";
  EXPECT_EQ(qvahost::accounting().objects, before.objects - 1);
  EXPECT_EQ(qvahost::accounting().temporaries, before.temporaries);
  EXPECT_EQ(qvahost::accounting().allocations, before.allocations) << "the snapshot went too";
  // The victim unregistered in its CLEANUP: the next dispatch runs the rest.
  g_hook = nullptr;
  SendText(h, "M");
  EXPECT_EQ(Selves(), (Ids{first, first, first, last}));
}

TEST_F(DispatchTest, BehavioursDestroyingThemselvesTheMessageOrScopingElsewhere) {
  // Destroying itself at the top takes the top-level handler with it.
  const QVA_HVID lone = NewBehavior("Lone");
  const QVA_HVID top = TopLevel();
  g_hook = [&](QVA_HVID self, QVA_VPTR) { Destroy(self); };
  const QVA_HVID lone_msg = NewMessage("Lone");
  Send(lone_msg);
  EXPECT_FALSE(Alive(lone));
  EXPECT_FALSE(Alive(top)) << "its last scope went";
  EXPECT_EQ(TopLevel(), 0u);
  Send(lone_msg);
  EXPECT_EQ(Selves(), Ids{lone});
  // Destroying the message lets the dispatch finish; scoping below moves Y
  // for the next dispatch only.
  const QVA_HVID a = NewHandler(), b = NewHandler(a);
  const QVA_HVID msg = NewMessage("M", a);
  const QVA_HVID x = NewBehavior("M", {.handler = a, .scope = true});
  const QVA_HVID y = NewBehavior("M", {.handler = b});
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self == x && Alive(msg)) Destroy(msg);
    if (self == x && !IsScoped(b, "M")) Scope(b, "M");
  };
  g_log.clear();
  Send(msg);
  EXPECT_EQ(Selves(), (Ids{x, y}));
  EXPECT_FALSE(Alive(msg));
  EXPECT_EQ(Behaviors(b, "M"), Ids{y});
  SendText(b, "M");
  EXPECT_EQ(Selves(), (Ids{x, y, y})) << "B claims it now";
}

TEST_F(DispatchTest, UnparentedObjectsBelongToOneTopLevelHandlerAndSetHandlerLinks) {
  const QVA_HVID msg = NewMessage("M"), h = NewHandler();
  const QVA_HVID beh = NewBehavior("M", {.register_it = false});
  EXPECT_EQ(TopLevel(), 0u) << "nothing needed it yet";
  const QVA_HVID top = HandlerOf(msg);
  ASSERT_NE(top, 0u);
  EXPECT_EQ(TopLevel(), top);
  EXPECT_EQ(HandlerOf(top), 0u) << "the null object";
  EXPECT_TRUE(QVA_HeapVarHashFind(top)->flags & QVA_HV_HELD);
  const QVA_HVID target = NewHandler();
  for (QVA_HVID obj : {msg, beh, h}) {
    EXPECT_EQ(HandlerOf(obj), top) << "made once";
    SetHandler(obj, target);
    EXPECT_EQ(HandlerOf(obj), target);
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
  const std::pair<QVA_HVID, QVA_HVID> cycles[] = {{a, a}, {a, b},   {a, c},    {b, c},
                                                  {c, c}, {top, a}, {top, top}};
  for (auto [obj, target] : cycles) {
    SCOPED_TRACE(testing::Message() << obj << " -> " << target);
    const QVA_HVID before = FieldRef<QVA_HVID>(obj, "MYHANDLER");
    qvahost::HostError e = ExpectHostError([&] { SetHandler(obj, target); });
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_TRUE(obj == top || e.text.find("cycle") != std::string::npos) << e.text;
    EXPECT_EQ(FieldRef<QVA_HVID>(obj, "MYHANDLER"), before);
  }
  EXPECT_EQ(HandlerOf(top), 0u);
  SetHandler(c, a);  // above: allowed, and the chain still climbs
  Scope(outside, "M");
  EXPECT_EQ(Behaviors(outside, "M"), Ids{NewBehavior("M", {.handler = c})});
}

}  // namespace
}  // namespace fwtest
