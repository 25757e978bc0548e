// The thirteen class structures: the inheritance chain and every field at its
// fixed position (also in user subclasses and in the module's own view),
// locating an object's data, and the INIT keyword tables.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <cstring>
#include <map>
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
using Addresses = std::vector<void *>;

class ClassesTest : public qvatest::HostTest {};

struct ClassLayout {
  const char *name;
  const char *super;                    // "" for a root
  FieldList own;                        // fields the class adds, with their positions
  Addresses (*module_view)(ClassPart);  // the same fields in the module's structure
};

const ClassLayout kLayouts[] = {
    {"QVAFWSAVEABLE",
     "",
     {{"QVAFWSAVEABLE_TOP", 0}, {"QVAFWSAVEABLE_VERSION", 8}},
     [](ClassPart p) {
       return Addresses{&saveable_data(p)->top, &saveable_data(p)->version};
     }},
    {"QVAFWHASAHANDLER",
     "QVAFWSAVEABLE",
     {{"HASAHANDLER_VERSION", 12}, {"MYHANDLER", 16}},
     [](ClassPart p) {
       return Addresses{&hasahandler_data(p)->version, &hasahandler_data(p)->myhandler};
     }},
    {"QVAFWMESSAGE",
     "QVAFWHASAHANDLER",
     {{"QVAFWMESSAGE_VERSION", 20}, {"MESS_IDENT", 24}},
     [](ClassPart p) {
       return Addresses{&message_data(p)->version, &message_data(p)->mess_ident};
     }},
    {"QVAFWQUERY",
     "QVAFWMESSAGE",
     {{"QVAFWQUERY_VERSION", 28}, {"QUERY_RESULT", 32}},
     [](ClassPart p) {
       return Addresses{&query_data(p)->version, &query_data(p)->query_result};
     }},
    {"QVAFWMESSAGEHANDLER",
     "QVAFWHASAHANDLER",
     {{"QVAFWMESSAGEHANDLER_VERSION", 20}, {"BEHAVIORS", 24}},
     [](ClassPart p) {
       return Addresses{&messagehandler_data(p)->version, &messagehandler_data(p)->behaviors};
     }},
    {"QVAFWBEHAVIOR",
     "QVAFWHASAHANDLER",
     {{"QVAFWBEHAVIOR_VERSION", 20}, {"IS_REGISTERED", 24}, {"MESSIDENT", 28}},
     [](ClassPart p) {
       BehaviorData *d = behavior_data(p);
       return Addresses{&d->version, &d->is_registered, &d->messident};
     }},
    {"QVAFWOBJBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWOBJBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}},
     [](ClassPart p) {
       ObjBehavData *d = objbehav_data(p);
       return Addresses{&d->version, &d->object, &d->meth_ident};
     }},
    {"QVAFWPROCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWPROCBEHAV_TOP", 32},
      {"QVAFWPROCBEHAV_VERSION", 40},
      {"PROC_STRING", 44},
      {"QVAFWPROCBEHAV_BOTTOM", 56}},
     [](ClassPart p) {
       ProcBehavData *d = procbehav_data(p);
       return Addresses{&d->top, &d->version, &d->proc_string, &d->bottom};
     }},
    {"QVAFWFUNCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWFUNCBEHAV_TOP", 32},
      {"QVAFWFUNCBEHAV_VERSION", 40},
      {"FUNC_STRING", 44},
      {"QVAFWFUNCBEHAV_BOTTOM", 56}},
     [](ClassPart p) {
       FuncBehavData *d = funcbehav_data(p);
       return Addresses{&d->top, &d->version, &d->func_string, &d->bottom};
     }},
    {"QVAFWQUERYBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWQUERYBEHAV_VERSION", 32}, {"RESPONSE", 36}},
     [](ClassPart p) {
       return Addresses{&querybehav_data(p)->version, &querybehav_data(p)->response};
     }},
    {"QVAFWDELAYBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWDELAYBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}, {"SUB_BEHAVIOR", 44}},
     [](ClassPart p) {
       DelayBehavData *d = delaybehav_data(p);
       return Addresses{&d->version, &d->object, &d->meth_ident, &d->sub_behavior};
     }},
    {"QVAFWDELAYARGBEHAV",
     "QVAFWDELAYBEHAV",
     {{"QVAFWDELAYARGBEHAV_VERSION", 48}, {"ARG", 52}},
     [](ClassPart p) {
       return Addresses{&delayargbehav_data(p)->version, &delayargbehav_data(p)->arg};
     }},
    {"QVADSMAP",
     "",
     {{"QVADSMAP_VERSION", 0}, {"THE_MAP", 4}},
     [](ClassPart p) {
       return Addresses{&dsmap_data(p)->version, &dsmap_data(p)->the_map};
     }},
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

    // The module's structure addresses the same bytes as the host's fields.
    ScopedObject obj = ScopedObject::Bare(sdef);
    ClassPart part =
        name == "QVADSMAP" ? DSMap_from_hvid(obj.id()) : fw_classPart(obj.id(), c.name, "test");
    Addresses want;
    for (const auto &[field, position] : c.own)
      want.push_back(qvatest::FieldOf<void>(obj.id(), field.c_str()));
    EXPECT_EQ(c.module_view(part), want);
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

