// Registration and scoping: where a behaviour lands, how SCOPEMESSAGE and
// UNSCOPEMESSAGE move registered behaviours, the top-level handler that
// exists only while it scopes something, and the identifier references the
// handlers hold.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "fw_recorder.h"

namespace {

using fwtest::Args;
using fwtest::Recorder;

class ScopingTest : public fwtest::FwTest {
 protected:
  // B below A below the top-level handler.
  void MakeChain() {
    a_ = fwtest::NewHandler();
    b_ = fwtest::NewHandler(a_);
  }
  QVA_HVID a_ = 0, b_ = 0;
};

TEST_F(ScopingTest, ScopingAtAMiddleHandlerPullsTheBehaviourDownAndRetiresTheTop) {
  MakeChain();
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_});
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_NE(top, 0u) << "made for the registration";
  EXPECT_EQ(fwtest::IsScoped(top, "M"), 1) << "scoped there automatically";
  EXPECT_EQ(fwtest::Behaviors(top, "M"), std::vector<QVA_HVID>{x});
  EXPECT_TRUE(fwtest::IsRegistered(x));

  fwtest::Scope(a_, "M");
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{x});
  EXPECT_FALSE(fwtest::Alive(top)) << "its only list emptied, so it went";
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  EXPECT_TRUE(fwtest::IsRegistered(x));

  fwtest::Unscope(a_, "M");
  EXPECT_EQ(fwtest::IsScoped(a_, "M"), 0);
  const QVA_HVID new_top = fwtest::TopLevel();
  ASSERT_NE(new_top, 0u);
  EXPECT_NE(new_top, top);
  EXPECT_EQ(fwtest::Behaviors(new_top, "M"), std::vector<QVA_HVID>{x});
  EXPECT_EQ(fwtest::HandlerOf(a_), new_top) << "the chain climbs to the new one";

  const QVA_HVID msg = fwtest::NewMessage("M", b_);
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{x});
}

TEST_F(ScopingTest, ScopingMovesOnlyTheBehavioursWhoseChainPassesThroughTheNewScope) {
  const QVA_HVID c = fwtest::NewHandler();
  const QVA_HVID a = fwtest::NewHandler(c);
  const QVA_HVID s = fwtest::NewHandler(c);
  const QVA_HVID below_a = fwtest::NewHandler(a);
  fwtest::Scope(c, "M");
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = below_a});
  const QVA_HVID y = fwtest::NewBehavior("M", {.handler = s});
  const QVA_HVID unregistered =
      fwtest::NewBehavior("M", {.handler = below_a, .register_it = false});
  fwtest::Proc(c, "ADDBEHAVIOR", {Args().Ref(unregistered)});
  ASSERT_EQ(fwtest::Behaviors(c, "M"), (std::vector<QVA_HVID>{x, y, unregistered}));

  fwtest::Scope(a, "M");
  EXPECT_EQ(fwtest::Behaviors(a, "M"), std::vector<QVA_HVID>{x});
  EXPECT_EQ(fwtest::Behaviors(c, "M"), (std::vector<QVA_HVID>{y, unregistered}))
      << "Y's chain does not pass A, and what is not registered is not moved";
  EXPECT_EQ(fwtest::IsScoped(c, "M"), 1);

  fwtest::Unscope(a, "M");
  EXPECT_EQ(fwtest::Behaviors(c, "M"), (std::vector<QVA_HVID>{x, y, unregistered}));
  EXPECT_EQ(fwtest::IsScoped(a, "M"), 0);
}

TEST_F(ScopingTest, ScopingBelowTheTopKeepsTheTopLevelHandlerForWhatStaysThere) {
  MakeChain();
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_});
  const QVA_HVID y = fwtest::NewBehavior("M");
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_EQ(fwtest::Behaviors(top, "M"), (std::vector<QVA_HVID>{x, y}));
  // A message linked to the top-level handler by name, as HANDLER gave it.
  const QVA_HVID msg = fwtest::NewMessage("M");
  fwtest::SetHandler(msg, fwtest::HandlerOf(msg));

  fwtest::Scope(a_, "M");
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{x});
  EXPECT_TRUE(fwtest::Alive(top)) << "it still scopes M for Y";
  EXPECT_EQ(fwtest::TopLevel(), top);
  EXPECT_EQ(fwtest::Behaviors(top, "M"), std::vector<QVA_HVID>{y});
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{y});
}

