// Messages: host codes and their texts, variable errors, message blocks,
// and the difference between reporting and abandoning.
#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::Tmp;
using qvatest::ExpectHostError;
using qvatest::OutputCapture;

using MessagesTest = CoreTest;

TEST_F(MessagesTest, HostCodesCarryTheirArguments) {
  auto e = ExpectHostError([] {
    QVA_Message(QVA_M_GENERIC, 2, "Cannot delete the head of an map_rbh_tree: 0x%x", 0x2au);
  });
  EXPECT_EQ(e.code, QVA_M_GENERIC);
  EXPECT_EQ(e.text, "Cannot delete the head of an map_rbh_tree: 0x2a");

  e = ExpectHostError([] { QVA_Message(QVA_M_WRONG_TYPE, 2, "QVAfwBehavior::SetMessageString"); });
  EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
  EXPECT_NE(e.text.find("QVAfwBehavior::SetMessageString"), std::string::npos) << e.text;

  e = ExpectHostError([] { QVA_Message(QVA_M_NOT_OF_CLASS, 2, "message", "QVAfwMessage"); });
  EXPECT_EQ(e.text, "Argument message must be an object of class QVAfwMessage.");

  e = ExpectHostError(
      [] { QVA_Message(QVA_M_OBJREF_REQUIRED, 2, "QVAfwHasAHandler::SetHandler"); });
  EXPECT_NE(e.text.find("QVAfwHasAHandler::SetHandler"), std::string::npos) << e.text;
  EXPECT_NE(e.text.find("Object reference"), std::string::npos) << e.text;
}

TEST_F(MessagesTest, ActionZeroPrintsAndReturns) {
  OutputCapture out;
  QVA_Message(QVA_M_GENERIC, QVA_MSG_RET, "plain %d", 1);
  const std::string routine = "SOME_ROUTINE";
  qvahost::push_routine(&routine);
  QVA_Message(QVA_M_GENERIC, QVA_MSG_INFO, "inside %s", "it");
  auto e = ExpectHostError([] { QVA_Message(QVA_M_GENERIC, 2, "abandoned"); });
  qvahost::pop_routine();
  ASSERT_EQ(out.lines().size(), 2u);
  EXPECT_EQ(out.lines()[0], "% plain 1");
  EXPECT_EQ(out.lines()[1], "% SOME_ROUTINE: inside it");
  EXPECT_EQ(e.routine, "SOME_ROUTINE");
  EXPECT_EQ(e.report(), "% SOME_ROUTINE: abandoned");
  EXPECT_EQ(qvahost::current_routine(), "");
  EXPECT_EQ((qvahost::HostError{-3, "", "top"}).report(), "% top");
}

TEST_F(MessagesTest, VariableErrorsNameTheVariable) {
  qvahost::Variable named("MT_VALUE");
  Tmp expr(QVA_GettmpLong(1));
  struct Case {
    void (*fn)(QVA_VPTR, int);
    int code;
    const char *start;
  } cases[] = {
      {QVA_MessageVE_REQSTR, qvahost::M_REQSTR, "String expression required"},
      {QVA_MessageVE_REQPTR, qvahost::M_REQPTR, "Pointer type required"},
      {QVA_MessageVE_REQOBJREF, qvahost::M_REQOBJREF, "Object reference type required"},
      {QVA_MessageVE_NOTSCALAR, qvahost::M_NOTSCALAR, "Expression must be a scalar"},
  };
  for (const Case &c : cases) {
    auto e = ExpectHostError([&] { c.fn(named.get(), 2); });
    EXPECT_EQ(e.code, c.code);
    EXPECT_EQ(e.text.rfind(c.start, 0), 0u) << e.text;
    EXPECT_NE(e.text.find("MT_VALUE"), std::string::npos) << e.text;
    e = ExpectHostError([&] { c.fn(expr.get(), 2); });
    EXPECT_NE(e.text.find("<Expression>"), std::string::npos) << e.text;
  }
  OutputCapture out;
  QVA_MessageVE_REQSTR(named.get(), QVA_MSG_RET);
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_EQ(out.lines()[0], "% String expression required in this context: MT_VALUE.");
}

TEST_F(MessagesTest, BlockRowsAreRaisedByNegativeIndex) {
  QVA_MSG_DEF defs[] = {{"MT_FIRST", "First problem: %s"}, {"MT_SECOND", "Second, code %d"}};
  QVA_MSG_BLOCK block = QVA_MessageDefineBlock("MT_BLOCK_ROWS", 2, defs);
  ASSERT_NE(block, nullptr);
  defs[0].format = "changed after definition";  // the block keeps its own copy
  auto e = ExpectHostError([&] { QVA_MessageFromBlock(block, 0, 2, "heap dereference"); });
  EXPECT_EQ(e.text, "First problem: heap dereference");
  EXPECT_EQ(e.code, 0);
  e = ExpectHostError([&] { QVA_MessageFromBlock(block, -1, 2, 17); });
  EXPECT_EQ(e.text, "Second, code 17");
  EXPECT_EQ(e.code, -1);
  OutputCapture out;
  QVA_MessageFromBlock(block, -1, QVA_MSG_RET, 3);
  EXPECT_EQ(out.lines(), std::vector<std::string>{"% Second, code 3"});
  // A code outside the block is a misuse, still reported.
  ExpectViolations(1, [&] { QVA_MessageFromBlock(block, -2, QVA_MSG_RET); });
  ExpectViolations(1, [&] { QVA_MessageFromBlock(block, 1, QVA_MSG_RET); });
}

TEST_F(MessagesTest, BadBlocksDefineNothing) {
  QVA_MSG_DEF good[] = {{"MT_OK", "ok"}};
  QVA_MSG_DEF no_format[] = {{"MT_A", "a"}, {"MT_B", nullptr}};
  QVA_MSG_DEF no_name[] = {{nullptr, "x"}};
  EXPECT_EQ(QVA_MessageDefineBlock("MT_EMPTY", 0, good), nullptr);
  EXPECT_EQ(QVA_MessageDefineBlock("MT_NULL", 1, nullptr), nullptr);
  EXPECT_EQ(QVA_MessageDefineBlock("MT_NOFORMAT", 2, no_format), nullptr);
  EXPECT_EQ(QVA_MessageDefineBlock("MT_NONAME", 1, no_name), nullptr);
  EXPECT_EQ(QVA_MessageDefineBlock(nullptr, 1, good), nullptr);
  // A refused name stays free; a defined one cannot be defined again.
  EXPECT_NE(QVA_MessageDefineBlock("MT_NOFORMAT", 1, good), nullptr);
  EXPECT_EQ(QVA_MessageDefineBlock("MT_NOFORMAT", 1, good), nullptr);
}

TEST_F(MessagesTest, UnknownCodesAreAMisuseButStillReported) {
  OutputCapture out;
  ExpectViolations(1, [] { QVA_Message(-9999, QVA_MSG_RET); });
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_NE(out.lines()[0].find("-9999"), std::string::npos);
}

TEST_F(MessagesTest, LongTextsAreNotCut) {
  std::string long_arg(2000, 'x');
  auto e = ExpectHostError([&] { QVA_Message(QVA_M_GENERIC, 2, "[%s]", long_arg.c_str()); });
  EXPECT_EQ(e.text, "[" + long_arg + "]");
}

}  // namespace
