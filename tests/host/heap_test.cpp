// The heap: identifiers, pointer heap variables and objects, look-up, small
// values kept in small blocks, and the memory of the heap table.
#include <algorithm>

#include "host_fixture.h"

namespace {

using hosttest::CoreTest;
using hosttest::ExpectHostError;
using hosttest::HeapGuard;
using hosttest::Text;
using hosttest::Tmp;

using HeapTest = CoreTest;

QVA_SDEF Point() {
  return hosttest::ensure_class(
      "HT_POINT", "",
      {hosttest::field("X", QVA_TYP_LONG), hosttest::field("LABEL", QVA_TYP_STRING)});
}

// A temporary holding one HT_POINT.
QVA_VPTR MakePoint(QVA_LONG x, const char *label) {
  QVA_VPTR v = nullptr;
  char *data = QVA_MakeTempStructVector(Point(), 1, &v, 1);
  *reinterpret_cast<QVA_LONG *>(data) = x;
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), label);
  return v;
}
// The first element's data, wherever the value keeps it.
char *Data(const QVA_VARIABLE &v) {
  char *data = nullptr;
  QVA_VarGetData(const_cast<QVA_VPTR>(&v), nullptr, &data, 0);
  return data;
}
QVA_LONG X(const QVA_VARIABLE &v) { return *reinterpret_cast<QVA_LONG *>(Data(v)); }
QVA_STRING *Label(const QVA_VARIABLE &v) { return reinterpret_cast<QVA_STRING *>(Data(v) + 4); }
QVA_HVID NewPtr(QVA_LONG value) {
  Tmp t(QVA_GettmpLong(value));
  return QVA_HeapVarNew(QVA_TYP_PTR, t.get(), 0, QVA_MSG_LONGJMP)->hash_id;
}

TEST_F(HeapTest, IdentifiersAreNeverReusedAndDeadOnesFindNothing) {
  std::vector<QVA_HVID> made;
  for (int i = 0; i < 5; ++i) made.push_back(NewPtr(i));
  QVA_HeapVarDelete(made[4], 0, 0);
  QVA_HeapVarDelete(made[2], 0, 0);
  made.push_back(NewPtr(5));
  EXPECT_TRUE(std::is_sorted(made.begin(), made.end()));
  EXPECT_GT(made[5], made[4]);
  EXPECT_EQ(QVA_HeapVarHashFind(made[5])->var.value.l, 5);
  for (QVA_HVID dead : {made[2], made[4], QVA_HVID{0}, QVA_HVID{0xFFFFFF00u}})
    EXPECT_EQ(QVA_HeapVarHashFind(dead), nullptr) << dead;
  // The inline look-up of qva.h answers as the host does, up to the last
  // identifier.
  for (QVA_HVID id : {made[0], made[2], made[5], made[5] + 1, QVA_HVID{0}, QVA_HVID{0xFFFFFFFFu}})
    EXPECT_EQ(QVA_HeapVarFind(id), QVA_HeapVarHashFind(id)) << id;
  for (QVA_HVID id : made) QVA_HeapVarDelete(id, 0, 0);  // dead ones are ignored
  QVA_HeapVarDelete(0xFFFFFF00u, 0, 0);                  // never issued: ignored
}

