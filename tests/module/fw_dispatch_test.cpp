// Handlers, registration, scoping and dispatch: where a behaviour lands, how
// scoping moves it, the top-level handler that exists only while it scopes
// something, the identifier references handlers hold, which list a message
// runs, in which order, what the behaviours receive, and changes made to the
// network while they run.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "fw_support.h"
#include "internal.h"

namespace fwtest {
namespace {

using qvatest::ExpectHostError;

class NetworkTest : public FwTest {
 protected:
  void SetUp() override {
    FwTest::SetUp();
    a_ = NewHandler();
    b_ = NewHandler(a_);
  }
  QVA_HVID a_ = 0, b_ = 0;  // B below A below the top-level handler
};

TEST_F(NetworkTest, ScopingAtAMiddleHandlerPullsTheBehaviourDownAndRetiresTheTop) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_});
  const QVA_HVID top = TopLevel(), m = IdentOf("M");
  ASSERT_NE(top, 0u) << "made for the registration";
  EXPECT_TRUE(IsScoped(top, "M"));
  EXPECT_EQ(Behaviors(top, "M"), Ids{x});
  EXPECT_TRUE(SurvivesRelease(m, 1)) << "held by X and by the top's scope";
  Scope(a_, "M");
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  EXPECT_FALSE(Alive(top)) << "its only list emptied, so it went";
  EXPECT_EQ(TopLevel(), 0u);
  EXPECT_TRUE(SurvivesRelease(m, 1)) << "the top unscoped, A scoped";
  Unscope(a_, "M");
  const QVA_HVID new_top = TopLevel();
  EXPECT_NE(new_top, 0u);
  EXPECT_NE(new_top, top);
  EXPECT_EQ(Behaviors(new_top, "M"), Ids{x});
  EXPECT_EQ(HandlerOf(a_), new_top) << "the chain climbs to the new one";
  EXPECT_TRUE(SurvivesRelease(m, 1));
  Send(NewMessage("M", b_));
  EXPECT_EQ(Selves(), Ids{x});
  Scope(b_, "M");
  Scope(a_, "M");
  EXPECT_TRUE(SurvivesRelease(m, 2)) << "X, B and A: three holders (no more: the leak check)";
  EXPECT_TRUE(IsRegistered(x));
}

TEST_F(NetworkTest, ScopingMovesOnlyTheBehavioursWhoseChainPassesThroughTheNewScope) {
  const QVA_HVID c = NewHandler(), a = NewHandler(c), s = NewHandler(c), below_a = NewHandler(a);
  Scope(c, "M");
  const QVA_HVID x = NewBehavior("M", {.handler = below_a});
  const QVA_HVID y = NewBehavior("M", {.handler = s});
  const QVA_HVID added = NewBehavior("M", {.handler = below_a, .register_it = false});
  Proc(c, "ADDBEHAVIOR", {Ref(added)});
  Scope(a, "M");
  EXPECT_EQ(Behaviors(a, "M"), Ids{x});
  EXPECT_EQ(Behaviors(c, "M"), (Ids{y, added}))
      << "Y's chain does not pass A, and what is not registered is not moved";
  Unscope(a, "M");
  EXPECT_EQ(Behaviors(c, "M"), (Ids{x, y, added}));
}

// Re-registration is an unregistration and a registration, also for a
// behaviour that ends where it was: the top-level handler it leaves empty
// retires, and it registers at a new one.  A link that named the retired
// handler (as HANDLER gave it) once failed every send; it reads as the new one.
TEST_F(NetworkTest, ScopingBelowTheTopRetiresItAndLinksToItFollowTheNewOne) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_}), y = NewBehavior("M");
  const QVA_HVID top = TopLevel();
  ASSERT_EQ(Behaviors(top, "M"), (Ids{x, y}));
  const QVA_HVID msg = NewMessage("M");
  SetHandler(msg, HandlerOf(msg));  // linked to the top by name, as HANDLER gave it
  Scope(a_, "M");
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  EXPECT_FALSE(Alive(top)) << "Y's unregistration emptied it";
  const QVA_HVID second = TopLevel();
  ASSERT_NE(second, 0u);
  EXPECT_EQ(Behaviors(second, "M"), Ids{y});
  EXPECT_EQ(FieldRef<QVA_HVID>(msg, "MYHANDLER"), top) << "the link itself is left alone";
  EXPECT_EQ(HandlerOf(msg), second);
  // Y alone at the top, M scoped at a handler its chain does not pass.
  Scope(NewHandler(), "M");
  EXPECT_FALSE(Alive(second));
  const QVA_HVID third = TopLevel();
  EXPECT_EQ(Behaviors(third, "M"), Ids{y});
  EXPECT_TRUE(IsRegistered(y));
  Send(msg);
  EXPECT_EQ(Selves(), Ids{y});
  // A handler the language destroys is another matter: links to it fail.
  const QVA_HVID gone = NewHandler();
  SetHandler(msg, gone);
  Destroy(gone);
  EXPECT_EQ(ExpectHostError([&] { Send(msg); }).code, qvahost::M_INVALID_OBJ);
}

