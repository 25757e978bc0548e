// QVAfwSaveable through its registered routines, as the language calls
// them: INIT, RESTORE, DORESTORE, RESETRESTORED and the array restore.
//
// SAVETEST_PROBE is a subclass whose RESTORE is a native test routine: it
// records the call, runs the superclass's RESTORE, then does what its
// fields ask (restore a peer through DORESTORE, destroy a victim, fail).
#include "internal.h"
#include "module_objects.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;
using qvatest::FieldOf;
using qvatest::ObjRef;
using qvatest::ObjRefArray;
using qvatest::ScopedObject;

std::vector<QVA_HVID> g_restored;  // self of every probe RESTORE, in call order

double &Marker(QVA_HVID id) { return *FieldOf<double>(id, "QVAFWSAVEABLE_TOP"); }
QVA_LONG &Version(QVA_HVID id) { return *FieldOf<QVA_LONG>(id, "QVAFWSAVEABLE_VERSION"); }
QVA_HVID &Peer(QVA_HVID id) { return *FieldOf<QVA_HVID>(id, "PEER"); }
QVA_HVID &Victim(QVA_HVID id) { return *FieldOf<QVA_HVID>(id, "VICTIM"); }
QVA_LONG &Fail(QVA_HVID id) { return *FieldOf<QVA_LONG>(id, "FAIL"); }

QVA_VPTR ProbeRestore(int, QVA_VPTR argv[], QVA_KW_ARGS *) {
  const QVA_HVID self = argv[0]->value.hvid;
  g_restored.push_back(self);
  qvahost::call_procedure("QVAFWSAVEABLE::RESTORE", {argv[0]});
  if (Fail(self)) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "probe restore fails");
  if (QVA_HVID peer = Peer(self)) {
    QVA_VPTR no_args[1] = {nullptr};
    QVA_ObjCallMethod(QVA_MSG_LONGJMP, QVA_IdentHash("DORESTORE", 0, 0, QVA_MSG_LONGJMP, 0),
                      QVA_ObjValidate(peer, QVA_MSG_LONGJMP), 0, 0, no_args, nullptr, nullptr, 0);
  }
  if (QVA_HVID victim = Victim(self)) {
    Victim(self) = 0;
    qvatest::DestroyObject(victim);
  }
  return nullptr;
}

class SaveableTest : public qvatest::HostTest {
 protected:
  void SetUp() override {
    qvatest::HostTest::SetUp();
    qvatest::DefineStructOnce("SAVETEST_PLAIN", "QVAFWSAVEABLE", {});
    qvatest::DefineStructOnce(
        "SAVETEST_PROBE", "QVAFWSAVEABLE",
        {qvatest::Field("PEER", QVA_TYP_OBJREF), qvatest::Field("VICTIM", QVA_TYP_OBJREF),
         qvatest::Field("FAIL", QVA_TYP_LONG)});
    qvatest::DefineStructOnce("SAVETEST_FOREIGN", "", {qvatest::Field("VALUE", QVA_TYP_DOUBLE)});
    if (!qvahost::routine_exists("SAVETEST_PROBE::RESTORE", false))
      qvahost::define_routine("SAVETEST_PROBE::RESTORE", false, 1, 1, false, ProbeRestore);
    g_restored.clear();
  }

  static void Call(QVA_HVID id, const char *method) {
    ObjRef self(id);
    qvahost::call_method_procedure(self, method);
  }
  static void RestoreArray(QVA_VPTR list) {
    qvahost::call_procedure("QVAFWSAVEABLERESTOREARRAY", {list});
  }
};

TEST_F(SaveableTest, InitAndRestoreSetTheVersion) {
  ScopedObject obj = ScopedObject::New("SAVETEST_PLAIN");
  const QVA_HVID id = obj.id();
  EXPECT_EQ(Version(id), 1);
  EXPECT_EQ(Marker(id), 0.0);
  Marker(id) = 1.0;
  Version(id) = 7;
  ObjRef self(id);
  QVA_VPTR result = qvahost::call_method_function(self, "INIT");
  EXPECT_EQ(result->type, QVA_TYP_LONG);
  EXPECT_EQ(qvahost::integer_value(result), 1);
  qvatest::Release(result);
  EXPECT_EQ(Version(id), 1);
  EXPECT_EQ(Marker(id), 1.0) << "INIT leaves the marker";

  // RESTORE marks and raises only versions below 1; a class without its own
  // RESTORE gets the root's through DORESTORE.
  for (QVA_LONG saved : {0, -3, 2}) {
    Version(id) = saved;
    Marker(id) = 0.0;
    Call(id, saved == 2 ? "DORESTORE" : "RESTORE");
    EXPECT_EQ(Marker(id), 1.0);
    EXPECT_EQ(Version(id), saved == 2 ? 2 : 1) << "saved version " << saved;
  }
}

