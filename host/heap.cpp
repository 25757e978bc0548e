// The heap: pointer heap variables and objects, named by identifiers that
// count up from 1 and are never reused within a process.
//
// The table is a three-level radix index over the 32-bit identifier (root,
// middle pages, record pages) whose last level holds the records
// themselves, in identifier order: a look-up is two small index reads and
// the record, with no search, and records made one after another (the
// nodes of a growing tree, say) sit next to each other.  A record page
// goes away as soon as every identifier in its range has been issued and
// deleted, and a middle page when its last record page goes, so memory
// follows the live heap variables, not the identifiers ever issued.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "internal.h"

namespace qvahost {
namespace {

constexpr unsigned kPageBits = 8;   // 256 records (48 KiB) per page
constexpr unsigned kMidBits = 12;
constexpr unsigned kRootBits = 32 - kPageBits - kMidBits;
constexpr uint32_t kPageSize = uint32_t{1} << kPageBits;
constexpr uint32_t kMidSize = uint32_t{1} << kMidBits;

struct Page {
  HeapVar records[kPageSize];
  uint32_t live = 0;
};

struct Mid {
  std::unique_ptr<Page> pages[kMidSize];
  uint32_t page_count = 0;
};

// Constant-initialised and never destroyed (it lives as long as the
// process), so that a look-up needs no initialisation check.
struct Heap {
  Mid *root[size_t{1} << kRootBits];
  uint64_t next_id;   // 2^32 once every identifier has been issued
  size_t page_count;  // record pages in existence
  // The last middle page given up, kept (all its entries null) for the
  // next range instead of allocating and zeroing 32 KiB again: a map that
  // is filled and emptied over and over would otherwise do so each time.
  Mid *spare_mid;
};
constinit Heap g_heap{{}, 1, 0, nullptr};

Heap &heap() { return g_heap; }

uint32_t root_index(uint32_t id) { return id >> (kPageBits + kMidBits); }
uint32_t mid_index(uint32_t id) { return (id >> kPageBits) & (kMidSize - 1); }
uint32_t page_index(uint32_t id) { return id & (kPageSize - 1); }

// The page for id, made (every record dead) when missing.  Throws
// std::bad_alloc.
Page &page_for(Heap &h, uint32_t id) {
  Mid *&mid = h.root[root_index(id)];
  if (!mid) {
    if (h.spare_mid) {
      mid = h.spare_mid;
      h.spare_mid = nullptr;
    } else {
      mid = new Mid;
    }
  }
  auto &page = mid->pages[mid_index(id)];
  if (!page) {
    // Only the liveness marks are cleared: the rest of a record is written
    // when it is made, so zeroing all 48 KiB is not needed.
    page.reset(new Page);
    for (HeapVar &rec : page->records) rec.hv.hash_id = 0;
    mid->page_count++;
    h.page_count++;
  }
  return *page;
}

// Drops the pages of id's range when nothing in them can be used again.
void maybe_free_pages(Heap &h, uint32_t id) {
  Mid *&mid = h.root[root_index(id)];
  auto &page = mid->pages[mid_index(id)];
  uint64_t page_end = (uint64_t{id} | (kPageSize - 1)) + 1;
  if (page->live != 0 || h.next_id < page_end) return;  // live, or ids still to issue
  page.reset();
  h.page_count--;
  if (--mid->page_count == 0) {
    delete h.spare_mid;
    h.spare_mid = mid;
    mid = nullptr;
  }
}

// Moves a small array value into the record's own storage, releasing the
// block it came in.  Texts inside the data move with it.
void take_inline(HeapVar *rec) {
  QVA_VARIABLE &v = rec->hv.var;
  if (!(v.flags & QVA_V_ARR)) return;
  QVA_ARRAY *&slot = (v.flags & QVA_V_STRUCT) ? v.value.s.arr : v.value.arr;
  QVA_ARRAY *a = slot;
  if (!a || a->arr_len > static_cast<QVA_MEMINT>(kInlineValueBytes)) return;
  QVA_ARRAY &in = rec->inline_arr;
  in.elt_len = a->elt_len;
  in.arr_len = a->arr_len;
  in.n_elts = a->n_elts;
  in.n_dim = a->n_dim;
  std::copy(a->dim, a->dim + a->n_dim, in.dim);
  in.flags = kArrayInRecord;
  in.data = rec->inline_data;
  if (a->flags & kArrayInTemp)  // a temporary's inline buffer: all of it is readable
    std::memcpy(rec->inline_data, a->data, kInlineValueBytes);
  else
    std::memcpy(rec->inline_data, a->data, static_cast<size_t>(a->arr_len));
  array_free(a);
  slot = &rec->inline_arr;
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
  const Mid *mid = heap().root[root_index(id)];
  if (!mid) return nullptr;
  Page *page = mid->pages[mid_index(id)].get();
  if (!page) return nullptr;
  HeapVar *rec = &page->records[page_index(id)];
  return rec->hv.hash_id == id && id != 0 ? rec : nullptr;
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
  auto id = static_cast<QVA_HVID>(h.next_id);
  Page *page;
  try {
    page = &page_for(h, id);
  } catch (const std::bad_alloc &) {
    message(M_NOMEM, action, "Unable to allocate memory: to make heap variable.");
    return nullptr;
  }
  // The value next: a failed copy leaves nothing behind (an empty page
  // made above is freed with the next identifiers of its range).
  QVA_VARIABLE value{};
  if (src && move) {
    var_move_value(src, &value, true);  // take_inline below copies a temporary's inline array
  } else if (src) {
    try {
      var_copy_value(src, &value);
    } catch (const HostError &e) {
      message(e.code, action, e.text);
      return nullptr;
    }
  }
  h.next_id++;
  HeapVar *rec = &page->records[page_index(id)];
  rec->state = 0;
  rec->hv.hash_id = id;
  rec->hv.flags = object ? QVA_HV_OBJECT : 0;
  rec->hv.var = value;
  take_inline(rec);
  page->live++;
  counters().heap_vars++;
  if (object) counters().objects++;
  return rec;
}

void heap_delete(QVA_HVID id) {
  Heap &h = heap();
  HeapVar *rec = heap_find(id);
  if (!rec) return;
  Page &page = *h.root[root_index(id)]->pages[mid_index(id)];
  counters().heap_vars--;
  if (rec->hv.flags & QVA_HV_OBJECT) counters().objects--;
  var_free_value(&rec->hv.var);
  rec->hv.hash_id = 0;
  page.live--;
  maybe_free_pages(h, id);
}

std::vector<QVA_HVID> heap_all() {
  std::vector<QVA_HVID> ids;
  const Heap &h = heap();
  for (uint32_t r = 0; r < (uint32_t{1} << kRootBits); ++r) {
    const Mid *mid = h.root[r];
    if (!mid) continue;
    for (uint32_t m = 0; m < kMidSize; ++m) {
      const Page *page = mid->pages[m].get();
      if (!page || page->live == 0) continue;
      for (uint32_t l = 0; l < kPageSize; ++l)
        if (page->records[l].hv.hash_id) ids.push_back(page->records[l].hv.hash_id);
    }
  }
  return ids;
}

// Record pages now in existence (for tests of the table's memory).
size_t heap_leaf_pages() { return heap().page_count; }

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
