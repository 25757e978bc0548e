// Locating an object's data from its heap identifier or an object
// reference, the upcasts, and the refusals: dead identifiers, foreign
// classes and variables that are no object references.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <string>

#include "frame/fw_class.h"
#include "internal.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;
using qvatest::ObjRef;
using qvatest::ScopedObject;

struct Locator {
  const char *structure;
  const char *class_name;  // as the refusal names it
  const char *first_field;
  ClassPart (*from_hvid)(QVA_HVID);
  ClassPart (*from_vptr)(QVA_VPTR);
};

const Locator kLocators[] = {
    {"QVAFWHASAHANDLER", "QVAfwHasAHandler", "QVAFWSAVEABLE_TOP", HasAHandler_from_hvid,
     HasAHandler_from_vptr},
    {"QVAFWMESSAGE", "QVAfwMessage", "QVAFWSAVEABLE_TOP", Message_from_hvid, Message_from_vptr},
    {"QVAFWQUERY", "QVAfwQuery", "QVAFWSAVEABLE_TOP", Query_from_hvid, Query_from_vptr},
    {"QVAFWMESSAGEHANDLER", "QVAfwMessageHandler", "QVAFWSAVEABLE_TOP", MessageHandler_from_hvid,
     MessageHandler_from_vptr},
    {"QVAFWBEHAVIOR", "QVAfwBehavior", "QVAFWSAVEABLE_TOP", Behavior_from_hvid, Behavior_from_vptr},
    {"QVAFWOBJBEHAV", "QVAfwObjBehav", "QVAFWSAVEABLE_TOP", ObjBehav_from_hvid, ObjBehav_from_vptr},
    {"QVAFWPROCBEHAV", "QVAfwProcBehav", "QVAFWSAVEABLE_TOP", ProcBehav_from_hvid,
     ProcBehav_from_vptr},
    {"QVAFWFUNCBEHAV", "QVAfwFuncBehav", "QVAFWSAVEABLE_TOP", FuncBehav_from_hvid,
     FuncBehav_from_vptr},
    {"QVAFWQUERYBEHAV", "QVAfwQueryBehav", "QVAFWSAVEABLE_TOP", QueryBehav_from_hvid,
     QueryBehav_from_vptr},
    {"QVAFWDELAYBEHAV", "QVAfwDelayBehav", "QVAFWSAVEABLE_TOP", DelayBehav_from_hvid,
     DelayBehav_from_vptr},
    {"QVAFWDELAYARGBEHAV", "QVAfwDelayArgBehav", "QVAFWSAVEABLE_TOP", DelayArgBehav_from_hvid,
     DelayArgBehav_from_vptr},
    {"QVADSMAP", "QVAdsMap", "QVADSMAP_VERSION", DSMap_from_hvid, DSMap_from_vptr},
};

QVA_SDEF ForeignClass() {
  return qvatest::DefineStructOnce(
      "LOCATETEST_FOREIGN", "",
      {qvatest::Field("SOMETHING", QVA_TYP_LONG), qvatest::Field("ELSE", QVA_TYP_DOUBLE)});
}

class ClassLocateTest : public qvatest::HostTest {};

TEST_F(ClassLocateTest, LocatorsGiveTheDataBlockAndIdentifier) {
  for (const Locator &loc : kLocators) {
    SCOPED_TRACE(loc.structure);
    // An instance of the class itself and of a user subclass adding fields.
    QVA_SDEF sub = qvatest::DefineStructOnce(std::string("LOCATETEST_SUB_") + loc.structure,
                                             loc.structure, {qvatest::Field("MORE", QVA_TYP_LONG)});
    for (QVA_SDEF sdef : {qvahost::find_struct(loc.structure), sub}) {
      ScopedObject obj = ScopedObject::Bare(sdef);
      void *block = qvatest::FieldOf<void>(obj.id(), loc.first_field);
      ClassPart by_id = loc.from_hvid(obj.id());
      EXPECT_EQ(by_id.data, block);
      EXPECT_EQ(by_id.hvid, obj.id());
      ObjRef ref(obj.id());
      ClassPart by_ref = loc.from_vptr(ref);
      EXPECT_EQ(by_ref.data, block);
      EXPECT_EQ(by_ref.hvid, obj.id());
    }
  }
}

