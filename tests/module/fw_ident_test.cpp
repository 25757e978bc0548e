// The identifier service through its five routines, as the language calls
// them: interning, reference counts, rollover after a restore, collection.
#include "test_support.h"

namespace {

using qvatest::ExpectHostError;

// Each test starts from a session without identifiers.
class IdentTest : public qvatest::FreshSessionTest {
 protected:
  // ROUTINE(arg) of a function giving a pointer; `arg` is released.
  static QVA_HVID PtrFunction(const char *routine, QVA_VPTR arg) {
    QVA_VPTR r = qvahost::call_function(routine, {arg});
    QVA_Deltmp(arg);
    EXPECT_EQ(r->type, QVA_TYP_PTR);
    QVA_HVID id = r->value.hvid;
    QVA_Deltmp(r);
    return id;
  }
  static void Procedure(const char *routine, QVA_VPTR arg) {
    qvahost::call_procedure(routine, {arg});
    QVA_Deltmp(arg);
  }
  static QVA_HVID Get(const std::string &text) {
    return PtrFunction("GET_FWIDENT", qvahost::make_string(text));
  }
  static QVA_HVID Rollover(QVA_HVID id) {
    return PtrFunction("ROLLOVER_FWIDENT", qvahost::make_ptr(id));
  }
  static void Release(QVA_HVID id) { Procedure("FWIDENT_RELEASE", qvahost::make_ptr(id)); }
  static void Acquire(QVA_HVID id) { Procedure("FWIDENT_ACQUIRE", qvahost::make_ptr(id)); }
  static void Collect() { qvahost::call_procedure("FWIDENT_GC"); }
  static void Collect(QVA_VPTR full) { Procedure("FWIDENT_GC", full); }
  static bool Alive(QVA_HVID id) { return QVA_HeapVarHashFind(id) != nullptr; }
  static std::string Text(QVA_HVID id) {
    QVA_HVPTR h = QVA_HeapVarHashFind(id);
    return h ? qvahost::string_value(&h->var) : "<gone>";
  }
};

TEST_F(IdentTest, EqualTextsShareOneIdentifierCountedTwice) {
  QVA_HVID a = Get("Button Pressed");
  EXPECT_EQ(Get("Button Pressed"), a);
  QVA_HVID other = Get("button pressed");
  EXPECT_NE(a, other) << "texts are compared exactly, case included";
  EXPECT_EQ(Text(a), "Button Pressed");
  EXPECT_TRUE(QVA_HeapVarHashFind(a)->flags & QVA_HV_HELD);
  qvahost::heap_gc();
  EXPECT_TRUE(Alive(a)) << "the heap's collection keeps identifiers";

  Release(a);
  Collect();
  EXPECT_TRUE(Alive(a)) << "one holder is left";
  Release(a);
  Collect();
  EXPECT_FALSE(Alive(a)) << "the second release drops the count to 0";

  Release(other);
  Release(other);  // count -1
  EXPECT_TRUE(Alive(other)) << "only a collection deletes identifiers";
  Acquire(other);  // back to 0: collected next time
  Collect();
  EXPECT_FALSE(Alive(other));
}

TEST_F(IdentTest, RolloverOfCurrentIdentifierReturnsItAndCountsAHolder) {
  QVA_HVID a = Get("current");
  EXPECT_EQ(Rollover(a), a);
  Release(a);
  Collect();
  EXPECT_TRUE(Alive(a)) << "the rollover counted one more holder";
  EXPECT_EQ(Rollover(0), 0u);
  EXPECT_EQ(Rollover(0x7fffff00u), 0u) << "an identifier naming nothing rolls over to null";

  // A target that is no string was never interned.
  QVA_VPTR n = qvahost::make_long(5);
  QVA_HVID h = QVA_HeapVarNew(QVA_TYP_PTR, n, 1, QVA_MSG_LONGJMP)->hash_id;
  QVA_Deltmp(n);
  EXPECT_EQ(Rollover(h), 0u);
  Release(h);  // nothing happens
  Acquire(h);
  Collect();
  EXPECT_TRUE(Alive(h)) << "a collection never deletes what it did not intern";
  QVA_HeapVarDelete(h, 0, 0);
}

TEST_F(IdentTest, RolloverOfRestoredIdentifierInternsAndRetiresTheOldOne) {
  for (bool reset_between : {true, false}) {
    SCOPED_TRACE(reset_between ? "restore after a reset" : "restore into the same session");
    QVA_HVID original = Get("Saved Message");
    QVA_VPTR p = qvahost::make_ptr(original);
    QVA_VarCopy(p, qvahost::main_variable("P"));
    QVA_Deltmp(p);
    std::vector<uint8_t> bytes = qvahost::save_variables_to_bytes({"P"});
    if (reset_between) qvahost::reset_session();
    qvahost::restore_from_bytes(bytes.data(), bytes.size());
    QVA_HVID restored = qvahost::find_main_variable("P")->value.hvid;
    ASSERT_NE(restored, original);
    EXPECT_EQ(Text(restored), "Saved Message");

    QVA_HVID current = Rollover(restored);
    EXPECT_NE(current, restored);
    EXPECT_EQ(Text(current), "Saved Message");
    EXPECT_EQ(Get("Saved Message"), current) << "the text is interned now";
    if (!reset_between) {
      EXPECT_EQ(current, original);
    }
    EXPECT_EQ(Rollover(restored), current) << "a second rollover gives the same identifier";

    Collect();  // the stale one goes, once, however often it was rolled over
    EXPECT_FALSE(Alive(restored));
    EXPECT_TRUE(Alive(current));
    qvahost::delete_main_variable("P");
    qvahost::reset_session();
  }
}

TEST_F(IdentTest, OnlyTheValueOneMakesACollectionFullAndResetCollectsAll) {
  QVA_HVID a = Get("held");
  for (QVA_VPTR v : {qvahost::make_long(2), qvahost::make_long(0), qvahost::make_double(0.5)})
    Collect(v);
  EXPECT_TRUE(Alive(a));
  Collect(qvahost::make_string("1"));
  EXPECT_FALSE(Alive(a)) << "a full collection deletes held identifiers too";
  QVA_HVID again = Get("held");
  EXPECT_NE(again, a) << "after a full collection the text gets a new heap variable";
  EXPECT_TRUE(Alive(again));

  std::vector<QVA_HVID> ids = {again, Get("b"), Get("c")};
  qvahost::reset_session();
  for (QVA_HVID id : ids) EXPECT_FALSE(Alive(id));
  qvahost::reset_session();  // a second reset finds nothing to do
  EXPECT_NE(Get("held"), ids[0]);
}

TEST_F(IdentTest, WrongArgumentTypesAreRefusedAndChangeNothing) {
  qvahost::Accounting before = qvahost::accounting();
  QVA_VPTR n = qvahost::make_long(3), arr = qvahost::make_string_array({"a", "b"});
  QVA_VPTR s = qvahost::make_string("a");
  EXPECT_NE(ExpectHostError([&] { qvahost::call_function("GET_FWIDENT", {n}); }).text.find("tring"),
            std::string::npos);
  ExpectHostError([&] { qvahost::call_function("GET_FWIDENT", {arr}); });
  ExpectHostError([&] { qvahost::call_function("ROLLOVER_FWIDENT", {s}); });
  ExpectHostError([&] { qvahost::call_procedure("FWIDENT_ACQUIRE", {n}); });
  ExpectHostError([&] { qvahost::call_procedure("FWIDENT_RELEASE", {s}); });
  ExpectHostError([&] { qvahost::call_function("GET_FWIDENT"); });
  for (QVA_VPTR v : {n, arr, s}) QVA_Deltmp(v);
  EXPECT_EQ(qvahost::accounting(), before);
}

}  // namespace