TEST_F(ScopingTest, ScopingAgainIsHarmlessAndUnscopingWhatIsNotScopedToo) {
  MakeChain();
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_, .scope = true});
  fwtest::Scope(b_, "M");
  EXPECT_EQ(fwtest::Behaviors(b_, "M"), std::vector<QVA_HVID>{x}) << "the list was kept";
  fwtest::Unscope(a_, "M");
  fwtest::Unscope(a_, "Never Scoped");
  EXPECT_EQ(fwtest::Behaviors(b_, "M"), std::vector<QVA_HVID>{x});
  EXPECT_EQ(fwtest::ScopedMessages(a_), std::vector<std::string>{});
}

TEST_F(ScopingTest, IsScopedLooksAtThisHandlerOnly) {
  MakeChain();
  fwtest::Scope(a_, "M");
  EXPECT_EQ(fwtest::IsScoped(a_, "M"), 1);
  EXPECT_EQ(fwtest::IsScoped(b_, "M"), 0) << "scoped above is not scoped here";
  EXPECT_EQ(fwtest::IsScoped(a_, "m"), 0) << "texts compare exactly";
  fwtest::Scope(b_, "N");
  EXPECT_EQ(fwtest::IsScoped(a_, "N"), 0) << "nor is scoped below";
}

TEST_F(ScopingTest, ScopedMessagesComeInStringOrder) {
  const QVA_HVID h = fwtest::NewHandler();
  EXPECT_EQ(fwtest::ScopedMessages(h), std::vector<std::string>{});
  for (const char *text : {"pear", "Apple", "apple", "", "b a", "10", "9"}) fwtest::Scope(h, text);
  EXPECT_EQ(fwtest::ScopedMessages(h),
            (std::vector<std::string>{"", "10", "9", "Apple", "apple", "b a", "pear"}));
  fwtest::Unscope(h, "apple");
  fwtest::Unscope(h, "");
  EXPECT_EQ(fwtest::ScopedMessages(h),
            (std::vector<std::string>{"10", "9", "Apple", "b a", "pear"}));
}

TEST_F(ScopingTest, RegistrationLandsAtTheNearestScopeAndRemovalSearchesUpward) {
  MakeChain();
  fwtest::Scope(a_, "M");
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_, .register_it = false});
  EXPECT_FALSE(fwtest::IsRegistered(x));
  fwtest::Proc(x, "REGISTER");
  EXPECT_TRUE(fwtest::IsRegistered(x));
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{x});
  fwtest::Proc(x, "REGISTER");  // once only
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{x});
  fwtest::Proc(x, "UNREGISTER");
  EXPECT_FALSE(fwtest::IsRegistered(x));
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{});
  EXPECT_EQ(fwtest::IsScoped(a_, "M"), 1) << "only the top-level handler unscopes when emptied";
  fwtest::Proc(x, "UNREGISTER");  // harmless
  EXPECT_FALSE(fwtest::IsRegistered(x));
}

TEST_F(ScopingTest, AddAndRemoveBehaviorWalkTheChainWithoutTouchingTheRegisteredMark) {
  MakeChain();
  fwtest::Scope(a_, "M");
  const QVA_HVID x = fwtest::NewBehavior("M", {.register_it = false});
  Args args;
  fwtest::Proc(b_, "ADDBEHAVIOR", {args.Ref(x)});
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{x});
  EXPECT_FALSE(fwtest::IsRegistered(x));
  fwtest::SendText(b_, "M");
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{x});

  fwtest::Proc(b_, "REMOVEBEHAVIOR", {args.Ref(x)});
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{});

  // Unscoped anywhere: the top-level handler claims it, and gives it up
  // with its last behaviour.
  const QVA_HVID y = fwtest::NewBehavior("Fresh", {.register_it = false});
  fwtest::Proc(b_, "ADDBEHAVIOR", {args.Ref(y)});
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_NE(top, 0u);
  EXPECT_EQ(fwtest::Behaviors(top, "Fresh"), std::vector<QVA_HVID>{y});
  EXPECT_FALSE(fwtest::IsRegistered(y));
  fwtest::Proc(b_, "REMOVEBEHAVIOR", {args.Ref(y)});
  EXPECT_FALSE(fwtest::Alive(top));
  EXPECT_EQ(fwtest::TopLevel(), 0u);

  // Removing what is not listed changes nothing.
  const QVA_HVID registered = fwtest::NewBehavior("M", {.handler = b_});
  fwtest::Proc(b_, "REMOVEBEHAVIOR", {args.Ref(x)});
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{registered});
}

