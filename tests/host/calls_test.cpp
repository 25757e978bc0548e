// Calls: the routine registry (table registration and its refusal of bad
// rows, argument checks, calls by name), messages and their actions, and
// objects and classes (INIT, CLEANUP, method resolution through the class
// chain, the object checks of method calls, errors that abandon nested
// calls).
#include <algorithm>

#include "host_fixture.h"

namespace {

using hosttest::Code;
using hosttest::ExpectHostError;
using hosttest::long_field;
using hosttest::obj_new;
using hosttest::Object;
using hosttest::Tmp;
using qvahost::call_function;
using qvahost::call_method_procedure;
using qvahost::call_procedure;
using qvatest::OutputCapture;

int g_calls = 0;
QVA_VPTR native_fun(int argc, QVA_VPTR[]) {
  ++g_calls;
  return QVA_GettmpLong(argc * 10);
}
QVA_VPTR native_fun_kw(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  QVA_Deltmp(native_fun(argc, argv));
  return QVA_GettmpLong(static_cast<QVA_LONG>(qvahost::keywords_of(argk).size()));
}
void native_pro(int argc, QVA_VPTR argv[]) { QVA_Deltmp(native_fun(argc, argv)); }
QVA_VPTR other_fun(int, QVA_VPTR[]) { return QVA_GettmpLong(-1); }

class RoutineTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    g_calls = 0;
  }
};

