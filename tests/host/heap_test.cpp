// The heap: identifiers, pointer heap variables and objects, look-up, and
// the memory of the heap table.
#include <algorithm>

#include "core_fixture.h"

namespace {

using coretest::CoreTest;
using coretest::HeapGuard;
using coretest::Text;
using coretest::Tmp;
using qvatest::ExpectHostError;

using HeapTest = CoreTest;

QVA_SDEF Point() {
  if (QVA_SDEF s = qvahost::find_struct("HT_POINT")) return s;
  return qvahost::define_struct("HT_POINT", "",
                                {{"X", QVA_TYP_LONG, nullptr, {}},
                                 {"LABEL", QVA_TYP_STRING, nullptr, {}}});
}

// A temporary holding one HT_POINT.
QVA_VPTR MakePoint(QVA_LONG x, const char *label) {
  QVA_VPTR v = nullptr;
  char *data = QVA_MakeTempStructVector(Point(), 1, &v, 1);
  *reinterpret_cast<QVA_LONG *>(data) = x;
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), label);
  return v;
}

QVA_HVID NewPtr(QVA_LONG value) {
  Tmp t(QVA_GettmpLong(value));
  return QVA_HeapVarNew(QVA_TYP_PTR, t.get(), 0, QVA_MSG_LONGJMP)->hash_id;
}

TEST_F(HeapTest, IdentifiersCountUpAndAreNeverReused) {
  QVA_HVID a = NewPtr(1);
  QVA_HVID b = NewPtr(2);
  EXPECT_GE(a, 1u);
  EXPECT_GT(b, a);
  QVA_HeapVarDelete(b, 0, 0);
  QVA_HVID c = NewPtr(3);
  EXPECT_GT(c, b);
  EXPECT_EQ(QVA_HeapVarHashFind(b), nullptr);
  ASSERT_NE(QVA_HeapVarHashFind(c), nullptr);
  EXPECT_EQ(QVA_HeapVarHashFind(c)->var.value.l, 3);
  EXPECT_EQ(QVA_HeapVarHashFind(0), nullptr);
  QVA_HeapVarDelete(a, 0, 0);
  QVA_HeapVarDelete(c, 0, 0);
  QVA_HeapVarDelete(c, 0, 0);        // names nothing now: ignored
  QVA_HeapVarDelete(0xFFFFFF00u, 0, 0);  // never issued: ignored
  EXPECT_EQ(QVA_HeapVarHashFind(a), nullptr);
}

TEST_F(HeapTest, PointerVariablesCopyOrStealTheirValue) {
  Tmp point(MakePoint(5, "copied"));
  QVA_HVPTR copy = QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 0, 2);
  HeapGuard g1(copy);
  EXPECT_EQ(copy->flags, 0u);
  EXPECT_EQ(point->type, QVA_TYP_STRUCT);  // copied: the source keeps its value
  EXPECT_EQ(copy->var.flags & QVA_V_TEMP, 0);
  EXPECT_EQ(copy->var.value.s.sdef, Point());

  QVA_HVPTR stolen = QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 1, 2);
  HeapGuard g2(stolen);
  EXPECT_EQ(point->type, QVA_TYP_UNDEF);  // moved: the temporary stays, undefined
  EXPECT_TRUE(point->flags & QVA_V_TEMP);
  auto *label = reinterpret_cast<QVA_STRING *>(stolen->var.value.s.arr->data + 4);
  EXPECT_EQ(Text(*label), "copied");
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 2);

  // Stealing from a variable that is not a temporary copies instead.
  qvahost::Variable named("HT_NAMED");
  named.take(qvahost::make_string("kept"));
  HeapGuard g3(QVA_HeapVarNew(QVA_TYP_PTR, named.get(), 1, 2));
  EXPECT_EQ(qvahost::string_value(named.get()), "kept");
  EXPECT_EQ(qvahost::string_value(&QVA_HeapVarHashFind(g3.id())->var), "kept");
}

