// A network of handlers, messages and behaviours saved, the session reset,
// restored and brought back with QVAFWSAVEABLERESTOREARRAY: the restored
// messages reach the restored behaviours as before, identifier fields name
// this session's identifiers, each RESTORE runs once, old versions are raised.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <algorithm>
#include <cstdint>

#include "fw_support.h"

namespace fwtest {
namespace {

// Indices into the saved array NET.
enum : size_t { kA, kB, kX, kY, kZ, kQ, kM1, kM2, kCount };

class RestoreTest : public FwTest {
 protected:
  // A scopes M; B below A.  X (handler B) and Y (handler A) registered for M
  // land at A; Z registered for N lands at the top; Q is not registered; M1
  // sends M from B, M2 sends N from the top.  X and Y name each other as peers.
  static Ids Build() {
    Ids ids(kCount);
    ids[kA] = NewHandler();
    ids[kB] = NewHandler(ids[kA]);
    Scope(ids[kA], "M");
    ids[kX] = NewBehavior("M", {.handler = ids[kB]});
    ids[kY] = NewBehavior("M", {.handler = ids[kA]});
    ids[kZ] = NewBehavior("N");
    ids[kQ] = NewBehavior("M", {.handler = ids[kB], .register_it = false});
    ids[kM1] = NewMessage("M", ids[kB]);
    ids[kM2] = NewMessage("N");
    FieldRef<QVA_HVID>(ids[kX], "PEER") = ids[kY];
    FieldRef<QVA_HVID>(ids[kY], "PEER") = ids[kX];
    return ids;
  }
  // Keeps `ids` in the main-level variable NET, saves everything, resets and
  // restores: the restored ids in NET's order.
  Ids SaveResetRestore(const Ids &ids) {
    session_replaced_ = true;
    QVA_VarCopy(qvatest::ObjRefArray(ids), qvahost::main_variable("NET"));
    const std::vector<uint8_t> bytes = qvahost::save_all_to_bytes();
    ReleaseTemps();
    qvahost::reset_session();
    EXPECT_EQ(TopLevel(), 0u);
    qvahost::restore_from_bytes(bytes.data(), bytes.size());
    QVA_VPTR v = qvahost::find_main_variable("NET");
    auto *r = reinterpret_cast<QVA_HVID *>(v->value.arr->data);
    return Ids(r, r + v->value.arr->n_elts);
  }
  static void RestoreArray(const Ids &ids) {
    qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {qvatest::ObjRefArray(ids)});
  }
  static Ids Sent(QVA_HVID msg) {
    g_log.clear();
    Send(msg);
    return Selves();
  }
};

TEST_F(RestoreTest, ARestoredNetworkAnswersAsBeforeWithItsIdentifiersRolledOver) {
  const Ids before = Build();
  ASSERT_EQ(Sent(before[kM1]), (Ids{before[kX], before[kY]}));
  ASSERT_EQ(Sent(before[kM2]), Ids{before[kZ]});
  // Old version fields are raised to 1, newer ones kept.
  struct Version {
    size_t obj;
    const char *tag;
    QVA_LONG saved, restored;
  };
  const Version versions[] = {
      {kM1, "QVAFWSAVEABLE_VERSION", 0, 1},      {kM1, "HASAHANDLER_VERSION", 0, 1},
      {kM1, "QVAFWMESSAGE_VERSION", 0, 1},       {kM2, "QVAFWMESSAGE_VERSION", 2, 2},
      {kM2, "HASAHANDLER_VERSION", 2, 2},        {kX, "QVAFWBEHAVIOR_VERSION", 2, 2},
      {kX, "HASAHANDLER_VERSION", 0, 1},         {kQ, "QVAFWBEHAVIOR_VERSION", 0, 1},
      {kA, "QVAFWMESSAGEHANDLER_VERSION", 2, 2}, {kB, "QVAFWMESSAGEHANDLER_VERSION", 0, 1},
      {kB, "QVAFWSAVEABLE_VERSION", 2, 2},       {kY, "QVAFWSAVEABLE_VERSION", 1, 1}};
  for (const Version &v : versions) FieldRef<QVA_LONG>(before[v.obj], v.tag) = v.saved;
  const Ids r = SaveResetRestore(before);
  ASSERT_EQ(r.size(), static_cast<size_t>(kCount));
  const QVA_HVID stale_m = FieldRef<QVA_HVID>(r[kM1], "MESS_IDENT");
  ASSERT_NE(stale_m, 0u) << "before RESTORE the fields name the saved identifiers";
  RestoreArray(r);
  for (const Version &v : versions)
    EXPECT_EQ(FieldRef<QVA_LONG>(r[v.obj], v.tag), v.restored) << v.obj << " " << v.tag;
  const QVA_HVID m = IdentOf("M"), n = IdentOf("N");
  EXPECT_NE(m, stale_m);
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kM1], "MESS_IDENT"), m);
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kM2], "MESS_IDENT"), n);
  for (size_t i : {kX, kY, kQ}) EXPECT_EQ(FieldRef<QVA_HVID>(r[i], "MESSIDENT"), m) << i;
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kZ], "MESSIDENT"), n);
  CollectIdents();
  EXPECT_FALSE(Alive(stale_m)) << "nothing may still name it";

  EXPECT_EQ(Sent(r[kM1]), (Ids{r[kX], r[kY]}));
  EXPECT_EQ(Sent(r[kM2]), Ids{r[kZ]});
  EXPECT_EQ(Behaviors(r[kA], "M"), (Ids{r[kX], r[kY]}));
  EXPECT_EQ(ScopedMessages(r[kA]), Texts{"M"});
  for (size_t i : {kX, kY, kZ}) EXPECT_TRUE(IsRegistered(r[i])) << i;
  EXPECT_FALSE(IsRegistered(r[kQ]));
  ASSERT_NE(TopLevel(), 0u) << "Z registered at a new top-level handler";
  EXPECT_EQ(Behaviors(TopLevel(), "N"), Ids{r[kZ]});

  // References counted once per holder.  M: X, Y, Q, M1 and A's scope.  N: Z,
  // M2 and the top's scope.
  EXPECT_TRUE(SurvivesRelease(m, 4));
  EXPECT_TRUE(SurvivesRelease(n, 2));

  EXPECT_EQ(ScopedMessages(r[kB]), Texts{});
  // With every holder gone, nothing is left.
  for (QVA_HVID id : r) Destroy(id);
  EXPECT_EQ(TopLevel(), 0u);
  CollectIdents();
  EXPECT_FALSE(Alive(m));
  EXPECT_FALSE(Alive(n));
}