TEST_F(HeapTest, PointerVariablesCopyOrStealAndObjectsAreOneElementStructures) {
  Tmp point(MakePoint(5, "copied"));
  HeapGuard copy{QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 0, 2)->hash_id};
  EXPECT_EQ(point->type, QVA_TYP_STRUCT);  // copied: the source keeps its value
  EXPECT_EQ(QVA_HeapVarHashFind(copy.id)->var.flags & QVA_V_TEMP, 0);
  QVA_HVPTR obj = QVA_HeapVarNew(QVA_TYP_OBJREF, point.get(), 1, 2);
  HeapGuard obj_guard{obj->hash_id};
  EXPECT_EQ(point->type, QVA_TYP_UNDEF);  // moved: the temporary stays, undefined
  EXPECT_TRUE(point->flags & QVA_V_TEMP);
  EXPECT_EQ(obj->flags, QVA_HV_OBJECT);
  EXPECT_EQ(obj->var.flags, QVA_V_STRUCT | QVA_V_ARR);
  EXPECT_EQ(Text(*Label(obj->var)), "copied");
  EXPECT_EQ(Text(*Label(QVA_HeapVarHashFind(copy.id)->var)), "copied");
  EXPECT_EQ(qvahost::accounting().texts, baseline_.texts + 1);  // the copy shares the text
  EXPECT_EQ(qvahost::accounting().objects, baseline_.objects + 1);
  qvahost::Variable named("HT_NAMED");  // stealing from a non-temporary copies
  named.take(qvahost::make_string("kept"));
  HeapGuard g3{QVA_HeapVarNew(QVA_TYP_PTR, named.get(), 1, 2)->hash_id};
  EXPECT_EQ(qvahost::string_value(named.get()), "kept");
  EXPECT_EQ(qvahost::string_value(&QVA_HeapVarHashFind(g3.id)->var), "kept");
  // Anything but one structure element is refused as an object; a failed
  // allocation of the record is null or an error, and takes nothing.
  QVA_VPTR two = nullptr;
  QVA_MakeTempStructVector(Point(), 2, &two, 1);
  Tmp number(QVA_GettmpLong(1)), small(MakePoint(1, "x")), two_guard(two);
  qvatest::OutputCapture out;
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_OBJREF, number.get(), 0, QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_OBJREF, two, 0, QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_LONG, number.get(), 0, QVA_MSG_RET), nullptr);
  ExpectHostError([&] { QVA_HeapVarNew(QVA_TYP_OBJREF, number.get(), 0, 2); });
  qvahost::fail_allocation_after(1);
  EXPECT_EQ(QVA_HeapVarNew(QVA_TYP_PTR, small.get(), 1, QVA_MSG_RET), nullptr);
  EXPECT_EQ(out.lines().size(), 4u);
  EXPECT_EQ(small->type, QVA_TYP_STRUCT);
  EXPECT_EQ(qvahost::accounting().heap_vars, baseline_.heap_vars + 3);
}

// A zeroed element made straight in a record is a value like any moved
// in: read, replaced, and freed with the texts stored into it later; a
// larger one goes behind a descriptor; bad requests and a failed record
// make nothing.
TEST_F(HeapTest, ZeroedStructuresAreMadeInPlaceOrBehindADescriptor) {
  QVA_HVPTR point = QVA_HeapVarNewStruct(QVA_TYP_PTR, Point(), QVA_MSG_LONGJMP);
  HeapGuard point_guard{point->hash_id};
  EXPECT_EQ(point->flags, 0u);
  EXPECT_EQ(point->var.flags2, QVA_V2_INLINE);
  EXPECT_EQ(X(point->var), 0);
  EXPECT_EQ(Label(point->var)->slen, 0);
  QVA_StrStore(Label(point->var), "stored later");
  int64_t texts = qvahost::accounting().texts;

  std::vector<qvahost::FieldSpec> wide;
  for (int i = 0; i < 6; ++i) wide.push_back(hosttest::field("F" + std::to_string(i), QVA_TYP_DOUBLE));
  QVA_SDEF big = hosttest::ensure_class("HT_WIDE", "", wide);
  QVA_HVPTR obj = QVA_HeapVarNewStruct(QVA_TYP_OBJREF, big, QVA_MSG_LONGJMP);
  HeapGuard obj_guard{obj->hash_id};
  EXPECT_EQ(obj->flags, QVA_HV_OBJECT);
  EXPECT_NE(obj->var.flags2, QVA_V2_INLINE);
  ASSERT_TRUE(QVA_HeapVarStructIsOne(obj));
  const double *f = reinterpret_cast<const double *>(QVA_HeapVarStructData(obj));
  EXPECT_TRUE(std::all_of(f, f + 6, [](double d) { return d == 0; }));
  EXPECT_EQ(qvahost::accounting().objects, baseline_.objects + 1);

  qvatest::OutputCapture out;
  int64_t vars = qvahost::accounting().heap_vars;
  EXPECT_EQ(QVA_HeapVarNewStruct(QVA_TYP_LONG, Point(), QVA_MSG_RET), nullptr);
  EXPECT_EQ(QVA_HeapVarNewStruct(QVA_TYP_PTR, nullptr, QVA_MSG_RET), nullptr);
  static QVA_STRUCT_TAG_DEF one_tag[] = {{"A", nullptr, QVA_TYP_LONG, 0}, {nullptr, nullptr, 0, 0}};
  QVA_SDEF anonymous = QVA_MakeStructInternal(nullptr, 0, one_tag, QVA_MSG_LONGJMP);
  EXPECT_EQ(QVA_HeapVarNewStruct(QVA_TYP_OBJREF, anonymous, QVA_MSG_RET), nullptr);
  ExpectHostError([&] { QVA_HeapVarNewStruct(QVA_TYP_PTR, nullptr, QVA_MSG_LONGJMP); });
  for (QVA_SDEF sdef : {Point(), big}) {
    qvahost::fail_allocation_after(1);
    EXPECT_EQ(QVA_HeapVarNewStruct(QVA_TYP_PTR, sdef, QVA_MSG_RET), nullptr);
    qvahost::fail_allocation_after(0);
  }
  EXPECT_EQ(out.lines().size(), 5u);
  EXPECT_EQ(qvahost::accounting().heap_vars, vars);
  EXPECT_EQ(qvahost::accounting().texts, texts);
  ExpectViolations(0, [&] { QVA_HeapVarDelete(point->hash_id, 0, 0); });
  EXPECT_EQ(qvahost::accounting().texts, texts - 1) << "the text stored later is released";
}