TEST_F(HeapTest, ObjectsAreOneElementNamedStructuresAndCounted) {
  Tmp point(MakePoint(1, "obj"));
  QVA_HVPTR obj = QVA_HeapVarNew(QVA_TYP_OBJREF, point.get(), 1, 2);
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(obj->flags & QVA_HV_OBJECT, QVA_HV_OBJECT);
  EXPECT_EQ(obj->var.type, QVA_TYP_STRUCT);
  EXPECT_EQ(obj->var.flags, QVA_V_STRUCT | QVA_V_ARR);
  EXPECT_EQ(obj->var.value.s.arr->n_elts, 1);
  EXPECT_EQ(qvahost::accounting().objects, baseline_.objects + 1);
  EXPECT_EQ(qvahost::accounting().heap_vars, baseline_.heap_vars + 1);
  QVA_HeapVarDelete(obj->hash_id, 0, 0);
  EXPECT_EQ(qvahost::accounting().objects, baseline_.objects);

  // Anything else is refused as an object.
  Tmp number(QVA_GettmpLong(1));
  QVA_VPTR two = nullptr;
  QVA_MakeTempStructVector(Point(), 2, &two, 1);
  Tmp two_guard(two);
  qvatest::OutputCapture out;
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_OBJREF, number.get(), 0, QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_OBJREF, two, 0, QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_LONG, number.get(), 0, QVA_MSG_RET), nullptr);
  EXPECT_EQ(out.lines().size(), 3u);
  ExpectHostError([&] { QVA_HeapVarNew(QVA_TYP_OBJREF, number.get(), 0, 2); });
  EXPECT_EQ(qvahost::accounting().heap_vars, baseline_.heap_vars);
}

TEST_F(HeapTest, HeldFlagAndValueSurviveOtherHeapTraffic) {
  Tmp point(MakePoint(7, "node"));
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 1, 2);
  HeapGuard guard(h);
  h->flags |= QVA_HV_HELD;
  QVA_UCHAR *data = h->var.value.s.arr->data;
  std::vector<QVA_HVID> others;
  for (int i = 0; i < 3000; ++i) others.push_back(NewPtr(i));
  // The record and the data it holds stay where they were.
  EXPECT_EQ(QVA_HeapVarHashFind(guard.id()), h);
  EXPECT_EQ(h->var.value.s.arr->data, data);
  EXPECT_EQ(h->flags, QVA_HV_HELD);
  for (QVA_HVID id : others) QVA_HeapVarDelete(id, 0, 0);
}

// A one-element structure this small is kept inside its heap record; the
// value must behave as any other: replaced, copied, read back and freed
// with its texts, without the record's storage ever being freed as a block.
TEST_F(HeapTest, SmallStructureValuesBehaveAsAnyOther) {
  Tmp source(MakePoint(5, "kept"));
  QVA_HVPTR copied = QVA_HeapVarNew(QVA_TYP_PTR, source.get(), 0, 2);
  HeapGuard copied_guard(copied);
  // The copy is independent of its source, texts included.
  QVA_UCHAR *data = copied->var.value.s.arr->data;
  *reinterpret_cast<QVA_LONG *>(data) = 6;
  QVA_StrDelete(reinterpret_cast<QVA_STRING *>(data + 4), 1);  // its own copy of "kept"
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), "changed");
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(source->value.s.arr->data), 5);
  EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(source->value.s.arr->data + 4)), "kept");
  QVA_StrDelete(reinterpret_cast<QVA_STRING *>(data + 4), 1);
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), "own text");

  {
    // Moved in: the source temporary is left undefined, the value intact.
    Tmp moved_source(MakePoint(7, "moved"));
    QVA_HVPTR moved = QVA_HeapVarNew(QVA_TYP_PTR, moved_source.get(), 1, 2);
    HeapGuard moved_guard(moved);
    EXPECT_EQ(moved_source->type, QVA_TYP_UNDEF);
    ASSERT_EQ(moved->var.type, QVA_TYP_STRUCT);
    EXPECT_EQ(moved->var.value.s.arr->n_elts, 1);
    EXPECT_EQ(moved->var.value.s.arr->elt_len, static_cast<QVA_MEMINT>(Point()->length));
    EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(moved->var.value.s.arr->data), 7);
    EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(moved->var.value.s.arr->data + 4)), "moved");

    // Read back into a temporary: a copy of its own.
    Tmp out(QVA_Gettmp());
    QVA_VarCopy(&moved->var, out.get());
    EXPECT_NE(out->value.s.arr, moved->var.value.s.arr);
    EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(out->value.s.arr->data + 4)), "moved");

    // Replaced by a scalar and then by a structure again: the old value
    // (its text too) is released, and nothing is freed that was not a block.
    Tmp number(QVA_GettmpLong(11));
    ExpectViolations(0, [&] { QVA_VarCopy(number.get(), &moved->var); });
    EXPECT_EQ(moved->var.type, QVA_TYP_LONG);
    EXPECT_EQ(moved->var.value.l, 11);
    ExpectViolations(0, [&] { QVA_VarCopy(out.get(), &moved->var); });
    EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(moved->var.value.s.arr->data + 4)), "moved");
    ExpectViolations(0, [&] { QVA_Delvar(&moved->var); });
    EXPECT_EQ(moved->var.type, QVA_TYP_UNDEF);
  }
  // Deleting releases the text the record's own storage held.
  int64_t texts = qvahost::accounting().texts;
  ExpectViolations(0, [&] { QVA_HeapVarDelete(copied_guard.id(), 0, 0); });
  EXPECT_EQ(qvahost::accounting().texts, texts - 1);
}