TEST_F(ClassesTest, LocatorsGiveTheDataBlockAndRefuseForeignObjects) {
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
  qvahost::HostError e = ExpectHostError([&] { Saveable_from_hvid(foreign.id()); });
  EXPECT_EQ(e.code, QVA_M_NOT_OF_CLASS);
  EXPECT_NE(e.text.find("QVAfwSaveable"), std::string::npos) << e.text;
  ScopedObject map = ScopedObject::Bare(qvahost::find_struct("QVADSMAP"));
  EXPECT_EQ(ExpectHostError([&] { Message_from_hvid(map.id()); }).code, QVA_M_NOT_OF_CLASS);
}

TEST_F(ClassesTest, UpcastsKeepTheClassPart) {
  ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWDELAYARGBEHAV"));
  const ClassPart part = DelayArgBehav_from_hvid(obj.id());
  auto same = [&](ClassPart p) { return p.data == part.data && p.hvid == part.hvid; };
  ClassPart has =
      HasAHandler_from_Behavior(Behavior_from_DelayBehav(DelayBehav_from_DelayArgBehav(part)));
  EXPECT_TRUE(same(has));
  EXPECT_EQ(Saveable_from_HasAHandler(has), part.data);
  for (ClassPart (*up)(ClassPart) :
       {DelayBehav_from_DelayArgBehav, Behavior_from_DelayBehav, HasAHandler_from_Behavior,
        Behavior_from_ObjBehav, Behavior_from_ProcBehav, Behavior_from_FuncBehav,
        Behavior_from_QueryBehav, HasAHandler_from_Message, Message_from_Query,
        HasAHandler_from_MessageHandler})
    EXPECT_TRUE(same(up(part)));
}

