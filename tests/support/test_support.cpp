#include "test_support.h"

#include <sstream>

namespace qvatest {

static std::vector<std::string> *g_capture = nullptr;

OutputCapture::OutputCapture() {
  g_capture = &lines_;
  qvahost::set_output([](const std::string &line) {
    if (g_capture) g_capture->push_back(line);
  });
}

OutputCapture::~OutputCapture() {
  g_capture = nullptr;
  qvahost::set_output(nullptr);
}

std::string OutputCapture::all() const {
  std::ostringstream os;
  for (const auto &l : lines_) os << l << "\n";
  return os.str();
}

void HostTest::SetUp() { baseline_ = qvahost::accounting(); }

void HostTest::ExpectNoLeaks(const char *where) {
  qvahost::Accounting now = qvahost::accounting();
  EXPECT_EQ(now, baseline_) << "host accounting changed at " << where << "\n  before: "
                            << qvahost::to_string(baseline_)
                            << "\n  after:  " << qvahost::to_string(now);
}

void HostTest::TearDown() {
  qvahost::fail_allocation_after(0);
  ExpectNoLeaks();
}

void FreshSessionTest::SetUp() {
  qvahost::reset_session();
  HostTest::SetUp();
}

void FreshSessionTest::TearDown() {
  qvahost::reset_session();
  HostTest::TearDown();
}

qvahost::HostError ExpectHostError(const std::function<void()> &body) {
  try {
    body();
  } catch (const qvahost::HostError &e) {
    return e;
  }
  ADD_FAILURE() << "expected a host error, none was raised";
  return {};
}

void Release(QVA_VPTR tmp) {
  if (tmp) QVA_Deltmp(tmp);
}

}  // namespace qvatest