// A one-element structure this small is kept in the heap record itself;
// the value must behave as any other: replaced, copied, read back and freed
// with its texts.
TEST_F(HeapTest, SmallStructureValuesBehaveAsAnyOther) {
  Tmp source(MakePoint(5, "kept"));
  QVA_HVPTR copied = QVA_HeapVarNew(QVA_TYP_PTR, source.get(), 0, 2);
  QVA_StrDelete(Label(copied->var), 1);  // its own copy of "kept"
  QVA_StrStore(Label(copied->var), "own text");
  EXPECT_EQ(Text(*Label(*source)), "kept");
  {
    Tmp moved_source(MakePoint(7, "moved"));
    QVA_HVPTR moved = QVA_HeapVarNew(QVA_TYP_PTR, moved_source.get(), 1, 2);
    HeapGuard moved_guard{moved->hash_id};
    EXPECT_EQ(moved_source->type, QVA_TYP_UNDEF);
    EXPECT_EQ(moved->var.flags2, QVA_V2_INLINE);
    EXPECT_EQ(QVA_HeapVarStructData(moved), moved->idata);
    EXPECT_EQ(X(moved->var), 7);
    Tmp out(QVA_Gettmp());  // read back: a copy of its own
    QVA_VarCopy(&moved->var, out.get());
    EXPECT_NE(Data(*out), Data(moved->var));
    EXPECT_NE(out->flags2, QVA_V2_INLINE) << "a temporary's copy has data of its own";
    // Replaced by a scalar and by a structure again: the old value (its
    // text too) is released, and nothing is freed that was not a block.
    Tmp number(QVA_GettmpLong(11));
    ExpectViolations(0, [&] { QVA_VarCopy(number.get(), &moved->var); });
    EXPECT_EQ(moved->var.value.l, 11);
    ExpectViolations(0, [&] { QVA_VarCopy(out.get(), &moved->var); });
    EXPECT_EQ(Text(*Label(moved->var)), "moved");
    ExpectViolations(0, [&] { QVA_Delvar(&moved->var); });
    EXPECT_EQ(moved->var.type, QVA_TYP_UNDEF);
  }
  int64_t texts = qvahost::accounting().texts;
  ExpectViolations(0, [&] { QVA_HeapVarDelete(copied->hash_id, 0, 0); });
  EXPECT_EQ(qvahost::accounting().texts, texts - 1) << "the record's own text is released";
}

