// Fixture for the front end's tests: an interpreter over a fresh session,
// what it printed, and the leak check of FreshSessionTest at the end.
#pragma once

#include <memory>
#include <string>

#include "interp.h"
#include "test_support.h"

namespace fetest {

class FrontendTest : public qvatest::FreshSessionTest {
 protected:
  void SetUp() override {
    qvatest::FreshSessionTest::SetUp();
    interp_ = std::make_unique<qva::Interp>();
    interp_->set_print([this](const std::string &line) { printed_ += line + "\n"; });
  }
  void TearDown() override {
    interp_.reset();
    qvatest::FreshSessionTest::TearDown();
  }

  // Runs a source that must succeed; returns what it printed.
  std::string Run(const std::string &source, const std::string &file = "test.pro") {
    printed_.clear();
    qvatest::OutputCapture errors;
    bool ok = interp_->run_source(source, file);
    EXPECT_TRUE(ok) << "errors:\n" << errors.all();
    return printed_;
  }

  // Runs a source that must stop on an error; returns the error report
  // lines (what PRINT wrote before is in printed_).
  std::string RunFails(const std::string &source, const std::string &file = "test.pro") {
    printed_.clear();
    qvatest::OutputCapture errors;
    bool ok = interp_->run_source(source, file);
    EXPECT_FALSE(ok) << "ran without an error; printed:\n" << printed_;
    return errors.all();
  }

  std::unique_ptr<qva::Interp> interp_;
  std::string printed_;
};

}  // namespace fetest
