// Saving, restoring and resetting a session, and heap garbage collection.
#include <algorithm>
#include <cstring>
#include <set>

#include "save_format.h"
#include "test_support.h"

namespace {

using qvahost::FieldSpec;
using qvatest::ExpectHostError;

class SessionTest : public qvatest::FreshSessionTest {
 protected:
  // Sets a main-level variable from a temporary.
  static QVA_VPTR Set(const std::string &name, QVA_VPTR tmp) {
    QVA_VPTR v = qvahost::main_variable(name);
    QVA_VarCopy(tmp, v);
    QVA_Deltmp(tmp);
    return v;
  }
  static QVA_HVID NewPtr(QVA_VPTR tmp) {
    QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_LONGJMP);
    QVA_Deltmp(tmp);
    return h->hash_id;
  }
  static QVA_VPTR Var(const std::string &name) { return qvahost::find_main_variable(name); }
  static QVA_VARIABLE &Deref(QVA_HVID id) {
    QVA_HVPTR h = QVA_HeapVarHashFind(id);
    EXPECT_NE(h, nullptr) << "heap variable " << id << " is gone";
    static QVA_VARIABLE undefined{};
    return h ? h->var : undefined;
  }
};

// A structure with a pointer, a string, an array field and an object
// reference, to exercise every kind of field the save file carries.
QVA_SDEF NodeDef() {
  static QVA_SDEF sd = qvahost::define_struct(
      "SESSION_NODE", "",
      {{"NEXT", QVA_TYP_PTR, nullptr, {}}, {"LABEL", QVA_TYP_STRING, nullptr, {}}, {"VALS", QVA_TYP_LONG, nullptr, {3}},
       {"OWNER", QVA_TYP_OBJREF, nullptr, {}}, {"RATIO", QVA_TYP_DOUBLE, nullptr, {}}});
  return sd;
}
QVA_SDEF ThingClass() {
  static QVA_SDEF sd = qvahost::define_struct("SESSION_THING", "",
                                              {{"COUNT", QVA_TYP_LONG, nullptr, {}}, {"NAME", QVA_TYP_STRING, nullptr, {}}});
  return sd;
}

struct Node {
  QVA_HVID next, owner;
  std::string label;
  QVA_LONG vals[3];
  double ratio;
};