TEST_F(RoutineTest, TablesRegisterFunctionsAndProceduresAndCheckTheirArguments) {
  QVA_SYSFUN_DEF funs[] = {{QVA_RTN(native_fun), "RT_SAME", 2, 3, 0, 0},
                           {QVA_RTN(native_fun_kw), "RT_KW", 0, 1, QVA_SYSFUN_KEYWORDS, 0}};
  QVA_SYSFUN_DEF pros[] = {{QVA_RTN(native_pro), "RT_SAME", 1, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 2), 1);
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
  auto rows = qvahost::routine_rows(true);
  auto kw = std::find_if(rows.begin(), rows.end(), [](auto &r) { return r.name == "RT_KW"; });
  ASSERT_NE(kw, rows.end());
  EXPECT_EQ(kw->arg_max, 1);
  EXPECT_EQ(kw->flags, static_cast<uint32_t>(QVA_SYSFUN_KEYWORDS));
  auto names = qvahost::routine_names(true);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  // The same name: a function returns, the procedure does not.
  Tmp a(qvahost::make_long(4));
  Tmp r(call_function("RT_SAME", {a.get(), a.get()}));
  EXPECT_EQ(qvahost::integer_value(r.get()), 20);
  call_procedure("rt_same", {a.get()});
  EXPECT_EQ(g_calls, 2);
  qvahost::HostError e = ExpectHostError([&] { call_function("RT_SAME", {a.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  EXPECT_EQ(e.report(), "% RT_SAME: Incorrect number of arguments.");
  e = ExpectHostError([&] { call_procedure("RT_SAME", {a.get(), a.get()}); });
  EXPECT_EQ(e.code, qvahost::M_WRONG_ARG_COUNT);
  e = ExpectHostError([&] { call_function("RT_SAME", {a.get(), a.get()}, {{"X", a.get()}}); });
  EXPECT_EQ(e.text, "Keyword parameters not allowed in call.");
  EXPECT_EQ(g_calls, 2) << "a refused call never reaches the routine";
  Tmp n(call_function("RT_KW", {}, {{"X", a.get()}, {"Y", a.get()}}));
  EXPECT_EQ(qvahost::integer_value(n.get()), 2);
  EXPECT_EQ(Code([] { call_function("RT_NOWHERE"); }), qvahost::M_UNDEF_FUNC);
  EXPECT_EQ(Code([] { call_procedure("RT_NOWHERE"); }), qvahost::M_UNDEF_PROC);

  // A later registration replaces the routine.
  QVA_SYSFUN_DEF second[] = {{QVA_RTN(other_fun), "RT_SAME", 0, 1, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(second, 1, 1), 1);
  Tmp replaced(call_function("RT_SAME"));
  EXPECT_EQ(qvahost::integer_value(replaced.get()), -1);
  names = qvahost::routine_names(true);
  EXPECT_EQ(std::count(names.begin(), names.end(), "RT_SAME"), 1);
}

TEST_F(RoutineTest, BadRowRefusesTheWholeTable) {
  struct Case {
    const char *why;
    QVA_SYSFUN_DEF row;
  } cases[] = {{"no routine", {nullptr, "RT_BAD_A", 0, 0, 0, 0}},
               {"lower case", {QVA_RTN(native_fun), "Rt_bad_b", 0, 0, 0, 0}},
               {"not an identifier", {QVA_RTN(native_fun), "1RT_BAD", 0, 0, 0, 0}},
               {"empty method part", {QVA_RTN(native_fun), "RT_CLASS::", 1, 1, 0, 0}},
               {"min above max", {QVA_RTN(native_fun), "RT_BAD_C", 2, 1, 0, 0}},
               {"unknown flag", {QVA_RTN(native_fun), "RT_BAD_D", 0, 0, 1, 0}}};
  OutputCapture out;
  for (const Case &c : cases) {
    QVA_SYSFUN_DEF table[] = {{QVA_RTN(native_fun), "RT_GOOD_BEFORE", 0, 0, 0, 0}, c.row};
    EXPECT_EQ(QVA_SysRtnAdd(table, 1, 2), 0) << c.why;
    EXPECT_FALSE(qvahost::routine_exists("RT_GOOD_BEFORE", true)) << c.why;
  }
  EXPECT_EQ(out.lines().size(), std::size(cases)) << "a refused table is reported";
  // A function that returns nothing is a contract violation.
  qvahost::define_routine("RT_NO_RESULT", true, 0, 0, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR { return nullptr; });
  ExpectViolations(1, [] { ExpectHostError([] { call_function("RT_NO_RESULT"); }); });
}

TEST_F(RoutineTest, MessagesCarryTheirArgumentsAndActionZeroReturns) {
  struct Case {
    std::function<void()> raise;
    int code;
    std::string text;
  } cases[] = {{[] { QVA_Message(QVA_M_GENERIC, 2, "Cannot delete the head: 0x%x", 0x2au); },
                QVA_M_GENERIC, "Cannot delete the head: 0x2a"},
               {[] { QVA_Message(QVA_M_NOT_OF_CLASS, 2, "message", "QVAfwMessage"); },
                QVA_M_NOT_OF_CLASS, "Argument message must be an object of class QVAfwMessage."},
               {[] { QVA_Message(QVA_M_GENERIC, 2, "[%s]", std::string(2000, 'x').c_str()); },
                QVA_M_GENERIC, "[" + std::string(2000, 'x') + "]"}};  // long texts are not cut
  for (const Case &c : cases) {
    qvahost::HostError e = ExpectHostError(c.raise);
    EXPECT_EQ(e.code, c.code);
    EXPECT_NE(e.text.find(c.text), std::string::npos) << e.text;
  }
  OutputCapture out;
  QVA_Message(QVA_M_GENERIC, QVA_MSG_RET, "plain %d", 1);
  const std::string routine = "SOME_ROUTINE";
  qvahost::push_routine({&routine, 0, nullptr, nullptr, 0});
  QVA_Message(QVA_M_GENERIC, QVA_MSG_INFO, "inside %s", "it");
  qvahost::HostError e = ExpectHostError([] { QVA_Message(QVA_M_GENERIC, 2, "abandoned"); });
  qvahost::pop_routine();
  EXPECT_EQ(e.report(), "% SOME_ROUTINE: abandoned");
  EXPECT_EQ(qvahost::current_routine(), "");
  ExpectViolations(1, [] { QVA_Message(-9999, QVA_MSG_RET); });  // a misuse, still reported
  ASSERT_EQ(out.lines().size(), 3u);
  EXPECT_EQ(out.lines()[0], "% plain 1");
  EXPECT_EQ(out.lines()[1], "% SOME_ROUTINE: inside it");
  EXPECT_NE(out.lines()[2].find("-9999"), std::string::npos);
}

TEST_F(RoutineTest, VariableErrorsNameTheVariable) {
  qvahost::Variable named("MT_VALUE");
  Tmp expr(QVA_GettmpLong(1));
  struct Case {
    void (*fn)(QVA_VPTR, int);
    int code;
    const char *start;
  } cases[] = {{QVA_MessageVE_REQSTR, qvahost::M_REQSTR, "String expression required"},
               {QVA_MessageVE_REQPTR, qvahost::M_REQPTR, "Pointer type required"},
               {QVA_MessageVE_REQOBJREF, qvahost::M_REQOBJREF, "Object reference type required"},
               {QVA_MessageVE_NOTSCALAR, qvahost::M_NOTSCALAR, "Expression must be a scalar"}};
  for (const Case &c : cases) {
    auto e = ExpectHostError([&] { c.fn(named.get(), 2); });
    EXPECT_EQ(e.code, c.code);
    EXPECT_EQ(e.text.rfind(c.start, 0), 0u) << e.text;
    EXPECT_NE(e.text.find("MT_VALUE"), std::string::npos) << e.text;
    e = ExpectHostError([&] { c.fn(expr.get(), 2); });
    EXPECT_NE(e.text.find("<Expression>"), std::string::npos) << e.text;
  }
}

int g_cleanups = 0;
bool g_after_failure = false;  // set by code that must never run

qvahost::UserRoutine Says(const char *s) {
  return [s](int, QVA_VPTR[], QVA_KW_ARGS *) { return QVA_StrToSTRING(s); };
}
qvahost::UserRoutine Does(std::function<void(int, QVA_VPTR[], QVA_KW_ARGS *)> body) {
  return [body](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) -> QVA_VPTR {
    body(argc, argv, argk);
    return nullptr;
  };
}
QVA_LONG Long(QVA_VPTR v) { return static_cast<QVA_LONG>(qvahost::integer_value(v)); }
QVA_HVID Id(const Object &o) { return o->value.hvid; }

// OT_ANIMAL (LEGS) and OT_DOG, which inherits it.  INIT takes an
// optional leg count, positional or as keyword LEGS; CLEANUP counts its
// runs; OT_DOG::FAIL makes temporaries, then raises.
void define_animals() {
  using hosttest::field;
  hosttest::ensure_class("OT_ANIMAL", "", {field("LEGS", 3)});
  hosttest::ensure_class("OT_DOG", "OT_ANIMAL", {field("BARKS", 3)});
  qvahost::define_routine("OT_ANIMAL::INIT", true, 1, 2, true,
                          [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                            QVA_LONG legs = argc > 1 ? Long(argv[1]) : 4;
                            for (const auto &kw : qvahost::keywords_of(argk))
                              if (kw.name == "LEGS") legs = Long(kw.value);
                            *long_field(argv[0]->value.hvid, "LEGS") = legs;
                            return QVA_GettmpLong(1);
                          });
  qvahost::define_routine("OT_ANIMAL::CLEANUP", false, 1, 1, true,
                          Does([](int, QVA_VPTR[], QVA_KW_ARGS *) { ++g_cleanups; }));
  qvahost::define_routine("OT_ANIMAL::SPEAK", true, 1, 1, false, Says("..."));
  qvahost::define_routine("OT_DOG::SPEAK", true, 1, 1, false, Says("woof"));
  qvahost::define_routine("OT_DOG::FAIL", false, 1, 2, false,
                          Does([](int, QVA_VPTR[], QVA_KW_ARGS *) {
                            QVA_GettmpLong(1);
                            QVA_StrToSTRING("left behind");
                            QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "worker failed: %d", 7);
                            g_after_failure = true;
                          }));
}

// OT_OUTER(obj): makes a temporary and calls the object's FAIL method.
QVA_VPTR ot_outer(int, QVA_VPTR argv[]) {
  QVA_VPTR args[] = {QVA_GettmpLong(3), nullptr};
  QVA_HVPTR self = QVA_ObjValidate(argv[0]->value.hvid, QVA_MSG_LONGJMP);
  QVA_ObjCallMethod(2, QVA_IdentHash("FAIL", 0, 0, 2, 0), self, 0, 1, args, nullptr, nullptr, 0);
  g_after_failure = true;
  return args[0];
}

// OT_TOP(obj): calls OT_OUTER by name, as a module's procedure behaviour does.
void ot_top(int, QVA_VPTR argv[]) {
  QVA_VPTR args[] = {argv[0], nullptr};
  QVA_CALL_RECORD rec{1, 1, {0, 0}, QVA_IdentHash("OT_OUTER", 0, 0, 2, 0), 0, args, 0};
  QVA_InterpCallFromSysproc(&rec);
  g_after_failure = true;
}

std::string speak(QVA_VPTR obj, const std::string &method) {
  return qvahost::string_value(Tmp(qvahost::call_method_function(obj, method)).get());
}

class ObjectTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    define_animals();
    static QVA_SYSFUN_DEF funs[] = {{QVA_RTN(ot_outer), "OT_OUTER", 1, 1, 0, 0}};
    static QVA_SYSFUN_DEF pros[] = {{QVA_RTN(ot_top), "OT_TOP", 1, 1, 0, 0}};
    ASSERT_EQ(QVA_SysRtnAdd(funs, 1, 1) + QVA_SysRtnAdd(pros, 0, 1), 2);
    g_cleanups = 0;
    g_after_failure = false;
  }
};

TEST_F(ObjectTest, NewRunsInitWithArgumentsAndKeywords) {
  Tmp three(qvahost::make_long(3)), eight(qvahost::make_long(8));
  Object dog(obj_new("ot_dog")), tripod(obj_new("OT_DOG", {three.get()})),
      spider(obj_new("OT_ANIMAL", {}, {{"LEGS", eight.get()}}));
  EXPECT_EQ(dog->type, QVA_TYP_OBJREF);
  EXPECT_EQ(*long_field(Id(dog), "BARKS"), 0) << "the instance starts zeroed";
  EXPECT_EQ(*long_field(Id(dog), "LEGS"), 4);
  EXPECT_EQ(*long_field(Id(tripod), "LEGS"), 3);
  EXPECT_EQ(*long_field(Id(spider), "LEGS"), 8);
  EXPECT_EQ(qvahost::accounting().objects, baseline_.objects + 3);
}

TEST_F(ObjectTest, MethodsResolveThroughTheClassChain) {
  Object dog(obj_new("OT_DOG")), animal(obj_new("OT_ANIMAL"));
  // The same text on objects of different classes, back and forth, and
  // the same name written differently, resolve each time for the class.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(speak(animal.get(), "SPEAK"), "...");
    EXPECT_EQ(speak(dog.get(), "SPEAK"), "woof") << "the subclass overrides";
    EXPECT_EQ(speak(dog.get(), "speak"), "woof");
    EXPECT_EQ(speak(dog.get(), "OT_ANIMAL::SPEAK"), "...") << "a superclass's version by name";
  }
  EXPECT_EQ(Code([&] { speak(animal.get(), "OT_DOG::SPEAK"); }), qvahost::M_NOT_OF_CLASS);
  qvahost::HostError e = ExpectHostError([&] { speak(dog.get(), "FLY"); });
  EXPECT_EQ(e.code, qvahost::M_UNDEF_METHOD);
  EXPECT_NE(e.text.find("OT_DOG::FLY"), std::string::npos) << e.text;
  EXPECT_EQ(Code([&] { call_method_procedure(dog.get(), "SPEAK"); }), qvahost::M_UNDEF_METHOD)
      << "a function method is not a procedure method";
  // The resolution follows routines registered later, after hits and misses.
  hosttest::ensure_class("OT_PUPPY", "OT_DOG", {});
  Object puppy(obj_new("OT_PUPPY"));
  EXPECT_EQ(speak(puppy.get(), "SPEAK"), "woof");
  ExpectHostError([&] { speak(puppy.get(), "LATER"); });
  qvahost::define_routine("OT_PUPPY::SPEAK", true, 1, 1, false, Says("yip"));
  static QVA_SYSFUN_DEF later[] = {
      {QVA_RTN(+[](int, QVA_VPTR[]) { return QVA_StrToSTRING("later"); }), "OT_ANIMAL::LATER", 1, 1,
       0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(later, 1, 1), 1);
  EXPECT_EQ(speak(puppy.get(), "SPEAK"), "yip");
  EXPECT_EQ(speak(puppy.get(), "LATER"), "later");
}

// Methods a module calls, as a dispatch calls EXECUTE: objects of several
// classes in turn, more methods than a class remembers, and routines
// replaced or overridden after they were found.
TEST_F(ObjectTest, MethodCallsFromAModuleFollowRoutinesDefinedAfterThem) {
  hosttest::ensure_class("OT_CAT", "OT_ANIMAL", {});
  qvahost::define_routine("OT_ANIMAL::NAME", true, 1, 1, false, Says("animal"));
  qvahost::define_routine("OT_DOG::KIND", true, 1, 1, false, Says("canine"));
  Object dog(obj_new("OT_DOG")), cat(obj_new("OT_CAT")), animal(obj_new("OT_ANIMAL"));
  auto call = [](QVA_VPTR obj, const char *method) {
    QVA_VPTR result = nullptr;
    QVA_HVPTR self = QVA_ObjValidate(obj->value.hvid, QVA_MSG_LONGJMP);
    int done = QVA_ObjCallMethod(QVA_MSG_RET, QVA_IdentHash(method, 0, 0, QVA_MSG_LONGJMP, 0), self,
                                 0, 0, nullptr, nullptr, &result, 0);
    return done ? qvahost::string_value(Tmp(result).get()) : "none";
  };
  auto all = [&] {
    std::string out;
    for (QVA_VPTR obj : {dog.get(), cat.get(), animal.get()})
      for (const char *method : {"SPEAK", "NAME", "KIND"}) out += call(obj, method) + " ";
    return out;
  };
  const std::string first = "woof animal canine ... animal none ... animal none ";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(all(), first);
  // Each time, the method just called is the one replaced.
  EXPECT_EQ(call(cat.get(), "SPEAK"), "...");
  qvahost::define_routine("OT_ANIMAL::SPEAK", true, 1, 1, false, Says("hmm"));
  EXPECT_EQ(call(cat.get(), "SPEAK"), "hmm") << "replaced";
  qvahost::define_routine("OT_CAT::SPEAK", true, 1, 1, false, Says("meow"));
  EXPECT_EQ(call(cat.get(), "SPEAK"), "meow") << "overridden";
  qvahost::define_routine("OT_CAT::KIND", true, 1, 1, false, Says("feline"));
  EXPECT_EQ(all(), "woof animal canine meow animal feline hmm animal none ");
}

TEST_F(ObjectTest, MethodRoutinesRunOnlyOnObjectsOfTheirClass) {
  Object dog(obj_new("OT_DOG")), animal(obj_new("OT_ANIMAL"));
  EXPECT_EQ(qvahost::string_value(Tmp(call_function("OT_ANIMAL::SPEAK", {dog.get()})).get()), "...")
      << "a subclass object is an OT_ANIMAL";
  // A method that has just run on an object of its class still refuses
  // one of another class.
  EXPECT_EQ(qvahost::string_value(Tmp(call_function("OT_DOG::SPEAK", {dog.get()})).get()), "woof");
  auto e = ExpectHostError([&] { call_function("OT_DOG::SPEAK", {animal.get()}); });
  EXPECT_EQ(e.code, qvahost::M_NOT_OF_CLASS);
  EXPECT_EQ(e.routine, "OT_DOG::SPEAK");
  Tmp number(qvahost::make_long(1)), null_ref(qvahost::make_objref(0));
  EXPECT_EQ(Code([&] { call_function("OT_DOG::SPEAK", {number.get()}); }), qvahost::M_REQOBJREF);
  EXPECT_EQ(Code([&] { call_function("OT_DOG::SPEAK", {null_ref.get()}); }),
            qvahost::M_INVALID_OBJ);
  EXPECT_EQ(Code([&] { speak(null_ref.get(), "SPEAK"); }), qvahost::M_INVALID_OBJ);
}

// A method receives the object as argument 0; whatever it stores there
// (here a string, as a method assigning to self would) is freed with the
// call, and the object itself is untouched.
TEST_F(ObjectTest, WhatAMethodStoresInItsSelfArgumentIsFreedWithTheCall) {
  qvahost::define_routine("OT_ANIMAL::REBIND", false, 1, 1, false,
                          Does([](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
                            EXPECT_TRUE(argv[0]->flags & QVA_V_TEMP);
                            QVA_VarCopy(Tmp(qvahost::make_string("not the object")).get(), argv[0]);
                          }));
  Object dog(obj_new("OT_DOG"));
  for (int i = 0; i < 3; ++i) call_method_procedure(dog.get(), "REBIND");
  EXPECT_EQ(speak(dog.get(), "SPEAK"), "woof");
}

TEST_F(ObjectTest, InitReturningZeroOrFailingDestroysTheObject) {
  hosttest::ensure_class("OT_PICKY", "OT_ANIMAL", {});
  hosttest::ensure_class("OT_FAILING", "OT_ANIMAL", {});
  qvahost::define_routine("OT_PICKY::INIT", true, 1, 1, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) { return QVA_GettmpLong(0); });
  qvahost::define_routine("OT_FAILING::INIT", true, 1, 1, false,
                          Does([](int, QVA_VPTR[], QVA_KW_ARGS *) {
                            QVA_GettmpLong(1);  // left for the host to release
                            QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "cannot init");
                          }));
  std::vector<QVA_HVID> heap_before = qvahost::heap_ids();
  Tmp ref(obj_new("OT_PICKY"));
  EXPECT_EQ(ref->type, QVA_TYP_OBJREF);
  EXPECT_EQ(ref->value.hvid, 0u) << "a null object reference";
  EXPECT_EQ(g_cleanups, 1) << "the inherited CLEANUP ran";
  EXPECT_EQ(ExpectHostError([] { obj_new("OT_FAILING"); }).report(),
            "% OT_FAILING::INIT: cannot init");
  EXPECT_EQ(g_cleanups, 2);
  EXPECT_EQ(qvahost::heap_ids(), heap_before);
  EXPECT_EQ(Code([] { obj_new("OT_NO_SUCH_CLASS"); }), qvahost::M_CLASS_UNKNOWN);
}

