// A network of handlers, messages and behaviours saved, the session reset,
// restored, and brought back with QVAFWSAVEABLERESTOREARRAY: the restored
// messages reach the restored behaviours as before, every identifier field
// names this session's identifiers, each RESTORE runs once, and old version
// fields are raised.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <algorithm>
#include <cstdint>

#include "fw_recorder.h"

namespace {

using fwtest::Args;
using fwtest::FieldRef;
using fwtest::Recorder;

// Indices into the saved array NET.
enum : size_t { kA, kB, kX, kY, kZ, kQ, kM1, kM2, kCount };

class RestoreTest : public fwtest::FwTest {
 protected:
  // A scopes M; B below A.  X (handler B) and Y (handler A) registered for
  // M land at A; Z registered for N lands at the top; Q is not registered;
  // M1 sends M from B, M2 sends N from the top.  X and Y name each other
  // as peers.
  std::vector<QVA_HVID> Build() {
    std::vector<QVA_HVID> ids(kCount);
    ids[kA] = fwtest::NewHandler();
    ids[kB] = fwtest::NewHandler(ids[kA]);
    fwtest::Scope(ids[kA], "M");
    ids[kX] = fwtest::NewBehavior("M", {.handler = ids[kB]});
    ids[kY] = fwtest::NewBehavior("M", {.handler = ids[kA]});
    ids[kZ] = fwtest::NewBehavior("N");
    ids[kQ] = fwtest::NewBehavior("M", {.handler = ids[kB], .register_it = false});
    ids[kM1] = fwtest::NewMessage("M", ids[kB]);
    ids[kM2] = fwtest::NewMessage("N");
    FieldRef<QVA_HVID>(ids[kX], "PEER") = ids[kY];
    FieldRef<QVA_HVID>(ids[kY], "PEER") = ids[kX];
    return ids;
  }

  // The main-level variable NET: an array of references to `ids`.
  static void Keep(const std::vector<QVA_HVID> &ids) {
    qvatest::ObjRefArray array(ids);
    QVA_VarCopy(array, qvahost::main_variable("NET"));
  }
  static std::vector<QVA_HVID> Restored() {
    QVA_VPTR v = qvahost::find_main_variable("NET");
    EXPECT_NE(v, nullptr);
    if (!v) return {};
    auto *ids = reinterpret_cast<QVA_HVID *>(v->value.arr->data);
    return std::vector<QVA_HVID>(ids, ids + v->value.arr->n_elts);
  }

  // Saves everything, resets, restores: the restored ids in NET's order.
  std::vector<QVA_HVID> SaveResetRestore(const std::vector<QVA_HVID> &ids) {
    Keep(ids);
    const std::vector<uint8_t> bytes = qvahost::save_all_to_bytes();
    qvahost::reset_session();
    EXPECT_EQ(fwtest::TopLevel(), 0u);
    qvahost::restore_from_bytes(bytes.data(), bytes.size());
    return Restored();
  }

  static void RestoreArray(const std::vector<QVA_HVID> &ids) {
    qvatest::ObjRefArray list(ids);
    qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {list});
  }

  static std::vector<QVA_HVID> Sent(QVA_HVID msg) {
    Recorder::log().clear();
    fwtest::Send(msg);
    return Recorder::selves();
  }
};