TEST_F(NetworkTest, IsScopedAndScopedMessagesLookAtThisHandlerOnly) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_, .scope = true});
  Scope(b_, "M");
  Unscope(a_, "M");
  Unscope(a_, "Never Scoped");
  EXPECT_EQ(Behaviors(b_, "M"), Ids{x}) << "scoping again keeps the list";
  EXPECT_EQ(ScopedMessages(a_), Texts{});
  Scope(a_, "N");
  NewMessage("By Message", a_, true);
  EXPECT_TRUE(IsScoped(a_, "By Message")) << "SCOPE on a message scopes it at its handler";
  EXPECT_FALSE(IsScoped(b_, "N")) << "scoped above is not scoped here";
  EXPECT_FALSE(IsScoped(a_, "n")) << "texts compare exactly";
  EXPECT_FALSE(IsScoped(a_, "M")) << "nor is scoped below";
  for (const char *text : {"pear", "Apple", "apple", "", "b a", "10", "9"}) Scope(a_, text);
  Unscope(a_, "apple");
  EXPECT_EQ(ScopedMessages(a_), (Texts{"", "10", "9", "Apple", "By Message", "N", "b a", "pear"}));
}

TEST_F(NetworkTest, ChangingTheStringOfARegisteredBehaviourMovesItsRegistration) {
  Scope(a_, "New");
  const QVA_HVID x = NewBehavior("Old", {.handler = b_});
  const QVA_HVID y = NewBehavior("Old", {.handler = b_, .register_it = false});
  const QVA_HVID top = TopLevel();
  Proc(x, "SETMESSAGESTRING", {Str("New")});
  Proc(y, "SETMESSAGESTRING", {Str("New")});
  EXPECT_EQ(MessageString(x), "New");
  EXPECT_EQ(Behaviors(a_, "New"), Ids{x}) << "the unregistered one only takes the string";
  EXPECT_FALSE(Alive(top)) << "Old was its only scope";
  SendText(b_, "Old");
  SendText(b_, "New");
  EXPECT_EQ(Selves(), Ids{x});
}

TEST_F(NetworkTest, CleanupUnregistersABehaviourAndAHandlerMarksItsBehavioursUnregistered) {
  Scope(a_, "M");
  const QVA_HVID gone = NewBehavior("M", {.handler = b_});
  const QVA_HVID x = NewBehavior("M", {.handler = a_});
  const QVA_HVID elsewhere = NewBehavior("M", {.handler = b_, .scope = true});
  Destroy(gone);
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  Destroy(a_);
  EXPECT_FALSE(IsRegistered(x));
  EXPECT_TRUE(IsRegistered(elsewhere));
  Destroy(x);  // must not look for its gone handler
}

TEST_F(NetworkTest, StringDesignatorsLeaveNoReferenceBehind) {
  const QVA_HVID held = IdentOf("Held");
  NewBehavior("Held", {.handler = a_, .scope = true});
  Proc(a_, "SENDMESSAGE", {Str("Transient")});
  IsScoped(a_, "Transient Too");
  Behaviors(a_, "Transient Three");
  Unscope(a_, "Transient Four");
  SendText(a_, "Held");
  Scope(a_, "Held");
  EXPECT_TRUE(SurvivesRelease(held, 1)) << "the behaviour and A's scope";
  EXPECT_EQ(g_log.size(), 1u);
  // Only our own GET/RELEASE pairs touched these since: a collection removes them.
  Ids interned;
  for (const char *t : {"Transient", "Transient Too", "Transient Three", "Transient Four"})
    interned.push_back(IdentOf(t));
  CollectIdents();
  for (QVA_HVID id : interned) EXPECT_FALSE(Alive(id));
}

