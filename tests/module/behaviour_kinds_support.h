// Support for the tests of the behaviour kinds: a fixture that tracks the
// objects a test makes and takes them down through CLEANUP at its end, and
// native targets (a class with a recording method, a procedure and a
// function) that record every call.
#pragma once

#include <gtest/gtest.h>
#include <qva/qva.h>

#include <string>
#include <vector>

#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace qvatest {

// One call a native target received.
struct TargetCall {
  std::string target;      // "PING", "BTEST_PROC", "BTEST_FUNC"
  QVA_HVID self = 0;       // the object, for methods
  int args = 0;            // positional arguments after self
  QVA_VPTR arg = nullptr;  // the first of them, as received
  std::string value;       // its value, printed
};

std::vector<TargetCall> &TargetCalls();
// Runs inside the next target call, once (then cleared).
void OnNextTargetCall(std::function<void()> action);

// Defines (once) class BTEST_TARGET with procedure method PING (0 or 1
// argument), procedure BTEST_PROC and function BTEST_FUNC (0 or 1 argument;
// the function returns a new string).
void DefineTargets();

// A value printed as the tests compare it: "L:7", "S:text", "D:2.5", "U"...
std::string Printed(QVA_VPTR v);

class BehaviourTest : public HostTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // OBJ_NEW(cls, KEYWORDS...); the object is destroyed (with CLEANUP) at
  // the end of the test unless the test destroyed it.
  QVA_HVID New(const std::string &cls, const qvahost::Keywords &kw = {});
  // Keyword values are temporaries released at the end of the test.
  QVA_VPTR Str(const std::string &s);
  QVA_VPTR Long(QVA_LONG v);
  QVA_VPTR Obj(QVA_HVID id);

  void Proc(QVA_HVID obj, const std::string &method, std::vector<QVA_VPTR> args = {});
  // A function method's result, printed; the result is released.
  std::string Func(QVA_HVID obj, const std::string &method, std::vector<QVA_VPTR> args = {});
  QVA_HVID FuncObj(QVA_HVID obj, const std::string &method, std::vector<QVA_VPTR> args = {});
  // The behaviours listed for `message` at `handler` (only there).
  std::vector<QVA_HVID> Listed(QVA_HVID handler, const std::string &message);
  QVA_HVID TopLevel();

 private:
  std::vector<QVA_HVID> objects_;
  std::vector<QVA_VPTR> temps_;
};

}  // namespace qvatest