TEST_F(ObjectTest, DestroyRunsCleanupOncePerObjectEvenWhenItFails) {
  Object keep(obj_new("OT_ANIMAL"));
  Tmp a(obj_new("OT_ANIMAL")), b(obj_new("OT_DOG")), flag(qvahost::make_long(1));
  QVA_VPTR arr = nullptr;  // names a twice, a null reference and b
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_OBJREF, 4, 1, &arr));
  Tmp arr_guard(arr);
  ids[0] = ids[2] = a->value.hvid;
  ids[3] = b->value.hvid;
  hosttest::obj_destroy({arr, a.get()}, {{"QUIET", flag.get()}});
  EXPECT_EQ(g_cleanups, 2);
  EXPECT_EQ(QVA_ObjValidate(a->value.hvid, QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_ObjValidate(b->value.hvid, QVA_MSG_RET), nullptr);
  EXPECT_NE(QVA_ObjValidate(Id(keep), QVA_MSG_RET), nullptr);
  hosttest::obj_destroy({a.get()});  // already gone: nothing happens
  EXPECT_EQ(g_cleanups, 2);
  EXPECT_EQ(Code([&] { hosttest::obj_destroy({flag.get()}); }), qvahost::M_REQOBJREF);
  // A CLEANUP that destroys its own object runs once; one that fails still
  // has its object deleted.
  hosttest::ensure_class("OT_SELFISH", "", {hosttest::field("X", QVA_TYP_LONG)});
  static int runs = 0;
  runs = 0;
  qvahost::define_routine("OT_SELFISH::CLEANUP", false, 1, 1, true,
                          Does([](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                            ++runs;
                            QVA_ObjDestroy(argc, argv, nullptr);
                            if (!qvahost::keywords_of(argk).empty())
                              QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "cleanup failed");
                          }));
  Tmp selfish(obj_new("OT_SELFISH")), failing(obj_new("OT_SELFISH"));
  hosttest::obj_destroy({selfish.get()});
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(QVA_ObjValidate(selfish->value.hvid, QVA_MSG_RET), nullptr);
  auto e = ExpectHostError([&] { hosttest::obj_destroy({failing.get()}, {{"A", flag.get()}}); });
  EXPECT_EQ(e.routine, "OT_SELFISH::CLEANUP");
  EXPECT_EQ(QVA_ObjValidate(failing->value.hvid, QVA_MSG_RET), nullptr);
}