TEST_F(NetworkTest, AfterASessionResetANewTopLevelHandlerIsMadeOnNextNeed) {
  session_replaced_ = true;
  NewBehavior("M");
  ReleaseTemps();
  qvahost::reset_session();
  EXPECT_EQ(TopLevel(), 0u);
  EXPECT_EQ(qvahost::heap_ids(), Ids{});
  const QVA_HVID x = NewBehavior("M"), top = TopLevel();
  // Only the behaviour is reachable from the language's variables.
  QVA_VarCopy(Ref(x), qvahost::main_variable("KEEP"));
  qvahost::heap_gc();
  EXPECT_TRUE(Alive(top)) << "held against heap collection";
  Send(NewMessage("M"));
  EXPECT_EQ(Selves(), Ids{x});
}

TEST_F(NetworkTest, TheNearestScopeClaimsAnEmptyListStopsAndTheUnclaimedAreDropped) {
  Scope(a_, "M");
  const QVA_HVID at_a = NewBehavior("M", {.handler = a_});
  const QVA_HVID at_top = NewBehavior("M");  // unscoped below: lands at the top
  const QVA_HVID other = NewBehavior("N", {.handler = b_});
  Send(NewMessage("M", b_));
  Send(NewMessage("M"));
  SendText(b_, "N");
  Proc(b_, "SENDMESSAGE", {Ref(NewMessage("N"))});  // a message as the designator
  EXPECT_EQ(Selves(), (Ids{at_a, at_top, other, other})) << "claimed at A, not at T";
  for (const Exec &e : g_log) EXPECT_EQ(e.args, 0);
  // A's list emptied stops the message; its temporary stays the caller's.
  g_log.clear();
  Proc(at_a, "UNREGISTER");
  QVA_VPTR tmp = Long(7);
  SendText(b_, "M", tmp);
  EXPECT_TRUE(g_log.empty());
  Unscope(a_, "M");
  SendText(b_, "M");
  // Nobody listens: dropped at the top without a word.
  qvatest::OutputCapture out;
  Send(NewMessage("Nobody Listens", b_));
  SendText(a_, "Nobody Listens", tmp);
  EXPECT_EQ(Selves(), Ids{at_top});
  EXPECT_TRUE(out.lines().empty()) << out.all();
  EXPECT_EQ(Printed(tmp), "L:7");
}

TEST_F(NetworkTest, BehavioursRunInAscendingIdentifierOrderWhateverTheRegistrationOrder) {
  Scope(a_, "M");
  Ids all{NewBehavior("M", {.handler = a_, .cls = "QVAFWBEHAVIOR"})}, made;  // runs nothing
  for (int i = 0; i < 6; ++i)
    made.push_back(NewBehavior("M", {.handler = a_, .register_it = false}));
  for (size_t i : {3u, 5u, 0u, 4u, 1u, 2u}) Proc(made[i], "REGISTER");
  Proc(made[2], "UNREGISTER");
  Proc(made[2], "REGISTER");
  all.insert(all.end(), made.begin(), made.end());
  EXPECT_EQ(Behaviors(a_, "M"), all);
  SendText(a_, "M");
  EXPECT_EQ(Selves(), made);
}

TEST_F(NetworkTest, OneBehaviourGetsTheCallersTemporaryAndSeveralShareOneCopy) {
  // One behaviour receives the caller's temporary itself and may change it.
  const QVA_HVID one = NewBehavior("One");
  QVA_VPTR tmp = Long(41);
  g_hook = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };  // each sees the one before
  Send(NewMessage("One"), tmp);
  EXPECT_EQ(Selves(), Ids{one});
  EXPECT_TRUE(g_log[0].arg == tmp && g_log[0].temporary && g_log[0].value == "L:41");
  EXPECT_EQ(Printed(tmp), "L:42") << "changed in place";
  // Two (or more) share one copy that is no temporary; the caller's ends
  // undefined.
  Ids xs;
  for (int i = 0; i < 2; ++i) xs.push_back(NewBehavior("M", {.handler = a_, .scope = i == 0}));
  tmp = Long(10);
  g_log.clear();
  Send(NewMessage("M", a_), tmp);
  EXPECT_EQ(Selves(), xs);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_TRUE(g_log[i].arg == g_log[0].arg && g_log[i].arg != tmp) << "one shared copy";
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
    SendText(a_, "M", t);
    EXPECT_TRUE(g_log[1].value == value && g_log[1].arg == g_log[0].arg);
    EXPECT_EQ(t->type, QVA_TYP_UNDEF);
  }
  // A variable that is no temporary goes to every behaviour as it is.
  qvahost::Variable var("V");
  var.take(qvahost::make_long(5));
  g_hook = [](QVA_HVID, QVA_VPTR arg) { arg->value.l *= 2; };
  g_log.clear();
  SendText(a_, "M", var.get());
  for (const Exec &e : g_log) EXPECT_TRUE(e.arg == var.get() && !e.temporary);
  EXPECT_EQ(Printed(var.get()), "L:20");
}

