// Saving, restoring and resetting a session, and heap garbage collection.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>

#include <sys/stat.h>
#include <unistd.h>

#include "host_fixture.h"
#include "save_format.h"
#include "save_ids.h"

namespace {

using hosttest::ExpectHostError;
using hosttest::field;
using hosttest::Text;

class SessionTest : public qvatest::FreshSessionTest {
 protected:
  // Sets a main-level variable from a temporary.
  static void Set(const std::string &name, QVA_VPTR tmp) {
    QVA_VarCopy(tmp, qvahost::main_variable(name));
    QVA_Deltmp(tmp);
  }
  static QVA_HVID NewPtr(QVA_VPTR tmp) {
    QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, tmp, 1, QVA_MSG_LONGJMP);
    QVA_Deltmp(tmp);
    return h->hash_id;
  }
  static QVA_VPTR Var(const std::string &name) { return qvahost::find_main_variable(name); }
  static QVA_VARIABLE &Deref(QVA_HVID id) {
    static QVA_VARIABLE undefined{};
    QVA_HVPTR h = QVA_HeapVarHashFind(id);
    EXPECT_NE(h, nullptr) << "heap variable " << id << " is gone";
    return h ? h->var : undefined;
  }
  static void Restore(const std::vector<uint8_t> &bytes) {
    qvahost::restore_from_bytes(bytes.data(), bytes.size());
  }
  template <typename T>
  static std::vector<T> Elements(QVA_VPTR v) {
    QVA_MEMINT n = 0;
    char *data = nullptr;
    QVA_VarGetData(v, &n, &data, 0);
    return std::vector<T>(reinterpret_cast<T *>(data), reinterpret_cast<T *>(data) + n);
  }
};

template <typename T>
T &At(QVA_VARIABLE &v, const char *tag) {
  return *static_cast<T *>(QVA_StructGetTagAddress(&v, tag, nullptr, nullptr, QVA_MSG_LONGJMP));
}

QVA_HVID NewStruct(QVA_SDEF sd, int type, const std::function<void(QVA_VARIABLE &)> &fill) {
  QVA_VPTR t;
  QVA_MakeTempStructVector(sd, 1, &t, 1);
  fill(*t);
  QVA_HVPTR h = QVA_HeapVarNew(type, t, 1, QVA_MSG_LONGJMP);
  QVA_Deltmp(t);
  return h->hash_id;
}

// A heap SESSION_NODE, with every kind of field the save file carries.
QVA_HVID NewNode(QVA_HVID next, QVA_HVID owner, const char *label, QVA_LONG base) {
  QVA_SDEF sd = hosttest::ensure_class("SESSION_NODE", "",
                                       {field("NEXT", QVA_TYP_PTR),
                                        field("LABEL", QVA_TYP_STRING),
                                        {"VALS", QVA_TYP_LONG, nullptr, {3}},
                                        field("OWNER", QVA_TYP_OBJREF),
                                        field("RATIO", QVA_TYP_DOUBLE)});
  return NewStruct(sd, QVA_TYP_PTR, [&](QVA_VARIABLE &v) {
    At<QVA_HVID>(v, "NEXT") = next;
    At<QVA_HVID>(v, "OWNER") = owner;
    QVA_StrStore(&At<QVA_STRING>(v, "LABEL"), label);
    for (int i = 0; i < 3; ++i) (&At<QVA_LONG>(v, "VALS"))[i] = base + i;
    At<double>(v, "RATIO") = base / 4.0;
  });
}

QVA_SDEF ThingClass() {
  return hosttest::ensure_class("SESSION_THING", "",
                                {field("COUNT", QVA_TYP_LONG), field("NAME", QVA_TYP_STRING)});
}
QVA_HVID NewThing(QVA_LONG count, const char *name) {
  return NewStruct(ThingClass(), QVA_TYP_OBJREF, [&](QVA_VARIABLE &v) {
    At<QVA_LONG>(v, "COUNT") = count;
    QVA_StrStore(&At<QVA_STRING>(v, "NAME"), name);
  });
}

