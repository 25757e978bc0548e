// Sweeps of the failing-allocation hook: every allocation of a composite
// operation is made to fail in turn, and each time the operation must end
// with an error (or a null result) and leave nothing behind.
#include <functional>
#include <vector>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::Text;

using FailingAllocTest = CoreTest;

QVA_SDEF Record() {
  return hosttest::ensure_class("FA_RECORD", "",
                                {hosttest::field("ID", QVA_TYP_LONG),
                                 {"NAMES", QVA_TYP_STRING, nullptr, {3}},
                                 hosttest::field("REF", QVA_TYP_PTR)});
}

// Runs `op` with the n-th allocation failing, for n = 1, 2, ... until a run
// meets no failure.  Temporaries `op` made are released as an abandoned
// call's would be; `cleanup` undoes what else it made.  After every run the
// accounting must be back at the start.  Returns how many runs failed.
int Sweep(const std::function<void()> &op, const std::function<void()> &cleanup) {
  const qvahost::Accounting start = qvahost::accounting();
  int failures = 0;
  for (int64_t n = 1; n < 1000; ++n) {
    uint64_t mark = qvahost::tmp_mark();
    qvahost::fail_allocation_after(n);
    bool failed = false;
    try {
      op();
    } catch (const qvahost::HostError &e) {
      failed = true;
      EXPECT_EQ(e.code, qvahost::M_NOMEM) << "run " << n << ": " << e.text;
      EXPECT_NE(e.text.find("Unable to allocate memory"), std::string::npos) << e.text;
    }
    bool reached = qvahost::allocations_since_hook() >= n;
    qvahost::fail_allocation_after(0);
    qvahost::tmp_release_since(mark);
    cleanup();
    EXPECT_EQ(qvahost::accounting(), start)
        << "run " << n << "\n  now: " << qvahost::to_string(qvahost::accounting());
    if (failed) ++failures;
    if (!reached) {
      EXPECT_FALSE(failed) << "run " << n << " failed without the hook";
      return failures;
    }
  }
  ADD_FAILURE() << "the operation never completed";
  return failures;
}

TEST_F(FailingAllocTest, StructureCopiesStringArraysAndConversions) {
  std::vector<QVA_HVID> made;
  auto op = [&] {
    QVA_VPTR rec = nullptr;
    auto *data = QVA_MakeTempStructVector(Record(), 2, &rec, 1);
    for (int i = 0; i < 2; ++i) {
      auto *names = reinterpret_cast<QVA_STRING *>(data + i * Record()->length + 4);
      for (int k = 0; k < 3; ++k) QVA_StrStore(&names[k], k == 1 ? "" : "name");
    }
    QVA_HVPTR copy = QVA_HeapVarNew(QVA_TYP_PTR, rec, 0, QVA_MSG_LONGJMP);
    made.push_back(copy->hash_id);
    made.push_back(QVA_HeapVarNew(QVA_TYP_PTR, rec, 1, QVA_MSG_LONGJMP)->hash_id);
    qvahost::Variable local("FA_LOCAL");
    QVA_VarCopy(&copy->var, local.get());
    EXPECT_EQ(Text(reinterpret_cast<QVA_STRING *>(local->value.s.arr->data + 4)[2]), "name");

    QVA_VPTR arr = qvahost::make_string_array({"1", "22", "333", " 4 "});
    QVA_VarCopy(arr, QVA_Gettmp());
    QVA_VPTR longs = QVA_CvtLng(1, &arr);
    EXPECT_EQ(reinterpret_cast<QVA_LONG *>(longs->value.arr->data)[2], 333);
    QVA_StrToSTRING("made");
  };
  auto cleanup = [&] {
    for (QVA_HVID id : made) QVA_HeapVarDelete(id, 0, 0);
    made.clear();
  };
  EXPECT_GE(Sweep(op, cleanup), 18);
}

TEST_F(FailingAllocTest, ModuleStyleNodeCreationWithActionZero) {
  // As a heap tree makes its nodes: define (handed back), temporary, heap
  // variable with action 0, release the temporary if still temporary.
  static QVA_STRUCT_TAG_DEF node[] = {{"FLINK", nullptr, QVA_TYP_PTR, 0},
                                      {"KEY", nullptr, QVA_TYP_PTR, 0},
                                      {"STATUS0", nullptr, QVA_TYP_BYTE, 0},
                                      {nullptr, nullptr, 0, 0}};
  std::vector<QVA_HVID> made;
  int nulls = 0;
  qvatest::OutputCapture quiet;
  auto op = [&] {
    for (int i = 0; i < 3; ++i) {
      QVA_SDEF sd = QVA_MakeStructInternal("FA_NODE", 0x30, node, 2);
      QVA_VPTR tmp = nullptr;
      QVA_MakeTempStructVector(sd, 1, &tmp, 1);
      QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_RET);
      if (tmp->flags & QVA_V_TEMP) QVA_Deltmp(tmp);
      if (!h) {
        ++nulls;
        return;
      }
      made.push_back(h->hash_id);
    }
  };
  auto cleanup = [&] {
    for (QVA_HVID id : made) QVA_HeapVarDelete(id, 0, 0);
    made.clear();
  };
  Sweep(op, cleanup);
  EXPECT_EQ(nulls, 3);  // each heap record allocation failed once, quietly
}

}  // namespace
