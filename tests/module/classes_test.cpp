// The thirteen class structures: the inheritance chain and every field at its
// fixed position (also in user subclasses and in the module's structures),
// locating an object's data, and the INIT keyword tables.
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "frame/fw_class.h"
#include "framework/fw_behavior.h"
#include "framework/fw_delayargbehav.h"
#include "framework/fw_delaybehav.h"
#include "framework/fw_funcbehav.h"
#include "framework/fw_hashndlr.h"
#include "framework/fw_message.h"
#include "framework/fw_messhndlr.h"
#include "framework/fw_objbehav.h"
#include "framework/fw_procbehav.h"
#include "framework/fw_query.h"
#include "framework/fw_querybehav.h"
#include "internal.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;
using qvatest::ObjRef;
using qvatest::ScopedObject;
using FieldList = std::vector<std::pair<std::string, QVA_MEMINT>>;

class ClassesTest : public qvatest::HostTest {};

struct ClassLayout {
  const char *name;
  const char *super;                 // "" for a root
  FieldList own;                     // fields the class adds, with their positions
  std::pair<size_t, size_t> module;  // the first and last of them in the module's structure
};

const ClassLayout kLayouts[] = {
    {"QVAFWSAVEABLE",
     "",
     {{"QVAFWSAVEABLE_TOP", 0}, {"QVAFWSAVEABLE_VERSION", 8}},
     {offsetof(SaveableData, top), offsetof(SaveableData, version)}},
    {"QVAFWHASAHANDLER",
     "QVAFWSAVEABLE",
     {{"HASAHANDLER_VERSION", 12}, {"MYHANDLER", 16}},
     {offsetof(HasAHandlerData, version), offsetof(HasAHandlerData, myhandler)}},
    {"QVAFWMESSAGE",
     "QVAFWHASAHANDLER",
     {{"QVAFWMESSAGE_VERSION", 20}, {"MESS_IDENT", 24}},
     {offsetof(MessageData, version), offsetof(MessageData, mess_ident)}},
    {"QVAFWQUERY",
     "QVAFWMESSAGE",
     {{"QVAFWQUERY_VERSION", 28}, {"QUERY_RESULT", 32}},
     {offsetof(QueryData, version), offsetof(QueryData, query_result)}},
    {"QVAFWMESSAGEHANDLER",
     "QVAFWHASAHANDLER",
     {{"QVAFWMESSAGEHANDLER_VERSION", 20}, {"BEHAVIORS", 24}},
     {offsetof(MessageHandlerData, version), offsetof(MessageHandlerData, behaviors)}},
    {"QVAFWBEHAVIOR",
     "QVAFWHASAHANDLER",
     {{"QVAFWBEHAVIOR_VERSION", 20}, {"IS_REGISTERED", 24}, {"MESSIDENT", 28}},
     {offsetof(BehaviorData, version), offsetof(BehaviorData, messident)}},
    {"QVAFWOBJBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWOBJBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}},
     {offsetof(ObjBehavData, version), offsetof(ObjBehavData, meth_ident)}},
    {"QVAFWPROCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWPROCBEHAV_TOP", 32},
      {"QVAFWPROCBEHAV_VERSION", 40},
      {"PROC_STRING", 44},
      {"QVAFWPROCBEHAV_BOTTOM", 56}},
     {offsetof(ProcBehavData, top), offsetof(ProcBehavData, bottom)}},
    {"QVAFWFUNCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWFUNCBEHAV_TOP", 32},
      {"QVAFWFUNCBEHAV_VERSION", 40},
      {"FUNC_STRING", 44},
      {"QVAFWFUNCBEHAV_BOTTOM", 56}},
     {offsetof(FuncBehavData, top), offsetof(FuncBehavData, bottom)}},
    {"QVAFWQUERYBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWQUERYBEHAV_VERSION", 32}, {"RESPONSE", 36}},
     {offsetof(QueryBehavData, version), offsetof(QueryBehavData, response)}},
    {"QVAFWDELAYBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWDELAYBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}, {"SUB_BEHAVIOR", 44}},
     {offsetof(DelayBehavData, version), offsetof(DelayBehavData, sub_behavior)}},
    {"QVAFWDELAYARGBEHAV",
     "QVAFWDELAYBEHAV",
     {{"QVAFWDELAYARGBEHAV_VERSION", 48}, {"ARG", 52}},
     {offsetof(DelayArgBehavData, version), offsetof(DelayArgBehavData, arg)}},
    {"QVADSMAP",
     "",
     {{"QVADSMAP_VERSION", 0}, {"THE_MAP", 4}},
     {offsetof(DSMapData, version), offsetof(DSMapData, the_map)}},
};

