// The accounting every test ends with: it must notice each kind of leak.
#include "core_fixture.h"

namespace {

using coretest::CoreTest;

using AccountingTest = CoreTest;

TEST_F(AccountingTest, EachKindOfPlantedLeakShowsInTheBalance) {
  const qvahost::Accounting start = qvahost::accounting();

  QVA_VPTR tmp = QVA_Gettmp();
  qvahost::Accounting now = qvahost::accounting();
  EXPECT_NE(now, start);
  EXPECT_EQ(now.temporaries, start.temporaries + 1);
  EXPECT_NE(qvahost::to_string(now).find("temporaries=" + std::to_string(now.temporaries)),
            std::string::npos)
      << qvahost::to_string(now);
  QVA_Deltmp(tmp);
  EXPECT_EQ(qvahost::accounting(), start);

  QVA_STRING s{};
  QVA_StrStore(&s, "leak");
  EXPECT_EQ(qvahost::accounting().texts, start.texts + 1);
  QVA_StrDelete(&s, 1);

  void *block = QVA_MemAllocQuiet(10);
  EXPECT_EQ(qvahost::accounting().allocations, start.allocations + 1);
  QVA_MemFreeQuiet(block);

  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, nullptr, 0, 2);
  EXPECT_EQ(qvahost::accounting().heap_vars, start.heap_vars + 1);
  EXPECT_EQ(h->var.type, QVA_TYP_UNDEF);
  QVA_HeapVarDelete(h->hash_id, 0, 0);

  EXPECT_EQ(qvahost::accounting(), start);
}

TEST_F(AccountingTest, ViolationsAreCountedAndPrinted) {
  std::string err = ExpectViolations(1, [] { qvahost::contract_violation("planted misuse"); });
  EXPECT_NE(err.find("QVA host contract violation: planted misuse"), std::string::npos) << err;
  EXPECT_NE(qvahost::to_string(qvahost::accounting()).find("violations="), std::string::npos);
}

}  // namespace
