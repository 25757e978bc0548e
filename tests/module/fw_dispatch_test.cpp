// Message dispatch through QVAfwMessage::SEND and
// QVAfwMessageHandler::SENDMESSAGE: which list runs, in which order, what
// the behaviours receive as the argument, and what happens when the
// behaviours change the network while they are being run.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <map>

#include "fw_recorder.h"
#include "internal.h"

namespace {

using fwtest::Args;
using fwtest::BehaviorOptions;
using fwtest::Recorder;
using qvatest::ExpectHostError;

class DispatchTest : public fwtest::FwTest {};

// ------------------------------------------------------ which list runs

TEST_F(DispatchTest, TheNearestScopeUpTheChainClaimsTheMessage) {
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  fwtest::Scope(a, "M");
  const QVA_HVID at_a = fwtest::NewBehavior("M", {.handler = a});
  const QVA_HVID at_top = fwtest::NewBehavior("M");  // unscoped below: lands at the top
  const QVA_HVID other = fwtest::NewBehavior("N", {.handler = b});
  ASSERT_NE(fwtest::TopLevel(), 0u);
  EXPECT_EQ(fwtest::Behaviors(a, "M"), std::vector<QVA_HVID>{at_a});
  EXPECT_EQ(fwtest::Behaviors(fwtest::TopLevel(), "M"), std::vector<QVA_HVID>{at_top});
  EXPECT_EQ(fwtest::Behaviors(fwtest::TopLevel(), "N"), std::vector<QVA_HVID>{other});

  const QVA_HVID from_b = fwtest::NewMessage("M", b);
  const QVA_HVID from_top = fwtest::NewMessage("M");
  fwtest::Send(from_b);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{at_a}) << "claimed at A, never reaches T";
  Recorder::log().clear();
  fwtest::Send(from_top);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{at_top});
  Recorder::log().clear();

  // The same through SENDMESSAGE at the handlers.
  fwtest::SendText(b, "M");
  fwtest::SendText(b, "N");
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{at_a, other}));
  for (const fwtest::Exec &e : Recorder::log())
    EXPECT_EQ(e.arg, nullptr) << "sent without argument";
}

TEST_F(DispatchTest, AnEmptyListStopsTheMessage) {
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  const QVA_HVID at_top = fwtest::NewBehavior("M");
  fwtest::Scope(a, "M");
  EXPECT_EQ(fwtest::Behaviors(a, "M"), std::vector<QVA_HVID>{}) << "nothing of A's chain is listed";
  const QVA_HVID msg = fwtest::NewMessage("M", b);
  fwtest::Send(msg);
  EXPECT_TRUE(Recorder::log().empty()) << "A's empty list stops it";

  fwtest::Unscope(a, "M");
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{at_top});
}

TEST_F(DispatchTest, AnUnclaimedMessageIsDroppedSilently) {
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  const QVA_HVID elsewhere = fwtest::NewBehavior("Other");
  const QVA_HVID msg = fwtest::NewMessage("Nobody Listens", b);
  qvatest::OutputCapture out;
  fwtest::Send(msg);
  {
    Args args;
    fwtest::SendText(a, "Nobody Listens", args.Own(qvahost::make_long(3)));
  }
  EXPECT_TRUE(Recorder::log().empty());
  EXPECT_TRUE(out.lines().empty()) << out.all();
  EXPECT_TRUE(fwtest::IsRegistered(elsewhere));
}

TEST_F(DispatchTest, BehavioursRunInAscendingIdentifierOrderWhateverTheRegistrationOrder) {
  const QVA_HVID h = fwtest::NewHandler();
  fwtest::Scope(h, "M");
  std::vector<QVA_HVID> made;
  for (int i = 0; i < 6; ++i)
    made.push_back(fwtest::NewBehavior("M", {.handler = h, .register_it = false}));
  for (size_t i : {3u, 5u, 0u, 4u, 1u, 2u}) fwtest::Proc(made[i], "REGISTER");
  EXPECT_EQ(fwtest::Behaviors(h, "M"), made);
  fwtest::SendText(h, "M");
  EXPECT_EQ(Recorder::selves(), made);

  // Re-registering one moves nothing.
  fwtest::Proc(made[2], "UNREGISTER");
  fwtest::Proc(made[2], "REGISTER");
  Recorder::log().clear();
  fwtest::SendText(h, "M");
  EXPECT_EQ(Recorder::selves(), made);
}

