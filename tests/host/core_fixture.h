// Fixture for the host core tests (memory, strings, variables, structures,
// heap, messages, identifiers): the leak check of HostTest, plus a way to
// provoke contract violations on purpose and accept exactly those.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "internal.h"
#include "test_support.h"

namespace coretest {

class CoreTest : public qvatest::HostTest {
 protected:
  // Runs `body`, which must report exactly `expected` contract violations;
  // they are accepted in the baseline so that the final leak check still
  // demands no other.  Returns what was printed on standard error.
  std::string ExpectViolations(int64_t expected, const std::function<void()> &body) {
    int64_t before = qvahost::accounting().violations;
    testing::internal::CaptureStderr();
    body();
    std::string err = testing::internal::GetCapturedStderr();
    int64_t reported = qvahost::accounting().violations - before;
    EXPECT_EQ(reported, expected) << err;
    if (expected > 0) {
      EXPECT_NE(err.find("QVA host contract violation:"), std::string::npos) << err;
    }
    baseline_.violations += reported;
    return err;
  }
};

// Releases a temporary at scope exit.
class Tmp {
 public:
  explicit Tmp(QVA_VPTR v) : v_(v) {}
  ~Tmp() {
    if (v_) QVA_Deltmp(v_);
  }
  Tmp(const Tmp &) = delete;
  Tmp &operator=(const Tmp &) = delete;
  QVA_VPTR get() const { return v_; }
  QVA_VPTR operator->() const { return v_; }

 private:
  QVA_VPTR v_;
};

// Deletes a heap variable at scope exit.
class HeapGuard {
 public:
  explicit HeapGuard(QVA_HVPTR h) : id_(h ? h->hash_id : 0) {}
  ~HeapGuard() { QVA_HeapVarDelete(id_, 0, 0); }
  HeapGuard(const HeapGuard &) = delete;
  HeapGuard &operator=(const HeapGuard &) = delete;
  QVA_HVID id() const { return id_; }

 private:
  QVA_HVID id_;
};

inline std::string Text(const QVA_STRING &s) {
  return std::string(QVA_STRING_STR(&s), static_cast<size_t>(s.slen));
}

}  // namespace coretest
