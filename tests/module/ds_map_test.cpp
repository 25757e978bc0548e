// QVAdsMap through its routines, as the language calls them.
#include <algorithm>
#include <random>

#include "test_support.h"

namespace {

using qvatest::ExpectHostError;

class DsMapTest : public qvatest::FreshSessionTest {
 protected:
  void SetUp() override {
    FreshSessionTest::SetUp();
    QVA_VPTR cls = qvahost::make_string("QVAdsMap");
    QVA_VPTR ref = QVA_ObjNew(1, &cls, nullptr);
    QVA_Deltmp(cls);
    map_.take(ref);
    ASSERT_NE(map_->value.hvid, 0u);
  }
  void TearDown() override {
    Destroy(map_.get());
    FreshSessionTest::TearDown();
  }
  static void Destroy(QVA_VPTR ref) { QVA_ObjDestroy(1, &ref, nullptr); }

  void Insert(const std::string &key, QVA_VPTR value_tmp) {
    QVA_VPTR k = qvahost::make_string(key);
    qvahost::call_method_procedure(map_.get(), "INSERT", {k, value_tmp});
    QVA_Deltmp(k);
    QVA_Deltmp(value_tmp);
  }
  // GETDATA(key), released by the caller.
  QVA_VPTR Data(const std::string &key) {
    QVA_VPTR k = qvahost::make_string(key);
    QVA_VPTR v = qvahost::call_method_function(map_.get(), "GETDATA", {k});
    QVA_Deltmp(k);
    return v;
  }
  bool Exists(const std::string &key) {
    QVA_VPTR k = qvahost::make_string(key);
    QVA_VPTR v = qvahost::call_method_function(map_.get(), "KEYEXISTS", {k});
    QVA_Deltmp(k);
    EXPECT_EQ(v->type, QVA_TYP_BYTE);
    bool yes = v->value.c != 0;
    QVA_Deltmp(v);
    return yes;
  }
  void Remove(const std::string &key) {
    QVA_VPTR k = qvahost::make_string(key);
    qvahost::call_method_procedure(map_.get(), "REMOVE", {k});
    QVA_Deltmp(k);
  }
  QVA_LONG Size() {
    QVA_VPTR v = qvahost::call_method_function(map_.get(), "GETSIZE");
    EXPECT_EQ(v->type, QVA_TYP_LONG);
    QVA_LONG n = v->value.l;
    QVA_Deltmp(v);
    return n;
  }
  std::vector<std::string> Keys(QVA_VPTR count = nullptr) {
    std::vector<QVA_VPTR> args;
    if (count) args.push_back(count);
    QVA_VPTR v = qvahost::call_method_function(map_.get(), "GETKEYS", args);
    std::vector<std::string> keys;
    if (v->flags & QVA_V_ARR) {
      auto *s = reinterpret_cast<QVA_STRING *>(v->value.arr->data);
      for (QVA_MEMINT i = 0; i < v->value.arr->n_elts; ++i) keys.push_back(QVA_STRING_STR(&s[i]));
    } else {
      EXPECT_EQ(v->type, QVA_TYP_STRING);
      EXPECT_EQ(qvahost::string_value(v), "") << "an empty map gives the scalar empty string";
    }
    QVA_Deltmp(v);
    return keys;
  }