TEST_F(DispatchTest, AllThreeKindsOfDesignatorReachTheSameList) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID x = fwtest::NewBehavior("Ping", {.handler = h, .scope = true});
  const QVA_HVID msg = fwtest::NewMessage("Ping");
  const QVA_HVID ident = fwtest::GetIdent("Ping");
  Args a;
  fwtest::Proc(h, "SENDMESSAGE", {a.Str("Ping")});
  fwtest::Proc(h, "SENDMESSAGE", {a.Own(qvahost::make_ptr(ident))});
  fwtest::Proc(h, "SENDMESSAGE", {a.Ref(msg)});
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{x, x, x}));
  fwtest::IdentRoutine("FWIDENT_RELEASE", ident);
}

TEST_F(DispatchTest, TheBaseClassExecuteDoesNothing) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID plain =
      fwtest::NewBehavior("M", {.handler = h, .scope = true, .cls = fwtest::kBehavior});
  const QVA_HVID rec = fwtest::NewBehavior("M", {.handler = h});
  EXPECT_EQ(fwtest::Behaviors(h, "M"), (std::vector<QVA_HVID>{plain, rec}));
  Args a;
  fwtest::SendText(h, "M", a.Own(qvahost::make_long(1)));
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{rec});
}

// ------------------------------------------------------------ argument

TEST_F(DispatchTest, OneBehaviourReceivesTheCallersTemporaryItself) {
  const QVA_HVID x = fwtest::NewBehavior("M");
  const QVA_HVID msg = fwtest::NewMessage("M");
  QVA_VPTR tmp = qvahost::make_long(41);
  // It may change the caller's value in place.
  Recorder::hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };
  fwtest::Send(msg, tmp);
  ASSERT_EQ(Recorder::log().size(), 1u);
  const fwtest::Exec &e = Recorder::log()[0];
  EXPECT_EQ(e.self, x);
  EXPECT_EQ(e.arg, tmp);
  EXPECT_TRUE(e.temporary);
  EXPECT_EQ(e.value, 41);
  EXPECT_EQ(tmp->type, QVA_TYP_LONG);
  EXPECT_EQ(tmp->value.l, 42);
  QVA_Deltmp(tmp);
}

TEST_F(DispatchTest, SeveralBehavioursShareOneCopyOfATemporaryAndTheCallersEndsUndefined) {
  const QVA_HVID h = fwtest::NewHandler();
  std::vector<QVA_HVID> xs;
  for (int i = 0; i < 3; ++i)
    xs.push_back(fwtest::NewBehavior("M", {.handler = h, .scope = i == 0}));
  const QVA_HVID msg = fwtest::NewMessage("M", h);
  QVA_VPTR tmp = qvahost::make_long(10);
  // Each one sees what the one before it left.
  Recorder::hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l += 1; };
  fwtest::Send(msg, tmp);
  ASSERT_EQ(Recorder::log().size(), 3u);
  const QVA_VPTR shared = Recorder::log()[0].arg;
  EXPECT_NE(shared, tmp);
  for (size_t i = 0; i < 3; ++i) {
    const fwtest::Exec &e = Recorder::log()[i];
    EXPECT_EQ(e.self, xs[i]);
    EXPECT_EQ(e.arg, shared) << "one shared variable";
    EXPECT_FALSE(e.temporary) << "the shared copy is no temporary";
    EXPECT_EQ(e.type, QVA_TYP_LONG);
    EXPECT_EQ(e.value, 10 + static_cast<QVA_LONG64>(i));
  }
  EXPECT_EQ(tmp->type, QVA_TYP_UNDEF);
  EXPECT_TRUE(tmp->flags & QVA_V_TEMP) << "still the caller's temporary to release";
  QVA_Deltmp(tmp);
}