TEST_F(NetworkTest, TheListIsSnapshotBeforeTheBehavioursRun) {
  const QVA_HVID first = NewBehavior("M", {.handler = a_, .scope = true});
  const QVA_HVID second = NewBehavior("M", {.handler = a_});
  QVA_HVID added = 0;
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self != first || added) return;
    added = NewBehavior("M", {.handler = a_});
    Proc(second, "UNREGISTER");
  };
  SendText(a_, "M");
  SendText(a_, "M");
  EXPECT_EQ(Selves(), (Ids{first, second, first, added})) << "a newcomer waits for the next";
}

// A list longer than a snapshot holds in itself is copied into a block from
// the host allocator: when that fails, the send ends before any behaviour
// runs and leaves nothing behind.  Once copied, the long list runs as a
// short one does: in order, and unchanged by what its behaviours register.
TEST_F(NetworkTest, ALongListIsCopiedThroughTheHostAllocatorWhoseFailureRunsNone) {
  constexpr int kMany = 20;
  Ids made;
  for (int i = 0; i < kMany; ++i)
    made.push_back(NewBehavior("M", {.handler = a_, .scope = i == 0}));
  const QVA_HVID msg = NewMessage("M", b_);
  ReleaseTemps();
  const qvahost::Accounting before = qvahost::accounting();
  int failures = 0;
  for (int n = 1;; ++n) {
    g_log.clear();
    qvahost::fail_allocation_after(n);
    bool failed = false;
    try {
      Send(msg);
    } catch (const qvahost::HostError &e) {
      failed = true;
      EXPECT_NE(e.text.find("Unable to allocate memory"), std::string::npos) << e.report();
    }
    qvahost::fail_allocation_after(0);
    if (!failed) break;
    ++failures;
    EXPECT_TRUE(g_log.empty()) << "failed at allocation " << n;
    ReleaseTemps();  // the message's reference the call was given
    EXPECT_EQ(qvahost::accounting(), before);
  }
  EXPECT_GE(failures, 1) << "the copy of a long list is an allocation";
  EXPECT_EQ(Selves(), made);
  QVA_HVID added = 0;
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self != made.front() || added) return;
    added = NewBehavior("M", {.handler = a_});
    Proc(made[kMany / 2], "UNREGISTER");
  };
  g_log.clear();
  Send(msg);
  EXPECT_EQ(Selves(), made) << "a newcomer waits; one unregistered still runs this time";
  g_log.clear();
  Send(msg);
  made.erase(made.begin() + kMany / 2);
  made.push_back(added);
  EXPECT_EQ(Selves(), made);
}