// An error raised deep in nested calls (native routine -> method, or a call
// by name -> native routine -> method) reaches the outside caller naming
// the routine that raised it, and everything made on the way is released.
TEST_F(ObjectTest, ErrorFromANestedMethodReachesTheOuterCaller) {
  Object dog(obj_new("OT_DOG"));
  qvahost::Accounting before = qvahost::accounting();
  auto e = ExpectHostError([&] { call_function("OT_OUTER", {dog.get()}); });
  EXPECT_EQ(e.code, QVA_M_GENERIC);
  EXPECT_EQ(e.report(), "% OT_DOG::FAIL: worker failed: 7");
  EXPECT_EQ(ExpectHostError([&] { call_procedure("OT_TOP", {dog.get()}); }).routine,
            "OT_DOG::FAIL");
  EXPECT_FALSE(g_after_failure) << "nothing runs after an action-2 message";
  EXPECT_EQ(qvahost::accounting(), before) << "temporaries made on the way are released";
  // try_call reports once, releases only what its body made, and the
  // routine stack unwound: an error at top level names no routine.
  Tmp outside(qvahost::make_long(1));
  qvatest::OutputCapture out;
  std::string report = qvahost::try_call([&] { Tmp r(call_function("OT_OUTER", {dog.get()})); });
  EXPECT_EQ(report, "% OT_DOG::FAIL: worker failed: 7");
  EXPECT_EQ(qvahost::try_call([] { QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "at top"); }),
            "% at top");
  EXPECT_EQ(qvahost::try_call([] {}), "");
  EXPECT_EQ(out.lines(), (std::vector<std::string>{report, "% at top"}));
  EXPECT_EQ(qvahost::integer_value(outside.get()), 1) << "a temporary made before survives";
}