Node ReadNode(const QVA_VARIABLE &v) {
  EXPECT_TRUE(v.flags & QVA_V_STRUCT);
  Node n{};
  QVA_VARIABLE copy = v;
  auto field = [&](const char *tag) {
    return static_cast<QVA_UCHAR *>(QVA_StructGetTagAddress(&copy, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
  };
  std::memcpy(&n.next, field("NEXT"), 4);
  std::memcpy(&n.owner, field("OWNER"), 4);
  n.label = QVA_STRING_STR(reinterpret_cast<QVA_STRING *>(field("LABEL")));
  std::memcpy(n.vals, field("VALS"), sizeof n.vals);
  std::memcpy(&n.ratio, field("RATIO"), 8);
  return n;
}

QVA_VPTR MakeNode(QVA_HVID next, QVA_HVID owner, const char *label, QVA_LONG base) {
  QVA_VPTR t;
  QVA_UCHAR *data = reinterpret_cast<QVA_UCHAR *>(QVA_MakeTempStructVector(NodeDef(), 1, &t, 1));
  auto field = [&](const char *tag) {
    return static_cast<QVA_UCHAR *>(QVA_StructGetTagAddress(t, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
  };
  (void)data;
  std::memcpy(field("NEXT"), &next, 4);
  std::memcpy(field("OWNER"), &owner, 4);
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(field("LABEL")), label);
  QVA_LONG vals[3] = {base, base + 1, base + 2};
  std::memcpy(field("VALS"), vals, sizeof vals);
  double ratio = base / 4.0;
  std::memcpy(field("RATIO"), &ratio, 8);
  return t;
}

QVA_HVID NewThing(QVA_LONG count, const char *name) {
  QVA_VPTR t;
  QVA_MakeTempStructVector(ThingClass(), 1, &t, 1);
  *static_cast<QVA_LONG *>(QVA_StructGetTagAddress(t, "COUNT", nullptr, nullptr, 2)) = count;
  QVA_StrStore(static_cast<QVA_STRING *>(QVA_StructGetTagAddress(t, "NAME", nullptr, nullptr, 2)), name);
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_OBJREF, t, 1, QVA_MSG_LONGJMP);
  QVA_Deltmp(t);
  return h->hash_id;
}

TEST_F(SessionTest, ScalarsStringsAndArraysComeBackEqual) {
  Set("L", qvahost::make_long(-42));
  Set("S", qvahost::make_string("hello, session"));
  Set("E", qvahost::make_string(""));
  Set("D", qvahost::make_double(2.5));
  Set("Q", qvahost::make_long64(int64_t{1} << 40));
  Set("A", qvahost::make_long_array({3, 1, 4, 1, 5}));
  Set("SA", qvahost::make_string_array({"x", "", "zz"}));
  qvahost::main_variable("U");  // undefined

  std::vector<uint8_t> bytes = qvahost::save_all_to_bytes();
  qvahost::reset_session();
  EXPECT_TRUE(qvahost::main_variable_names().empty());
  auto names = qvahost::restore_from_bytes(bytes.data(), bytes.size());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"A", "D", "E", "L", "Q", "S", "SA", "U"}));

  EXPECT_EQ(qvahost::integer_value(Var("L")), -42);
  EXPECT_EQ(qvahost::string_value(Var("S")), "hello, session");
  EXPECT_EQ(qvahost::string_value(Var("E")), "");
  EXPECT_EQ(qvahost::double_value(Var("D")), 2.5);
  EXPECT_EQ(qvahost::integer_value(Var("Q")), int64_t{1} << 40);
  EXPECT_EQ(Var("U")->type, QVA_TYP_UNDEF);
  QVA_MEMINT n;
  char *data;
  QVA_VarGetData(Var("A"), &n, &data, 0);
  ASSERT_EQ(n, 5);
  EXPECT_EQ(std::vector<QVA_LONG>(reinterpret_cast<QVA_LONG *>(data), reinterpret_cast<QVA_LONG *>(data) + 5),
            (std::vector<QVA_LONG>{3, 1, 4, 1, 5}));
  QVA_VarGetData(Var("SA"), &n, &data, 0);
  ASSERT_EQ(n, 3);
  auto *strs = reinterpret_cast<QVA_STRING *>(data);
  EXPECT_STREQ(QVA_STRING_STR(&strs[0]), "x");
  EXPECT_STREQ(QVA_STRING_STR(&strs[1]), "");
  EXPECT_STREQ(QVA_STRING_STR(&strs[2]), "zz");
}

TEST_F(SessionTest, ReferencesInsideStructuresAreRemappedToNewHeapVariables) {
  // A cycle of two nodes, each naming an object, and an array of references.
  QVA_HVID thing = NewThing(7, "seven");
  QVA_HVID a = NewPtr(MakeNode(0, thing, "a", 10));
  QVA_HVID b = NewPtr(MakeNode(a, 0, "b", 20));
  // NEXT is the first field: point a at b.
  std::memcpy(Deref(a).value.s.arr->data, &b, 4);
  Set("HEAD", qvahost::make_ptr(a));
  QVA_VPTR refs;
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_OBJREF, 3, 1, &refs));
  ids[0] = thing;
  ids[2] = thing;
  Set("REFS", refs);
  std::set<QVA_HVID> old_ids = {thing, a, b};

  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"HEAD", "REFS"});
  qvahost::reset_session();
  qvahost::restore_from_bytes(bytes.data(), bytes.size());

  QVA_HVID a2 = Var("HEAD")->value.hvid;
  Node na = ReadNode(Deref(a2));
  Node nb = ReadNode(Deref(na.next));
  EXPECT_EQ(nb.next, a2) << "the cycle closes on the restored head";
  EXPECT_EQ(na.label, "a");
  EXPECT_EQ(nb.label, "b");
  EXPECT_EQ(na.vals[2], 12);
  EXPECT_EQ(nb.ratio, 5.0);
  EXPECT_EQ(nb.owner, 0u);
  QVA_HVID thing2 = na.owner;
  for (QVA_HVID id : {a2, na.next, thing2}) EXPECT_FALSE(old_ids.count(id)) << id << " was reused";
  EXPECT_EQ(std::set<QVA_HVID>({a2, na.next, thing2}).size(), 3u);

  QVA_HVPTR obj = QVA_ObjValidate(thing2, QVA_MSG_RET);
  ASSERT_NE(obj, nullptr) << "the object comes back as an object";
  EXPECT_EQ(obj->var.value.s.sdef, ThingClass()) << "its class is the one defined";
  EXPECT_EQ(*static_cast<QVA_LONG *>(QVA_StructGetTagAddress(&obj->var, "COUNT", nullptr, nullptr, 2)), 7);
  QVA_MEMINT n;
  char *data;
  QVA_VarGetData(Var("REFS"), &n, &data, 0);
  ASSERT_EQ(n, 3);
  auto *rids = reinterpret_cast<QVA_HVID *>(data);
  EXPECT_EQ(rids[0], thing2);
  EXPECT_EQ(rids[1], 0u);
  EXPECT_EQ(rids[2], thing2);
  EXPECT_EQ(qvahost::accounting().heap_vars - baseline_.heap_vars, 3);
}

