// Registration and scoping: where a behaviour lands, how SCOPEMESSAGE and
// UNSCOPEMESSAGE move registered behaviours, the top-level handler that exists
// only while it scopes something, and the identifier references handlers hold.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "fw_support.h"

namespace fwtest {
namespace {

class ScopingTest : public FwTest {
 protected:
  // B below A below the top-level handler.
  void SetUp() override {
    FwTest::SetUp();
    a_ = NewHandler();
    b_ = NewHandler(a_);
  }
  QVA_HVID a_ = 0, b_ = 0;
};

TEST_F(ScopingTest, ScopingAtAMiddleHandlerPullsTheBehaviourDownAndRetiresTheTop) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_});
  const QVA_HVID top = TopLevel();
  ASSERT_NE(top, 0u) << "made for the registration";
  EXPECT_TRUE(IsScoped(top, "M")) << "scoped there automatically";
  EXPECT_EQ(Behaviors(top, "M"), Ids{x});
  const QVA_HVID m = IdentOf("M");
  EXPECT_TRUE(SurvivesRelease(m, 1)) << "held by X and by the top's scope";

  Scope(a_, "M");
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  EXPECT_FALSE(Alive(top)) << "its only list emptied, so it went";
  EXPECT_EQ(TopLevel(), 0u);
  EXPECT_TRUE(IsRegistered(x));
  EXPECT_TRUE(SurvivesRelease(m, 1)) << "the top unscoped, A scoped";

  Unscope(a_, "M");
  EXPECT_FALSE(IsScoped(a_, "M"));
  const QVA_HVID new_top = TopLevel();
  ASSERT_NE(new_top, 0u);
  EXPECT_NE(new_top, top);
  EXPECT_EQ(Behaviors(new_top, "M"), Ids{x});
  EXPECT_EQ(HandlerOf(a_), new_top) << "the chain climbs to the new one";
  EXPECT_TRUE(SurvivesRelease(m, 1));
  Send(NewMessage("M", b_));
  EXPECT_EQ(Selves(), Ids{x});

  Scope(b_, "M");
  Scope(a_, "M");
  EXPECT_TRUE(SurvivesRelease(m, 2)) << "X, B and A: three holders (no more: the leak check)";
}

TEST_F(ScopingTest, ScopingMovesOnlyTheBehavioursWhoseChainPassesThroughTheNewScope) {
  const QVA_HVID c = NewHandler(), a = NewHandler(c), s = NewHandler(c);
  const QVA_HVID below_a = NewHandler(a);
  Scope(c, "M");
  const QVA_HVID x = NewBehavior("M", {.handler = below_a});
  const QVA_HVID y = NewBehavior("M", {.handler = s});
  const QVA_HVID added = NewBehavior("M", {.handler = below_a, .register_it = false});
  Proc(c, "ADDBEHAVIOR", {Ref(added)});
  ASSERT_EQ(Behaviors(c, "M"), (Ids{x, y, added}));
  Scope(a, "M");
  EXPECT_EQ(Behaviors(a, "M"), Ids{x});
  EXPECT_EQ(Behaviors(c, "M"), (Ids{y, added}))
      << "Y's chain does not pass A, and what is not registered is not moved";
  Unscope(a, "M");
  EXPECT_EQ(Behaviors(c, "M"), (Ids{x, y, added}));
  EXPECT_FALSE(IsScoped(a, "M"));
}

// Scoping below the top-level handler once deleted and remade it while it
// still held behaviours.
TEST_F(ScopingTest, ScopingBelowTheTopKeepsTheTopLevelHandlerForWhatStaysThere) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_});
  const QVA_HVID y = NewBehavior("M");
  const QVA_HVID top = TopLevel();
  ASSERT_EQ(Behaviors(top, "M"), (Ids{x, y}));
  // A message linked to the top-level handler by name, as HANDLER gave it.
  const QVA_HVID msg = NewMessage("M");
  SetHandler(msg, HandlerOf(msg));
  Scope(a_, "M");
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  EXPECT_TRUE(Alive(top)) << "it still scopes M for Y";
  EXPECT_EQ(TopLevel(), top);
  EXPECT_EQ(Behaviors(top, "M"), Ids{y});
  Send(msg);
  EXPECT_EQ(Selves(), Ids{y});
}