TEST_F(SessionTest, EveryKindOfValueComesBackWithReferencesRemappedToNewHeapVariables) {
  Set("L", qvahost::make_long(-42));
  Set("S", qvahost::make_string("hello, session"));
  Set("D", qvahost::make_double(2.5));
  Set("Q", qvahost::make_long64(int64_t{1} << 40));
  Set("A", qvahost::make_long_array({3, 1, 4, 1, 5}));
  Set("SA", qvahost::make_string_array({"x", "", "zz"}));
  qvahost::main_variable("U");  // undefined
  // A cycle of two nodes, one naming an object, and an array of references.
  QVA_HVID thing = NewThing(7, "seven");
  QVA_HVID a = NewNode(0, thing, "a", 10);
  QVA_HVID b = NewNode(a, 0, "b", 20);
  At<QVA_HVID>(Deref(a), "NEXT") = b;
  Set("HEAD", qvahost::make_ptr(a));
  QVA_VPTR refs;
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_OBJREF, 3, 1, &refs));
  ids[0] = ids[2] = thing;
  Set("REFS", refs);
  std::vector<uint8_t> bytes = qvahost::save_all_to_bytes();
  qvahost::reset_session();
  auto names = qvahost::restore_from_bytes(bytes.data(), bytes.size());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"A", "D", "HEAD", "L", "Q", "REFS", "S", "SA", "U"}));
  EXPECT_EQ(qvahost::integer_value(Var("L")), -42);
  EXPECT_EQ(qvahost::string_value(Var("S")), "hello, session");
  EXPECT_EQ(qvahost::double_value(Var("D")), 2.5);
  EXPECT_EQ(qvahost::integer_value(Var("Q")), int64_t{1} << 40);
  EXPECT_EQ(Var("U")->type, QVA_TYP_UNDEF);
  EXPECT_EQ(Elements<QVA_LONG>(Var("A")), (std::vector<QVA_LONG>{3, 1, 4, 1, 5}));
  auto strs = Elements<QVA_STRING>(Var("SA"));
  ASSERT_EQ(strs.size(), 3u);
  EXPECT_EQ(Text(strs[0]) + "," + Text(strs[1]) + "," + Text(strs[2]), "x,,zz");

  QVA_HVID a2 = Var("HEAD")->value.hvid;
  QVA_HVID b2 = At<QVA_HVID>(Deref(a2), "NEXT");
  QVA_HVID thing2 = At<QVA_HVID>(Deref(a2), "OWNER");
  EXPECT_EQ(At<QVA_HVID>(Deref(b2), "NEXT"), a2) << "the cycle closes on the restored head";
  EXPECT_EQ(Text(At<QVA_STRING>(Deref(b2), "LABEL")), "b");
  EXPECT_EQ((&At<QVA_LONG>(Deref(a2), "VALS"))[2], 12);
  EXPECT_EQ(At<double>(Deref(b2), "RATIO"), 5.0);
  EXPECT_EQ(At<QVA_HVID>(Deref(b2), "OWNER"), 0u);
  std::set<QVA_HVID> old_ids = {thing, a, b}, new_ids = {a2, b2, thing2};
  EXPECT_EQ(new_ids.size(), 3u);
  for (QVA_HVID id : new_ids) EXPECT_FALSE(old_ids.count(id)) << id << " was reused";
  QVA_HVPTR obj = QVA_ObjValidate(thing2, QVA_MSG_RET);
  ASSERT_NE(obj, nullptr) << "the object comes back as an object";
  EXPECT_EQ(obj->var.value.s.sdef, ThingClass()) << "its class is the one defined";
  EXPECT_EQ(At<QVA_LONG>(obj->var, "COUNT"), 7);
  EXPECT_EQ(Elements<QVA_HVID>(Var("REFS")), (std::vector<QVA_HVID>{thing2, 0, thing2}));
  EXPECT_EQ(qvahost::accounting().heap_vars - baseline_.heap_vars, 3);
}

