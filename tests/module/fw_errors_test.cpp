// Wrong arguments to the routines of QVAfwHasAHandler, QVAfwMessage,
// QVAfwMessageHandler and QVAfwBehavior: each is refused with its error,
// and the network, the identifiers and the host's accounting are as they
// were.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <cctype>

#include "fw_recorder.h"
#include "internal.h"

namespace {

using fwtest::Args;
using fwtest::Recorder;
using qvatest::ExpectHostError;

std::string Upper(std::string s) {
  for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

class FwErrorsTest : public fwtest::FwTest {
 protected:
  void SetUp() override {
    fwtest::FwTest::SetUp();
    qvatest::DefineStructOnce("FWTEST_FOREIGN", "", {qvatest::Field("VALUE", QVA_TYP_LONG)});
    h_ = fwtest::NewHandler();
    x_ = fwtest::NewBehavior("M", {.handler = h_, .scope = true});
    msg_ = fwtest::NewMessage("M", h_);
    foreign_ = fwtest::NewObject("FWTEST_FOREIGN", {});
  }

  // What an error must leave as it was.
  struct State {
    std::vector<std::string> scoped;
    std::vector<QVA_HVID> listed;
    std::vector<QVA_HVID> heap;
    std::string msg_text, beh_text;
    bool registered;
    qvahost::Accounting acc;
    bool operator==(const State &) const = default;
  };
  State Now() {
    State s;
    s.scoped = fwtest::ScopedMessages(h_);
    s.listed = fwtest::Behaviors(h_, "M");
    s.msg_text = fwtest::MessageString(msg_);
    s.beh_text = fwtest::MessageString(x_);
    s.registered = fwtest::IsRegistered(x_);
    // Identifiers interned for a failed call are collectable.
    fwtest::CollectIdents();
    s.heap = qvahost::heap_ids();
    s.acc = qvahost::accounting();
    return s;
  }
  void ExpectUnchanged(const State &before) {
    State after = Now();
    EXPECT_EQ(after.scoped, before.scoped);
    EXPECT_EQ(after.listed, before.listed);
    EXPECT_EQ(after.heap, before.heap);
    EXPECT_EQ(after.msg_text, before.msg_text);
    EXPECT_EQ(after.beh_text, before.beh_text);
    EXPECT_EQ(after.registered, before.registered);
    EXPECT_EQ(after.acc, before.acc)
        << qvahost::to_string(after.acc) << " vs " << qvahost::to_string(before.acc);
    EXPECT_TRUE(Recorder::log().empty());
  }

  // A pointer heap variable holding a string, which is no identifier.
  QVA_HVID PlainPointer(const std::string &text) {
    QVA_VPTR t = qvahost::make_string(text);
    QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_PTR, t, 1, QVA_MSG_LONGJMP);
    if (t->flags & QVA_V_TEMP) QVA_Deltmp(t);
    return hv->hash_id;
  }

  QVA_HVID h_ = 0, x_ = 0, msg_ = 0, foreign_ = 0;
};

TEST_F(FwErrorsTest, WhatNamesNoMessageIsRefusedByEveryRoutineTakingAMessage) {
  const QVA_HVID plain = PlainPointer("M");
  const QVA_HVID other_handler = fwtest::NewHandler();
  const State before = Now();
  {
    Args a;
    struct Wrong {
      const char *what;
      QVA_VPTR value;
      int code;
    };
    const std::vector<Wrong> wrongs = {
        {"long", a.Own(qvahost::make_long(1)), QVA_M_NOT_OF_CLASS},
        {"double", a.Own(qvahost::make_double(2.5)), QVA_M_NOT_OF_CLASS},
        {"pointer to a plain string", a.Own(qvahost::make_ptr(plain)), QVA_M_NOT_OF_CLASS},
        {"null pointer", a.Own(qvahost::make_ptr(0)), QVA_M_NOT_OF_CLASS},
        {"pointer to a behaviour", a.Own(qvahost::make_ptr(x_)), QVA_M_NOT_OF_CLASS},
        {"behaviour", a.Ref(x_), QVA_M_NOT_OF_CLASS},
        {"handler", a.Ref(other_handler), QVA_M_NOT_OF_CLASS},
        {"foreign object", a.Ref(foreign_), QVA_M_NOT_OF_CLASS},
        {"null object", a.Ref(0), qvahost::M_INVALID_OBJ},
        {"string array", a.Own(qvahost::make_string_array({"M", "N"})), qvahost::M_NOTSCALAR},
    };
    for (const char *method :
         {"SENDMESSAGE", "SCOPEMESSAGE", "UNSCOPEMESSAGE", "ISSCOPED", "BEHAVIORS"}) {
      const bool function = std::string(method) == "ISSCOPED" || std::string(method) == "BEHAVIORS";
      for (const Wrong &w : wrongs) {
        SCOPED_TRACE(std::string(method) + " with a " + w.what);
        qvahost::HostError e = ExpectHostError([&] {
          if (function)
            qvatest::Release(fwtest::Func(h_, method, {w.value}));
          else
            fwtest::Proc(h_, method, {w.value});
        });
        EXPECT_EQ(e.code, w.code) << e.text;
        if (w.code == QVA_M_NOT_OF_CLASS) {
          EXPECT_NE(e.text.find("QVAfwMessage"), std::string::npos) << e.text;
        }
      }
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, EveryMethodRefusesASelfOfAnotherClass) {
  const QVA_HVID dead = fwtest::NewMessage("Dead");
  fwtest::Destroy(dead);
  const State before = Now();
  {
    Args a;
    struct Call {
      std::string routine;
      bool function;
      QVA_HVID self;
      std::vector<QVA_VPTR> more;
      const char *cls;
    };
    const std::vector<Call> calls = {
        {"QVAFWHASAHANDLER::HANDLER", true, foreign_, {}, "QVAfwHasAHandler"},
        {"QVAFWHASAHANDLER::SETHANDLER", false, foreign_, {a.Ref(h_)}, "QVAfwHasAHandler"},
        {"QVAFWHASAHANDLER::RESTORE", false, foreign_, {}, "QVAfwHasAHandler"},
        {"QVAFWMESSAGE::SEND", false, h_, {}, "QVAfwMessage"},
        {"QVAFWMESSAGE::SEND", false, x_, {a.Own(qvahost::make_long(1))}, "QVAfwMessage"},
        {"QVAFWMESSAGE::MESSAGESTRING", true, h_, {}, "QVAfwMessage"},
        {"QVAFWMESSAGE::SETMESSAGESTRING", false, x_, {a.Str("N")}, "QVAfwMessage"},
        {"QVAFWMESSAGE::RESTORE", false, h_, {}, "QVAfwMessage"},
        {"QVAFWMESSAGEHANDLER::SENDMESSAGE", false, msg_, {a.Str("M")}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::SCOPEMESSAGE",
         false,
         msg_,
         {a.Str("New Text")},
         "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::UNSCOPEMESSAGE", false, x_, {a.Str("M")}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::ISSCOPED", true, msg_, {a.Str("Other Text")}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::BEHAVIORS", true, x_, {a.Str("M")}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::SCOPEDMESSAGES", true, msg_, {}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::ADDBEHAVIOR", false, msg_, {a.Ref(x_)}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::REMOVEBEHAVIOR", false, x_, {a.Ref(x_)}, "QVAfwMessageHandler"},
        {"QVAFWMESSAGEHANDLER::RESTORE", false, msg_, {}, "QVAfwMessageHandler"},
        {"QVAFWBEHAVIOR::MESSAGESTRING", true, msg_, {}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::SETMESSAGESTRING", false, msg_, {a.Str("N")}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::EXECUTE", false, msg_, {}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::REGISTER", false, h_, {}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::UNREGISTER", false, msg_, {}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::ISREGISTERED", true, h_, {}, "QVAfwBehavior"},
        {"QVAFWBEHAVIOR::RESTORE", false, h_, {}, "QVAfwBehavior"},
    };
    for (const Call &c : calls) {
      SCOPED_TRACE(c.routine);
      for (QVA_HVID self : {c.self, dead}) {
        std::vector<QVA_VPTR> args{a.Ref(self)};
        args.insert(args.end(), c.more.begin(), c.more.end());
        qvahost::HostError e = ExpectHostError([&] {
          if (c.function)
            qvatest::Release(qvahost::call_function(c.routine, args));
          else
            qvahost::call_procedure(c.routine, args);
        });
        if (self == dead) {
          EXPECT_EQ(e.code, qvahost::M_INVALID_OBJ) << e.text;
        } else {
          EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS) << e.text;
          // The host names the structure, the module the class.
          EXPECT_NE(Upper(e.text).find(Upper(c.cls)), std::string::npos) << e.text;
        }
      }
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, AddAndRemoveBehaviorRefuseWhatIsNoBehaviour) {
  const State before = Now();
  {
    Args a;
    for (const char *method : {"ADDBEHAVIOR", "REMOVEBEHAVIOR"}) {
      SCOPED_TRACE(method);
      for (QVA_HVID not_behaviour : {msg_, h_, foreign_}) {
        qvahost::HostError e =
            ExpectHostError([&] { fwtest::Proc(h_, method, {a.Ref(not_behaviour)}); });
        EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
        EXPECT_NE(e.text.find("QVAfwBehavior"), std::string::npos) << e.text;
      }
      EXPECT_EQ(ExpectHostError([&] { fwtest::Proc(h_, method, {a.Str("M")}); }).code,
                qvahost::M_REQOBJREF);
      EXPECT_EQ(ExpectHostError([&] { fwtest::Proc(h_, method, {a.Ref(0)}); }).code,
                qvahost::M_INVALID_OBJ);
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, SetMessageStringTakesOnlyAScalarString) {
  const State before = Now();
  {
    Args a;
    struct Owner {
      QVA_HVID id;
      const char *routine;
    };
    for (Owner o : {Owner{msg_, "QVAfwMessage::SetMessageString"},
                    Owner{x_, "QVAfwBehavior::SetMessageString"}}) {
      SCOPED_TRACE(o.routine);
      for (QVA_VPTR wrong :
           {a.Own(qvahost::make_long(5)), a.Ref(h_), a.Own(qvahost::make_ptr(0))}) {
        qvahost::HostError e =
            ExpectHostError([&] { fwtest::Proc(o.id, "SETMESSAGESTRING", {wrong}); });
        EXPECT_EQ(e.code, QVA_M_WRONG_TYPE);
        EXPECT_NE(e.text.find(o.routine), std::string::npos) << e.text;
      }
      QVA_VPTR array = a.Own(qvahost::make_string_array({"N"}));
      EXPECT_EQ(ExpectHostError([&] { fwtest::Proc(o.id, "SETMESSAGESTRING", {array}); }).code,
                qvahost::M_NOTSCALAR);
    }
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, InitWithABadKeywordMakesNothing) {
  const State before = Now();
  for (const char *cls : {fwtest::kMessage, fwtest::kHandler, fwtest::kRecorder}) {
    SCOPED_TRACE(cls);
    // A handler that is no message handler.
    EXPECT_EQ(ExpectHostError([&] { fwtest::NewObject(cls, fwtest::HandlerKeyword(msg_)); }).code,
              QVA_M_NOT_OF_CLASS);
    // A handler that is gone.
    const QVA_HVID gone = fwtest::NewHandler();
    fwtest::Destroy(gone);
    EXPECT_EQ(ExpectHostError([&] { fwtest::NewObject(cls, fwtest::HandlerKeyword(gone)); }).code,
              qvahost::M_INVALID_OBJ);
  }
  ExpectUnchanged(before);
}

TEST_F(FwErrorsTest, SendToAMessageWhoseHandlerWasDestroyedFailsCleanly) {
  const QVA_HVID lost = fwtest::NewHandler();
  const QVA_HVID orphan = fwtest::NewMessage("M", lost);
  fwtest::Destroy(lost);
  const State before = Now();
  QVA_VPTR tmp = qvahost::make_long(3);
  EXPECT_EQ(ExpectHostError([&] { fwtest::Send(orphan, tmp); }).code, qvahost::M_INVALID_OBJ);
  EXPECT_EQ(tmp->type, QVA_TYP_LONG);
  QVA_Deltmp(tmp);
  ExpectUnchanged(before);
}

}  // namespace