TEST_F(DispatchTest, ASharedArrayOrStringIsFreedOnceWithTheDispatch) {
  const QVA_HVID h = fwtest::NewHandler();
  fwtest::NewBehavior("M", {.handler = h, .scope = true});
  fwtest::NewBehavior("M", {.handler = h});
  for (QVA_VPTR tmp : {qvahost::make_string_array({"a", "bb", "ccc"}), qvahost::make_string("text"),
                       qvahost::make_long_array({1, 2, 3, 4})}) {
    const int type = tmp->type;
    Recorder::log().clear();
    fwtest::SendText(h, "M", tmp);
    ASSERT_EQ(Recorder::log().size(), 2u);
    EXPECT_EQ(Recorder::log()[0].type, type);
    EXPECT_EQ(Recorder::log()[1].arg, Recorder::log()[0].arg);
    EXPECT_EQ(tmp->type, QVA_TYP_UNDEF);
    QVA_Deltmp(tmp);
  }
}

TEST_F(DispatchTest, AVariableThatIsNoTemporaryIsGivenToEveryBehaviourAsItIs) {
  const QVA_HVID h = fwtest::NewHandler();
  fwtest::NewBehavior("M", {.handler = h, .scope = true});
  fwtest::NewBehavior("M", {.handler = h});
  qvahost::Variable var("V");
  var.take(qvahost::make_long(5));
  Recorder::hook() = [](QVA_HVID, QVA_VPTR arg) { arg->value.l *= 2; };
  fwtest::SendText(h, "M", var.get());
  ASSERT_EQ(Recorder::log().size(), 2u);
  for (const fwtest::Exec &e : Recorder::log()) {
    EXPECT_EQ(e.arg, var.get());
    EXPECT_FALSE(e.temporary);
  }
  EXPECT_EQ(Recorder::log()[1].value, 10);
  EXPECT_EQ(var->type, QVA_TYP_LONG);
  EXPECT_EQ(var->value.l, 20);
}

TEST_F(DispatchTest, ATemporaryStaysTheCallersWhenNoneOrOneBehaviourRuns) {
  const QVA_HVID h = fwtest::NewHandler();
  fwtest::Scope(h, "Empty");
  QVA_VPTR tmp = qvahost::make_long(7);
  fwtest::SendText(h, "Empty", tmp);
  fwtest::SendText(h, "Unclaimed", tmp);
  EXPECT_EQ(tmp->type, QVA_TYP_LONG);
  EXPECT_EQ(tmp->value.l, 7);
  QVA_Deltmp(tmp);
  EXPECT_TRUE(Recorder::log().empty());
}

// ------------------------------------------- changes during the dispatch

TEST_F(DispatchTest, TheListIsSnapshotBeforeTheBehavioursRun) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID first = fwtest::NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID second = fwtest::NewBehavior("M", {.handler = h});
  QVA_HVID added = 0;
  // The first run registers a newcomer and unregisters the second.
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self != first || added) return;
    added = fwtest::NewBehavior("M", {.handler = h});
    fwtest::Proc(second, "UNREGISTER");
  };
  fwtest::SendText(h, "M");
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{first, second}))
      << "the second still runs and the newcomer waits for the next message";
  Recorder::log().clear();
  fwtest::SendText(h, "M");
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{first, added}));
}

TEST_F(DispatchTest, ABehaviourDestroyedByAnEarlierOneEndsTheDispatchWithoutLeaks) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID killer = fwtest::NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID victim = fwtest::NewBehavior("M", {.handler = h});
  const QVA_HVID last = fwtest::NewBehavior("M", {.handler = h});
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == killer) fwtest::Destroy(victim);
  };
  const int64_t objects_before = Objects();
  const qvahost::Accounting before = qvahost::accounting();
  QVA_VPTR tmp = qvahost::make_string_array({"shared", "value"});
  qvahost::HostError e = ExpectHostError([&] { fwtest::SendText(h, "M", tmp); });
  EXPECT_EQ(e.code, qvahost::M_INVALID_OBJ);
  EXPECT_NE(e.text.find(std::to_string(victim)), std::string::npos) << e.text;
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{killer}) << "nothing after the dead one";
  QVA_Deltmp(tmp);
  EXPECT_EQ(Objects(), objects_before - 1);
  qvahost::Accounting after = qvahost::accounting();
  EXPECT_EQ(after.temporaries, before.temporaries);
  EXPECT_EQ(after.allocations, before.allocations) << "the snapshot went with the error";
  // The victim unregistered in its CLEANUP: the next dispatch runs the rest.
  Recorder::hook() = nullptr;
  Recorder::log().clear();
  fwtest::SendText(h, "M");
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{killer, last}));
}