// Lists kept in heap-identifier order (a handler's behaviours) must still
// be in order after a restore renumbers their members, whatever order the
// save file holds them in.
TEST_F(SessionTest, RestoredHeapVariablesKeepTheOrderOfTheirIdentifiers) {
  // Close identifiers, then identifiers far apart (tens of thousands issued
  // and deleted between them), which the restore remaps another way.
  for (int gap : {0, 40000}) {
    SCOPED_TRACE(gap);
    QVA_VPTR refs = nullptr;
    auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_PTR, 6, 1, &refs));
    for (int i = 0; i < 6; ++i) {
      ids[5 - i] = NewPtr(qvahost::make_long(i));  // newest first
      for (int k = 0; k < gap; ++k) QVA_HeapVarDelete(NewPtr(qvahost::make_long(k)), 0, 0);
    }
    Set("REFS", refs);
    auto bytes = qvahost::save_variables_to_bytes({"REFS"});
    qvahost::reset_session();
    Restore(bytes);
    auto back = Elements<QVA_HVID>(Var("REFS"));
    ASSERT_EQ(back.size(), 6u);
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(Deref(back[i]).value.l, 5 - i);
      if (i > 0) {
        EXPECT_LT(back[i], back[i - 1]);
      }
    }
  }
}

// SAVE lists heap variables by identifier, and RESTORE then makes and fills
// each record in one pass; a file listing them in another order (as files
// written before did) is built the other way, with the same result.
TEST_F(SessionTest, AFileListingHeapVariablesOutOfOrderRestoresAlike) {
  QVA_HVID first = NewPtr(qvahost::make_long(111));
  QVA_HVID second = NewPtr(qvahost::make_long(222));
  QVA_VPTR refs = nullptr;
  auto *ids = reinterpret_cast<QVA_HVID *>(QVA_MakeTempVector(QVA_TYP_PTR, 2, 1, &refs));
  ids[0] = second;
  ids[1] = first;
  Set("REFS", refs);
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"REFS"});
  // Both entries have the same length: identifier, flags, a LONG scalar.
  auto entry_at = [&](QVA_HVID id) {
    uint8_t head[10] = {};
    std::memcpy(head, &id, 4);
    head[8] = QVA_TYP_LONG;
    head[9] = qvahost::savefile::kScalar;
    auto it = std::search(bytes.begin(), bytes.end(), head, head + 10);
    EXPECT_NE(it, bytes.end());
    return static_cast<size_t>(it - bytes.begin());
  };
  size_t a = entry_at(first), b = entry_at(second);
  ASSERT_LT(a, b) << "written by identifier";
  size_t len = b - a;
  std::vector<uint8_t> swapped = bytes;
  std::copy(bytes.begin() + b, bytes.begin() + b + len, swapped.begin() + a);
  std::copy(bytes.begin() + a, bytes.begin() + a + len, swapped.begin() + a + len);
  uint32_t crc = qvahost::savefile::crc32(swapped.data(), swapped.size() - 4);
  std::memcpy(swapped.data() + swapped.size() - 4, &crc, 4);
  for (const auto *file : {&bytes, &swapped}) {
    qvahost::reset_session();
    try {
      Restore(*file);
    } catch (const qvahost::HostError &e) {
      FAIL() << e.text;
    }
    auto back = Elements<QVA_HVID>(Var("REFS"));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(Deref(back[0]).value.l, 222);
    EXPECT_EQ(Deref(back[1]).value.l, 111);
    EXPECT_GT(back[0], back[1]) << "new identifiers keep the saved ones' order";
    EXPECT_EQ(back[0], back[1] + 1) << "issued in a run";
  }
}

// Files written before keep their checksum: it is the CRC-32 of gzip and
// zlib, whose check value is that of "123456789", and it runs on in pieces
// as the writer sums a file piece by piece.
TEST_F(SessionTest, TheChecksumIsTheStandardCrc32WholeOrInPieces) {
  using qvahost::savefile::crc32;
  using qvahost::savefile::crc32_update;
  const auto *digits = reinterpret_cast<const uint8_t *>("123456789");
  EXPECT_EQ(crc32(digits, 9), 0xCBF43926u);
  EXPECT_EQ(crc32(digits, 0), 0u);
  std::vector<uint8_t> bytes(100003);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
  const uint32_t whole = crc32(bytes.data(), bytes.size());
  for (size_t cut : {size_t{0}, size_t{1}, size_t{63}, size_t{4096}, bytes.size()}) {
    SCOPED_TRACE(cut);
    uint32_t crc = crc32_update(0, bytes.data(), cut);
    EXPECT_EQ(crc32_update(crc, bytes.data() + cut, bytes.size() - cut), whole);
  }
  bytes[50000] ^= 1;
  EXPECT_NE(crc32(bytes.data(), bytes.size()), whole);
}