TEST_F(HeapTest, ASmallStructureGoesFromItsTemporaryToTheRecordWithoutBlocks) {
  // Built in the temporary's own record and copied into the heap record:
  // the only allocation counted is the heap variable's.
  qvahost::fail_allocation_after(0);
  QVA_VPTR t = nullptr;
  char *data = QVA_MakeTempStructVector(Point(), 1, &t, 1);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(qvahost::allocations_since_hook(), 0);
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(data), 0) << "zeroed";
  EXPECT_EQ(reinterpret_cast<QVA_STRING *>(data + 4)->s, 0u) << "zeroed";
  *reinterpret_cast<QVA_LONG *>(data) = 42;
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), "inline");
  int64_t texts = qvahost::accounting().texts;
  qvahost::fail_allocation_after(0);
  QVA_HVPTR hv = QVA_HeapVarNew(QVA_TYP_PTR, t, 1, QVA_MSG_LONGJMP);
  EXPECT_EQ(qvahost::allocations_since_hook(), 1);
  ASSERT_NE(hv, nullptr);
  HeapGuard guard(hv);
  EXPECT_EQ(t->type, QVA_TYP_UNDEF);
  ExpectViolations(0, [&] { QVA_Deltmp(t); });
  EXPECT_EQ(qvahost::accounting().texts, texts) << "the text moved with the bytes";

  // The temporary's record is used again and again; the heap variable's
  // value is its own.
  for (int i = 0; i < 600; ++i) {
    Tmp other(MakePoint(i, "other"));
  }
  const QVA_ARRAY *a = hv->var.value.s.arr;
  EXPECT_EQ(a->n_elts, 1);
  EXPECT_EQ(a->n_dim, 1);
  EXPECT_EQ(a->dim[0], 1);
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(a->data), 42);
  EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(a->data + 4)), "inline");
}

TEST_F(HeapTest, ASmallStructureMovedOutOfItsTemporaryKeepsItsValue) {
  // A value taken from a temporary into a variable must not point into the
  // temporary's record, which the next temporaries reuse.
  {
    qvahost::Variable kept("KEPT");
    kept.take(MakePoint(9, "nine"));
    for (int i = 0; i < 600; ++i) {
      Tmp other(MakePoint(100 + i, "other"));
    }
    ASSERT_EQ(kept->type, QVA_TYP_STRUCT);
    const QVA_ARRAY *a = kept->value.s.arr;
    EXPECT_EQ(a->n_elts, 1);
    EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(a->data), 9);
    EXPECT_EQ(Text(*reinterpret_cast<QVA_STRING *>(a->data + 4)), "nine");
    Tmp copy(QVA_Gettmp());
    QVA_VarCopy(kept.get(), copy.get());
    EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(copy->value.s.arr->data), 9);
  }
  // Its block and text went with the variable (TearDown checks the rest).
}

