// Interned identifiers.
#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using qvatest::ExpectHostError;

using IdentsTest = CoreTest;

TEST_F(IdentsTest, NamesInternCaseInsensitively) {
  QVA_IDENT a = QVA_IdentHash("it_Cleanup", 0, 0, 2, 0);
  QVA_IDENT b = QVA_IdentHash("IT_CLEANUP", 0, QVA_IDENT_USER, 2, 0);
  QVA_IDENT c = QVA_IdentHash("it_cleanup_2", 0, 0, 2, 0);
  EXPECT_NE(a, 0u);
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_STREQ(QVA_IdentName(a), "IT_CLEANUP");
  EXPECT_EQ(qvahost::ident_of("It_CleanUp"), a);
  // An explicit length takes a prefix.
  EXPECT_EQ(QVA_IdentHash("IT_CLEANUP_AND_MORE", 10, 0, 2, 0), a);
}

TEST_F(IdentsTest, ValidNameForms) {
  for (const char *ok : {"A", "_x", "a1$", "QVAFWMESSAGEHANDLER::SENDMESSAGE", "x::_y"})
    EXPECT_NE(QVA_IdentHash(ok, 0, 0, 0, 0), 0u) << ok;
  qvatest::OutputCapture out;
  for (const char *bad : {"", "1abc", "a b", "$a", "a::", "::b", "a::b::c", "a:b", "a-b"})
    EXPECT_EQ(QVA_IdentHash(bad, 0, 0, QVA_MSG_RET, 0), 0u) << bad;
  EXPECT_EQ(QVA_IdentHash(nullptr, 0, 0, QVA_MSG_RET, 0), 0u);
  auto e = ExpectHostError([] { QVA_IdentHash("not valid", 0, 0, 2, 0); });
  EXPECT_EQ(e.code, qvahost::M_BAD_IDENT);
  EXPECT_EQ(e.text, "Invalid identifier: 'not valid'.");
  EXPECT_EQ(ExpectHostError([] { qvahost::ident_of("9"); }).code, qvahost::M_BAD_IDENT);
}

TEST_F(IdentsTest, UnknownIdentifiersHaveNoName) {
  EXPECT_STREQ(QVA_IdentName(0), "");
  ExpectViolations(1, [] { EXPECT_STREQ(QVA_IdentName(0x7FFFFFF0u), ""); });
}

}  // namespace