TEST_F(SessionTest, IdentifierRemapRanksDenseAndSparseSetsAlikeAndRefusesZeroAndRepeats) {
  using qvahost::savefile::IdRemap;
  for (QVA_HVID stride : {1u, 100000u}) {
    SCOPED_TRACE(stride);
    std::vector<QVA_HVID> ids{5 * stride, 2 * stride, 9 * stride};
    IdRemap remap;
    ASSERT_TRUE(remap.build(ids));
    EXPECT_EQ(remap.rank(2 * stride), 0u);
    EXPECT_EQ(remap.rank(5 * stride), 1u);
    EXPECT_EQ(remap.rank(9 * stride), 2u);
    EXPECT_FALSE(remap.contains(3 * stride));
    EXPECT_FALSE(remap.contains(10 * stride + 7));
    EXPECT_FALSE(IdRemap().build({stride, 0}));
    EXPECT_FALSE(IdRemap().build({stride, 3 * stride, stride}));
  }
}

TEST_F(SessionTest, RestoringTwiceGivesTwoIndependentCopiesAndDanglingIsNull) {
  QVA_HVID p = NewPtr(qvahost::make_string("shared"));
  QVA_HVID gone = NewPtr(qvahost::make_long(1));
  Set("P", qvahost::make_ptr(p));
  Set("G", qvahost::make_ptr(gone));
  QVA_HeapVarDelete(gone, 0, 0);
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"P", "G"});
  Set("KEEP", qvahost::make_ptr(p));  // the live one must stay untouched
  Restore(bytes);
  QVA_HVID first = Var("P")->value.hvid;
  Set("FIRST", qvahost::make_ptr(first));
  Restore(bytes);
  QVA_HVID second = Var("P")->value.hvid;
  EXPECT_EQ(std::set<QVA_HVID>({p, first, second}).size(), 3u);
  QVA_StrDelete(&Deref(first).value.str, 1);
  QVA_StrStore(&Deref(first).value.str, "changed");
  EXPECT_EQ(Text(Deref(second).value.str), "shared");
  EXPECT_EQ(Text(Deref(p).value.str), "shared");
  EXPECT_EQ(Var("G")->type, QVA_TYP_PTR);
  EXPECT_EQ(Var("G")->value.hvid, 0u);
}

TEST_F(SessionTest, GarbageCollectionKeepsHeldAndReachableAndResetKeepsDefinitions) {
  hosttest::ensure_class("SESSION_GCOBJ", "", {field("N", QVA_TYP_LONG)});
  static int cleanups = 0;
  cleanups = 0;
  qvahost::define_routine("SESSION_GCOBJ::CLEANUP", false, 1, 1, false,
                          [](int, QVA_VPTR *, QVA_KW_ARGS *) -> QVA_VPTR {
                            ++cleanups;
                            return nullptr;
                          });
  auto new_obj = [] { return hosttest::Tmp(hosttest::obj_new("SESSION_GCOBJ"))->value.hvid; };
  QVA_HVID reached_by_var = NewPtr(qvahost::make_long(1));
  QVA_HVID reached_by_held = NewPtr(qvahost::make_long(2));
  QVA_HVID held = NewPtr(qvahost::make_ptr(reached_by_held));
  QVA_HeapVarHashFind(held)->flags |= QVA_HV_HELD;
  QVA_HVID garbage = NewPtr(qvahost::make_long(3));
  QVA_HVID garbage_obj = new_obj(), kept_obj = new_obj();
  Set("V", qvahost::make_ptr(reached_by_var));
  Set("O", qvahost::make_objref(kept_obj));
  EXPECT_EQ(qvahost::heap_gc(), 2u);
  EXPECT_EQ(QVA_HeapVarHashFind(garbage), nullptr);
  EXPECT_EQ(QVA_HeapVarHashFind(garbage_obj), nullptr);
  EXPECT_EQ(cleanups, 1) << "the unreachable object's CLEANUP ran";
  for (QVA_HVID id : {reached_by_var, reached_by_held, held, kept_obj})
    EXPECT_NE(QVA_HeapVarHashFind(id), nullptr) << id;
  qvahost::reset_session();
  EXPECT_EQ(cleanups, 1) << "a whole session goes without CLEANUP";
  EXPECT_TRUE(qvahost::heap_ids().empty());
  EXPECT_TRUE(qvahost::main_variable_names().empty());
  EXPECT_EQ(qvahost::accounting().objects, 0);
  EXPECT_NE(qvahost::find_struct("SESSION_GCOBJ"), nullptr);
  EXPECT_TRUE(qvahost::routine_exists("SESSION_GCOBJ::CLEANUP", false));
}