TEST_F(SessionTest, RestoringTwiceGivesTwoIndependentCopies) {
  QVA_HVID p = NewPtr(qvahost::make_string("shared"));
  Set("P", qvahost::make_ptr(p));
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"P"});
  Set("KEEP", qvahost::make_ptr(p));  // the live one must stay untouched

  qvahost::restore_from_bytes(bytes.data(), bytes.size());
  QVA_HVID first = Var("P")->value.hvid;
  Set("FIRST", qvahost::make_ptr(first));
  qvahost::restore_from_bytes(bytes.data(), bytes.size());
  QVA_HVID second = Var("P")->value.hvid;

  EXPECT_NE(first, p);
  EXPECT_NE(second, first);
  QVA_StrDelete(&Deref(first).value.str, 1);
  QVA_StrStore(&Deref(first).value.str, "changed");
  EXPECT_STREQ(QVA_STRING_STR(&Deref(second).value.str), "shared");
  EXPECT_STREQ(QVA_STRING_STR(&Deref(p).value.str), "shared");
}

TEST_F(SessionTest, DanglingReferenceIsSavedAsNull) {
  QVA_HVID p = NewPtr(qvahost::make_long(1));
  Set("P", qvahost::make_ptr(p));
  QVA_HeapVarDelete(p, 0, 0);
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"P"});
  qvahost::restore_from_bytes(bytes.data(), bytes.size());
  EXPECT_EQ(Var("P")->type, QVA_TYP_PTR);
  EXPECT_EQ(Var("P")->value.hvid, 0u);
}

TEST_F(SessionTest, HeldHeapVariablesAndWhatTheyReachSurviveGarbageCollection) {
  static int cleanups = 0;
  static QVA_SDEF cls = qvahost::define_struct("SESSION_GCOBJ", "", {{"N", QVA_TYP_LONG, nullptr, {}}});
  (void)cls;
  if (!qvahost::routine_exists("SESSION_GCOBJ::CLEANUP", false))
    qvahost::define_routine("SESSION_GCOBJ::CLEANUP", false, 1, 1, false,
                            [](int, QVA_VPTR *, QVA_KW_ARGS *) -> QVA_VPTR {
                              ++cleanups;
                              return nullptr;
                            });
  cleanups = 0;
  auto new_obj = [] {
    QVA_VPTR name = qvahost::make_string("SESSION_GCOBJ");
    QVA_VPTR ref = QVA_ObjNew(1, &name, nullptr);
    QVA_HVID id = ref->value.hvid;
    QVA_Deltmp(ref);
    QVA_Deltmp(name);
    return id;
  };
  QVA_HVID reached_by_var = NewPtr(qvahost::make_long(1));
  QVA_HVID reached_by_held = NewPtr(qvahost::make_long(2));
  QVA_HVID held = NewPtr(qvahost::make_ptr(reached_by_held));
  QVA_HeapVarHashFind(held)->flags |= QVA_HV_HELD;
  QVA_HVID garbage = NewPtr(qvahost::make_long(3));
  QVA_HVID garbage_obj = new_obj();
  QVA_HVID kept_obj = new_obj();
  Set("V", qvahost::make_ptr(reached_by_var));
  Set("O", qvahost::make_objref(kept_obj));

  EXPECT_EQ(qvahost::heap_gc(), 2u);
  EXPECT_EQ(QVA_HeapVarHashFind(garbage), nullptr);
  EXPECT_EQ(QVA_HeapVarHashFind(garbage_obj), nullptr);
  EXPECT_EQ(cleanups, 1) << "the unreachable object's CLEANUP ran";
  for (QVA_HVID id : {reached_by_var, reached_by_held, held, kept_obj})
    EXPECT_NE(QVA_HeapVarHashFind(id), nullptr) << id;
}

