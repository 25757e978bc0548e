// Shared test fixtures: every test ends with the host's leak check.
#pragma once

#include <gtest/gtest.h>
#include <qva/qva.h>

#include <string>
#include <vector>

#include "qva_host.h"

namespace qvatest {

// Captures what the host prints (messages, reports) while alive.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  const std::vector<std::string> &lines() const { return lines_; }
  std::string all() const;
  void clear() { lines_.clear(); }
 private:
  std::vector<std::string> lines_;
};

// Base fixture: records the host's accounting before the test and checks in
// TearDown that temporaries, heap variables, objects, allocations and texts
// are back where they were and that no contract violation was reported.
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Checks the balance now (also usable mid-test).
  void ExpectNoLeaks(const char *where = "end of test");
  qvahost::Accounting baseline_;
};

// A fixture that starts from an empty session and ends by resetting it,
// which must leave nothing behind: for tests of saving, restoring and
// anything that keeps session state.
class FreshSessionTest : public HostTest {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// Runs `body` and returns the HostError it raised; fails the test when it
// raised none.
qvahost::HostError ExpectHostError(const std::function<void()> &body);

// Releases a temporary returned by a call (nullptr is ignored).
void Release(QVA_VPTR tmp);

}  // namespace qvatest