// Rewrites a structure name in saved bytes, and the checksum after it.
void Rename(std::vector<uint8_t> &bytes, const std::string &from, const std::string &to) {
  auto it = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
  ASSERT_NE(it, bytes.end());
  std::copy(to.begin(), to.end(), it);
  uint32_t crc = qvahost::savefile::crc32(bytes.data(), bytes.size() - 4);
  std::memcpy(bytes.data() + bytes.size() - 4, &crc, 4);
}

TEST_F(SessionTest, ChangedStructureDefinitionMatchesFieldsByName) {
  QVA_SDEF saved = hosttest::ensure_class("SESSION_PTA", "",
                                          {field("X", QVA_TYP_LONG), field("Y", QVA_TYP_LONG)});
  // The same name, as a later version of a program defines it: X is gone,
  // Y moved, Z is new; or X changed its type.
  QVA_SDEF later = hosttest::ensure_class("SESSION_PTB", "",
                                          {field("Z", QVA_TYP_DOUBLE), field("Y", QVA_TYP_LONG)});
  hosttest::ensure_class("SESSION_PTC", "", {field("X", QVA_TYP_STRING), field("Y", QVA_TYP_LONG)});
  QVA_VPTR t;
  auto *xy = reinterpret_cast<QVA_LONG *>(QVA_MakeTempStructVector(saved, 1, &t, 1));
  xy[0] = 5, xy[1] = 6;
  Set("PT", t);
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"PT"});
  Rename(bytes, "SESSION_PTA", "SESSION_PTB");
  {
    // The saved X has no place in the definition in force: said, not
    // dropped silently.
    qvatest::OutputCapture out;
    Restore(bytes);
    EXPECT_NE(out.all().find("Saved field SESSION_PTB.X has no place in the definition in force"),
              std::string::npos)
        << out.all();
  }
  ASSERT_EQ(Var("PT")->value.s.sdef, later);
  EXPECT_EQ(At<QVA_LONG>(*Var("PT"), "Y"), 6);
  EXPECT_EQ(At<double>(*Var("PT"), "Z"), 0.0);
  // A field whose type changed is named; the file is not called corrupt.
  Rename(bytes, "SESSION_PTB", "SESSION_PTC");
  EXPECT_EQ(ExpectHostError([&] { Restore(bytes); }).text,
            "Unable to restore: field X of SESSION_PTC is LONG in the file but STRING in the "
            "definition in force.");
  EXPECT_EQ(Var("PT")->value.s.sdef, later) << "a refused restore changes nothing";
}