TEST_F(ScopingTest, RemovalAtTheTopKeepsItWhileItScopesSomethingElse) {
  const QVA_HVID x = fwtest::NewBehavior("M");
  const QVA_HVID y = fwtest::NewBehavior("N");
  const QVA_HVID top = fwtest::TopLevel();
  fwtest::Proc(x, "UNREGISTER");
  EXPECT_EQ(fwtest::IsScoped(top, "M"), 0);
  EXPECT_EQ(fwtest::ScopedMessages(top), std::vector<std::string>{"N"});
  EXPECT_EQ(fwtest::TopLevel(), top);
  fwtest::Destroy(y);
  EXPECT_FALSE(fwtest::Alive(top));
}

TEST_F(ScopingTest, ChangingTheStringOfARegisteredBehaviourMovesItsRegistration) {
  MakeChain();
  fwtest::Scope(a_, "New");
  const QVA_HVID x = fwtest::NewBehavior("Old", {.handler = b_});
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_EQ(fwtest::Behaviors(top, "Old"), std::vector<QVA_HVID>{x});
  fwtest::SetMessageString(x, "New");
  EXPECT_EQ(fwtest::MessageString(x), "New");
  EXPECT_TRUE(fwtest::IsRegistered(x));
  EXPECT_EQ(fwtest::Behaviors(a_, "New"), std::vector<QVA_HVID>{x});
  EXPECT_FALSE(fwtest::Alive(top)) << "Old was its only scope";
  fwtest::SendText(b_, "Old");
  fwtest::SendText(b_, "New");
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{x});

  // Unregistered, it just takes the new string.
  const QVA_HVID y = fwtest::NewBehavior("Old", {.handler = b_, .register_it = false});
  fwtest::SetMessageString(y, "New");
  EXPECT_FALSE(fwtest::IsRegistered(y));
  EXPECT_EQ(fwtest::Behaviors(a_, "New"), std::vector<QVA_HVID>{x});
}

TEST_F(ScopingTest, CleanupOfARegisteredBehaviourUnregistersIt) {
  MakeChain();
  fwtest::Scope(a_, "M");
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_});
  const QVA_HVID y = fwtest::NewBehavior("M", {.handler = a_});
  fwtest::Destroy(x);
  EXPECT_EQ(fwtest::Behaviors(a_, "M"), std::vector<QVA_HVID>{y});
  fwtest::SendText(b_, "M");
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{y});
}

TEST_F(ScopingTest, CleanupOfAHandlerMarksItsBehavioursUnregistered) {
  MakeChain();
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = a_, .scope = true});
  const QVA_HVID y = fwtest::NewBehavior("N", {.handler = a_, .scope = true});
  const QVA_HVID elsewhere = fwtest::NewBehavior("M", {.handler = b_, .scope = true});
  fwtest::Destroy(a_);
  EXPECT_FALSE(fwtest::IsRegistered(x));
  EXPECT_FALSE(fwtest::IsRegistered(y));
  EXPECT_TRUE(fwtest::IsRegistered(elsewhere));
  // Their handler is gone: destroying them must not look for it.
  fwtest::Destroy(x);
  fwtest::Destroy(y);
  EXPECT_FALSE(fwtest::Alive(x));
  // The identifiers the handler held were given back.
  const QVA_HVID m = fwtest::IdentOf("M");
  const QVA_HVID n = fwtest::IdentOf("N");
  fwtest::Destroy(elsewhere);
  fwtest::Destroy(b_);
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(m));
  EXPECT_FALSE(fwtest::Alive(n));
}

TEST_F(ScopingTest, MessageAndBehaviourKeywordsTakeEffectInOrder) {
  MakeChain();
  // SCOPE on a message scopes its final string at its handler.
  const QVA_HVID msg = fwtest::NewMessage("Scoped By Message", b_, true);
  EXPECT_EQ(fwtest::IsScoped(b_, "Scoped By Message"), 1);
  EXPECT_EQ(fwtest::IsScoped(b_, "Generic Message"), 0);
  EXPECT_EQ(fwtest::MessageString(msg), "Scoped By Message");
  const QVA_HVID plain = fwtest::NewObject(fwtest::kMessage, {});
  EXPECT_EQ(fwtest::MessageString(plain), "Generic Message");
  const QVA_HVID beh = fwtest::NewObject(fwtest::kRecorder, {});
  EXPECT_EQ(fwtest::MessageString(beh), "Generic Message");
  EXPECT_FALSE(fwtest::IsRegistered(beh));
}