TEST_F(HeapTest, ValuesOfEverySizeSurviveNeighbouringRecords) {
  // Arrays just inside and just past the size kept in a record, among many
  // neighbours made and deleted around them.
  std::vector<QVA_HVID> ids;
  for (QVA_MEMINT n : {1, 11, 12, 13, 100}) {
    QVA_VPTR t = nullptr;
    auto *data = reinterpret_cast<QVA_LONG *>(QVA_MakeTempVector(QVA_TYP_LONG, n, 1, &t));
    for (QVA_MEMINT i = 0; i < n; ++i) data[i] = static_cast<QVA_LONG>(n * 1000 + i);
    Tmp guard(t);
    ids.push_back(QVA_HeapVarNew(QVA_TYP_PTR, t, n % 2, 2)->hash_id);
    for (int i = 0; i < 300; ++i) QVA_HeapVarDelete(NewPtr(i), 0, 0);
  }
  size_t k = 0;
  for (QVA_MEMINT n : {1, 11, 12, 13, 100}) {
    QVA_HVPTR h = QVA_HeapVarHashFind(ids[k++]);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->var.value.arr->n_elts, n);
    const auto *data = reinterpret_cast<const QVA_LONG *>(h->var.value.arr->data);
    for (QVA_MEMINT i = 0; i < n; ++i) ASSERT_EQ(data[i], n * 1000 + i) << n;
  }
  for (QVA_HVID id : ids) ExpectViolations(0, [&] { QVA_HeapVarDelete(id, 0, 0); });
}

TEST_F(HeapTest, HeapIdsListsLiveIdentifiersInOrder) {
  std::vector<QVA_HVID> made;
  for (int i = 0; i < 5; ++i) made.push_back(NewPtr(i));
  QVA_HeapVarDelete(made[2], 0, 0);
  std::vector<QVA_HVID> ids = qvahost::heap_ids();
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  for (int i : {0, 1, 3, 4})
    EXPECT_TRUE(std::binary_search(ids.begin(), ids.end(), made[i])) << i;
  EXPECT_FALSE(std::binary_search(ids.begin(), ids.end(), made[2]));
  for (int i : {0, 1, 3, 4}) QVA_HeapVarDelete(made[i], 0, 0);
}

TEST_F(HeapTest, TablePagesAreFreedWhenTheyDie) {
  size_t pages = qvahost::heap_leaf_pages();
  QVA_HVID keeper = NewPtr(0);  // lives across all the churn below
  // Many identifiers issued, few alive at a time.
  for (int round = 0; round < 100; ++round) {
    std::vector<QVA_HVID> batch;
    for (int i = 0; i < 1000; ++i) batch.push_back(NewPtr(i));
    for (QVA_HVID id : batch) QVA_HeapVarDelete(id, 0, 0);
  }
  // The keeper's page and the page now being filled, no more.
  EXPECT_LE(qvahost::heap_leaf_pages(), pages + 2);
  EXPECT_EQ(QVA_HeapVarHashFind(keeper)->var.value.l, 0);
  QVA_HeapVarDelete(keeper, 0, 0);
  EXPECT_LE(qvahost::heap_leaf_pages(), pages + 1);
}

TEST_F(HeapTest, AFailedRecordIsNullOrAnError) {
  Tmp point(MakePoint(1, "x"));
  qvatest::OutputCapture out;
  qvahost::fail_allocation_after(1);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 1, QVA_MSG_RET), nullptr);
  EXPECT_EQ(out.lines().size(), 1u);
  EXPECT_EQ(point->type, QVA_TYP_STRUCT);  // nothing was taken from the source
  qvahost::fail_allocation_after(1);
  auto e = ExpectHostError([&] { QVA_HeapVarNew(QVA_TYP_OBJREF, point.get(), 1, 2); });
  EXPECT_EQ(e.code, qvahost::M_NOMEM);
  EXPECT_EQ(qvahost::accounting().heap_vars, baseline_.heap_vars);
}

TEST_F(HeapTest, ResetSessionDeletesEveryHeapVariable) {
  for (int i = 0; i < 3; ++i) NewPtr(i);
  {
    Tmp point(MakePoint(1, "obj"));
    QVA_HeapVarNew(QVA_TYP_OBJREF, point.get(), 1, 2);
  }
  qvahost::reset_session();
  EXPECT_TRUE(qvahost::heap_ids().empty());
  EXPECT_EQ(qvahost::accounting().heap_vars, 0);
  EXPECT_EQ(qvahost::accounting().objects, 0);
  EXPECT_EQ(qvahost::accounting().violations, baseline_.violations);
  baseline_ = qvahost::accounting();  // whatever the session held before went too
}

}  // namespace