// A pointer naming an object, or an object reference naming a pointer heap
// variable, is refused before the session sees any of the file; a hidden
// structure (a module's record) may keep objects in its pointer fields.
TEST_F(SessionTest, ReferencesOfTheWrongKindAreRefusedExceptInHiddenRecords) {
  static QVA_STRUCT_TAG_DEF record_tags[] = {{"WORD", nullptr, QVA_TYP_PTR, 0},
                                             {nullptr, nullptr, 0, 0}};
  QVA_SDEF record = QVA_MakeStructInternal("SESSION_RECORD", QVA_SDEF_REUSE | QVA_SDEF_HIDDEN,
                                           record_tags, QVA_MSG_LONGJMP);
  QVA_HVID thing = NewThing(1, "one");
  QVA_HVID plain = NewPtr(qvahost::make_long(5));
  Set("R", qvahost::make_ptr(NewStruct(record, QVA_TYP_PTR, [&](QVA_VARIABLE &v) {
        At<QVA_HVID>(v, "WORD") = thing;
      })));
  Set("N", qvahost::make_ptr(NewNode(plain, thing, "n", 1)));
  const std::vector<uint8_t> good = qvahost::save_all_to_bytes();
  // The same identifiers stored in fields of the other kind.
  QVA_VARIABLE &node = Deref(Var("N")->value.hvid);
  std::swap(At<QVA_HVID>(node, "NEXT"), At<QVA_HVID>(node, "OWNER"));
  const std::vector<uint8_t> swapped = qvahost::save_all_to_bytes();
  std::swap(At<QVA_HVID>(node, "NEXT"), At<QVA_HVID>(node, "OWNER"));
  Set("P", qvahost::make_ptr(thing));
  const std::vector<uint8_t> ptr_to_object = qvahost::save_variables_to_bytes({"P"});
  Set("P", qvahost::make_objref(plain));
  const std::vector<uint8_t> objref_to_ptr = qvahost::save_variables_to_bytes({"P"});

  const std::vector<QVA_HVID> ids = qvahost::heap_ids();
  const qvahost::Accounting before = qvahost::accounting();
  for (const auto *bytes : {&swapped, &ptr_to_object, &objref_to_ptr}) {
    std::string error = ExpectHostError([&] { Restore(*bytes); }).text;
    EXPECT_NE(error.find("Save file is corrupt"), std::string::npos) << error;
    EXPECT_TRUE(error.find("a pointer names <ObjHeapVar") != std::string::npos ||
                error.find("an object reference names <PtrHeapVar") != std::string::npos)
        << error;
    EXPECT_EQ(qvahost::heap_ids(), ids);
    EXPECT_EQ(qvahost::accounting(), before);
    EXPECT_EQ(Var("P")->value.hvid, plain);
  }
  Restore(good);
  QVA_HVID word = At<QVA_HVID>(Deref(Var("R")->value.hvid), "WORD");
  EXPECT_NE(QVA_ObjValidate(word, QVA_MSG_RET), nullptr) << "the record's word names the object";
}

// SAVE refuses, before writing anything, what RESTORE would refuse: one
// limit on structure nesting serves both, and a structure nested far
// deeper (as a loop of s = {a: s} makes) is refused, not followed down.
TEST_F(SessionTest, SaveRefusesStructuresNestedBeyondWhatRestoreTakes) {
  auto nested = [](int levels) {
    QVA_VPTR s;
    QVA_MakeTempStructVector(qvahost::define_struct("", "", {field("X", QVA_TYP_PTR)}), 1, &s, 1);
    for (int i = 0; i < levels; ++i) {
      QVA_SDEF sd = qvahost::define_struct("", "", {{"A", QVA_TYP_STRUCT, s->value.s.sdef, {}}});
      QVA_VPTR outer;
      QVA_MakeTempStructVector(sd, 1, &outer, 1);
      qvahost::store_field(outer, 0, "A", s);
      QVA_Deltmp(s);
      s = outer;
    }
    return s;
  };
  const int limit = qvahost::savefile::kMaxStructDepth;
  Set("S", nested(limit - 1));
  const std::vector<uint8_t> deepest = qvahost::save_variables_to_bytes({"S"});
  Restore(deepest);
  const std::string path = testing::TempDir() + "session_too_deep.sav";
  std::remove(path.c_str());
  for (int levels : {limit, 100000}) {
    Set("S", nested(levels));
    std::string error = ExpectHostError([&] { qvahost::save_variables(path, {"S"}); }).text;
    EXPECT_EQ(error, "Unable to save: structures nested more than 32 levels deep.");
    EXPECT_FALSE(std::ifstream(path).good()) << "nothing written for " << levels << " levels";
  }
}