  qvahost::Variable map_{"M"};
};

TEST_F(DsMapTest, KeysComeBackInStringOrderWhateverTheInsertionOrder) {
  std::vector<std::string> keys = {"pear", "Apple", "apple", "", "b", "a b", "zz", "z", "10", "9"};
  std::mt19937 rng(7);
  std::shuffle(keys.begin(), keys.end(), rng);
  for (size_t i = 0; i < keys.size(); ++i) Insert(keys[i], qvahost::make_long(static_cast<QVA_LONG>(i)));
  std::vector<std::string> sorted = keys;
  std::sort(sorted.begin(), sorted.end());  // byte order, as the host compares strings
  EXPECT_EQ(Keys(), sorted);
  EXPECT_EQ(Size(), static_cast<QVA_LONG>(keys.size()));
  for (size_t i = 0; i < keys.size(); ++i) {
    QVA_VPTR v = Data(keys[i]);
    EXPECT_EQ(qvahost::integer_value(v), static_cast<QVA_LONG>(i)) << keys[i];
    QVA_Deltmp(v);
  }
}

TEST_F(DsMapTest, ReplaceKeepsTheSizeAndMissingKeysAreHarmless) {
  Insert("k", qvahost::make_long(1));
  Insert("k", qvahost::make_string("two"));
  EXPECT_EQ(Size(), 1);
  QVA_VPTR v = Data("k");
  EXPECT_EQ(qvahost::string_value(v), "two");
  QVA_Deltmp(v);

  v = Data("missing");
  EXPECT_EQ(v->type, QVA_TYP_UNDEF);
  QVA_Deltmp(v);
  EXPECT_FALSE(Exists("missing"));
  Remove("missing");
  EXPECT_EQ(Size(), 1);
  EXPECT_TRUE(Exists("k"));
  Remove("k");
  EXPECT_FALSE(Exists("k"));
  EXPECT_EQ(Size(), 0);
}

TEST_F(DsMapTest, GetKeysOnAnEmptyMapSetsTheCountToLongZero) {
  qvahost::Variable count("N");
  count.take(qvahost::make_long_array({1, 2, 3}));
  EXPECT_TRUE(Keys(count.get()).empty());
  EXPECT_EQ(count->type, QVA_TYP_LONG);
  EXPECT_FALSE(count->flags & QVA_V_ARR);
  EXPECT_EQ(count->value.l, 0);

  Insert("a", qvahost::make_long(1));
  Insert("b", qvahost::make_long(2));
  count.take(qvahost::make_string("was a string"));
  EXPECT_EQ(Keys(count.get()), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(count->type, QVA_TYP_LONG);
  EXPECT_EQ(count->value.l, 2);
}

TEST_F(DsMapTest, ValuesOfEveryTypeAreCopies) {
  QVA_SDEF pt = qvahost::define_struct("DSMAP_TEST_PT", "", {{"X", QVA_TYP_DOUBLE, nullptr, {}}, {"NAME", QVA_TYP_STRING, nullptr, {}}});
  QVA_VPTR s;
  auto *data = reinterpret_cast<QVA_UCHAR *>(QVA_MakeTempStructVector(pt, 2, &s, 1));
  *reinterpret_cast<double *>(data) = 1.5;
  QVA_StrStore(static_cast<QVA_STRING *>(QVA_StructGetTagAddress(s, "NAME", nullptr, nullptr, 2)), "first");
  Insert("struct", s);
  Insert("array", qvahost::make_long_array({4, 5, 6}));
  Insert("text", qvahost::make_string("t"));
  Insert("real", qvahost::make_double(-0.25));

  QVA_VPTR v = Data("struct");
  ASSERT_TRUE(v->flags & QVA_V_STRUCT);
  EXPECT_EQ(v->value.s.arr->n_elts, 2);
  EXPECT_EQ(*reinterpret_cast<double *>(v->value.s.arr->data), 1.5);
  EXPECT_STREQ(QVA_STRING_STR(static_cast<QVA_STRING *>(QVA_StructGetTagAddress(v, "NAME", nullptr, nullptr, 2))),
               "first");
  // Changing the returned copy does not change the map.
  *reinterpret_cast<double *>(v->value.s.arr->data) = 9;
  QVA_Deltmp(v);
  v = Data("struct");
  EXPECT_EQ(*reinterpret_cast<double *>(v->value.s.arr->data), 1.5);
  QVA_Deltmp(v);

  v = Data("array");
  ASSERT_TRUE(v->flags & QVA_V_ARR);
  EXPECT_EQ(reinterpret_cast<QVA_LONG *>(v->value.arr->data)[2], 6);
  QVA_Deltmp(v);
  v = Data("real");
  EXPECT_EQ(qvahost::double_value(v), -0.25);
  QVA_Deltmp(v);
}

TEST_F(DsMapTest, ObjectReferencesAreStoredAsReferencesAndMayDangle) {
  QVA_VPTR cls = qvahost::make_string("QVAdsMap");
  QVA_VPTR other = QVA_ObjNew(1, &cls, nullptr);
  QVA_Deltmp(cls);
  QVA_HVID id = other->value.hvid;
  Insert("obj", other);  // released by Insert; the object lives on
  QVA_VPTR v = Data("obj");
  EXPECT_EQ(v->type, QVA_TYP_OBJREF);
  EXPECT_EQ(v->value.hvid, id);
  Destroy(v);
  QVA_Deltmp(v);
  v = Data("obj");
  EXPECT_EQ(v->value.hvid, id) << "the map still holds the (now dangling) reference";
  EXPECT_EQ(QVA_ObjValidate(id, QVA_MSG_RET), nullptr);
  QVA_Deltmp(v);
}

TEST_F(DsMapTest, DeletedEntryVariableGivesHeapDereferenceError) {
  Insert("a", qvahost::make_long(1));
  Insert("b", qvahost::make_long(2));
  // Find the key heap variable of a new entry "c", as language code could
  // reach it, and free it.
  std::vector<QVA_HVID> before = qvahost::heap_ids();
  Insert("c", qvahost::make_long(3));
  std::vector<QVA_HVID> after = qvahost::heap_ids();
  // The newest heap variables belong to "c": delete its key variable.
  std::vector<QVA_HVID> added;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(added));
  ASSERT_FALSE(added.empty());
  QVA_HVID key_var = 0;
  for (QVA_HVID id : added) {
    QVA_HVPTR h = QVA_HeapVarHashFind(id);
    if (h->var.type == QVA_TYP_STRING && qvahost::string_value(&h->var) == "c") key_var = id;
  }
  ASSERT_NE(key_var, 0u);
  QVA_HeapVarDelete(key_var, 0, 0);
  qvahost::HostError e = ExpectHostError([&] { Keys(); });
  EXPECT_EQ(e.text, "QVAdsMap heap dereference error");
  EXPECT_EQ(e.routine, "QVADSMAP::GETKEYS");
  // Cleaning the map up still works: it deletes what is left and ignores
  // the variable that is gone.
  int64_t live = qvahost::accounting().heap_vars;
  Destroy(map_.get());
  EXPECT_EQ(QVA_ObjValidate(map_->value.hvid, QVA_MSG_RET), nullptr);
  // Three entries: five tree nodes and the head, three values, two keys
  // (the third was deleted), and the object itself.
  EXPECT_EQ(qvahost::accounting().heap_vars, live - 12);
}

TEST_F(DsMapTest, WrongTypedKeysAreRefusedAndChangeNothing) {
  Insert("a", qvahost::make_long(1));
  qvahost::Accounting before = qvahost::accounting();
  QVA_VPTR n = qvahost::make_long(1);
  QVA_VPTR arr = qvahost::make_string_array({"a", "b"});
  QVA_VPTR val = qvahost::make_long(2);
  for (QVA_VPTR key : {n, arr}) {
    ExpectHostError([&] { qvahost::call_method_procedure(map_.get(), "INSERT", {key, val}); });
    ExpectHostError([&] { qvahost::call_method_procedure(map_.get(), "REMOVE", {key}); });
    ExpectHostError([&] { qvahost::call_method_function(map_.get(), "GETDATA", {key}); });
    ExpectHostError([&] { qvahost::call_method_function(map_.get(), "KEYEXISTS", {key}); });
  }
  for (QVA_VPTR v : {n, arr, val}) QVA_Deltmp(v);
  EXPECT_EQ(qvahost::accounting(), before);
  EXPECT_EQ(Keys(), (std::vector<std::string>{"a"}));
}

TEST_F(DsMapTest, ManyEntriesSurviveSaveResetAndRestore) {
  const int n = 500;
  for (int i = 0; i < n; ++i)
    Insert("key" + std::to_string(i * 7919 % 1000), qvahost::make_long(i));
  std::vector<std::string> keys = Keys();
  QVA_VarCopy(map_.get(), qvahost::main_variable("M"));
  std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"M"});
  QVA_Delvar(map_.get());
  qvahost::reset_session();

  qvahost::restore_from_bytes(bytes.data(), bytes.size());
  QVA_VarCopy(qvahost::find_main_variable("M"), map_.get());
  EXPECT_EQ(Keys(), keys);
  EXPECT_EQ(Size(), n);
  QVA_VPTR v = Data("key" + std::to_string(3 * 7919 % 1000));
  EXPECT_EQ(qvahost::integer_value(v), 3);
  QVA_Deltmp(v);
}

TEST_F(DsMapTest, CleanupDeletesEveryHeapVariableOfTheMap) {
  qvahost::Accounting empty_map = qvahost::accounting();
  for (int i = 0; i < 50; ++i) Insert("k" + std::to_string(i), qvahost::make_long(i));
  Destroy(map_.get());
  EXPECT_EQ(qvahost::accounting().heap_vars, empty_map.heap_vars - 2)
      << "the map's nodes, keys and values went with it (and the object and its head)";
  QVA_VPTR cls = qvahost::make_string("QVAdsMap");
  map_.take(QVA_ObjNew(1, &cls, nullptr));
  QVA_Deltmp(cls);
}

}  // namespace