TEST_F(NetworkTest, AnErrorOrADestroyedBehaviourEndsTheDispatchReleasingTheCopy) {
  const QVA_HVID first = NewBehavior("M", {.handler = a_, .scope = true});
  const QVA_HVID victim = NewBehavior("M", {.handler = a_});
  const QVA_HVID last = NewBehavior("M", {.handler = a_});
  auto send = [&] {
    auto e = ExpectHostError([&] {
      SendText(a_, "M", Own(qvahost::make_string_array({"shared", "value"})));
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
  qvahost::Accounting after = qvahost::accounting();
  EXPECT_EQ(after.objects, before.objects - 1);
  EXPECT_TRUE(after.temporaries == before.temporaries && after.allocations == before.allocations);
  g_hook = nullptr;  // the victim unregistered in its CLEANUP: the rest runs
  SendText(a_, "M");
  EXPECT_EQ(Selves(), (Ids{first, first, first, last}));
}

TEST_F(NetworkTest, BehavioursDestroyingThemselvesTheMessageOrScopingElsewhere) {
  // Destroying itself at the top takes the top-level handler with it.
  const QVA_HVID lone = NewBehavior("Lone"), top = TopLevel(), lone_msg = NewMessage("Lone");
  g_hook = [&](QVA_HVID self, QVA_VPTR) { Destroy(self); };
  Send(lone_msg);
  EXPECT_FALSE(Alive(lone));
  EXPECT_FALSE(Alive(top)) << "its last scope went";
  EXPECT_EQ(TopLevel(), 0u);
  Send(lone_msg);
  EXPECT_EQ(Selves(), Ids{lone});
  // Destroying the message lets the dispatch finish; scoping below moves Y
  // for the next dispatch only.
  const QVA_HVID msg = NewMessage("M", a_);
  const QVA_HVID x = NewBehavior("M", {.handler = a_, .scope = true});
  const QVA_HVID y = NewBehavior("M", {.handler = b_});
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self == x && Alive(msg)) Destroy(msg);
    if (self == x && !IsScoped(b_, "M")) Scope(b_, "M");
  };
  Send(msg);
  EXPECT_FALSE(Alive(msg));
  EXPECT_EQ(Behaviors(b_, "M"), Ids{y});
  SendText(b_, "M");
  EXPECT_EQ(Selves(), (Ids{lone, x, y, y})) << "B claims it now";
}

TEST_F(NetworkTest, ALinkThatWouldCloseACycleIsRefusedAndLeftAsItWas) {
  const QVA_HVID c = NewHandler(b_), outside = NewHandler();
  SetHandler(a_, outside);
  const QVA_HVID top = HandlerOf(outside);
  const std::pair<QVA_HVID, QVA_HVID> cycles[] = {{a_, a_}, {a_, b_},  {a_, c},   {b_, c},
                                                  {c, c},   {top, a_}, {top, top}};
  for (auto [obj, target] : cycles) {
    SCOPED_TRACE(testing::Message() << obj << " -> " << target);
    const QVA_HVID before = FieldRef<QVA_HVID>(obj, "MYHANDLER");
    qvahost::HostError e = ExpectHostError([&] { SetHandler(obj, target); });
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_TRUE(obj == top || e.text.find("cycle") != std::string::npos) << e.text;
    EXPECT_EQ(FieldRef<QVA_HVID>(obj, "MYHANDLER"), before);
  }
  EXPECT_EQ(HandlerOf(top), 0u);
  SetHandler(c, a_);  // above: allowed, and the chain still climbs
  Scope(outside, "M");
  EXPECT_EQ(Behaviors(outside, "M"), Ids{NewBehavior("M", {.handler = c})});
}

// Behaviours of more classes than a locator remembers, in one list, with
// EXECUTE overridden in one subclass and then replaced between dispatches:
// every dispatch runs, for each behaviour, the EXECUTE its class has then.
TEST_F(NetworkTest, EachBehaviourRunsTheExecuteItsClassHasAtTheTime) {
  constexpr int kClasses = 10;
  Ids made;
  for (int i = 0; i < kClasses; ++i) {
    const std::string cls = "DISPATCHTEST_KIND" + std::to_string(i);
    qvatest::DefineStructOnce(cls, "FWTEST_RECORDER", {});
    made.push_back(NewBehavior("K", {.handler = a_, .scope = i == 0, .cls = cls}));
  }
  auto dispatch = [&] {
    g_log.clear();
    SendText(b_, "K");
    EXPECT_EQ(Selves(), made);
    Texts routines;
    for (const Exec &e : g_log) routines.push_back(e.routine);
    return routines;
  };
  auto override_execute = [](const std::string &label) {
    qvahost::define_routine("DISPATCHTEST_KIND3::EXECUTE", false, 1, 2, false,
                            [=](int n, QVA_VPTR v[], auto) {
                              return Record(label, v[0]->value.hvid, n - 1, n > 1 ? v[1] : nullptr);
                            });
  };
  Texts expected(kClasses, "FWTEST_RECORDER::EXECUTE");
  EXPECT_EQ(dispatch(), expected);
  EXPECT_EQ(dispatch(), expected) << "the same again, now remembered";
  override_execute("overridden");
  expected[3] = "overridden";
  EXPECT_EQ(dispatch(), expected);
  override_execute("recompiled");
  expected[3] = "recompiled";
  EXPECT_EQ(dispatch(), expected);
  // A foreign object still fails where a behaviour's class part is taken.
  const QVA_HVID foreign = New("QVAFWMESSAGEHANDLER");
  EXPECT_EQ(ExpectHostError([&] { Behavior_from_hvid(foreign); }).code, QVA_M_NOT_OF_CLASS);
}

}  // namespace
}  // namespace fwtest
