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
  // What an error must leave as it was.
  struct State {
    std::vector<std::string> scoped;
    std::vector<QVA_HVID> listed, heap;
    std::string msg_text, beh_text;
    bool registered;
    QVA_HVID link;
    qvahost::Accounting acc;
    bool operator==(const State &) const = default;
  };
  State Now() {
    ReleaseTemps();
    State s{ScopedMessages(h_),
            Behaviors(h_, "M"),
            {},
            MessageString(msg_),
            MessageString(x_),
            IsRegistered(x_),
            FieldRef<QVA_HVID>(msg_, "MYHANDLER")};
    CollectIdents();  // identifiers interned for a failed call are collectable
    s.heap = qvahost::heap_ids();
    s.acc = qvahost::accounting();
    return s;
  }
  void ExpectUnchanged(const State &before) {
    EXPECT_TRUE(Now() == before) << "accounting " << qvahost::to_string(qvahost::accounting())
                                 << " was " << qvahost::to_string(before.acc);
    EXPECT_TRUE(Log().empty());
  }
  // Runs obj->method(args) (a function when `function`) expecting an error.
  static qvahost::HostError Fails(QVA_HVID obj, const std::string &method,
                                  std::vector<QVA_VPTR> args, bool function = false) {
    return ExpectHostError([&] {
      if (function) {
        QVA_Deltmp(Func(obj, method, args));
      } else {
        Proc(obj, method, args);
      }
    });
  }
  QVA_HVID h_ = 0, x_ = 0, msg_ = 0, foreign_ = 0;
};

TEST_F(FwErrorsTest, WhatNamesNoMessageIsRefusedByEveryRoutineTakingAMessage) {
  // A pointer heap variable holding a string, which is no identifier.
  QVA_HVID plain;
  {
    Tmp t(qvahost::make_string("M"));
    plain = QVA_HeapVarNew(QVA_TYP_PTR, t, 1, QVA_MSG_LONGJMP)->hash_id;
  }
  const QVA_HVID other_handler = NewHandler();
  const State before = Now();
  struct Wrong {
    const char *what;
    QVA_VPTR value;
    int code;
  };
  const Wrong wrongs[] = {
      {"long", Long(1), QVA_M_NOT_OF_CLASS},
      {"double", Own(qvahost::make_double(2.5)), QVA_M_NOT_OF_CLASS},
      {"pointer to a plain string", Own(qvahost::make_ptr(plain)), QVA_M_NOT_OF_CLASS},
      {"null pointer", Own(qvahost::make_ptr(0)), QVA_M_NOT_OF_CLASS},
      {"pointer to a behaviour", Own(qvahost::make_ptr(x_)), QVA_M_NOT_OF_CLASS},
      {"behaviour", Ref(x_), QVA_M_NOT_OF_CLASS},
      {"handler", Ref(other_handler), QVA_M_NOT_OF_CLASS},
      {"foreign object", Ref(foreign_), QVA_M_NOT_OF_CLASS},
      {"null object", Ref(0), qvahost::M_INVALID_OBJ},
      {"string array", Own(qvahost::make_string_array({"M", "N"})), qvahost::M_NOTSCALAR},
  };
  for (std::string method :
       {"SENDMESSAGE", "SCOPEMESSAGE", "UNSCOPEMESSAGE", "ISSCOPED", "BEHAVIORS"}) {
    for (const Wrong &w : wrongs) {
      SCOPED_TRACE(method + " with a " + w.what);
      qvahost::HostError e =
          Fails(h_, method, {w.value}, method == "ISSCOPED" || method == "BEHAVIORS");
      EXPECT_EQ(e.code, w.code) << e.text;
      if (w.code == QVA_M_NOT_OF_CLASS) {
        EXPECT_NE(e.text.find("QVAfwMessage"), std::string::npos) << e.text;
      }
    }
  }
  ExpectUnchanged(before);
  QVA_HeapVarDelete(plain, 0, QVA_MSG_LONGJMP);
}