// A save file larger than the writer's buffer is written in pieces, with
// one checksum over the whole; a SAVE that is refused leaves the file it
// would have replaced as it was; a link is written through, a file keeps
// its permissions, and a device is written where it is.
TEST_F(SessionTest, SaveFilesAreWrittenInPiecesAndReplacedOnlyWhenComplete) {
  const std::string dir = testing::TempDir();
  const std::string path = dir + "session_pieces.sav", link = dir + "session_pieces_link.sav";
  std::remove(path.c_str());
  std::remove(link.c_str());
  std::vector<std::string> texts;
  for (int i = 0; i < 200000; ++i) texts.push_back("text number " + std::to_string(i));
  Set("BIG", qvahost::make_string_array(texts));
  qvahost::save_variables(path, {"BIG"});
  ASSERT_GT(std::ifstream(path, std::ios::binary | std::ios::ate).tellg(),
            static_cast<std::streamoff>(2 * qvahost::savefile::Writer::kSpill));
  ::chmod(path.c_str(), 0640);
  ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
  Set("BIG", qvahost::make_long(0));
  qvahost::restore(link);
  QVA_VPTR big = Var("BIG");
  ASSERT_EQ(big->value.arr->n_elts, 200000);
  EXPECT_EQ(Text(reinterpret_cast<QVA_STRING *>(big->value.arr->data)[199999]), "text number 199999");

  Set("SMALL", qvahost::make_long(5));
  qvahost::save_variables(link, {"SMALL"});
  struct stat st {};
  ASSERT_EQ(::lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link stays a link";
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  const std::streamoff small_size = std::ifstream(path, std::ios::binary | std::ios::ate).tellg();
  ExpectHostError([&] { qvahost::save_variables(path, {"SMALL", "NO_SUCH_VARIABLE"}); });
  EXPECT_EQ(std::ifstream(path, std::ios::binary | std::ios::ate).tellg(), small_size);
  qvahost::save_variables("/dev/null", {"SMALL"});
  // Not a file to map: read as a stream; a directory is an error, not a crash.
  EXPECT_EQ(ExpectHostError([&] { qvahost::restore(dir); }).text,
            "Unable to read save file: " + dir + ".");
  ASSERT_EQ(::stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  std::remove(link.c_str());
  std::remove(path.c_str());
}

TEST_F(SessionTest, TruncatedOrFlippedFilesAndFailedAllocationsChangeNothing) {
  QVA_HVID node = NewNode(0, NewThing(3, "three"), "n", 1);
  Set("N", qvahost::make_ptr(node));
  Set("S", qvahost::make_string_array({"a", "bb"}));
  std::vector<uint8_t> good = qvahost::save_all_to_bytes();
  qvahost::Accounting before = qvahost::accounting();
  for (size_t len = 0; len < good.size(); ++len) {
    EXPECT_FALSE(
        ExpectHostError([&] { qvahost::restore_from_bytes(good.data(), len); }).text.empty());
    ASSERT_EQ(qvahost::accounting(), before) << "truncated at " << len;
  }
  for (size_t i = 0; i < good.size(); ++i) {
    std::vector<uint8_t> bad = good;
    bad[i] ^= 0x5A;
    ExpectHostError([&] { Restore(bad); });
    ASSERT_EQ(qvahost::accounting(), before) << "flipped byte " << i;
  }
  qvatest::OutputCapture quiet;
  int failures = 0;
  for (int64_t n = 1; n < 1000; ++n, ++failures) {
    qvahost::fail_allocation_after(n);
    std::string error = qvahost::try_call([&] { Restore(good); });
    qvahost::fail_allocation_after(0);
    if (error.empty()) break;
    EXPECT_NE(error.find("allocate"), std::string::npos) << error;
    ASSERT_EQ(qvahost::accounting(), before) << "failing allocation " << n;
  }
  EXPECT_GT(failures, 3) << "the restore allocates heap variables, arrays and texts";
  EXPECT_NE(Var("N")->value.hvid, node) << "the last run restored";
  EXPECT_EQ(Text(At<QVA_STRING>(Deref(Var("N")->value.hvid), "LABEL")), "n");
}

}  // namespace