TEST_F(DispatchTest, AnErrorInsideABehaviourReleasesTheSharedCopy) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID failing = fwtest::NewBehavior("M", {.handler = h, .scope = true});
  fwtest::NewBehavior("M", {.handler = h});
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == failing) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "behaviour fails");
  };
  const qvahost::Accounting before = qvahost::accounting();
  QVA_VPTR tmp = qvahost::make_string("a text the copy owns");
  EXPECT_EQ(ExpectHostError([&] { fwtest::SendText(h, "M", tmp); }).text, "behaviour fails");
  EXPECT_EQ(Recorder::log().size(), 1u);
  QVA_Deltmp(tmp);
  EXPECT_EQ(qvahost::accounting(), before);
}

TEST_F(DispatchTest, ABehaviourThatDestroysItselfAtTheTopTakesTheTopLevelHandlerWithIt) {
  const QVA_HVID self_destroying = fwtest::NewBehavior("M");
  const QVA_HVID msg = fwtest::NewMessage("M");
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_NE(top, 0u);
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) { fwtest::Destroy(self); };
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{self_destroying});
  EXPECT_FALSE(fwtest::Alive(self_destroying));
  EXPECT_FALSE(fwtest::Alive(top)) << "its last scope went";
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  Recorder::log().clear();
  fwtest::Send(msg);
  EXPECT_TRUE(Recorder::log().empty());
}

TEST_F(DispatchTest, ABehaviourThatDestroysTheMessageLetsTheDispatchFinish) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID msg = fwtest::NewMessage("M", h);
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = h, .scope = true});
  const QVA_HVID y = fwtest::NewBehavior("M", {.handler = h});
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == x) fwtest::Destroy(msg);
  };
  fwtest::Send(msg);
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{x, y}));
  EXPECT_FALSE(fwtest::Alive(msg));
}

TEST_F(DispatchTest, ScopingDuringADispatchMovesTheOthersForTheNextOne) {
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  const QVA_HVID scoper = fwtest::NewBehavior("M", {.handler = a, .scope = true});
  const QVA_HVID below = fwtest::NewBehavior("M", {.handler = b});
  ASSERT_EQ(fwtest::Behaviors(a, "M"), (std::vector<QVA_HVID>{scoper, below}));
  Recorder::hook() = [&](QVA_HVID self, QVA_VPTR) {
    if (self == scoper && !fwtest::IsScoped(b, "M")) fwtest::Scope(b, "M");
  };
  fwtest::SendText(a, "M");
  EXPECT_EQ(Recorder::selves(), (std::vector<QVA_HVID>{scoper, below}));
  EXPECT_EQ(fwtest::Behaviors(a, "M"), std::vector<QVA_HVID>{scoper});
  EXPECT_EQ(fwtest::Behaviors(b, "M"), std::vector<QVA_HVID>{below});
  Recorder::log().clear();
  fwtest::SendText(b, "M");
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{below}) << "B claims it now";
}

TEST_F(DispatchTest, DestroyingEverythingLeavesNoObjectAndNoTopLevelHandler) {
  const int64_t start = Objects();
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = b});
  const QVA_HVID y = fwtest::NewBehavior("N");
  const QVA_HVID m = fwtest::NewMessage("M", b);
  fwtest::Send(m);
  EXPECT_EQ(Recorder::selves(), std::vector<QVA_HVID>{x});
  for (QVA_HVID id : {m, x, y, b, a}) fwtest::Destroy(id);
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  EXPECT_EQ(Objects(), start);
  // Nobody holds the texts any more.
  fwtest::CollectIdents();
  EXPECT_EQ(qvahost::heap_ids(), std::vector<QVA_HVID>{});
}

}  // namespace