// Inherited fields first, then the class's own.
FieldList ExpectedFields(const std::string &name) {
  for (const ClassLayout &c : kLayouts) {
    if (name != c.name) continue;
    FieldList all = *c.super ? ExpectedFields(c.super) : FieldList{};
    all.insert(all.end(), c.own.begin(), c.own.end());
    return all;
  }
  ADD_FAILURE() << "no layout for " << name;
  return {};
}

TEST_F(ClassesTest, EveryClassHasItsSuperclassAndFieldsAtTheirPositions) {
  for (const ClassLayout &c : kLayouts) {
    SCOPED_TRACE(c.name);
    const std::string name = c.name;
    QVA_SDEF sdef = qvahost::find_struct(name);
    ASSERT_NE(sdef, nullptr);
    EXPECT_EQ(qvahost::struct_fields(sdef), ExpectedFields(name));
    QVA_SDEF super = qvahost::struct_super(sdef);
    EXPECT_EQ(super ? qvahost::struct_name(super) : "", c.super);
    EXPECT_EQ(c.module.first, size_t(c.own.front().second));
    EXPECT_EQ(c.module.second, size_t(c.own.back().second));
    // A user subclass that adds nothing lays out exactly as its superclass;
    // one that adds a field keeps the inherited positions and appends.
    QVA_SDEF empty = qvatest::DefineStructOnce("LAYOUTTEST_EMPTY_" + name, name, {});
    EXPECT_EQ(qvahost::struct_fields(empty), ExpectedFields(name));
    QVA_SDEF extended = qvatest::DefineStructOnce("LAYOUTTEST_EXTRA_" + name, name,
                                                  {qvatest::Field("EXTRA", QVA_TYP_DOUBLE)});
    FieldList fields = qvahost::struct_fields(extended), inherited = ExpectedFields(name);
    ASSERT_EQ(fields.size(), inherited.size() + 1);
    EXPECT_EQ(FieldList(fields.begin(), fields.end() - 1), inherited);
    EXPECT_EQ(fields.back().first, "EXTRA");
    EXPECT_GE(fields.back().second, inherited.back().second);
  }
}

struct Locator {
  const char *structure;
  const char *class_name;  // as the refusal names it
  ClassPart (*from_hvid)(QVA_HVID);
  ClassPart (*from_vptr)(QVA_VPTR);
};

const Locator kLocators[] = {
    {"QVAFWHASAHANDLER", "QVAfwHasAHandler", HasAHandler_from_hvid, HasAHandler_from_vptr},
    {"QVAFWMESSAGE", "QVAfwMessage", Message_from_hvid, Message_from_vptr},
    {"QVAFWQUERY", "QVAfwQuery", Query_from_hvid, Query_from_vptr},
    {"QVAFWMESSAGEHANDLER", "QVAfwMessageHandler", MessageHandler_from_hvid,
     MessageHandler_from_vptr},
    {"QVAFWBEHAVIOR", "QVAfwBehavior", Behavior_from_hvid, Behavior_from_vptr},
    {"QVAFWOBJBEHAV", "QVAfwObjBehav", ObjBehav_from_hvid, ObjBehav_from_vptr},
    {"QVAFWPROCBEHAV", "QVAfwProcBehav", ProcBehav_from_hvid, ProcBehav_from_vptr},
    {"QVAFWFUNCBEHAV", "QVAfwFuncBehav", FuncBehav_from_hvid, FuncBehav_from_vptr},
    {"QVAFWQUERYBEHAV", "QVAfwQueryBehav", QueryBehav_from_hvid, QueryBehav_from_vptr},
    {"QVAFWDELAYBEHAV", "QVAfwDelayBehav", DelayBehav_from_hvid, DelayBehav_from_vptr},
    {"QVAFWDELAYARGBEHAV", "QVAfwDelayArgBehav", DelayArgBehav_from_hvid, DelayArgBehav_from_vptr},
    {"QVADSMAP", "QVAdsMap", DSMap_from_hvid, DSMap_from_vptr},
};

