// The one limit on nested routine calls, whichever way a routine re-enters
// the host (a call by name, a method call, the CLEANUP of an object it
// destroys), and the C stack guard behind it, proved on a thread whose
// stack is small.
#include <pthread.h>

#include <cstring>

#include "host_fixture.h"

namespace {

using hosttest::ExpectHostError;
using hosttest::Tmp;

constexpr const char *kTooDeep = "Routine calls nested too deeply (more than 400).";
int g_depth = 0;  // deepest call reached

QVA_IDENT Ident(const char *name) { return QVA_IdentHash(name, 0, 0, QVA_MSG_LONGJMP, 0); }

// NEST_BY_NAME calls itself through QVA_InterpCallFromSysproc.
void nest_by_name(int, QVA_VPTR[]) {
  ++g_depth;
  QVA_VPTR none[] = {nullptr};
  QVA_CALL_RECORD rec{};
  rec.one = 1;
  rec.name = Ident("NEST_BY_NAME");
  rec.args = none;
  QVA_InterpCallFromSysproc(&rec);
}

// NEST_OBJ::AGAIN calls AGAIN on its own object through QVA_ObjCallMethod.
void nest_method(int, QVA_VPTR argv[]) {
  ++g_depth;
  QVA_HVPTR self = QVA_ObjValidate(argv[0]->value.hvid, QVA_MSG_LONGJMP);
  QVA_ObjCallMethod(QVA_MSG_LONGJMP, Ident("AGAIN"), self, 0, 0, nullptr, nullptr, nullptr, 0);
}

// NEST_OBJ::CLEANUP destroys the object its NEXT field names.
void nest_cleanup(int, QVA_VPTR argv[]) {
  ++g_depth;
  QVA_VPTR next = qvahost::make_objref(*hosttest::long_field(argv[0]->value.hvid, "NEXT"));
  Tmp guard(next);
  QVA_ObjDestroy(1, &next, nullptr);
}

// NEST_DEEP takes a good deal of stack at each level before calling itself.
void nest_deep(int, QVA_VPTR[]) {
  volatile char ballast[8192];
  std::memset(const_cast<char *>(ballast), g_depth & 0x7F, sizeof ballast);
  ++g_depth;
  qvahost::call_procedure("NEST_DEEP");
}

class NestingTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    static QVA_SYSFUN_DEF pros[] = {{QVA_RTN(nest_by_name), "NEST_BY_NAME", 0, 0, 0, 0},
                                    {QVA_RTN(nest_method), "NEST_OBJ::AGAIN", 1, 1, 0, 0},
                                    {QVA_RTN(nest_cleanup), "NEST_OBJ::CLEANUP", 1, 1, 0, 0},
                                    {QVA_RTN(nest_deep), "NEST_DEEP", 0, 0, 0, 0}};
    ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 4), 1);
    hosttest::ensure_class("NEST_OBJ", "", {hosttest::field("NEXT", QVA_TYP_LONG)});
    g_depth = 0;
  }
};

TEST_F(NestingTest, EveryWayOfReenteringTheHostCountsAgainstOneLimit) {
  qvahost::HostError e = ExpectHostError([] { qvahost::call_procedure("NEST_BY_NAME"); });
  EXPECT_EQ(e.text, kTooDeep);
  EXPECT_EQ(e.code, qvahost::M_NESTING);
  EXPECT_EQ(g_depth, 400);

  g_depth = 0;
  Tmp obj(hosttest::obj_new("NEST_OBJ"));
  e = ExpectHostError([&] { qvahost::call_method_procedure(obj.get(), "AGAIN"); });
  EXPECT_EQ(e.text, kTooDeep);
  EXPECT_EQ(g_depth, 400);

  // A chain of objects each destroying the next in its CLEANUP: the error
  // comes as the 400th call (the CLEANUP of the 399th object) begins; that
  // object goes as well, its CLEANUP abandoned.
  g_depth = 0;
  std::vector<QVA_HVID> chain;
  QVA_HVID next = 0;
  for (int i = 0; i < 450; ++i) {
    Tmp link(hosttest::obj_new("NEST_OBJ"));
    *hosttest::long_field(link->value.hvid, "NEXT") = static_cast<QVA_LONG>(next);
    chain.push_back(next = link->value.hvid);
  }
  Tmp head(qvahost::make_objref(next));
  e = ExpectHostError([&] { hosttest::obj_destroy({head.get()}); });
  EXPECT_EQ(e.text, kTooDeep);
  EXPECT_EQ(g_depth, 399) << "OBJ_DESTROY is the first of the 400 calls";
  size_t alive = 0;
  for (QVA_HVID id : chain) alive += QVA_ObjValidate(id, QVA_MSG_RET) != nullptr;
  EXPECT_EQ(alive, chain.size() - 400) << "the objects past the limit were not reached";
  Tmp rest(qvahost::make_objref(chain[alive - 1]));
  hosttest::obj_destroy({rest.get(), obj.get()});
}

// A thread with a small stack: well before 400 calls of NEST_DEEP, the
// guard finds the stack nearly full and raises the same error, which is
// caught like any other.
TEST_F(NestingTest, TheStackGuardEndsRecursionOnASmallStackWithTheSameError) {
  struct Run {
    qvahost::HostError error;
    bool raised = false;
  } run;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 512 * 1024), 0);
  pthread_t thread;
  auto body = [](void *arg) -> void * {
    auto *r = static_cast<Run *>(arg);
    try {
      qvahost::call_procedure("NEST_DEEP");
    } catch (const qvahost::HostError &e) {
      r->error = e;
      r->raised = true;
    }
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, body, &run), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  ASSERT_TRUE(run.raised);
  EXPECT_EQ(run.error.code, qvahost::M_NESTING);
  EXPECT_EQ(run.error.text, "Routine calls nested too deeply (the stack is nearly full).");
  EXPECT_GT(g_depth, 10);
  EXPECT_LT(g_depth, 400);
}

}  // namespace