// -------------------------------------------------- identifier references

TEST_F(ScopingTest, HandlersHoldOneReferencePerScopeWhereverItMoves) {
  MakeChain();
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b_});
  const QVA_HVID m = fwtest::IdentOf("M");
  // Held by X and by the top-level handler's scope.
  EXPECT_TRUE(fwtest::SurvivesRelease(m, 1));
  fwtest::Scope(a_, "M");  // the top unscopes, A scopes
  EXPECT_TRUE(fwtest::SurvivesRelease(m, 1));
  fwtest::Unscope(a_, "M");  // A unscopes, a new top scopes
  EXPECT_TRUE(fwtest::SurvivesRelease(m, 1));
  fwtest::Scope(b_, "M");
  fwtest::Scope(a_, "M");
  EXPECT_TRUE(fwtest::SurvivesRelease(m, 2)) << "X, B and A: three holders";

  // Nothing more than that: with every holder gone it is collected.
  fwtest::Unscope(a_, "M");
  fwtest::Unscope(b_, "M");  // X moves to a new top...
  fwtest::Destroy(x);        // ...which goes with it
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(m));
}

TEST_F(ScopingTest, AStringDesignatorOfANewTextLeavesNoReference) {
  const QVA_HVID h = fwtest::NewHandler();
  Args args;
  fwtest::Proc(h, "SENDMESSAGE", {args.Str("Transient")});
  EXPECT_EQ(fwtest::IsScoped(h, "Transient Too"), 0);
  {
    QVA_VPTR r = args.Own(fwtest::Func(h, "BEHAVIORS", {args.Str("Transient Three")}));
    EXPECT_EQ(r->value.hvid, 0u);
  }
  fwtest::Unscope(h, "Transient Four");
  std::vector<QVA_HVID> interned;
  for (const char *t : {"Transient", "Transient Too", "Transient Three", "Transient Four"}) {
    QVA_VPTR p = args.Own(qvahost::call_function("GET_FWIDENT", {args.Str(t)}));
    interned.push_back(p->value.hvid);
    fwtest::IdentRoutine("FWIDENT_RELEASE", p->value.hvid);
  }
  // Only our own GET/RELEASE pairs touched them since: a collection removes them.
  fwtest::CollectIdents();
  for (QVA_HVID id : interned) EXPECT_FALSE(fwtest::Alive(id));
}

TEST_F(ScopingTest, AStringDesignatorOfAHeldTextKeepsTheCountAsItWas) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID x = fwtest::NewBehavior("Held", {.handler = h, .scope = true});
  const QVA_HVID id = fwtest::IdentOf("Held");
  fwtest::SendText(h, "Held");
  fwtest::Scope(h, "Held");
  EXPECT_EQ(fwtest::IsScoped(h, "Held"), 1);
  EXPECT_TRUE(fwtest::SurvivesRelease(id, 1)) << "X and H's scope";
  fwtest::Destroy(x);
  fwtest::Unscope(h, "Held");
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(id)) << "no reference was left behind by the designators";
}

// ------------------------------------------------------- session reset

TEST_F(ScopingTest, AfterASessionResetANewTopLevelHandlerIsMadeOnNextNeed) {
  fwtest::NewBehavior("M");
  const QVA_HVID old_top = fwtest::TopLevel();
  ASSERT_NE(old_top, 0u);
  qvahost::reset_session();
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  EXPECT_EQ(qvahost::heap_ids(), std::vector<QVA_HVID>{});

  const QVA_HVID x = fwtest::NewBehavior("M");
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_NE(top, 0u);
  EXPECT_TRUE(fwtest::Alive(top));
  EXPECT_EQ(fwtest::Behaviors(top, "M"), std::vector<QVA_HVID>{x});
  EXPECT_TRUE(QVA_HeapVarHashFind(top)->flags & QVA_HV_HELD);
  // Only the behaviour is reachable from the language's variables.
  QVA_VPTR keep = qvahost::main_variable("KEEP");
  keep->type = QVA_TYP_OBJREF;
  keep->value.hvid = x;
  qvahost::heap_gc();
  EXPECT_TRUE(fwtest::Alive(top)) << "held against heap collection";
  EXPECT_EQ(fwtest::Behaviors(top, "M"), std::vector<QVA_HVID>{x});
  const QVA_HVID msg = fwtest::NewMessage("M");
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{x});
}

}  // namespace