// OT_VIA(obj, method [, arg]): calls a procedure method of obj as a module
// does, in one fused host call when g_fused, else validating the object and
// calling QVA_ObjCallMethod.
bool g_fused = false;
void ot_via(int argc, QVA_VPTR argv[]) {
  const char *name = QVA_STRING_STR(&argv[1]->value.str);
  QVA_IDENT method = QVA_IdentHash(name, 0, 0, QVA_MSG_LONGJMP, 0);
  QVA_VPTR args[] = {argc > 2 ? argv[2] : nullptr, nullptr};
  const int n = argc > 2 ? 1 : 0;
  if (g_fused) {
    QVA_ObjCallProcMethod(method, argv[0]->value.hvid, n, args);
  } else {
    QVA_HVPTR self = QVA_ObjValidate(argv[0]->value.hvid, QVA_MSG_LONGJMP);
    QVA_ObjCallMethod(QVA_MSG_LONGJMP, method, self, 0, n, args, nullptr, nullptr, 0);
  }
}

// The fused call of a procedure method is the validated QVA_ObjCallMethod
// in every outcome: what runs and with which arguments, a method recompiled
// in between, one taking keywords, and each error (its code, text and the
// routine it names), with nothing left behind.
TEST_F(ObjectTest, AFusedProcedureMethodCallDoesWhatValidateAndCallMethodDo) {
  static QVA_SYSFUN_DEF pros[] = {{QVA_RTN(ot_via), "OT_VIA", 2, 3, 0, 0}};
  ASSERT_EQ(QVA_SysRtnAdd(pros, 0, 1), 1);
  static std::string ran;
  auto recorder = [](const char *label) {
    return Does([label](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
      ran = std::string(label) + " self=" + std::to_string(argv[0]->value.hvid) +
            " argc=" + std::to_string(argc) + " kw=" + std::to_string(qvahost::keywords_of(argk).size());
      if (argc > 1) ran += " arg=" + std::to_string(Long(argv[1]));
    });
  };
  qvahost::define_routine("OT_ANIMAL::BARK", false, 1, 2, false, recorder("bark"));
  qvahost::define_routine("OT_ANIMAL::KEYED", false, 1, 2, true, recorder("keyed"));
  qvahost::define_routine("OT_ANIMAL::ALONE", false, 1, 1, false, recorder("alone"));
  Object dog(obj_new("OT_DOG"));
  Tmp gone(obj_new("OT_ANIMAL")), five(qvahost::make_long(5));
  hosttest::obj_destroy({gone.get()});
  auto outcome = [&](QVA_VPTR obj, const char *method, bool with_arg) {
    ran.clear();
    Tmp name(qvahost::make_string(method));
    std::vector<QVA_VPTR> args{obj, name.get()};
    if (with_arg) args.push_back(five.get());
    const qvahost::Accounting before = qvahost::accounting();
    std::string out;
    try {
      call_procedure("OT_VIA", args);
      out = ran;
    } catch (const qvahost::HostError &e) {
      out = std::to_string(e.code) + " " + e.report();
    }
    EXPECT_EQ(qvahost::accounting(), before) << method;
    return out;
  };
  struct Case {
    QVA_VPTR obj;
    const char *method;
    bool with_arg;
    std::string expected;  // what both calls give
  };
  const std::string dog_id = std::to_string(Id(dog));
  const Case cases[] = {
      {dog.get(), "BARK", true, "bark self=" + dog_id + " argc=2 kw=0 arg=5"},
      {dog.get(), "bark", false, "bark self=" + dog_id + " argc=1 kw=0"},
      {dog.get(), "KEYED", true, "keyed self=" + dog_id + " argc=2 kw=0 arg=5"},
      {dog.get(), "ALONE", true, "-101 % OT_ANIMAL::ALONE: Incorrect number of arguments."},
      {dog.get(), "FAIL", true, "-3 % OT_DOG::FAIL: worker failed: 7"},
      {dog.get(), "SPEAK", false,
       "-107 % OT_VIA: Attempt to call undefined method: 'OT_DOG::SPEAK'."},
      {gone.get(), "BARK", false,
       "-108 % OT_VIA: Invalid object reference: <ObjHeapVar" + std::to_string(gone->value.hvid) + ">."},
  };
  for (const Case &c : cases)
    for (bool fused : {false, true}) {
      g_fused = fused;
      EXPECT_EQ(outcome(c.obj, c.method, c.with_arg), c.expected)
          << c.method << (fused ? " fused" : " general");
    }
  // Recompiled between two calls: the new body runs.
  g_fused = true;
  outcome(dog.get(), "BARK", false);
  qvahost::define_routine("OT_DOG::BARK", false, 1, 2, false, recorder("recompiled"));
  EXPECT_EQ(outcome(dog.get(), "BARK", true), "recompiled self=" + dog_id + " argc=2 kw=0 arg=5");
}

}  // namespace