TEST_F(RestoreTest, ARestoredNetworkAnswersAsBefore) {
  const std::vector<QVA_HVID> before = Build();
  ASSERT_EQ(Sent(before[kM1]), (std::vector<QVA_HVID>{before[kX], before[kY]}));
  ASSERT_EQ(Sent(before[kM2]), std::vector<QVA_HVID>{before[kZ]});

  const std::vector<QVA_HVID> r = SaveResetRestore(before);
  ASSERT_EQ(r.size(), static_cast<size_t>(kCount));
  // Before the restore calls, the fields name the saved identifiers.
  const QVA_HVID stale_m = FieldRef<QVA_HVID>(r[kM1], "MESS_IDENT");
  ASSERT_NE(stale_m, 0u);

  RestoreArray(r);
  const QVA_HVID m = fwtest::IdentOf("M");
  const QVA_HVID n = fwtest::IdentOf("N");
  EXPECT_NE(m, stale_m);
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kM1], "MESS_IDENT"), m);
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kM2], "MESS_IDENT"), n);
  for (size_t i : {kX, kY, kQ}) EXPECT_EQ(FieldRef<QVA_HVID>(r[i], "MESSIDENT"), m) << i;
  EXPECT_EQ(FieldRef<QVA_HVID>(r[kZ], "MESSIDENT"), n);

  // The stale identifiers go with a collection; nothing may still name them.
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(stale_m));

  EXPECT_EQ(Sent(r[kM1]), (std::vector<QVA_HVID>{r[kX], r[kY]}));
  EXPECT_EQ(Sent(r[kM2]), std::vector<QVA_HVID>{r[kZ]});
  EXPECT_EQ(fwtest::Behaviors(r[kA], "M"), (std::vector<QVA_HVID>{r[kX], r[kY]}));
  EXPECT_EQ(fwtest::ScopedMessages(r[kA]), std::vector<std::string>{"M"});
  for (size_t i : {kX, kY, kZ}) EXPECT_TRUE(fwtest::IsRegistered(r[i])) << i;
  EXPECT_FALSE(fwtest::IsRegistered(r[kQ]));
  const QVA_HVID top = fwtest::TopLevel();
  ASSERT_NE(top, 0u) << "Z registered at a new top-level handler";
  EXPECT_EQ(fwtest::Behaviors(top, "N"), std::vector<QVA_HVID>{r[kZ]});

  // Still a working network: scoping at B pulls X down.
  fwtest::Scope(r[kB], "M");
  EXPECT_EQ(fwtest::Behaviors(r[kB], "M"), std::vector<QVA_HVID>{r[kX]});
  EXPECT_EQ(Sent(r[kM1]), std::vector<QVA_HVID>{r[kX]});
}

TEST_F(RestoreTest, EachRestoreRunsOnceWhateverTheArrayAndThePeers) {
  const std::vector<QVA_HVID> r = SaveResetRestore(Build());
  // X restores Y as its peer before Y's turn; X appears twice.
  RestoreArray({r[kX], r[kA], r[kX], r[kB], r[kY], r[kZ], r[kQ], r[kM1], r[kM2], r[kY]});
  EXPECT_EQ(Recorder::restored(), (std::vector<QVA_HVID>{r[kX], r[kY], r[kZ], r[kQ]}));
  for (QVA_HVID id : r) EXPECT_EQ(FieldRef<double>(id, "QVAFWSAVEABLE_TOP"), 1.0) << id;
  EXPECT_EQ(Sent(r[kM1]), (std::vector<QVA_HVID>{r[kX], r[kY]}));
}

TEST_F(RestoreTest, RestoredReferencesAreCountedOncePerHolder) {
  const std::vector<QVA_HVID> r = SaveResetRestore(Build());
  RestoreArray(r);
  fwtest::CollectIdents();
  const QVA_HVID m = fwtest::IdentOf("M");
  const QVA_HVID n = fwtest::IdentOf("N");
  // M: X, Y, Q, M1 and A's scope.  N: Z, M2 and the top's scope.
  EXPECT_TRUE(fwtest::SurvivesRelease(m, 4));
  EXPECT_TRUE(fwtest::SurvivesRelease(n, 2));
  // With every holder gone, nothing is left.
  for (QVA_HVID id : r) fwtest::Destroy(id);
  EXPECT_EQ(fwtest::TopLevel(), 0u);
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(m));
  EXPECT_FALSE(fwtest::Alive(n));
}

TEST_F(RestoreTest, RestoringObjectsOfThisSessionAgainKeepsTheirCounts) {
  const std::vector<QVA_HVID> ids = Build();
  // RESTORE run on live objects of this session: their identifiers are
  // already this session's, and must not gain holders.
  RestoreArray(ids);
  fwtest::Proc(ids[kM1], "RESTORE");
  fwtest::Proc(ids[kX], "RESTORE");
  fwtest::Proc(ids[kA], "RESTORE");
  EXPECT_EQ(Sent(ids[kM1]), (std::vector<QVA_HVID>{ids[kX], ids[kY]}));
  const QVA_HVID m = fwtest::IdentOf("M");
  const QVA_HVID n = fwtest::IdentOf("N");
  for (QVA_HVID id : ids) fwtest::Destroy(id);
  fwtest::CollectIdents();
  EXPECT_FALSE(fwtest::Alive(m));
  EXPECT_FALSE(fwtest::Alive(n));
}

