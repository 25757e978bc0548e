// The heap: pointer heap variables and objects, named by identifiers that
// count up from 1 and are never reused within a process.
//
// Look-up is a three-level radix table over the 32-bit identifier (root,
// middle pages, leaf pages of records): constant time, no search.  A leaf
// page goes away as soon as every identifier in its range has been issued
// and deleted, and a middle page when its last leaf goes, so memory follows
// the live heap variables, not the identifiers ever issued.  Records come
// from a free-list pool.
#include <cstring>
#include <memory>

#include "internal.h"

namespace qvahost {
namespace {

constexpr unsigned kLeafBits = 10;
constexpr unsigned kMidBits = 12;
constexpr unsigned kRootBits = 32 - kLeafBits - kMidBits;
constexpr uint32_t kLeafSize = uint32_t{1} << kLeafBits;
constexpr uint32_t kMidSize = uint32_t{1} << kMidBits;
constexpr size_t kRecordsPerChunk = 256;

struct Leaf {
  HeapVar *slots[kLeafSize] = {};
  uint32_t live = 0;
};

struct Mid {
  std::unique_ptr<Leaf> leaves[kMidSize];
  uint32_t leaf_count = 0;
};

union RecordSlot {
  HeapVar record;
  RecordSlot *next_free;
  RecordSlot() : next_free(nullptr) {}
};

struct Heap {
  std::unique_ptr<Mid> root[size_t{1} << kRootBits];
  uint64_t next_id = 1;          // 2^32 once every identifier has been issued
  RecordSlot *free_records = nullptr;
  std::vector<std::unique_ptr<RecordSlot[]>> chunks;
  size_t leaf_pages = 0;         // leaves in existence
};

Heap &heap() {
  static Heap *h = new Heap;  // lives as long as the process
  return *h;
}

uint32_t root_index(uint32_t id) { return id >> (kLeafBits + kMidBits); }
uint32_t mid_index(uint32_t id) { return (id >> kLeafBits) & (kMidSize - 1); }
uint32_t leaf_index(uint32_t id) { return id & (kLeafSize - 1); }

HeapVar *new_record(Heap &h) {
  if (!h.free_records) {
    auto chunk = std::make_unique<RecordSlot[]>(kRecordsPerChunk);
    for (size_t i = 0; i < kRecordsPerChunk; ++i) {
      chunk[i].next_free = h.free_records;
      h.free_records = &chunk[i];
    }
    h.chunks.push_back(std::move(chunk));
  }
  RecordSlot *slot = h.free_records;
  h.free_records = slot->next_free;
  return new (&slot->record) HeapVar{};
}

void free_record(Heap &h, HeapVar *rec) {
  auto *slot = reinterpret_cast<RecordSlot *>(rec);
  rec->~HeapVar();
  slot->next_free = h.free_records;
  h.free_records = slot;
}

// The leaf for id, made when missing.
Leaf &leaf_for(Heap &h, uint32_t id) {
  auto &mid = h.root[root_index(id)];
  if (!mid) mid = std::make_unique<Mid>();
  auto &leaf = mid->leaves[mid_index(id)];
  if (!leaf) {
    leaf = std::make_unique<Leaf>();
    mid->leaf_count++;
    h.leaf_pages++;
  }
  return *leaf;
}

// Drops the pages of id's range when nothing in them can be used again.
void maybe_free_pages(Heap &h, uint32_t id) {
  auto &mid = h.root[root_index(id)];
  auto &leaf = mid->leaves[mid_index(id)];
  uint64_t leaf_end = (uint64_t{id} | (kLeafSize - 1)) + 1;
  if (leaf->live != 0 || h.next_id < leaf_end) return;  // live, or ids still to issue
  leaf.reset();
  h.leaf_pages--;
  if (--mid->leaf_count == 0) mid.reset();
}

void check_object_source(QVA_VPTR src) {
  bool ok = src && (src->flags & QVA_V_STRUCT) && src->value.s.arr &&
            src->value.s.arr->n_elts == 1 && src->value.s.sdef &&
            !src->value.s.sdef->name_str.empty();
  if (!ok)
    raise_fmt(M_BAD_ARG, "An object must be made from one element of a named structure: %s.",
              var_label(src).c_str());
}

}  // namespace

HeapVar *heap_find(QVA_HVID id) {
  const Mid *mid = heap().root[root_index(id)].get();
  if (!mid) return nullptr;
  const Leaf *leaf = mid->leaves[mid_index(id)].get();
  return leaf ? leaf->slots[leaf_index(id)] : nullptr;
}

HeapVar *heap_new(bool object, QVA_VPTR src, bool move, int action) {
  Heap &h = heap();
  if (allocation_fails()) {
    message(M_NOMEM, action, "Unable to allocate memory: to make heap variable.");
    return nullptr;
  }
  if (h.next_id > UINT32_MAX) {
    message(M_HEAP_FULL, action, "Heap identifiers exhausted.");
    return nullptr;
  }
  // The value first: a failed copy leaves nothing behind.
  QVA_VARIABLE value{};
  if (src && move) {
    var_move_value(src, &value);
  } else if (src) {
    try {
      var_copy_value(src, &value);
    } catch (const HostError &e) {
      message(e.code, action, e.text);
      return nullptr;
    }
  }
  auto id = static_cast<QVA_HVID>(h.next_id);
  HeapVar *rec;
  Leaf *leaf;
  try {
    leaf = &leaf_for(h, id);
    rec = new_record(h);
  } catch (const std::bad_alloc &) {
    var_free_value(&value);
    message(M_NOMEM, action, "Unable to allocate memory: to make heap variable.");
    return nullptr;
  }
  h.next_id++;
  rec->hv.hash_id = id;
  rec->hv.flags = object ? QVA_HV_OBJECT : 0;
  rec->hv.var = value;
  leaf->slots[leaf_index(id)] = rec;
  leaf->live++;
  counters().heap_vars++;
  if (object) counters().objects++;
  return rec;
}

void heap_delete(QVA_HVID id) {
  Heap &h = heap();
  HeapVar *rec = heap_find(id);
  if (!rec) return;
  Leaf &leaf = *h.root[root_index(id)]->leaves[mid_index(id)];
  leaf.slots[leaf_index(id)] = nullptr;
  leaf.live--;
  counters().heap_vars--;
  if (rec->hv.flags & QVA_HV_OBJECT) counters().objects--;
  var_free_value(&rec->hv.var);
  free_record(h, rec);
  maybe_free_pages(h, id);
}

std::vector<QVA_HVID> heap_all() {
  std::vector<QVA_HVID> ids;
  const Heap &h = heap();
  for (uint32_t r = 0; r < (uint32_t{1} << kRootBits); ++r) {
    const Mid *mid = h.root[r].get();
    if (!mid) continue;
    for (uint32_t m = 0; m < kMidSize; ++m) {
      const Leaf *leaf = mid->leaves[m].get();
      if (!leaf) continue;
      for (uint32_t l = 0; l < kLeafSize; ++l)
        if (leaf->slots[l]) ids.push_back(leaf->slots[l]->hv.hash_id);
    }
  }
  return ids;
}

// Leaf pages now in existence (for tests of the table's memory).
size_t heap_leaf_pages() { return heap().leaf_pages; }

std::vector<QVA_HVID> heap_ids() { return heap_all(); }

void reset_session() {
  main_variables_clear();
  for (QVA_HVID id : heap_all()) heap_delete(id);
  modules_reset_session();
}

}  // namespace qvahost

// ------------------------------------------------------------- module API

using namespace qvahost;

QVA_HVPTR QVA_HeapVarNew(int type, QVA_VPTR src, int steal, int action) {
  if (type != QVA_TYP_PTR && type != QVA_TYP_OBJREF) {
    message(M_BAD_ARG, action, format("Heap variables are pointers or objects, not type code %d.", type));
    return nullptr;
  }
  bool object = type == QVA_TYP_OBJREF;
  if (object) {
    try {
      check_object_source(src);
    } catch (const HostError &e) {
      message(e.code, action, e.text);
      return nullptr;
    }
  }
  bool move = steal && src && (src->flags & QVA_V_TEMP);
  HeapVar *h = heap_new(object, src, move, action);
  return h ? &h->hv : nullptr;
}

QVA_HVPTR QVA_HeapVarHashFind(QVA_HVID hvid) {
  HeapVar *h = heap_find(hvid);
  return h ? &h->hv : nullptr;
}

void QVA_HeapVarDelete(QVA_HVID hvid, int reserved, int action) {
  (void)reserved;
  (void)action;  // an identifier that names nothing is ignored
  heap_delete(hvid);
}