TEST_F(ScopingTest, IsScopedAndScopedMessagesLookAtThisHandlerOnly) {
  const QVA_HVID x = NewBehavior("M", {.handler = b_, .scope = true});
  Scope(b_, "M");
  EXPECT_EQ(Behaviors(b_, "M"), Ids{x}) << "scoping again keeps the list";
  Unscope(a_, "M");
  Unscope(a_, "Never Scoped");
  EXPECT_EQ(Behaviors(b_, "M"), Ids{x});
  EXPECT_EQ(ScopedMessages(a_), Texts{});
  Scope(a_, "N");
  EXPECT_TRUE(IsScoped(a_, "N"));
  EXPECT_FALSE(IsScoped(b_, "N")) << "scoped above is not scoped here";
  EXPECT_FALSE(IsScoped(a_, "n")) << "texts compare exactly";
  EXPECT_FALSE(IsScoped(a_, "M")) << "nor is scoped below";
  NewMessage("By Message", a_, true);
  EXPECT_TRUE(IsScoped(a_, "By Message")) << "SCOPE on a message scopes it at its handler";

  for (const char *text : {"pear", "Apple", "apple", "", "b a", "10", "9"}) Scope(a_, text);
  EXPECT_EQ(ScopedMessages(a_),
            (Texts{"", "10", "9", "Apple", "By Message", "N", "apple", "b a", "pear"}));
  Unscope(a_, "apple");
  Unscope(a_, "");
  EXPECT_EQ(ScopedMessages(a_), (Texts{"10", "9", "Apple", "By Message", "N", "b a", "pear"}));
}

TEST_F(ScopingTest, RegistrationLandsAtTheNearestScopeAndRemovalSearchesUpward) {
  Scope(a_, "M");
  const QVA_HVID x = NewBehavior("M", {.handler = b_, .register_it = false});
  EXPECT_FALSE(IsRegistered(x));
  Proc(x, "REGISTER");
  Proc(x, "REGISTER");  // once only
  EXPECT_TRUE(IsRegistered(x));
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  Proc(x, "UNREGISTER");
  Proc(x, "UNREGISTER");  // harmless
  EXPECT_FALSE(IsRegistered(x));
  EXPECT_EQ(Behaviors(a_, "M"), Ids{});
  EXPECT_TRUE(IsScoped(a_, "M")) << "only the top-level handler unscopes when emptied";

  // ADDBEHAVIOR and REMOVEBEHAVIOR walk the chain and leave the mark alone.
  const QVA_HVID y = NewBehavior("M", {.register_it = false});
  Proc(b_, "ADDBEHAVIOR", {Ref(y)});
  EXPECT_EQ(Behaviors(a_, "M"), Ids{y});
  EXPECT_FALSE(IsRegistered(y));
  SendText(b_, "M");
  EXPECT_EQ(Selves(), Ids{y});
  Proc(b_, "REMOVEBEHAVIOR", {Ref(y)});
  Proc(b_, "REMOVEBEHAVIOR", {Ref(x)});  // not listed: nothing changes
  EXPECT_EQ(Behaviors(a_, "M"), Ids{});

  // Unscoped anywhere: the top-level handler claims it and goes with the last.
  const QVA_HVID z = NewBehavior("Fresh", {.register_it = false});
  const QVA_HVID w = NewBehavior("Other");
  Proc(b_, "ADDBEHAVIOR", {Ref(z)});
  const QVA_HVID top = TopLevel();
  EXPECT_EQ(Behaviors(top, "Fresh"), Ids{z});
  Proc(b_, "REMOVEBEHAVIOR", {Ref(z)});
  EXPECT_EQ(ScopedMessages(top), Texts{"Other"}) << "kept while it scopes something else";
  Proc(w, "UNREGISTER");
  EXPECT_FALSE(Alive(top));
  EXPECT_EQ(TopLevel(), 0u);
}

