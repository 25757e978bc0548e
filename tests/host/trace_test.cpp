// The call trace: which calls it reports (patterns, case, changes of
// patterns), how it shows them (object, arguments in short form,
// keywords, depth among the traced calls) and that an abandoned call
// leaves the depth as it was.
#include "host_fixture.h"

namespace {

using hosttest::ensure_class;
using hosttest::field;
using hosttest::obj_new;
using hosttest::Object;
using hosttest::Tmp;
using qvahost::call_function;
using qvahost::call_method_procedure;
using qvahost::call_procedure;
using qvatest::OutputCapture;

class TraceTest : public hosttest::CoreTest {
 protected:
  void SetUp() override {
    CoreTest::SetUp();
    // TR_OUTER calls TR_HIDDEN, which calls TR_INNER with its argument and
    // a keyword; TR_FAIL calls TR_INNER and then fails.
    qvahost::define_routine("TR_INNER", true, 0, 2, true, [](int, QVA_VPTR[], QVA_KW_ARGS *) {
      return QVA_GettmpLong(1);
    });
    qvahost::define_routine("TR_HIDDEN", false, 1, 1, false, [](int, QVA_VPTR argv[], QVA_KW_ARGS *) {
      Tmp flag(QVA_GettmpLong(1));
      qvatest::Release(call_function("TR_INNER", {argv[0]}, {{"Quiet", flag.get()}}));
      return static_cast<QVA_VPTR>(nullptr);
    });
    qvahost::define_routine("TR_OUTER", false, 0, 1, false, [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
      Tmp text(qvahost::make_string("a text longer than the trace shows"));
      call_procedure("TR_HIDDEN", {argc ? argv[0] : text.get()});
      return static_cast<QVA_VPTR>(nullptr);
    });
    qvahost::define_routine("TR_FAIL", false, 0, 0, false, [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
      qvatest::Release(call_function("TR_INNER"));
      qvahost::raise_error("failed on purpose");
    });
  }
  void TearDown() override {
    qvahost::set_trace({});
    CoreTest::TearDown();
  }
};

TEST_F(TraceTest, MatchingCallsFormATreeOfTheirOwnDepth) {
  OutputCapture out;
  qvahost::set_trace({"tr_o*", "TR_INN?R"});
  EXPECT_EQ(qvahost::trace_patterns(), (std::vector<std::string>{"TR_O*", "TR_INN?R"}));
  call_procedure("TR_OUTER");
  // TR_HIDDEN matches no pattern: TR_INNER is the second traced level.
  EXPECT_EQ(out.lines(), (std::vector<std::string>{
                             "% [1] TR_OUTER",
                             "%   [2] TR_INNER: 'a text longer than the t...', QUIET=1",
                         }));

  out.clear();
  qvahost::set_trace({"TR_HIDDEN"});  // new patterns replace the old ones
  call_procedure("TR_OUTER");
  EXPECT_EQ(out.lines(), (std::vector<std::string>{"% [1] TR_HIDDEN: 'a text longer than the t...'"}));

  out.clear();
  qvahost::set_trace({});
  call_procedure("TR_OUTER");
  EXPECT_TRUE(out.lines().empty()) << out.all();
  EXPECT_TRUE(qvahost::trace_patterns().empty());
}

TEST_F(TraceTest, AbandonedCallsLeaveTheDepthAsItWas) {
  OutputCapture out;
  qvahost::set_trace({"TR_*"});
  for (int i = 0; i < 2; ++i) qvatest::ExpectHostError([] { call_procedure("TR_FAIL"); });
  EXPECT_EQ(out.lines(), (std::vector<std::string>{
                             "% [1] TR_FAIL", "%   [2] TR_INNER",
                             "% [1] TR_FAIL", "%   [2] TR_INNER",
                         }));
}

TEST_F(TraceTest, MethodsShowTheirObjectApart) {
  ensure_class("TR_THING", "", {field("N", QVA_TYP_LONG)});
  qvahost::define_routine("TR_THING::POKE", false, 1, 3, false,
                          [](int, QVA_VPTR[], QVA_KW_ARGS *) { return static_cast<QVA_VPTR>(nullptr); });
  Object thing(obj_new("TR_THING"));
  QVA_HVID id = thing->value.hvid;
  OutputCapture out;
  qvahost::set_trace({"*::POKE"});
  Tmp list(qvahost::make_long_array({1, 2, 3}));
  Tmp none(QVA_Gettmp());
  call_method_procedure(thing.get(), "Poke", {list.get(), none.get()});
  Tmp self_ref(qvahost::make_objref(id)), null_ref(qvahost::make_objref(0));
  call_method_procedure(thing.get(), "Poke", {self_ref.get(), null_ref.get()});
  std::string obj = "<ObjHeapVar" + std::to_string(id) + "(TR_THING)>";
  EXPECT_EQ(out.lines(), (std::vector<std::string>{
                             "% [1] TR_THING::POKE " + obj + ": LONG[3], <Undefined>",
                             "% [1] TR_THING::POKE " + obj + ": " + obj + ", <NullObject>",
                         }));
}

TEST_F(TraceTest, ShortValuesOfEachKind) {
  Tmp b(qvahost::make_byte(7)), l64(qvahost::make_long64(-5)), d(qvahost::make_double(2.5));
  Tmp s(qvahost::make_string("it's")), p(qvahost::make_ptr(0)), strings(qvahost::make_string_array({"a", "b"}));
  EXPECT_EQ(qvahost::short_value(b.get()), "7B");
  EXPECT_EQ(qvahost::short_value(l64.get()), "-5LL");
  EXPECT_EQ(qvahost::short_value(d.get()), "2.5D");
  EXPECT_EQ(qvahost::short_value(s.get()), "'it's'");
  EXPECT_EQ(qvahost::short_value(p.get()), "<NullPointer>");
  EXPECT_EQ(qvahost::short_value(strings.get()), "STRING[2]");
  EXPECT_EQ(qvahost::short_value(nullptr), "<Undefined>");
}

}  // namespace