TEST_F(RestoreTest, EachRestoreRunsOnceWhateverTheArrayAndThePeers) {
  const Ids r = SaveResetRestore(Build());
  // X restores Y as its peer before Y's turn; X and Y appear twice.
  RestoreArray({r[kX], r[kA], r[kX], r[kB], r[kY], r[kZ], r[kQ], r[kM1], r[kM2], r[kY]});
  EXPECT_EQ(g_restored, (Ids{r[kX], r[kY], r[kZ], r[kQ]}));
  for (QVA_HVID id : r) EXPECT_EQ(FieldRef<double>(id, "QVAFWSAVEABLE_TOP"), 1.0) << id;
  EXPECT_EQ(Sent(r[kM1]), (Ids{r[kX], r[kY]}));

  // An element destroyed by an earlier element's RESTORE is skipped.
  const Ids again = SaveResetRestore(Build());
  g_restored.clear();
  g_hook = [&](QVA_HVID self, QVA_VPTR) {
    if (self == again[kZ]) Destroy(again[kQ]);
  };
  RestoreArray({again[kZ], again[kQ], again[kX], again[kM1]});
  EXPECT_EQ(g_restored, (Ids{again[kZ], again[kX], again[kY]}));
  EXPECT_FALSE(Alive(again[kQ]));
}

// Every RESTORE replaces each identifier field by the rollover, which takes
// a reference, also on an identifier that is already this session's.
TEST_F(RestoreTest, RestoringObjectsOfThisSessionAgainTakesAReferenceEachTime) {
  const Ids ids = Build();
  const QVA_HVID m = IdentOf("M"), n = IdentOf("N");
  ASSERT_TRUE(SurvivesRelease(m, 4)) << "A's scope, X, Y, Q and M1";
  ASSERT_TRUE(SurvivesRelease(n, 2)) << "the top's scope, Z and M2";
  RestoreArray(ids);
  Proc(ids[kM1], "RESTORE");
  Proc(ids[kX], "RESTORE");
  Proc(ids[kA], "RESTORE");
  EXPECT_EQ(Sent(ids[kM1]), (Ids{ids[kX], ids[kY]}));
  // One more for A's key, X, Y, Q and M1 in the array, and for M1, X and A
  // again; Z and M2 for N (Z's move to a new top-level handler gives one
  // scope reference back and takes one).
  EXPECT_TRUE(SurvivesRelease(m, 12));
  EXPECT_TRUE(SurvivesRelease(n, 4));
  // Given back here, the fixture's leak check finds no more holders than that.
  for (int i = 0; i < 8; ++i) IdentRoutine("FWIDENT_RELEASE", m);
  for (int i = 0; i < 2; ++i) IdentRoutine("FWIDENT_RELEASE", n);
}

// The restore renumbers heap variables; behaviour lists, kept in identifier
// order, once came back out of order, so that behaviours ran twice and could
// not leave.
TEST_F(RestoreTest, ARestoredListIsStillInIdentifierOrder) {
  const QVA_HVID a = NewHandler();
  Scope(a, "M");
  Ids made;
  for (int i = 0; i < 5; ++i) made.push_back(NewBehavior("M", {.handler = a}));
  // Kept newest first, so the restore meets them in reverse.
  Ids ids(made.rbegin(), made.rend());
  ids.push_back(a);
  ids.push_back(NewMessage("M", a));
  const Ids r = SaveResetRestore(ids);
  ASSERT_GT(r[0], r[4]) << "the newest behaviour still has the highest identifier";
  // The handler first, then the behaviours in the order they were made.
  RestoreArray({r[5], r[6], r[4], r[3], r[2], r[1], r[0]});
  Ids sorted(r.begin(), r.begin() + 5);
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(Behaviors(r[5], "M"), sorted);
  EXPECT_EQ(Sent(r[6]), sorted) << "each once";
  for (size_t i = 0; i < 5; ++i) Proc(r[i], "UNREGISTER");
  EXPECT_EQ(Behaviors(r[5], "M"), Ids{});
}

}  // namespace
}  // namespace fwtest
