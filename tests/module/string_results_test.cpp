// String results made while allocations fail: a result's text is copied
// into a descriptor of the module's own before the result takes it, so a
// failed copy leaves the text it was copied from (a map's key, an
// identifier's) untouched, and interning a text releases its key once.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <functional>

#include "fw_support.h"

namespace fwtest {
namespace {

class StringResultTest : public FwTest {
 protected:
  // Runs `call` with the n-th allocation failing, for n = 1, 2, ... until it
  // succeeds; after every failure the session must be intact (`intact`) and
  // no released text may have been read or released again.
  static void SweepFailures(const std::function<void()> &call,
                            const std::function<void()> &intact) {
    const int64_t violations = qvahost::accounting().violations;
    for (int64_t n = 1;; ++n) {
      SCOPED_TRACE(testing::Message() << "allocation " << n << " fails");
      qvahost::fail_allocation_after(n);
      bool failed = false;
      try {
        call();
      } catch (const qvahost::HostError &) {
        failed = true;
      }
      qvahost::fail_allocation_after(0);
      intact();
      ASSERT_EQ(qvahost::accounting().violations, violations);
      if (!failed) return;
    }
  }
};

TEST_F(StringResultTest, GetKeysLeavesTheKeysOfTheMap) {
  const QVA_HVID map = New("QVADSMAP");
  for (const char *key : {"beta", "alpha"}) Proc(map, "INSERT", {Str(key), Long(1)});
  auto keys = [&] {
    QVA_VPTR r = Func(map, "GETKEYS");
    auto *s = reinterpret_cast<QVA_STRING *>(r->value.arr->data);
    return Texts{QVA_STRING_STR(&s[0]), QVA_STRING_STR(&s[1])};
  };
  SweepFailures([&] { Func(map, "GETKEYS"); }, [&] { EXPECT_EQ(keys(), (Texts{"alpha", "beta"})); });
}

TEST_F(StringResultTest, MessageStringAndScopedMessagesLeaveTheIdentifiersTexts) {
  const QVA_HVID h = NewHandler(), msg = NewMessage("Hello", h);
  for (const char *text : {"b", "a"}) Scope(h, text);
  SweepFailures([&] { Func(msg, "MESSAGESTRING"); }, [&] { EXPECT_EQ(MessageString(msg), "Hello"); });
  SweepFailures([&] { Func(h, "SCOPEDMESSAGES"); },
                [&] { EXPECT_EQ(ScopedMessages(h), (Texts{"a", "b"})); });
}

TEST_F(StringResultTest, InterningANewTextReleasesItsKeyOnce) {
  QVA_HVID id = 0;
  SweepFailures([&] { id = Own(qvahost::call_function("GET_FWIDENT", {Str("Fresh")}))->value.hvid; },
                [] {});
  EXPECT_EQ(qvahost::string_value(&QVA_HeapVarHashFind(id)->var), "Fresh");
  EXPECT_EQ(IdentOf("Fresh"), id) << "interned once";
  IdentRoutine("FWIDENT_RELEASE", id);
}

}  // namespace
}  // namespace fwtest
