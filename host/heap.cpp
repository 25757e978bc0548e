// The heap: pointer heap variables and objects, named by identifiers that
// count up from 1 and are never reused within a process.
//
// The table is a two-level radix index over the 32-bit identifier: one
// directory of record pages, then the records themselves, in identifier
// order.  A look-up is one directory read and the record, with no search,
// and records made one after another (the nodes of a growing tree, say) sit
// next to each other.  The directory is a zero-initialised array of 2^24
// page pointers: the system gives it memory only where it is written, a
// page of it per 131,072 identifiers issued.  A record page goes away as
// soon as every identifier in its range has been issued and deleted, so
// memory follows the live heap variables, not the identifiers ever issued.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "internal.h"

namespace qvahost {
namespace {

constexpr unsigned kPageBits = 8;  // 256 records (48 KiB) per page
constexpr uint32_t kPageSize = uint32_t{1} << kPageBits;
constexpr size_t kDirectorySize = size_t{1} << (32 - kPageBits);

struct Page {
  HeapVar records[kPageSize];
  uint32_t live = 0;
};

// Constant-initialised and never destroyed (they live as long as the
// process), so that a look-up needs no initialisation check.  The
// directory is all zero, so it takes no room in the library file.
constinit Page *g_directory[kDirectorySize] = {};
struct Heap {
  uint64_t next_id;   // 2^32 once every identifier has been issued
  size_t page_count;  // record pages in existence
};
constinit Heap g_heap{1, 0};

Heap &heap() { return g_heap; }

uint32_t page_number(uint32_t id) { return id >> kPageBits; }
uint32_t page_index(uint32_t id) { return id & (kPageSize - 1); }

// The page for id, made (every record dead) when missing.  Throws
// std::bad_alloc.
Page &page_for(Heap &h, uint32_t id) {
  Page *&page = g_directory[page_number(id)];
  if (!page) {
    // Only the liveness marks are cleared: the rest of a record is written
    // when it is made, so zeroing all 48 KiB is not needed.
    page = new Page;
    for (HeapVar &rec : page->records) rec.hv.hash_id = 0;
    h.page_count++;
  }
  return *page;
}

// Drops the page of id's range when nothing in it can be used again.
void maybe_free_page(Heap &h, uint32_t id) {
  Page *&page = g_directory[page_number(id)];
  uint64_t page_end = (uint64_t{id} | (kPageSize - 1)) + 1;
  if (page->live != 0 || h.next_id < page_end) return;  // live, or ids still to issue
  delete page;
  page = nullptr;
  h.page_count--;
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

}  // namespace

QVA_ARRAY *heap_inline_array(HeapVar *rec, QVA_MEMINT elt_len, int n_dim, const QVA_MEMINT *dims) {
  QVA_MEMINT n = 1;
  for (int d = 0; d < n_dim; ++d)
    if (__builtin_mul_overflow(n, dims[d], &n)) return nullptr;
  QVA_MEMINT bytes;
  if (__builtin_mul_overflow(n, elt_len, &bytes) ||
      bytes > static_cast<QVA_MEMINT>(kInlineValueBytes))
    return nullptr;
  QVA_ARRAY &in = rec->inline_arr;
  in.elt_len = elt_len;
  in.arr_len = bytes;
  in.n_elts = n;
  in.n_dim = n_dim;
  std::copy(dims, dims + n_dim, in.dim);
  in.flags = kArrayInRecord;
  in.data = rec->inline_data;
  std::memset(rec->inline_data, 0, kInlineValueBytes);
  return &in;
}

namespace {

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
  Page *page = g_directory[page_number(id)];
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
  Page &page = *g_directory[page_number(id)];
  counters().heap_vars--;
  if (rec->hv.flags & QVA_HV_OBJECT) counters().objects--;
  var_free_value(&rec->hv.var);
  rec->hv.hash_id = 0;
  page.live--;
  maybe_free_page(h, id);
}

std::vector<QVA_HVID> heap_all() {
  std::vector<QVA_HVID> ids;
  const Heap &h = heap();
  // Pages exist only for identifiers issued so far.
  const uint64_t last_page = (h.next_id - 1) >> kPageBits;
  for (uint64_t p = 0; p <= last_page && p < kDirectorySize; ++p) {
    const Page *page = g_directory[p];
    if (!page || page->live == 0) continue;
    for (const HeapVar &rec : page->records)
      if (rec.hv.hash_id) ids.push_back(rec.hv.hash_id);
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
    message(M_BAD_ARG, action,
            format("Heap variables are pointers or objects, not type code %d.", type));
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