TEST_F(SessionTest, ResetDiscardsEverythingAndKeepsDefinitions) {
  QVA_HVID obj = NewThing(1, "x");
  Set("O", qvahost::make_objref(obj));
  Set("P", qvahost::make_ptr(NewPtr(qvahost::make_string("text"))));
  qvahost::reset_session();
  EXPECT_TRUE(qvahost::heap_ids().empty());
  EXPECT_TRUE(qvahost::main_variable_names().empty());
  EXPECT_EQ(qvahost::find_struct("SESSION_THING"), ThingClass());
}

// Rewrites the checksum after an edit of the bytes.
void Reseal(std::vector<uint8_t> &bytes) {
  uint32_t crc = qvahost::savefile::crc32(bytes.data(), bytes.size() - 4);
  std::memcpy(bytes.data() + bytes.size() - 4, &crc, 4);
}

void Rename(std::vector<uint8_t> &bytes, const std::string &from, const std::string &to) {
  ASSERT_EQ(from.size(), to.size());
  auto it = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
  ASSERT_NE(it, bytes.end());
  std::copy(to.begin(), to.end(), it);
  Reseal(bytes);
}

TEST_F(SessionTest, ChangedStructureDefinitionMatchesFieldsByName) {
  qvahost::define_struct("SESSION_PTA", "", {{"X", QVA_TYP_LONG, nullptr, {}}, {"Y", QVA_TYP_LONG, nullptr, {}}});
  // The same name, as a later version of a program defines it: X is gone,
  // Y moved, Z is new.
  QVA_SDEF later = qvahost::define_struct("SESSION_PTB", "", {{"Z", QVA_TYP_DOUBLE, nullptr, {}}, {"Y", QVA_TYP_LONG, nullptr, {}}});
  qvahost::define_struct("SESSION_PTC", "", {{"X", QVA_TYP_STRING, nullptr, {}}, {"Y", QVA_TYP_LONG, nullptr, {}}});
  QVA_VPTR t;
  auto *xy = reinterpret_cast<QVA_LONG *>(QVA_MakeTempStructVector(qvahost::find_struct("SESSION_PTA"), 1, &t, 1));
  xy[0] = 5;
  xy[1] = 6;
  Set("PT", t);
  std::vector<uint8_t> saved = qvahost::save_variables_to_bytes({"PT"});

  std::vector<uint8_t> bytes = saved;
  Rename(bytes, "SESSION_PTA", "SESSION_PTB");
  qvahost::restore_from_bytes(bytes.data(), bytes.size());
  QVA_VPTR pt = Var("PT");
  ASSERT_EQ(pt->value.s.sdef, later);
  EXPECT_EQ(*static_cast<QVA_LONG *>(QVA_StructGetTagAddress(pt, "Y", nullptr, nullptr, 2)), 6);
  EXPECT_EQ(*static_cast<double *>(QVA_StructGetTagAddress(pt, "Z", nullptr, nullptr, 2)), 0.0);

  bytes = saved;
  Rename(bytes, "SESSION_PTA", "SESSION_PTC");
  qvahost::HostError e = ExpectHostError([&] { qvahost::restore_from_bytes(bytes.data(), bytes.size()); });
  EXPECT_NE(e.text.find("SESSION_PTC"), std::string::npos) << e.text;
  EXPECT_EQ(Var("PT")->value.s.sdef, later) << "a refused restore changes nothing";
}

