// The thirteen class structures as the host defines them: the inheritance
// chain, every field at its fixed position (also in user subclasses), and
// the module's own view of the same fields.
#include <gtest/gtest.h>
#include <qva/qva.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "frame/fw_class.h"
#include "module_objects.h"
#include "qva_host.h"
#include "test_support.h"

namespace {

using qvatest::ScopedObject;
using FieldList = std::vector<std::pair<std::string, QVA_MEMINT>>;

struct ClassLayout {
  const char *name;
  const char *super;  // "" for a root
  FieldList own;      // fields the class adds, with their positions
};

const ClassLayout kLayouts[] = {
    {"QVAFWSAVEABLE", "", {{"QVAFWSAVEABLE_TOP", 0}, {"QVAFWSAVEABLE_VERSION", 8}}},
    {"QVAFWHASAHANDLER", "QVAFWSAVEABLE", {{"HASAHANDLER_VERSION", 12}, {"MYHANDLER", 16}}},
    {"QVAFWMESSAGE", "QVAFWHASAHANDLER", {{"QVAFWMESSAGE_VERSION", 20}, {"MESS_IDENT", 24}}},
    {"QVAFWQUERY", "QVAFWMESSAGE", {{"QVAFWQUERY_VERSION", 28}, {"QUERY_RESULT", 32}}},
    {"QVAFWMESSAGEHANDLER",
     "QVAFWHASAHANDLER",
     {{"QVAFWMESSAGEHANDLER_VERSION", 20}, {"BEHAVIORS", 24}}},
    {"QVAFWBEHAVIOR",
     "QVAFWHASAHANDLER",
     {{"QVAFWBEHAVIOR_VERSION", 20}, {"IS_REGISTERED", 24}, {"MESSIDENT", 28}}},
    {"QVAFWOBJBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWOBJBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}}},
    {"QVAFWPROCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWPROCBEHAV_TOP", 32},
      {"QVAFWPROCBEHAV_VERSION", 40},
      {"PROC_STRING", 44},
      {"QVAFWPROCBEHAV_BOTTOM", 56}}},
    {"QVAFWFUNCBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWFUNCBEHAV_TOP", 32},
      {"QVAFWFUNCBEHAV_VERSION", 40},
      {"FUNC_STRING", 44},
      {"QVAFWFUNCBEHAV_BOTTOM", 56}}},
    {"QVAFWQUERYBEHAV", "QVAFWBEHAVIOR", {{"QVAFWQUERYBEHAV_VERSION", 32}, {"RESPONSE", 36}}},
    {"QVAFWDELAYBEHAV",
     "QVAFWBEHAVIOR",
     {{"QVAFWDELAYBEHAV_VERSION", 32}, {"OBJECT", 36}, {"METH_IDENT", 40}, {"SUB_BEHAVIOR", 44}}},
    {"QVAFWDELAYARGBEHAV", "QVAFWDELAYBEHAV", {{"QVAFWDELAYARGBEHAV_VERSION", 48}, {"ARG", 52}}},
    {"QVADSMAP", "", {{"QVADSMAP_VERSION", 0}, {"THE_MAP", 4}}},
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

class ClassLayoutTest : public qvatest::HostTest {};

TEST_F(ClassLayoutTest, EveryClassHasItsFieldsAtTheirPositions) {
  for (const ClassLayout &c : kLayouts) {
    SCOPED_TRACE(c.name);
    QVA_SDEF sdef = qvahost::find_struct(c.name);
    ASSERT_NE(sdef, nullptr);
    EXPECT_EQ(qvahost::struct_fields(sdef), ExpectedFields(c.name));
  }
}

TEST_F(ClassLayoutTest, EverySubclassInheritsItsSuperclass) {
  for (const ClassLayout &c : kLayouts) {
    SCOPED_TRACE(c.name);
    QVA_SDEF super = qvahost::struct_super(qvahost::find_struct(c.name));
    if (*c.super) {
      ASSERT_NE(super, nullptr);
      EXPECT_EQ(qvahost::struct_name(super), c.super);
    } else {
      EXPECT_EQ(super, nullptr);
    }
  }
}

TEST_F(ClassLayoutTest, UserSubclassesKeepThePositions) {
  for (const ClassLayout &c : kLayouts) {
    SCOPED_TRACE(c.name);
    const std::string base = c.name;
    // A subclass that adds nothing lays out exactly as its superclass.
    QVA_SDEF empty = qvatest::DefineStructOnce("LAYOUTTEST_EMPTY_" + base, base, {});
    EXPECT_EQ(qvahost::struct_fields(empty), ExpectedFields(base));
    // One that adds a field keeps the inherited positions and appends.
    QVA_SDEF extended = qvatest::DefineStructOnce("LAYOUTTEST_EXTRA_" + base, base,
                                                  {qvatest::Field("EXTRA_DOUBLE", QVA_TYP_DOUBLE)});
    FieldList fields = qvahost::struct_fields(extended);
    FieldList inherited = ExpectedFields(base);
    ASSERT_EQ(fields.size(), inherited.size() + 1);
    EXPECT_EQ(FieldList(fields.begin(), fields.end() - 1), inherited);
    EXPECT_EQ(fields.back().first, "EXTRA_DOUBLE");
    EXPECT_GE(fields.back().second, inherited.back().second);
  }
}