TEST_F(ClassLocateTest, SaveableLocatorsGiveTheAddressAlone) {
  ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGE"));
  void *block = qvatest::FieldOf<void>(obj.id(), "QVAFWSAVEABLE_TOP");
  EXPECT_EQ(Saveable_from_hvid(obj.id()), block);
  ObjRef ref(obj.id());
  EXPECT_EQ(Saveable_from_vptr(ref), block);
}

TEST_F(ClassLocateTest, UpcastsKeepTheClassPart) {
  ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWDELAYARGBEHAV"));
  const ClassPart part = DelayArgBehav_from_hvid(obj.id());
  auto same = [&](ClassPart p) { return p.data == part.data && p.hvid == part.hvid; };

  ClassPart delay = DelayBehav_from_DelayArgBehav(part);
  EXPECT_TRUE(same(delay));
  ClassPart behavior = Behavior_from_DelayBehav(delay);
  EXPECT_TRUE(same(behavior));
  ClassPart has = HasAHandler_from_Behavior(behavior);
  EXPECT_TRUE(same(has));
  EXPECT_EQ(Saveable_from_HasAHandler(has), part.data);

  for (ClassPart (*up)(ClassPart) :
       {Behavior_from_ObjBehav, Behavior_from_ProcBehav, Behavior_from_FuncBehav,
        Behavior_from_QueryBehav, HasAHandler_from_Message, Message_from_Query,
        HasAHandler_from_MessageHandler})
    EXPECT_TRUE(same(up(part)));
}

TEST_F(ClassLocateTest, ForeignObjectsAreRefusedNamingTheClass) {
  ScopedObject foreign = ScopedObject::Bare(ForeignClass());
  for (const Locator &loc : kLocators) {
    SCOPED_TRACE(loc.structure);
    qvahost::HostError e = ExpectHostError([&] { loc.from_hvid(foreign.id()); });
    EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
    EXPECT_NE(e.text.find(loc.class_name), std::string::npos) << e.text;
  }
  qvahost::HostError e = ExpectHostError([&] { Saveable_from_hvid(foreign.id()); });
  EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
  EXPECT_NE(e.text.find("QVAfwSaveable"), std::string::npos) << e.text;

  // A framework object is foreign to QVAdsMap, and the other way round.
  ScopedObject message = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGE"));
  EXPECT_EQ(ExpectHostError([&] { DSMap_from_hvid(message.id()); }).code, QVA_M_NOT_OF_CLASS);
  ScopedObject map = ScopedObject::Bare(qvahost::find_struct("QVADSMAP"));
  EXPECT_EQ(ExpectHostError([&] { Message_from_hvid(map.id()); }).code, QVA_M_NOT_OF_CLASS);
}

TEST_F(ClassLocateTest, DeadOrNullIdentifiersEndWithTheInvalidObjectError) {
  QVA_HVID dead = 0;
  {
    ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWBEHAVIOR"));
    dead = obj.id();
  }
  ASSERT_FALSE(qvatest::IsAlive(dead));
  for (QVA_HVID id : {dead, QVA_HVID{0}}) {
    EXPECT_EQ(ExpectHostError([&] { Behavior_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
    EXPECT_EQ(ExpectHostError([&] { Saveable_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
    EXPECT_EQ(ExpectHostError([&] { DSMap_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
  }
}

TEST_F(ClassLocateTest, VariablesThatAreNoObjectReferenceAreRefused) {
  QVA_VPTR number = qvahost::make_long(5);
  EXPECT_EQ(ExpectHostError([&] { Message_from_vptr(number); }).code, qvahost::M_REQOBJREF);
  EXPECT_EQ(ExpectHostError([&] { Saveable_from_vptr(number); }).code, qvahost::M_REQOBJREF);
  QVA_Deltmp(number);

  ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGE"));
  qvatest::ObjRefArray refs({obj.id(), obj.id()});
  EXPECT_EQ(ExpectHostError([&] { Message_from_vptr(refs); }).code, qvahost::M_NOTSCALAR);
}

}  // namespace