// The element kept in a record is the value's only copy: a descriptor asked
// for points at it, making a heap variable from the record copies it, a
// value moved out leaves the record undefined, and a value of another shape
// stored over it ends the inline form (the descriptor is freed with it).
TEST_F(HeapTest, AnElementKeptInItsRecordHasOneCopyAndLeavesItCleanly) {
  Tmp point(MakePoint(3, "three"));
  QVA_HVPTR h = QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 1, 2);
  HeapGuard guard{h->hash_id};
  QVA_ARRAY *a = qvahost::struct_array(&h->var);
  EXPECT_EQ(a->data, h->idata);
  EXPECT_EQ(a->n_elts, 1);
  EXPECT_EQ(a->n_dim, 1);
  EXPECT_EQ(a->dim[0], 1);
  EXPECT_EQ(qvahost::struct_array(&h->var), a) << "made once";
  *reinterpret_cast<QVA_LONG *>(a->data) = 4;
  EXPECT_EQ(X(h->var), 4) << "the descriptor reads and writes the record's data";
  // A heap variable made from the record is a copy (sharing the text).
  int64_t texts = qvahost::accounting().texts;
  HeapGuard copy{QVA_HeapVarNew(QVA_TYP_PTR, &h->var, 1, 2)->hash_id};
  QVA_HVPTR c = QVA_HeapVarHashFind(copy.id);
  EXPECT_EQ(c->var.flags2, QVA_V2_INLINE);
  EXPECT_EQ(X(h->var), 4) << "a heap record is never stolen from";
  EXPECT_EQ(Text(*Label(c->var)), "three");
  // Moved out: the destination holds a copy, the record nothing.
  Tmp out(QVA_Gettmp());
  qvahost::var_move_value(&c->var, out.get());
  EXPECT_EQ(c->var.type, QVA_TYP_UNDEF);
  EXPECT_EQ(c->var.flags2, 0);
  EXPECT_EQ(X(*out), 4);
  EXPECT_EQ(Text(*Label(*out)), "three");
  // Another shape stored over it: an ordinary value from then on.
  QVA_VPTR two = nullptr;
  QVA_MakeTempStructVector(Point(), 2, &two, 1);
  Tmp two_guard(two);
  ExpectViolations(0, [&] { QVA_VarCopy(two, &h->var); });
  EXPECT_NE(h->var.flags2, QVA_V2_INLINE);
  EXPECT_EQ(h->var.value.s.arr->n_elts, 2);
  EXPECT_EQ(Text(*Label(*out)), "three") << "released once, by the record alone";
  EXPECT_EQ(qvahost::accounting().texts, texts);
}

TEST_F(HeapTest, ASmallStructureLeavesItsTemporaryWithoutBlocksAndKeepsItsValue) {
  // Built in the temporary's own record and moved into the heap record: the
  // only allocation counted is the heap variable's.
  qvahost::fail_allocation_after(0);
  QVA_VPTR t = nullptr;
  char *data = QVA_MakeTempStructVector(Point(), 1, &t, 1);
  EXPECT_EQ(qvahost::allocations_since_hook(), 0);
  EXPECT_EQ(*reinterpret_cast<QVA_LONG *>(data), 0) << "zeroed";
  EXPECT_EQ(reinterpret_cast<QVA_STRING *>(data + 4)->s, 0u) << "zeroed";
  *reinterpret_cast<QVA_LONG *>(data) = 42;
  QVA_StrStore(reinterpret_cast<QVA_STRING *>(data + 4), "inline");
  int64_t texts = qvahost::accounting().texts;
  qvahost::fail_allocation_after(0);
  HeapGuard guard{QVA_HeapVarNew(QVA_TYP_PTR, t, 1, QVA_MSG_LONGJMP)->hash_id};
  EXPECT_EQ(qvahost::allocations_since_hook(), 1);
  ExpectViolations(0, [&] { QVA_Deltmp(t); });
  EXPECT_EQ(qvahost::accounting().texts, texts) << "the text moved with the bytes";
  // Nor may a value taken into a variable point into the temporary's
  // record, which the next temporaries reuse.
  qvahost::Variable kept("KEPT");
  kept.take(MakePoint(9, "nine"));
  for (int i = 0; i < 600; ++i) Tmp other(MakePoint(100 + i, "other"));
  const QVA_VARIABLE &hv = QVA_HeapVarHashFind(guard.id)->var;
  EXPECT_EQ(hv.flags2, QVA_V2_INLINE);
  EXPECT_EQ(X(hv), 42);
  EXPECT_EQ(Text(*Label(hv)), "inline");
  EXPECT_EQ(X(*kept.get()), 9);
  EXPECT_EQ(Text(*Label(*kept.get())), "nine");
}