// The module's structures address the same bytes as the host's fields.
struct FieldView {
  const char *cls;
  const char *field;
  void *(*address)(ClassPart);
};

#define VIEW(cls, field, expr)                              \
  {                                                         \
    cls, field, [](ClassPart p) -> void * { return &expr; } \
  }

const FieldView kViews[] = {
    VIEW("QVAFWSAVEABLE", "QVAFWSAVEABLE_TOP", saveable_data(p)->top),
    VIEW("QVAFWSAVEABLE", "QVAFWSAVEABLE_VERSION", saveable_data(p)->version),
    VIEW("QVAFWHASAHANDLER", "HASAHANDLER_VERSION", hasahandler_data(p)->version),
    VIEW("QVAFWHASAHANDLER", "MYHANDLER", hasahandler_data(p)->myhandler),
    VIEW("QVAFWMESSAGE", "QVAFWMESSAGE_VERSION", message_data(p)->version),
    VIEW("QVAFWMESSAGE", "MESS_IDENT", message_data(p)->mess_ident),
    VIEW("QVAFWQUERY", "MYHANDLER", query_data(p)->message.hasahandler.myhandler),
    VIEW("QVAFWQUERY", "QVAFWQUERY_VERSION", query_data(p)->version),
    VIEW("QVAFWQUERY", "QUERY_RESULT", query_data(p)->query_result),
    VIEW("QVAFWMESSAGEHANDLER", "QVAFWMESSAGEHANDLER_VERSION", messagehandler_data(p)->version),
    VIEW("QVAFWMESSAGEHANDLER", "BEHAVIORS", messagehandler_data(p)->behaviors),
    VIEW("QVAFWBEHAVIOR", "QVAFWBEHAVIOR_VERSION", behavior_data(p)->version),
    VIEW("QVAFWBEHAVIOR", "IS_REGISTERED", behavior_data(p)->is_registered),
    VIEW("QVAFWBEHAVIOR", "MESSIDENT", behavior_data(p)->messident),
    VIEW("QVAFWOBJBEHAV", "QVAFWOBJBEHAV_VERSION", objbehav_data(p)->version),
    VIEW("QVAFWOBJBEHAV", "OBJECT", objbehav_data(p)->object),
    VIEW("QVAFWOBJBEHAV", "METH_IDENT", objbehav_data(p)->meth_ident),
    VIEW("QVAFWPROCBEHAV", "QVAFWPROCBEHAV_TOP", procbehav_data(p)->top),
    VIEW("QVAFWPROCBEHAV", "QVAFWPROCBEHAV_VERSION", procbehav_data(p)->version),
    VIEW("QVAFWPROCBEHAV", "PROC_STRING", procbehav_data(p)->proc_string),
    VIEW("QVAFWPROCBEHAV", "QVAFWPROCBEHAV_BOTTOM", procbehav_data(p)->bottom),
    VIEW("QVAFWFUNCBEHAV", "QVAFWFUNCBEHAV_TOP", funcbehav_data(p)->top),
    VIEW("QVAFWFUNCBEHAV", "QVAFWFUNCBEHAV_VERSION", funcbehav_data(p)->version),
    VIEW("QVAFWFUNCBEHAV", "FUNC_STRING", funcbehav_data(p)->func_string),
    VIEW("QVAFWFUNCBEHAV", "QVAFWFUNCBEHAV_BOTTOM", funcbehav_data(p)->bottom),
    VIEW("QVAFWQUERYBEHAV", "QVAFWQUERYBEHAV_VERSION", querybehav_data(p)->version),
    VIEW("QVAFWQUERYBEHAV", "RESPONSE", querybehav_data(p)->response),
    VIEW("QVAFWDELAYBEHAV", "QVAFWDELAYBEHAV_VERSION", delaybehav_data(p)->version),
    VIEW("QVAFWDELAYBEHAV", "OBJECT", delaybehav_data(p)->object),
    VIEW("QVAFWDELAYBEHAV", "METH_IDENT", delaybehav_data(p)->meth_ident),
    VIEW("QVAFWDELAYBEHAV", "SUB_BEHAVIOR", delaybehav_data(p)->sub_behavior),
    VIEW("QVAFWDELAYARGBEHAV", "MESSIDENT", delayargbehav_data(p)->delaybehav.behavior.messident),
    VIEW("QVAFWDELAYARGBEHAV", "QVAFWDELAYARGBEHAV_VERSION", delayargbehav_data(p)->version),
    VIEW("QVAFWDELAYARGBEHAV", "ARG", delayargbehav_data(p)->arg),
    VIEW("QVADSMAP", "QVADSMAP_VERSION", dsmap_data(p)->version),
    VIEW("QVADSMAP", "THE_MAP", dsmap_data(p)->the_map),
};
#undef VIEW

TEST_F(ClassLayoutTest, ModuleStructuresAddressTheHostFields) {
  for (const FieldView &view : kViews) {
    SCOPED_TRACE(std::string(view.cls) + "." + view.field);
    ScopedObject obj = ScopedObject::Bare(qvahost::find_struct(view.cls));
    const std::string cls = view.cls;
    ClassPart part = cls == "QVADSMAP" ? DSMap_from_hvid(obj.id()) : fw_classPart(obj.id(), view.cls, "test");
    EXPECT_EQ(view.address(part), qvatest::FieldOf<void>(obj.id(), view.field));
  }
}

}  // namespace
