// QVAfwHasAHandler through HANDLER and SETHANDLER on messages, behaviours
// and handlers: the effective handler, clearing the link, and the refusal
// of links that would close a cycle in the handler chain.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include "fw_recorder.h"
#include "internal.h"

namespace {

using fwtest::Args;
using qvatest::ExpectHostError;

class HasAHandlerTest : public fwtest::FwTest {
 protected:
  static QVA_HVID Link(QVA_HVID obj) { return fwtest::FieldRef<QVA_HVID>(obj, "MYHANDLER"); }
};

TEST_F(HasAHandlerTest, AnUnparentedObjectBelongsToOneTopLevelHandlerThatHasNone) {
  const QVA_HVID msg = fwtest::NewMessage("M");
  const QVA_HVID beh = fwtest::NewBehavior("M", {.register_it = false});
  const QVA_HVID h = fwtest::NewHandler();
  EXPECT_EQ(fwtest::TopLevel(), 0u) << "nothing needed it yet";
  const QVA_HVID top = fwtest::HandlerOf(msg);
  ASSERT_NE(top, 0u);
  EXPECT_EQ(fwtest::TopLevel(), top);
  EXPECT_EQ(fwtest::HandlerOf(msg), top) << "made once";
  EXPECT_EQ(fwtest::HandlerOf(beh), top);
  EXPECT_EQ(fwtest::HandlerOf(h), top);
  EXPECT_EQ(Link(msg), 0u) << "the link itself stays empty";
  EXPECT_EQ(fwtest::HandlerOf(top), 0u) << "the null object";
  EXPECT_TRUE(QVA_HeapVarHashFind(top)->flags & QVA_HV_HELD);
}

TEST_F(HasAHandlerTest, SetHandlerLinksAndANullReferenceClearsTheLink) {
  const QVA_HVID h = fwtest::NewHandler();
  for (QVA_HVID obj : {fwtest::NewMessage("M"), fwtest::NewBehavior("M", {.register_it = false}),
                       fwtest::NewHandler()}) {
    fwtest::SetHandler(obj, h);
    EXPECT_EQ(fwtest::HandlerOf(obj), h);
    EXPECT_EQ(Link(obj), h);
    fwtest::SetHandler(obj, 0);
    EXPECT_EQ(Link(obj), 0u);
    const QVA_HVID effective = fwtest::HandlerOf(obj);
    EXPECT_NE(effective, 0u);
    EXPECT_EQ(effective, fwtest::TopLevel());
  }
  // The keyword does the same at INIT.
  const QVA_HVID child = fwtest::NewHandler(h);
  EXPECT_EQ(Link(child), h);
}

TEST_F(HasAHandlerTest, ALinkThatWouldCloseACycleIsRefusedAndLeftAsItWas) {
  const QVA_HVID a = fwtest::NewHandler();
  const QVA_HVID b = fwtest::NewHandler(a);
  const QVA_HVID c = fwtest::NewHandler(b);
  const QVA_HVID outside = fwtest::NewHandler();
  fwtest::SetHandler(a, outside);

  struct Case {
    QVA_HVID obj, target;
  };
  for (Case k : {Case{a, a}, Case{a, b}, Case{a, c}, Case{b, c}, Case{c, c}}) {
    SCOPED_TRACE(testing::Message() << k.obj << " -> " << k.target);
    const QVA_HVID before = Link(k.obj);
    qvahost::HostError e = ExpectHostError([&] { fwtest::SetHandler(k.obj, k.target); });
    EXPECT_EQ(e.code, QVA_M_GENERIC);
    EXPECT_NE(e.text.find("cycle"), std::string::npos) << e.text;
    EXPECT_EQ(Link(k.obj), before);
  }
  // Above: allowed, and the chain still climbs.
  fwtest::SetHandler(c, a);
  EXPECT_EQ(fwtest::HandlerOf(c), a);
  fwtest::Scope(outside, "M");
  const QVA_HVID x = fwtest::NewBehavior("M", {.handler = c});
  EXPECT_EQ(fwtest::Behaviors(outside, "M"), std::vector<QVA_HVID>{x});
}

TEST_F(HasAHandlerTest, TheTopLevelHandlerCannotBeLinkedBelowAnything) {
  const QVA_HVID h = fwtest::NewHandler();
  const QVA_HVID top = fwtest::HandlerOf(h);
  ASSERT_NE(top, 0u);
  for (QVA_HVID target : {h, top}) {
    EXPECT_EQ(ExpectHostError([&] { fwtest::SetHandler(top, target); }).code, QVA_M_GENERIC);
    EXPECT_EQ(Link(top), 0u);
    EXPECT_EQ(fwtest::HandlerOf(top), 0u);
  }
}

TEST_F(HasAHandlerTest, SetHandlerRefusesWhatIsNoMessageHandler) {
  const QVA_HVID msg = fwtest::NewMessage("M");
  const QVA_HVID h = fwtest::NewHandler();
  fwtest::SetHandler(msg, h);
  const QVA_HVID other_msg = fwtest::NewMessage("N");
  const QVA_HVID beh = fwtest::NewBehavior("N", {.register_it = false});
  Args a;

  for (QVA_VPTR wrong : {a.Own(qvahost::make_long(static_cast<QVA_LONG>(h))), a.Str("handler"),
                         a.Own(qvahost::make_ptr(h))}) {
    qvahost::HostError e = ExpectHostError([&] { fwtest::Proc(msg, "SETHANDLER", {wrong}); });
    EXPECT_EQ(e.code, QVA_M_OBJREF_REQUIRED);
    EXPECT_NE(e.text.find("QVAfwHasAHandler::SetHandler"), std::string::npos) << e.text;
    EXPECT_EQ(Link(msg), h);
  }
  for (QVA_HVID not_handler : {other_msg, beh}) {
    qvahost::HostError e = ExpectHostError([&] { fwtest::SetHandler(msg, not_handler); });
    EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
    EXPECT_NE(e.text.find("QVAfwMessageHandler"), std::string::npos) << e.text;
    EXPECT_EQ(Link(msg), h);
  }
  QVA_HVID dead = fwtest::NewHandler();
  fwtest::Destroy(dead);
  EXPECT_EQ(ExpectHostError([&] { fwtest::SetHandler(msg, dead); }).code, qvahost::M_INVALID_OBJ);
  EXPECT_EQ(Link(msg), h);

  // An object of a foreign class.
  qvatest::DefineStructOnce("FWTEST_FOREIGN", "", {qvatest::Field("VALUE", QVA_TYP_LONG)});
  qvatest::ScopedObject foreign = qvatest::ScopedObject::New("FWTEST_FOREIGN");
  EXPECT_EQ(ExpectHostError([&] { fwtest::SetHandler(msg, foreign.id()); }).code,
            QVA_M_NOT_OF_CLASS);
  EXPECT_EQ(Link(msg), h);
}

TEST_F(HasAHandlerTest, AHandlerKeywordThatIsNoMessageHandlerMakesNoObject) {
  const QVA_HVID other = fwtest::NewMessage("N");
  const int64_t objects = Objects();
  for (const char *cls : {fwtest::kMessage, fwtest::kHandler, fwtest::kRecorder}) {
    SCOPED_TRACE(cls);
    qvahost::HostError e =
        ExpectHostError([&] { fwtest::NewObject(cls, fwtest::HandlerKeyword(other)); });
    EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
    EXPECT_EQ(Objects(), objects);
  }
}

}  // namespace