TEST_F(SaveableTest, DoRestoreRunsRestoreOnlyWhenNotMarked) {
  ScopedObject obj = ScopedObject::New("SAVETEST_PROBE");
  Call(obj.id(), "RESTORE");
  Call(obj.id(), "RESTORE");
  EXPECT_EQ(g_restored.size(), 2u) << "RESTORE called directly always runs";
  g_restored.clear();
  Marker(obj.id()) = 0.0;
  Call(obj.id(), "DORESTORE");
  Call(obj.id(), "DORESTORE");
  EXPECT_EQ(g_restored, std::vector<QVA_HVID>{obj.id()});
  EXPECT_EQ(Marker(obj.id()), 1.0);
  Call(obj.id(), "RESETRESTORED");
  EXPECT_EQ(Marker(obj.id()), 0.0);
  Call(obj.id(), "DORESTORE");
  EXPECT_EQ(g_restored.size(), 2u);
  for (double marker : {0.999, 2.0}) {  // only exactly 1.0 counts as restored
    Marker(obj.id()) = marker;
    Call(obj.id(), "DORESTORE");
  }
  EXPECT_EQ(g_restored.size(), 4u);

  // Objects that restore each other restore once.
  ScopedObject a = ScopedObject::New("SAVETEST_PROBE");
  ScopedObject b = ScopedObject::New("SAVETEST_PROBE");
  Peer(a.id()) = b.id();
  Peer(b.id()) = a.id();
  g_restored.clear();
  Call(a.id(), "DORESTORE");
  EXPECT_EQ(g_restored, (std::vector<QVA_HVID>{a.id(), b.id()}));
  EXPECT_TRUE(Marker(a.id()) == 1.0 && Marker(b.id()) == 1.0);
}

TEST_F(SaveableTest, RestoreArrayClearsEveryMarkerThenRestoresEachOnce) {
  ScopedObject a = ScopedObject::New("SAVETEST_PROBE");
  ScopedObject b = ScopedObject::New("SAVETEST_PROBE");
  ScopedObject c = ScopedObject::New("SAVETEST_PROBE");
  // Markers saved as set would otherwise stop the restore.
  for (QVA_HVID id : {a.id(), b.id(), c.id()}) Marker(id) = 1.0;
  Peer(a.id()) = c.id();  // c is restored as a's dependency, before its turn
  Peer(c.id()) = a.id();
  ObjRefArray list({a.id(), b.id(), a.id(), c.id()});
  RestoreArray(list);
  EXPECT_EQ(g_restored, (std::vector<QVA_HVID>{a.id(), c.id(), b.id()}));
  for (QVA_HVID id : {a.id(), b.id(), c.id()}) EXPECT_EQ(Marker(id), 1.0);

  g_restored.clear();  // a scalar reference is a list of one
  ObjRef one(b.id());
  RestoreArray(one);
  EXPECT_EQ(g_restored, std::vector<QVA_HVID>{b.id()});

  g_restored.clear();  // an element destroyed by an earlier one is skipped
  Peer(a.id()) = Peer(c.id()) = 0;
  Victim(a.id()) = b.id();
  ObjRefArray three({a.id(), b.id(), c.id()});
  RestoreArray(three);
  EXPECT_FALSE(qvatest::IsAlive(b.id()));
  EXPECT_EQ(g_restored, (std::vector<QVA_HVID>{a.id(), c.id()}));
}

TEST_F(SaveableTest, RestoreArrayRefusalsAndFailures) {
  ScopedObject a = ScopedObject::New("SAVETEST_PROBE");
  ScopedObject b = ScopedObject::New("SAVETEST_PROBE");
  ScopedObject foreign = ScopedObject::New("SAVETEST_FOREIGN");
  *FieldOf<double>(foreign.id(), "VALUE") = 12.5;
  QVA_HVID dead = ScopedObject::New("SAVETEST_PROBE").id();
  Marker(a.id()) = 1.0;
  QVA_VPTR numbers = qvahost::make_long_array({static_cast<QVA_LONG>(a.id())});
  EXPECT_EQ(ExpectHostError([&] { RestoreArray(numbers); }).code, qvahost::M_REQOBJREF);
  QVA_Deltmp(numbers);
  EXPECT_EQ(Marker(a.id()), 1.0);

  // An invalid element stops the restore once the markers before it are cleared.
  for (QVA_HVID bad : {dead, QVA_HVID{0}}) {
    Marker(a.id()) = Marker(b.id()) = 1.0;
    ObjRefArray list({a.id(), bad, b.id()});
    EXPECT_EQ(ExpectHostError([&] { RestoreArray(list); }).code, qvahost::M_INVALID_OBJ);
    EXPECT_EQ(Marker(a.id()), 0.0);
    EXPECT_EQ(Marker(b.id()), 1.0);
  }
  ObjRefArray list({a.id(), foreign.id()});
  qvahost::HostError e = ExpectHostError([&] { RestoreArray(list); });
  EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
  EXPECT_NE(e.text.find("QVAfwSaveable"), std::string::npos) << e.text;
  EXPECT_EQ(*FieldOf<double>(foreign.id(), "VALUE"), 12.5);
  EXPECT_TRUE(g_restored.empty());

  // A failing RESTORE ends the array restore.
  Fail(a.id()) = 1;
  Marker(b.id()) = 1.0;
  ObjRefArray pair({a.id(), b.id()});
  EXPECT_EQ(ExpectHostError([&] { RestoreArray(pair); }).text, "probe restore fails");
  EXPECT_EQ(g_restored, std::vector<QVA_HVID>{a.id()});
  EXPECT_EQ(Marker(a.id()), 1.0) << "its chain had begun";
  EXPECT_EQ(Marker(b.id()), 0.0) << "cleared by the first pass, never restored";
}

}  // namespace