TEST_F(RestoreTest, OldVersionFieldsAreRaisedToOneAndNewerOnesKept) {
  std::vector<QVA_HVID> ids = Build();
  FieldRef<QVA_LONG>(ids[kM1], "QVAFWSAVEABLE_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kM1], "HASAHANDLER_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kM1], "QVAFWMESSAGE_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kM2], "QVAFWMESSAGE_VERSION") = 2;
  FieldRef<QVA_LONG>(ids[kM2], "HASAHANDLER_VERSION") = 2;
  FieldRef<QVA_LONG>(ids[kX], "QVAFWBEHAVIOR_VERSION") = 2;
  FieldRef<QVA_LONG>(ids[kX], "HASAHANDLER_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kQ], "QVAFWBEHAVIOR_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kA], "QVAFWMESSAGEHANDLER_VERSION") = 2;
  FieldRef<QVA_LONG>(ids[kB], "QVAFWMESSAGEHANDLER_VERSION") = 0;
  FieldRef<QVA_LONG>(ids[kB], "QVAFWSAVEABLE_VERSION") = 2;
  const std::vector<QVA_HVID> r = SaveResetRestore(ids);
  RestoreArray(r);
  auto v = [&](size_t i, const char *tag) { return FieldRef<QVA_LONG>(r[i], tag); };
  EXPECT_EQ(v(kM1, "QVAFWSAVEABLE_VERSION"), 1);
  EXPECT_EQ(v(kM1, "HASAHANDLER_VERSION"), 1);
  EXPECT_EQ(v(kM1, "QVAFWMESSAGE_VERSION"), 1);
  EXPECT_EQ(v(kM2, "QVAFWMESSAGE_VERSION"), 2);
  EXPECT_EQ(v(kM2, "HASAHANDLER_VERSION"), 2);
  EXPECT_EQ(v(kX, "QVAFWBEHAVIOR_VERSION"), 2);
  EXPECT_EQ(v(kX, "HASAHANDLER_VERSION"), 1);
  EXPECT_EQ(v(kQ, "QVAFWBEHAVIOR_VERSION"), 1);
  EXPECT_EQ(v(kA, "QVAFWMESSAGEHANDLER_VERSION"), 2);
  EXPECT_EQ(v(kB, "QVAFWMESSAGEHANDLER_VERSION"), 1);
  EXPECT_EQ(v(kB, "QVAFWSAVEABLE_VERSION"), 2);
  EXPECT_EQ(v(kY, "QVAFWSAVEABLE_VERSION"), 1) << "1 stays 1";
  // Raised or kept, the network still answers.
  EXPECT_EQ(Sent(r[kM1]), (std::vector<QVA_HVID>{r[kX], r[kY]}));
  EXPECT_EQ(Sent(r[kM2]), std::vector<QVA_HVID>{r[kZ]});
  EXPECT_EQ(fwtest::ScopedMessages(r[kB]), std::vector<std::string>{});
}

// RESTORE numbers heap variables afresh, meeting them here in reverse; the
// behaviour lists, kept in heap-identifier order, must come back in order,
// so that no behaviour runs twice and each can still leave.
TEST_F(RestoreTest, ARestoredListIsStillInIdentifierOrder) {
  const QVA_HVID a = fwtest::NewHandler();
  fwtest::Scope(a, "M");
  std::vector<QVA_HVID> made;
  for (int i = 0; i < 5; ++i) made.push_back(fwtest::NewBehavior("M", {.handler = a}));
  const QVA_HVID m = fwtest::NewMessage("M", a);
  // Kept newest first, so the restore meets them in reverse.
  std::vector<QVA_HVID> ids(made.rbegin(), made.rend());
  ids.push_back(a);
  ids.push_back(m);
  const std::vector<QVA_HVID> r = SaveResetRestore(ids);
  ASSERT_GT(r[0], r[4]) << "the newest behaviour still has the highest identifier";

  // The handler first, then the behaviours in the order they were made.
  RestoreArray({r[5], r[6], r[4], r[3], r[2], r[1], r[0]});
  std::vector<QVA_HVID> sorted(r.begin(), r.begin() + 5);
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(fwtest::Behaviors(r[5], "M"), sorted);
  EXPECT_EQ(Sent(r[6]), sorted) << "each once";
  for (size_t i = 0; i < 5; ++i) fwtest::Proc(r[i], "UNREGISTER");
  EXPECT_EQ(fwtest::Behaviors(r[5], "M"), std::vector<QVA_HVID>{});
  EXPECT_EQ(fwtest::IsScoped(r[5], "M"), 1);
}

}  // namespace
