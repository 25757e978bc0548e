// QVAdsMap through its routines, as the language calls them.
#include <algorithm>
#include <random>

#include "module_objects.h"
#include "test_support.h"
#include "tree_check.h"

namespace {

using qvatest::ExpectHostError;

class DsMapTest : public qvatest::FreshSessionTest {
 protected:
  void SetUp() override {
    FreshSessionTest::SetUp();
    map_.take(NewMap());
  }
  void TearDown() override {
    Destroy(map_.get());
    FreshSessionTest::TearDown();
  }
  static QVA_VPTR NewMap() {
    QVA_VPTR cls = qvahost::make_string("QVAdsMap"), ref = QVA_ObjNew(1, &cls, nullptr);
    QVA_Deltmp(cls);
    return ref;
  }
  static void Destroy(QVA_VPTR ref) { QVA_ObjDestroy(1, &ref, nullptr); }

  // METHOD(key) as a function; the result is the caller's.
  QVA_VPTR Function(const char *method, const std::string &key) {
    QVA_VPTR k = qvahost::make_string(key);
    QVA_VPTR result = qvahost::call_method_function(map_.get(), method, {k});
    QVA_Deltmp(k);
    return result;
  }
  // METHOD(key[, value]) as a procedure.
  void Procedure(const char *method, const std::string &key, QVA_VPTR value = nullptr) {
    QVA_VPTR k = qvahost::make_string(key);
    std::vector<QVA_VPTR> args{k};
    if (value) args.push_back(value);
    qvahost::call_method_procedure(map_.get(), method, args);
    QVA_Deltmp(k);
  }
  void Insert(const std::string &key, QVA_VPTR value_tmp) {
    Procedure("INSERT", key, value_tmp);
    QVA_Deltmp(value_tmp);
  }
  void Remove(const std::string &key) { Procedure("REMOVE", key); }
  QVA_VPTR Data(const std::string &key) { return Function("GETDATA", key); }
  // The integer value of a result that must be of type `type`, released.
  static QVA_LONG Take(QVA_VPTR result, int type) {
    EXPECT_EQ(result->type, type);
    QVA_LONG n = qvahost::integer_value(result);
    QVA_Deltmp(result);
    return n;
  }
  QVA_LONG LongData(const std::string &key) { return Take(Data(key), QVA_TYP_LONG); }
  bool Exists(const std::string &key) { return Take(Function("KEYEXISTS", key), QVA_TYP_BYTE); }
  QVA_LONG Size() {
    return Take(qvahost::call_method_function(map_.get(), "GETSIZE"), QVA_TYP_LONG);
  }
  std::vector<std::string> Keys(QVA_VPTR count = nullptr) {
    QVA_VPTR v = qvahost::call_method_function(
        map_.get(), "GETKEYS", count ? std::vector<QVA_VPTR>{count} : std::vector<QVA_VPTR>{});
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

TEST_F(DsMapTest, KeysInStringOrderReplaceAndMissingKeys) {
  // GETKEYS of an empty map sets the count, an array before, to a LONG 0.
  qvahost::Variable count("N");
  count.take(qvahost::make_long_array({1, 2, 3}));
  EXPECT_TRUE(Keys(count.get()).empty());
  EXPECT_TRUE(count->type == QVA_TYP_LONG && !(count->flags & QVA_V_ARR) && count->value.l == 0);

  std::vector<std::string> keys = {"pear", "Apple", "apple", "", "b", "a b", "zz", "z", "10", "9",
                                   "\x80", "\xff a", std::string(23, 'k'), std::string(24, 'k'),
                                   std::string(30, 'k'), std::string(30, 'k') + "\x01"};
  std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
  for (size_t i = 0; i < keys.size(); ++i) Insert(keys[i], qvahost::make_long(QVA_LONG(i)));
  std::vector<std::string> sorted = keys;
  std::sort(sorted.begin(), sorted.end());  // byte order, as the host compares strings
  count.take(qvahost::make_string("was a string"));
  EXPECT_EQ(Keys(count.get()), sorted);
  EXPECT_TRUE(count->type == QVA_TYP_LONG && count->value.l == QVA_LONG(keys.size()));
  EXPECT_EQ(Size(), QVA_LONG(keys.size()));
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(LongData(keys[i]), QVA_LONG(i)) << keys[i];

  Insert("pear", qvahost::make_string("two"));
  EXPECT_EQ(Size(), QVA_LONG(keys.size())) << "a replacement keeps the size";
  QVA_VPTR v = Data("pear");
  EXPECT_EQ(qvahost::string_value(v), "two");
  QVA_Deltmp(v);

  v = Data("missing");
  EXPECT_EQ(v->type, QVA_TYP_UNDEF);
  QVA_Deltmp(v);
  EXPECT_FALSE(Exists("missing"));
  Remove("missing");
  EXPECT_EQ(Size(), QVA_LONG(keys.size()));
  EXPECT_TRUE(Exists("pear"));
  Remove("pear");
  EXPECT_FALSE(Exists("pear"));
  EXPECT_EQ(Size(), QVA_LONG(keys.size() - 1));
}

TEST_F(DsMapTest, ValuesOfEveryTypeAreCopiesAndReferencesMayDangle) {
  QVA_SDEF pt = qvahost::define_struct("DSMAP_TEST_PT", "", {{"X", QVA_TYP_DOUBLE, nullptr, {}}});
  QVA_VPTR s;
  *reinterpret_cast<double *>(QVA_MakeTempStructVector(pt, 2, &s, 1)) = 1.5;
  Insert("struct", s);
  Insert("array", qvahost::make_long_array({4, 5, 6}));
  Insert("real", qvahost::make_double(-0.25));
  QVA_VPTR other = NewMap();
  QVA_HVID id = other->value.hvid;
  Insert("obj", other);  // the object lives on

  QVA_VPTR v = Data("struct");
  ASSERT_TRUE(v->flags & QVA_V_STRUCT);
  EXPECT_EQ(v->value.s.arr->n_elts, 2);
  *reinterpret_cast<double *>(v->value.s.arr->data) = 9;  // changes the copy only
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

  v = Data("obj");
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
  // reach it, and delete it.
  std::vector<QVA_HVID> before = qvahost::heap_ids();
  Insert("c", qvahost::make_long(3));
  QVA_HVID key_var = 0;
  for (QVA_HVID id : qvahost::heap_ids()) {
    QVA_HVPTR h = QVA_HeapVarHashFind(id);
    if (!std::binary_search(before.begin(), before.end(), id) && h->var.type == QVA_TYP_STRING &&
        qvahost::string_value(&h->var) == "c")
      key_var = id;
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
  // Five tree nodes and the head, three values, two keys, the object.
  EXPECT_EQ(qvahost::accounting().heap_vars, live - 12);
}

TEST_F(DsMapTest, WrongTypedKeysAreRefusedAndChangeNothing) {
  Insert("a", qvahost::make_long(1));
  qvahost::Accounting before = qvahost::accounting();
  QVA_VPTR n = qvahost::make_long(1), arr = qvahost::make_string_array({"a", "b"});
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
  std::vector<QVA_HVID> entries;
  QVA_HVID tree = *qvatest::FieldOf<QVA_HVID>(map_->value.hvid, "THE_MAP");
  EXPECT_EQ(treecheck::check<treecheck::RbhTree>(tree, &entries), "");
  EXPECT_EQ(entries.size(), size_t(n));
  EXPECT_EQ(Keys(), keys);
  EXPECT_EQ(Size(), n);
  EXPECT_EQ(LongData("key" + std::to_string(3 * 7919 % 1000)), 3);
}

}  // namespace