TEST_F(SessionTest, TruncatedOrFlippedFilesFailCleanlyAndChangeNothing) {
  QVA_HVID thing = NewThing(3, "three");
  QVA_HVID node = NewPtr(MakeNode(0, thing, "n", 1));
  Set("N", qvahost::make_ptr(node));
  Set("S", qvahost::make_string_array({"a", "bb"}));
  std::vector<uint8_t> good = qvahost::save_all_to_bytes();

  qvahost::Accounting before = qvahost::accounting();
  auto names_before = qvahost::main_variable_names();
  for (size_t len = 0; len < good.size(); ++len) {
    qvahost::HostError e = ExpectHostError([&] { qvahost::restore_from_bytes(good.data(), len); });
    EXPECT_FALSE(e.text.empty());
    ASSERT_EQ(qvahost::accounting(), before) << "truncated at " << len;
  }
  for (size_t i = 0; i < good.size(); ++i) {
    std::vector<uint8_t> bad = good;
    bad[i] ^= 0x5A;
    ExpectHostError([&] { qvahost::restore_from_bytes(bad.data(), bad.size()); });
    ASSERT_EQ(qvahost::accounting(), before) << "flipped byte " << i;
  }
  EXPECT_EQ(qvahost::main_variable_names(), names_before);
  EXPECT_EQ(Var("N")->value.hvid, node);
}

TEST_F(SessionTest, RestoreUnderAllocationFailureUndoesEverything) {
  QVA_HVID thing = NewThing(3, "three");
  Set("N", qvahost::make_ptr(NewPtr(MakeNode(0, thing, "n", 1))));
  Set("S", qvahost::make_string_array({"a", "bb"}));
  std::vector<uint8_t> bytes = qvahost::save_all_to_bytes();
  qvahost::Accounting before = qvahost::accounting();
  qvatest::OutputCapture quiet;
  int failures = 0;
  for (int64_t n = 1;; ++n) {
    qvahost::fail_allocation_after(n);
    std::string error = qvahost::try_call([&] { qvahost::restore_from_bytes(bytes.data(), bytes.size()); });
    qvahost::fail_allocation_after(0);
    if (error.empty()) break;
    ++failures;
    EXPECT_NE(error.find("allocate"), std::string::npos) << error;
    ASSERT_EQ(qvahost::accounting().heap_vars, before.heap_vars) << "failing allocation " << n;
    ASSERT_EQ(qvahost::accounting().texts, before.texts) << "failing allocation " << n;
    ASSERT_LT(n, 1000);
  }
  EXPECT_GT(failures, 3) << "the restore allocates heap variables, arrays and texts";
}

}  // namespace

namespace {

// Lists kept in heap-identifier order (a handler's behaviours) must still
// be in order after a restore renumbers their members, whatever order the
// save file holds them in.
TEST_F(SessionTest, RestoredHeapVariablesKeepTheOrderOfTheirIdentifiers) {
  std::vector<QVA_HVID> made;
  for (int i = 0; i < 6; ++i) made.push_back(NewPtr(qvahost::make_long(i)));
  // Reached newest first: a file written in reachability order holds them
  // in reverse.
  QVA_VPTR refs = nullptr;
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_PTR, 6, 1, &refs));
  for (int i = 0; i < 6; ++i) ids[i] = made[5 - i];
  Set("REFS", refs);
  auto bytes = qvahost::save_variables_to_bytes({"REFS"});
  qvahost::reset_session();
  qvahost::restore_from_bytes(bytes.data(), bytes.size());

  QVA_MEMINT n = 0;
  char *data = nullptr;
  QVA_VarGetData(Var("REFS"), &n, &data, 0);
  ASSERT_EQ(n, 6);
  const auto *back = reinterpret_cast<const QVA_HVID *>(data);
  for (int i = 0; i < 6; ++i) {
    // Element i names the one that held value 5 - i; the ids keep that order.
    EXPECT_EQ(Deref(back[i]).value.l, 5 - i);
    if (i > 0) {
      EXPECT_LT(back[i], back[i - 1]);
    }
  }
}

}  // namespace