TEST_F(ClassesTest, LocatorsGiveTheDataBlockAndRefuseEverythingElse) {
  ScopedObject foreign = ScopedObject::Bare(qvatest::DefineStructOnce(
      "LOCATETEST_FOREIGN", "", {qvatest::Field("SOMETHING", QVA_TYP_LONG)}));
  for (const Locator &loc : kLocators) {
    SCOPED_TRACE(loc.structure);
    // An instance of the class itself and of a user subclass adding fields.
    QVA_SDEF sub = qvatest::DefineStructOnce(std::string("LOCATETEST_SUB_") + loc.structure,
                                             loc.structure, {qvatest::Field("MORE", QVA_TYP_LONG)});
    for (QVA_SDEF sdef : {qvahost::find_struct(loc.structure), sub}) {
      ScopedObject obj = ScopedObject::Bare(sdef);
      const bool map = std::strcmp(loc.structure, "QVADSMAP") == 0;
      void *block =
          qvatest::FieldOf<void>(obj.id(), map ? "QVADSMAP_VERSION" : "QVAFWSAVEABLE_TOP");
      ObjRef ref(obj.id());
      for (ClassPart part : {loc.from_hvid(obj.id()), loc.from_vptr(ref)}) {
        EXPECT_EQ(part.data, block);
        EXPECT_EQ(part.hvid, obj.id());
      }
      if (!map) {
        EXPECT_EQ(Saveable_from_hvid(obj.id()), block);
        EXPECT_EQ(Saveable_from_vptr(ref), block);
        EXPECT_EQ(ExpectHostError([&] { DSMap_from_hvid(obj.id()); }).code, QVA_M_NOT_OF_CLASS);
      }
    }
    qvahost::HostError e = ExpectHostError([&] { loc.from_hvid(foreign.id()); });
    EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
    EXPECT_NE(e.text.find(loc.class_name), std::string::npos) << e.text;
  }
  EXPECT_EQ(ExpectHostError([&] { Saveable_from_hvid(foreign.id()); }).code, QVA_M_NOT_OF_CLASS);

  // A variable that is no scalar reference.
  qvatest::ObjRefArray refs({foreign.id(), foreign.id()});
  EXPECT_EQ(ExpectHostError([&] { Message_from_vptr(refs); }).code, qvahost::M_NOTSCALAR);
}

// ---- The INIT keyword tables and the shared keyword record ----

// Every table: the empty first row, then its keywords in sorted order, then
// the null row.
TEST_F(ClassesTest, KeywordTablesListTheirKeywordsInOrder) {
  const std::vector<std::string> delay = {
      "DELAYMESSAGESTRING", "HANDLER", "MESSAGESTRING", "METHOD", "OBJECT", "REGISTER", "SCOPE"};
  const std::vector<std::string> behav = {"HANDLER", "MESSAGESTRING", "REGISTER", "SCOPE"};
  const std::vector<std::string> message = {"HANDLER", "MESSAGESTRING", "SCOPE"};
  const std::pair<const QVA_KW_PAR *, std::vector<std::string>> tables[] = {
      {hasahandler_Keywords, {"HANDLER"}},
      {message_Keywords, message},
      {query_Keywords, message},
      {messageHandler_Keywords, {"HANDLER"}},
      {behavior_Keywords, behav},
      {objBehav_Keywords, {"HANDLER", "MESSAGESTRING", "METHOD", "OBJECT", "REGISTER", "SCOPE"}},
      {procBehav_Keywords, {"HANDLER", "MESSAGESTRING", "PROCEDURE", "REGISTER", "SCOPE"}},
      {funcBehav_Keywords, {"FUNCTION", "HANDLER", "MESSAGESTRING", "REGISTER", "SCOPE"}},
      {queryBehav_Keywords, {"HANDLER", "MESSAGESTRING", "REGISTER", "RESPONSE", "SCOPE"}},
      {delayBehav_Keywords, delay},
      {delayArgBehav_Keywords, delay},
  };
  for (const auto &[rows, keywords] : tables) {
    ASSERT_STREQ(rows[0].keyword, "");
    std::vector<std::string> got;
    for (size_t i = 1; rows[i].keyword && i <= keywords.size() + 1; ++i) {
      got.push_back(rows[i].keyword);
      // SCOPE and REGISTER are converted to LONG, RESPONSE is by reference.
      EXPECT_EQ(rows[i].flags, got.back() == "SCOPE" || got.back() == "REGISTER" ? 0x4000
                               : got.back() == "RESPONSE"                        ? 0x3000
                                                                                 : 0)
          << got.back();
    }
    EXPECT_EQ(got, keywords);
  }
}

}  // namespace