TEST_F(FwErrorsTest, EveryMethodRefusesASelfOfAnotherClassOrAGoneOne) {
  const QVA_HVID dead = NewMessage("Dead");
  Destroy(dead);
  const State before = Now();
  struct Call {
    std::string routine;
    bool function;
    QVA_HVID self;
    std::vector<QVA_VPTR> more;
  };
  const Call calls[] = {
      {"QVAfwHasAHandler::HANDLER", true, foreign_, {}},
      {"QVAfwHasAHandler::SETHANDLER", false, foreign_, {Ref(h_)}},
      {"QVAfwHasAHandler::RESTORE", false, foreign_, {}},
      {"QVAfwMessage::SEND", false, h_, {}},
      {"QVAfwMessage::SEND", false, x_, {Long(1)}},
      {"QVAfwMessage::MESSAGESTRING", true, h_, {}},
      {"QVAfwMessage::SETMESSAGESTRING", false, x_, {Str("N")}},
      {"QVAfwMessage::RESTORE", false, h_, {}},
      {"QVAfwMessageHandler::SENDMESSAGE", false, msg_, {Str("M")}},
      {"QVAfwMessageHandler::SCOPEMESSAGE", false, msg_, {Str("New Text")}},
      {"QVAfwMessageHandler::UNSCOPEMESSAGE", false, x_, {Str("M")}},
      {"QVAfwMessageHandler::ISSCOPED", true, msg_, {Str("Other Text")}},
      {"QVAfwMessageHandler::BEHAVIORS", true, x_, {Str("M")}},
      {"QVAfwMessageHandler::SCOPEDMESSAGES", true, msg_, {}},
      {"QVAfwMessageHandler::ADDBEHAVIOR", false, msg_, {Ref(x_)}},
      {"QVAfwMessageHandler::REMOVEBEHAVIOR", false, x_, {Ref(x_)}},
      {"QVAfwMessageHandler::RESTORE", false, msg_, {}},
      {"QVAfwBehavior::MESSAGESTRING", true, msg_, {}},
      {"QVAfwBehavior::SETMESSAGESTRING", false, msg_, {Str("N")}},
      {"QVAfwBehavior::EXECUTE", false, msg_, {}},
      {"QVAfwBehavior::REGISTER", false, h_, {}},
      {"QVAfwBehavior::UNREGISTER", false, msg_, {}},
      {"QVAfwBehavior::ISREGISTERED", true, h_, {}},
      {"QVAfwBehavior::RESTORE", false, h_, {}},
  };
  for (const Call &c : calls) {
    SCOPED_TRACE(c.routine);
    const std::string cls = c.routine.substr(0, c.routine.find(':'));
    for (QVA_HVID self : {c.self, dead}) {
      std::vector<QVA_VPTR> args{Ref(self)};
      args.insert(args.end(), c.more.begin(), c.more.end());
      qvahost::HostError e = ExpectHostError([&] {
        if (c.function) {
          QVA_Deltmp(qvahost::call_function(Upper(c.routine), args));
        } else {
          qvahost::call_procedure(Upper(c.routine), args);
        }
      });
      if (self == dead) {
        EXPECT_EQ(e.code, qvahost::M_INVALID_OBJ) << e.text;
      } else {
        EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS) << e.text;
        // The host names the structure, the module the class.
        EXPECT_NE(Upper(e.text).find(Upper(cls)), std::string::npos) << e.text;
      }
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, ObjectArgumentsOfTheWrongClassOrTypeAreRefused) {
  const QVA_HVID dead = NewHandler();
  Destroy(dead);
  const QVA_HVID beh = NewBehavior("N", {.register_it = false});
  const State before = Now();
  struct Case {
    QVA_HVID self;
    const char *method;
    QVA_VPTR arg;
    int code;
    const char *named;  // in the text, when given
  };
  const Case cases[] = {
      {h_, "ADDBEHAVIOR", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "ADDBEHAVIOR", Ref(h_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "ADDBEHAVIOR", Ref(foreign_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "ADDBEHAVIOR", Str("M"), qvahost::M_REQOBJREF, nullptr},
      {h_, "ADDBEHAVIOR", Ref(0), qvahost::M_INVALID_OBJ, nullptr},
      {h_, "REMOVEBEHAVIOR", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "REMOVEBEHAVIOR", Ref(foreign_), QVA_M_NOT_OF_CLASS, "QVAfwBehavior"},
      {h_, "REMOVEBEHAVIOR", Str("M"), qvahost::M_REQOBJREF, nullptr},
      {h_, "REMOVEBEHAVIOR", Ref(0), qvahost::M_INVALID_OBJ, nullptr},
      {msg_, "SETHANDLER", Long(static_cast<QVA_LONG>(h_)), QVA_M_OBJREF_REQUIRED,
       "QVAfwHasAHandler::SetHandler"},
      {msg_, "SETHANDLER", Str("handler"), QVA_M_OBJREF_REQUIRED, "QVAfwHasAHandler::SetHandler"},
      {msg_, "SETHANDLER", Own(qvahost::make_ptr(h_)), QVA_M_OBJREF_REQUIRED, nullptr},
      {msg_, "SETHANDLER", Ref(msg_), QVA_M_NOT_OF_CLASS, "QVAfwMessageHandler"},
      {msg_, "SETHANDLER", Ref(beh), QVA_M_NOT_OF_CLASS, "QVAfwMessageHandler"},
      {msg_, "SETHANDLER", Ref(foreign_), QVA_M_NOT_OF_CLASS, nullptr},
      {msg_, "SETHANDLER", Ref(dead), qvahost::M_INVALID_OBJ, nullptr},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.method << " with " << Printed(c.arg));
    qvahost::HostError e = Fails(c.self, c.method, {c.arg});
    EXPECT_EQ(e.code, c.code) << e.text;
    if (c.named) {
      EXPECT_NE(e.text.find(c.named), std::string::npos) << e.text;
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, SetMessageStringTakesOnlyAScalarString) {
  const State before = Now();
  for (QVA_HVID self : {msg_, x_}) {
    const std::string routine =
        self == msg_ ? "QVAfwMessage::SetMessageString" : "QVAfwBehavior::SetMessageString";
    for (QVA_VPTR wrong : {Long(5), Ref(h_), Own(qvahost::make_ptr(0))}) {
      qvahost::HostError e = Fails(self, "SETMESSAGESTRING", {wrong});
      EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
      EXPECT_NE(e.text.find(routine), std::string::npos) << e.text;
    }
    EXPECT_EQ(Fails(self, "SETMESSAGESTRING", {Own(qvahost::make_string_array({"N"}))}).code,
              qvahost::M_NOTSCALAR);
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, InitWithABadHandlerKeywordMakesNothing) {
  const QVA_HVID gone = NewHandler();
  Destroy(gone);
  const State before = Now();
  for (const char *cls : {kMessage, kHandler, kRecorder}) {
    SCOPED_TRACE(cls);
    EXPECT_EQ(ExpectHostError([&] { New(cls, Under(msg_)); }).code, QVA_M_NOT_OF_CLASS);
    EXPECT_EQ(ExpectHostError([&] { New(cls, Under(gone)); }).code, qvahost::M_INVALID_OBJ);
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, SendToAMessageWhoseHandlerWasDestroyedFailsCleanly) {
  const QVA_HVID lost = NewHandler();
  const QVA_HVID orphan = NewMessage("M", lost);
  Destroy(lost);
  const State before = Now();
  QVA_VPTR tmp = Long(3);
  EXPECT_EQ(ExpectHostError([&] { Send(orphan, tmp); }).code, qvahost::M_INVALID_OBJ);
  EXPECT_EQ(Printed(tmp), "L:3");
  ExpectUnchanged(before);
}

}  // namespace
}  // namespace fwtest