TEST_F(HeapTest, ValuesOfEverySizeSurviveNeighbouringRecords) {
  // Arrays at the edges of the small blocks' size classes (16 bytes each,
  // up to 256) and past them, and a held structure, among many neighbours
  // made and deleted around them.
  Tmp point(MakePoint(7, "node"));
  QVA_HVPTR held = QVA_HeapVarNew(QVA_TYP_PTR, point.get(), 1, 2);
  HeapGuard held_guard{held->hash_id};
  held->flags |= QVA_HV_HELD;
  QVA_UCHAR *held_data = QVA_HeapVarStructData(held);
  const std::vector<QVA_MEMINT> sizes = {1, 4, 5, 11, 12, 13, 63, 64, 65, 100};
  std::vector<QVA_HVID> ids, others;
  for (QVA_MEMINT n : sizes) {
    QVA_VPTR t = nullptr;
    auto *data = reinterpret_cast<QVA_LONG *>(QVA_MakeTempVector(QVA_TYP_LONG, n, 1, &t));
    for (QVA_MEMINT i = 0; i < n; ++i) data[i] = static_cast<QVA_LONG>(n * 1000 + i);
    Tmp guard(t);
    ids.push_back(QVA_HeapVarNew(QVA_TYP_PTR, t, n % 2, 2)->hash_id);
    for (int i = 0; i < 600; ++i) others.push_back(NewPtr(i));
    for (int i = 0; i < 300; ++i) QVA_HeapVarDelete(NewPtr(i), 0, 0);
  }
  for (size_t k = 0; k < sizes.size(); ++k) {
    QVA_HVPTR h = QVA_HeapVarHashFind(ids[k]);
    ASSERT_EQ(h->var.value.arr->n_elts, sizes[k]);
    const auto *data = reinterpret_cast<const QVA_LONG *>(h->var.value.arr->data);
    for (QVA_MEMINT i = 0; i < sizes[k]; ++i) ASSERT_EQ(data[i], sizes[k] * 1000 + i);
    ExpectViolations(0, [&] { QVA_HeapVarDelete(ids[k], 0, 0); });
  }
  EXPECT_EQ(QVA_HeapVarHashFind(held_guard.id), held);
  EXPECT_EQ(QVA_HeapVarStructData(held), held_data);
  EXPECT_EQ(held->flags, QVA_HV_HELD);
  for (QVA_HVID id : others) QVA_HeapVarDelete(id, 0, 0);
}

TEST_F(HeapTest, TablePagesAreFreedWhenTheyDie) {
  size_t pages = qvahost::heap_leaf_pages();
  QVA_HVID keeper = NewPtr(0);                 // lives across all the churn below
  for (int round = 0; round < 100; ++round) {  // many identifiers, few alive at a time
    std::vector<QVA_HVID> batch;
    for (int i = 0; i < 1000; ++i) batch.push_back(NewPtr(i));
    for (QVA_HVID id : batch) QVA_HeapVarDelete(id, 0, 0);
  }
  EXPECT_LE(qvahost::heap_leaf_pages(), pages + 2) << "the keeper's page and the one being filled";
  EXPECT_EQ(QVA_HeapVarHashFind(keeper)->var.value.l, 0);
  QVA_HeapVarDelete(keeper, 0, 0);
  EXPECT_LE(qvahost::heap_leaf_pages(), pages + 1);
}

}  // namespace
