// Wrong arguments to the routines of QVAfwHasAHandler, QVAfwMessage,
// QVAfwMessageHandler and QVAfwBehavior: each is refused with its error, and
// the network, the identifiers and the host's accounting are as they were.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <cctype>

#include "fw_support.h"
#include "internal.h"

namespace fwtest {
namespace {

using qvatest::ExpectHostError;
using testing::PrintToString;

std::string Upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

class FwErrorsTest : public FwTest {
 protected:
  void SetUp() override {
    FwTest::SetUp();
    h_ = NewHandler();
    x_ = NewBehavior("M", {.handler = h_, .scope = true});
    msg_ = NewMessage("M", h_);
    foreign_ = New("FWTEST_FOREIGN");
  }
  // What an error must leave as it was (identifiers interned for a failed
  // call are collectable).
  std::string State() {
    ReleaseTemps();
    CollectIdents();
    return PrintToString(ScopedMessages(h_)) + PrintToString(Behaviors(h_, "M")) +
           MessageString(msg_) + "/" + MessageString(x_) + PrintToString(IsRegistered(x_)) +
           PrintToString(FieldRef<QVA_HVID>(msg_, "MYHANDLER")) +
           PrintToString(qvahost::heap_ids()) + qvahost::to_string(qvahost::accounting()) +
           PrintToString(g_log.size());
  }
  // obj->method(args), a function when `function`, which must fail.
  static qvahost::HostError Fails(QVA_HVID obj, const std::string &method,
                                  std::vector<QVA_VPTR> args, bool function = false) {
    return ExpectHostError([&] {
      if (function) {
        Func(obj, method, args);
      } else {
        Proc(obj, method, args);
      }
    });
  }
  QVA_HVID h_ = 0, x_ = 0, msg_ = 0, foreign_ = 0;
};

TEST_F(FwErrorsTest, WhatNamesNoMessageIsRefusedByEveryRoutineTakingAMessage) {
  QVA_VPTR text = qvahost::make_string("M");  // a pointer to a string, which is no identifier
  const QVA_HVID plain = QVA_HeapVarNew(QVA_TYP_PTR, text, 1, QVA_MSG_LONGJMP)->hash_id;
  if (text->flags & QVA_V_TEMP) QVA_Deltmp(text);
  const std::string before = State();
  const std::pair<QVA_VPTR, int> wrongs[] = {
      {Long(1), QVA_M_NOT_OF_CLASS},
      {Own(qvahost::make_ptr(plain)), QVA_M_NOT_OF_CLASS},
      {Own(qvahost::make_ptr(0)), QVA_M_NOT_OF_CLASS},
      {Own(qvahost::make_ptr(x_)), QVA_M_NOT_OF_CLASS},
      {Ref(x_), QVA_M_NOT_OF_CLASS},
      {Ref(foreign_), QVA_M_NOT_OF_CLASS},
      {Ref(0), qvahost::M_INVALID_OBJ},
      {Own(qvahost::make_string_array({"M", "N"})), qvahost::M_NOTSCALAR}};
  for (std::string method :
       {"SENDMESSAGE", "SCOPEMESSAGE", "UNSCOPEMESSAGE", "ISSCOPED", "BEHAVIORS"}) {
    for (auto [wrong, code] : wrongs) {
      SCOPED_TRACE(method + " with a " + PrintToString(wrong->type));
      qvahost::HostError e =
          Fails(h_, method, {wrong}, method == "ISSCOPED" || method == "BEHAVIORS");
      EXPECT_EQ(e.code, code) << e.text;
      if (code == QVA_M_NOT_OF_CLASS) {
        EXPECT_NE(e.text.find("QVAfwMessage"), std::string::npos) << e.text;
      }
    }
  }
  EXPECT_EQ(State(), before);
  QVA_HeapVarDelete(plain, 0, QVA_MSG_LONGJMP);
}

TEST_F(FwErrorsTest, EveryMethodRefusesASelfOfAnotherClassOrAGoneOne) {
  const QVA_HVID dead = NewMessage("Dead");
  Destroy(dead);
  const std::string before = State();
  int checked = 0;
  for (bool function : {true, false}) {
    for (const qvahost::RoutineInfo &r : qvahost::routine_rows(function)) {
      const std::string cls = r.name.substr(0, r.name.find(':')),
                        method = r.name.substr(cls.size());
      if ((cls != "QVAFWHASAHANDLER" && cls != "QVAFWMESSAGE" && cls != "QVAFWBEHAVIOR" &&
           cls != "QVAFWMESSAGEHANDLER") ||
          method == "::INIT" || method == "::CLEANUP")
        continue;
      SCOPED_TRACE(r.name);
      ++checked;
      // Objects of another framework class (all of them have a handler), a
      // foreign object, a destroyed one; arguments of the right kind.
      const QVA_HVID other = cls == "QVAFWMESSAGEHANDLER" ? x_ : h_;
      for (QVA_HVID self : {cls == "QVAFWHASAHANDLER" ? foreign_ : other, foreign_, dead}) {
        std::vector<QVA_VPTR> args{Ref(self)};
        for (int i = 1; i < r.arg_min; ++i)
          args.push_back(method.ends_with("HANDLER") || method.ends_with("BEHAVIOR") ? Ref(h_)
                                                                                     : Str("M"));
        qvahost::HostError e = ExpectHostError([&] {
          if (function) {
            Own(qvahost::call_function(r.name, args));
          } else {
            qvahost::call_procedure(r.name, args);
          }
        });
        // The host names the structure, the module the class.
        EXPECT_EQ(e.code, self == dead ? qvahost::M_INVALID_OBJ : QVA_M_NOT_OF_CLASS) << e.text;
        EXPECT_TRUE(self == dead || Upper(e.text).find(cls) != std::string::npos) << e.text;
      }
    }
  }
  EXPECT_EQ(checked, 23);
  EXPECT_EQ(State(), before);
}

TEST_F(FwErrorsTest, ArgumentsAndKeywordsOfTheWrongClassOrTypeAreRefused) {
  const QVA_HVID dead = NewHandler(), orphan = NewMessage("M", dead);
  Destroy(dead);
  const std::string before = State();
  struct Case {
    QVA_HVID self;
    const char *method;
    QVA_VPTR arg;
    int code;
    std::string named;  // in the text
  };
  const std::string set_string = "::SetMessageString", set_handler = "::SetHandler";
  const Case cases[] = {
      {h_, "ADDBEHAVIOR", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "ADDBEHAVIOR", Str("M"), qvahost::M_REQOBJREF, ""},
      {h_, "ADDBEHAVIOR", Ref(0), qvahost::M_INVALID_OBJ, ""},
      {h_, "REMOVEBEHAVIOR", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "REMOVEBEHAVIOR", Str("M"), qvahost::M_REQOBJREF, ""},
      {h_, "REMOVEBEHAVIOR", Ref(0), qvahost::M_INVALID_OBJ, ""},
      {msg_, "SETHANDLER", Long(h_), QVA_M_OBJREF_REQUIRED, "QVAfwHasAHandler" + set_handler},
      {msg_, "SETHANDLER", Own(qvahost::make_ptr(h_)), QVA_M_OBJREF_REQUIRED, ""},
      {msg_, "SETHANDLER", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwMessageHandler"},
      {msg_, "SETHANDLER", Ref(foreign_), QVA_M_NOT_OF_CLASS, ""},
      {msg_, "SETHANDLER", Ref(dead), qvahost::M_INVALID_OBJ, ""},
      {msg_, "SETMESSAGESTRING", Long(5), QVA_M_WRONG_TYPE, "QVAfwMessage" + set_string},
      {msg_, "SETMESSAGESTRING", Own(qvahost::make_ptr(0)), QVA_M_WRONG_TYPE, ""},
      {msg_, "SETMESSAGESTRING", Own(qvahost::make_string_array({"N"})), qvahost::M_NOTSCALAR, ""},
      {x_, "SETMESSAGESTRING", Long(5), QVA_M_WRONG_TYPE, "QVAfwBehavior" + set_string},
      {x_, "SETMESSAGESTRING", Own(qvahost::make_ptr(0)), QVA_M_WRONG_TYPE, ""},
      {x_, "SETMESSAGESTRING", Own(qvahost::make_string_array({"N"})), qvahost::M_NOTSCALAR, ""}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.method << " with " << Printed(c.arg));
    qvahost::HostError e = Fails(c.self, c.method, {c.arg});
    EXPECT_EQ(e.code, c.code) << e.text;
    EXPECT_NE(e.text.find(c.named), std::string::npos) << e.text;
  }
  // A HANDLER keyword naming what is no handler, or a gone one, makes no object.
  for (const char *cls : {"QVAFWMESSAGE", "QVAFWMESSAGEHANDLER", "FWTEST_RECORDER"}) {
    EXPECT_EQ(ExpectHostError([&] { New(cls, Under(msg_)); }).code, QVA_M_NOT_OF_CLASS) << cls;
    EXPECT_EQ(ExpectHostError([&] { New(cls, Under(dead)); }).code, qvahost::M_INVALID_OBJ);
  }
  // A message whose handler is gone fails to send, leaving the argument alone.
  QVA_VPTR tmp = Long(3);
  EXPECT_EQ(ExpectHostError([&] { Send(orphan, tmp); }).code, qvahost::M_INVALID_OBJ);
  EXPECT_EQ(Printed(tmp), "L:3");
  EXPECT_EQ(State(), before);
}

}  // namespace
}  // namespace fwtest