TEST_F(ClassesTest, DeadNullAndNonReferenceArgumentsAreRefused) {
  QVA_HVID dead = ScopedObject::Bare(qvahost::find_struct("QVAFWBEHAVIOR")).id();
  ASSERT_FALSE(qvatest::IsAlive(dead));
  for (QVA_HVID id : {dead, QVA_HVID{0}}) {
    EXPECT_EQ(ExpectHostError([&] { Behavior_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
    EXPECT_EQ(ExpectHostError([&] { Saveable_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
    EXPECT_EQ(ExpectHostError([&] { DSMap_from_hvid(id); }).code, qvahost::M_INVALID_OBJ);
  }
  QVA_VPTR number = qvahost::make_long(5);
  EXPECT_EQ(ExpectHostError([&] { Message_from_vptr(number); }).code, qvahost::M_REQOBJREF);
  EXPECT_EQ(ExpectHostError([&] { Saveable_from_vptr(number); }).code, qvahost::M_REQOBJREF);
  QVA_Deltmp(number);
  ScopedObject obj = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGE"));
  qvatest::ObjRefArray refs({obj.id(), obj.id()});
  EXPECT_EQ(ExpectHostError([&] { Message_from_vptr(refs); }).code, qvahost::M_NOTSCALAR);
}

// ---- The INIT keyword tables and the shared keyword record ----

struct KeywordPlace {
  int type, flags;
  uint32_t given, value;
};
const std::map<std::string, KeywordPlace> kPlaces = {
    {"HANDLER", {QVA_TYP_OBJREF, 0, 4, 8}},     {"MESSAGESTRING", {QVA_TYP_STRING, 0, 12, 16}},
    {"SCOPE", {QVA_TYP_LONG, 0x4000, 28, 32}},  {"REGISTER", {QVA_TYP_LONG, 0x4000, 36, 40}},
    {"METHOD", {QVA_TYP_STRING, 0, 44, 48}},    {"FUNCTION", {QVA_TYP_STRING, 0, 44, 48}},
    {"PROCEDURE", {QVA_TYP_STRING, 0, 44, 48}}, {"RESPONSE", {QVA_TYP_UNDEF, 0x3000, 44, 48}},
    {"OBJECT", {QVA_TYP_OBJREF, 0, 60, 64}},    {"DELAYMESSAGESTRING", {QVA_TYP_STRING, 0, 68, 72}},
};

TEST_F(ClassesTest, KeywordTablesListTheirKeywordsAtTheSharedPlaces) {
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
    SCOPED_TRACE(keywords.size());
    ASSERT_NE(rows[0].keyword, nullptr);
    EXPECT_STREQ(rows[0].keyword, "");
    EXPECT_EQ(rows[0].type + rows[0].mask + rows[0].flags + rows[0].specified + rows[0].value, 0u);
    size_t i = 1;
    for (; rows[i].keyword && i <= keywords.size(); ++i) {
      const QVA_KW_PAR &row = rows[i];
      SCOPED_TRACE(row.keyword);
      EXPECT_EQ(row.keyword, keywords[i - 1]) << "the keywords in order";
      const KeywordPlace &place = kPlaces.at(row.keyword);
      EXPECT_EQ(row.type, place.type);
      EXPECT_EQ(row.mask, 1);
      EXPECT_EQ(row.flags, place.flags);
      EXPECT_EQ(row.specified, place.given);
      EXPECT_EQ(row.value, place.value);
    }
    EXPECT_EQ(rows[i].keyword, nullptr);
    EXPECT_EQ(i - 1, keywords.size()) << "rows before the null row";
  }
}

// INIT with keywords, through the host's keyword processing, into a probe
// initialisation that records what it was given.
struct ProbeSeen {
  int calls = 0;
  ClassPart part{};
  FwKeywordFields kw{};
  std::string messagestring, method, delaymessagestring;
  QVA_VPTR response = nullptr;
};
ProbeSeen g_seen;
bool g_probe_fails = false;
QVA_KW_PAR *g_probe_table = delayBehav_Keywords;

std::string Text(const QVA_STRING &s) { return s.slen ? QVA_STRING_STR(&s) : ""; }

int ProbeInit(ClassPart part, FwKeywordFields *kw) {
  ++g_seen.calls;
  g_seen.part = part;
  g_seen.kw = *kw;
  if (kw->messagestring_given) g_seen.messagestring = Text(kw->messagestring);
  if (kw->delaymessagestring_given) g_seen.delaymessagestring = Text(kw->delaymessagestring);
  if (kw->method_given && g_probe_table == queryBehav_Keywords) g_seen.response = fw_kwResponse(kw);
  if (kw->method_given && g_probe_table != queryBehav_Keywords) g_seen.method = Text(kw->method);
  if (g_probe_fails) QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP, "probe initialisation fails");
  return kw->register_given ? 0 : 1;
}

TEST_F(ClassesTest, InitWithKeywordsFillsTheRecord) {
  qvatest::DefineStructOnce("KWTEST_PROBE", "QVAFWHASAHANDLER", {});
  if (!qvahost::routine_exists("KWTEST_PROBE::INIT", true))
    qvahost::define_routine("KWTEST_PROBE::INIT", true, 1, 1, true,
                            [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
                              return fw_initWithKeywords(argc, argv, argk, g_probe_table,
                                                         HasAHandler_from_vptr, ProbeInit);
                            });
  // Without keywords nothing is given and the zero-flag fields are zero.
  ScopedObject obj = ScopedObject::New("KWTEST_PROBE");
  ASSERT_EQ(g_seen.calls, 1);
  EXPECT_EQ(g_seen.part.hvid, obj.id());
  EXPECT_EQ(g_seen.part.data, qvatest::FieldOf<void>(obj.id(), "QVAFWSAVEABLE_TOP"));
  const FwKeywordFields &kw = g_seen.kw;
  EXPECT_TRUE(kw.handler_given == 0 && kw.messagestring_given == 0 && kw.method_given == 0 &&
              kw.object_given == 0 && kw.delaymessagestring_given == 0);
  EXPECT_TRUE(kw.scope_given == 0 && kw.scope == 0 && kw.register_given == 0 &&
              kw.register_value == 0);

  ScopedObject handler = ScopedObject::Bare(qvahost::find_struct("QVAFWMESSAGEHANDLER"));
  ScopedObject target = ScopedObject::Bare(qvahost::find_struct("QVAFWSAVEABLE"));
  ObjRef self(obj.id()), handler_ref(handler.id()), target_ref(target.id());
  QVA_VPTR message = qvahost::make_string("Go"), method = qvahost::make_long(-4);
  QVA_VPTR delay = qvahost::make_string("Later"), scope = qvahost::make_long(3);
  QVA_VPTR reg = qvahost::make_double(2.0);  // converted to LONG
  QVA_VPTR result = qvahost::call_method_function(self, "INIT", {},
                                                  {{"DELAYMESSAGESTRING", delay},
                                                   {"HANDLER", handler_ref},
                                                   {"MESSAGESTRING", message},
                                                   {"METHOD", method},
                                                   {"OBJECT", target_ref},
                                                   {"REGISTER", reg},
                                                   {"SCOPE", scope}});
  EXPECT_EQ(result->type, QVA_TYP_LONG);
  EXPECT_EQ(qvahost::integer_value(result), 0) << "the initialisation's result is returned";
  qvatest::Release(result);
  EXPECT_TRUE(kw.handler_given && kw.messagestring_given && kw.method_given && kw.object_given &&
              kw.delaymessagestring_given && kw.register_given && kw.scope_given);
  EXPECT_EQ(kw.handler, handler.id());
  EXPECT_EQ(g_seen.messagestring, "Go");
  EXPECT_EQ(g_seen.method, "-4") << "a number given for a name arrives as text";
  EXPECT_EQ(kw.object, target.id());
  EXPECT_EQ(g_seen.delaymessagestring, "Later");
  EXPECT_EQ(kw.register_value, 2);
  EXPECT_EQ(kw.scope, 3);

  // An abandoned initialisation leaks nothing (the fixture checks).
  g_probe_fails = true;
  EXPECT_EQ(ExpectHostError([&] {
              qvahost::call_method_function(self, "INIT", {},
                                            {{"MESSAGESTRING", delay}, {"SCOPE", scope}});
            }).text,
            "probe initialisation fails");
  EXPECT_EQ(g_seen.messagestring, "Later");
  g_probe_fails = false;

  // RESPONSE receives the caller's variable itself.
  g_probe_table = queryBehav_Keywords;
  qvahost::Variable answer("ANSWER");
  answer.take(qvahost::make_long(42));
  qvatest::Release(qvahost::call_method_function(self, "INIT", {}, {{"RESPONSE", answer.get()}}));
  EXPECT_EQ(g_seen.response, answer.get());

  // A keyword the table does not list is refused before the initialisation.
  g_probe_table = hasahandler_Keywords;
  const int calls = g_seen.calls;
  ExpectHostError([&] { qvahost::call_method_function(self, "INIT", {}, {{"SCOPE", scope}}); });
  EXPECT_EQ(g_seen.calls, calls);
  g_probe_table = delayBehav_Keywords;
  for (QVA_VPTR v : {message, method, delay, scope, reg}) QVA_Deltmp(v);
}

}  // namespace