TEST_F(ScopingTest, ChangingTheStringOfARegisteredBehaviourMovesItsRegistration) {
  Scope(a_, "New");
  const QVA_HVID x = NewBehavior("Old", {.handler = b_});
  const QVA_HVID top = TopLevel();
  ASSERT_EQ(Behaviors(top, "Old"), Ids{x});
  Proc(x, "SETMESSAGESTRING", {Str("New")});
  EXPECT_EQ(MessageString(x), "New");
  EXPECT_TRUE(IsRegistered(x));
  EXPECT_EQ(Behaviors(a_, "New"), Ids{x});
  EXPECT_FALSE(Alive(top)) << "Old was its only scope";
  SendText(b_, "Old");
  SendText(b_, "New");
  EXPECT_EQ(Selves(), Ids{x});
  // Unregistered, it only takes the new string.
  const QVA_HVID y = NewBehavior("Old", {.handler = b_, .register_it = false});
  Proc(y, "SETMESSAGESTRING", {Str("New")});
  EXPECT_FALSE(IsRegistered(y));
  EXPECT_EQ(Behaviors(a_, "New"), Ids{x});
}

TEST_F(ScopingTest, CleanupUnregistersABehaviourAndAHandlerMarksItsBehavioursUnregistered) {
  Scope(a_, "M");
  const QVA_HVID gone = NewBehavior("M", {.handler = b_});
  const QVA_HVID x = NewBehavior("M", {.handler = a_});
  const QVA_HVID y = NewBehavior("N", {.handler = a_, .scope = true});
  const QVA_HVID elsewhere = NewBehavior("M", {.handler = b_, .scope = true});
  Destroy(gone);
  EXPECT_EQ(Behaviors(a_, "M"), Ids{x});
  Destroy(a_);
  EXPECT_FALSE(IsRegistered(x));
  EXPECT_FALSE(IsRegistered(y));
  EXPECT_TRUE(IsRegistered(elsewhere));
  // Their handler is gone: destroying them must not look for it (and the
  // fixture's end checks that the handler gave back its identifiers).
  Destroy(x);
  Destroy(y);
}

TEST_F(ScopingTest, StringDesignatorsLeaveNoReferenceBehind) {
  const QVA_HVID x = NewBehavior("Held", {.handler = a_, .scope = true});
  const QVA_HVID held = IdentOf("Held");
  Proc(a_, "SENDMESSAGE", {Str("Transient")});
  EXPECT_FALSE(IsScoped(a_, "Transient Too"));
  EXPECT_EQ(Behaviors(a_, "Transient Three"), Ids{});
  Unscope(a_, "Transient Four");
  SendText(a_, "Held");
  Scope(a_, "Held");
  EXPECT_TRUE(SurvivesRelease(held, 1)) << "X and A's scope";
  // Only our own GET/RELEASE pairs touched these since: a collection removes them.
  Ids interned;
  for (const char *t : {"Transient", "Transient Too", "Transient Three", "Transient Four"})
    interned.push_back(IdentOf(t));
  CollectIdents();
  for (QVA_HVID id : interned) EXPECT_FALSE(Alive(id));
  EXPECT_EQ(Selves(), Ids{x});
}

TEST_F(ScopingTest, AfterASessionResetANewTopLevelHandlerIsMadeOnNextNeed) {
  session_replaced_ = true;
  NewBehavior("M");
  ASSERT_NE(TopLevel(), 0u);
  ReleaseTemps();
  qvahost::reset_session();
  EXPECT_EQ(TopLevel(), 0u);
  EXPECT_EQ(qvahost::heap_ids(), Ids{});
  const QVA_HVID x = NewBehavior("M");
  const QVA_HVID top = TopLevel();
  ASSERT_NE(top, 0u);
  EXPECT_EQ(Behaviors(top, "M"), Ids{x});
  // Only the behaviour is reachable from the language's variables.
  QVA_VPTR keep = qvahost::main_variable("KEEP");
  keep->type = QVA_TYP_OBJREF;
  keep->value.hvid = x;
  qvahost::heap_gc();
  EXPECT_TRUE(Alive(top)) << "held against heap collection";
  Send(NewMessage("M"));
  EXPECT_EQ(Selves(), Ids{x});
}

}  // namespace
}  // namespace fwtest
