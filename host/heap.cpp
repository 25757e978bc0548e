// The heap: pointer heap variables and objects, named by identifiers that
// count up from 1 and are never reused within a process.
//
// The table is a two-level radix index over the 32-bit identifier: one
// directory of record pages, then the records themselves, in identifier
// order.  A look-up is one directory read and the record, with no search,
// and records made one after another (the nodes of a growing tree, say) sit
// next to each other.  The directory is a zero-initialised array of 2^24
// page pointers: the system gives it memory only where it is written, a
// page of it per 131,072 identifiers issued.  A record page leaves the
// table as soon as every identifier in its range has been issued and
// deleted, and the next page made reuses its memory, so memory follows the
// live heap variables, not the identifiers ever issued.
//
// A record is the public QVA_HEAP_VAR alone (64 bytes, one cache line);
// its layout and the directory are published in qva.h (with the rules they
// keep), so that a module looks records up inline.  One structure element
// of up to 32 bytes (a tree node, a small object) lives in the record's
// second half, so that reaching it costs no further load; another small
// one-dimensional array lives in a small block (small_blocks.cpp).
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include <sys/mman.h>

#include "asan.h"
#include "dispatch.h"
#include "internal.h"

namespace qvahost {
namespace {

constexpr unsigned kPageBits = QVA_HEAP_PAGE_BITS;  // 256 records (16 KiB) per page
constexpr uint32_t kPageSize = uint32_t{1} << kPageBits;
constexpr size_t kDirectorySize = size_t{1} << (32 - kPageBits);
static_assert(sizeof(HeapVar) == sizeof(QVA_HEAP_VAR), "a record is the public part alone");
static_assert(sizeof(QVA_HEAP_VAR) == 64 && offsetof(QVA_HEAP_VAR, idata) == 32,
              "a record fills one cache line, its inline data the second half");

struct alignas(64) Page {
  HeapVar records[kPageSize];  // first: the directory points at records[0]
  uint32_t live = 0;
};

// The directory: page n holds identifiers n * kPageSize onwards, and its
// entry points at its first record.  Constant-initialised and never
// destroyed (it lives as long as the process), so that a look-up needs no
// initialisation check; all zero, so it takes no room in the library file.
constinit QVA_HEAP_VAR *g_directory[kDirectorySize] = {};

Page *page_at(uint32_t number) { return reinterpret_cast<Page *>(g_directory[number]); }
struct Heap {
  uint64_t next_id;   // 2^32 once every identifier has been issued
  size_t page_count;  // record pages in existence
};
constinit Heap g_heap{1, 0};

Heap &heap() { return g_heap; }

uint32_t page_number(uint32_t id) { return id >> kPageBits; }
uint32_t page_index(uint32_t id) { return id & (kPageSize - 1); }

// Record pages come from 2 MiB chunks mapped with their memory already
// there (as huge pages where the system has them), instead of one page
// fault per 4 KiB as a heap of many records grows or is restored.  A freed
// page is kept for the next one; chunks live as long as the process (the
// memory of a heap that shrank stays with it, ready for the next growth).
constexpr size_t kChunkBytes = size_t{2} << 20;

struct FreePage {
  FreePage *next;
};

struct PageArena {
  char *cursor = nullptr;
  char *end = nullptr;
  FreePage *free = nullptr;
};
constinit PageArena g_arena{};

// A 2 MiB-aligned chunk, or null.
char *map_chunk() {
  size_t span = 2 * kChunkBytes;
  void *p = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  auto base = reinterpret_cast<uintptr_t>(p);
  uintptr_t aligned = (base + kChunkBytes - 1) & ~(kChunkBytes - 1);
  if (aligned > base) ::munmap(p, aligned - base);
  if (base + span > aligned + kChunkBytes)
    ::munmap(reinterpret_cast<void *>(aligned + kChunkBytes), base + span - aligned - kChunkBytes);
  auto *chunk = reinterpret_cast<char *>(aligned);
  ::madvise(chunk, kChunkBytes, MADV_HUGEPAGE);
  ::madvise(chunk, kChunkBytes, MADV_POPULATE_WRITE);
  return chunk;
}

Page *page_alloc() {
  PageArena &a = g_arena;
  void *mem;
  if (a.free) {
    mem = a.free;
    QVA_UNPOISON(mem, sizeof(Page));
    a.free = a.free->next;
  } else {
    if (static_cast<size_t>(a.end - a.cursor) < sizeof(Page)) {
      char *chunk = map_chunk();
      if (!chunk) throw std::bad_alloc();
      a.cursor = chunk;
      a.end = chunk + kChunkBytes;
    }
    mem = a.cursor;
    a.cursor += sizeof(Page);
  }
  return new (mem) Page;
}

void page_free(Page *page) {
  page->~Page();
  auto *f = reinterpret_cast<FreePage *>(page);
  f->next = g_arena.free;
  g_arena.free = f;
  QVA_POISON(page, sizeof(Page));
}

// The page for id, made (every record dead) when missing.  Throws
// std::bad_alloc.
Page &page_for(Heap &h, uint32_t id) {
  Page *page = page_at(page_number(id));
  if (!page) {
    // Only the liveness marks are cleared: the rest of a record is written
    // when it is made.
    page = page_alloc();
    for (HeapVar &rec : page->records) rec.hv.hash_id = 0;
    g_directory[page_number(id)] = &page->records[0].hv;
    h.page_count++;
  }
  return *page;
}

// Drops the page of id's range when nothing in it can be used again.
void maybe_free_page(Heap &h, uint32_t id) {
  Page *page = page_at(page_number(id));
  uint64_t page_end = (uint64_t{id} | (kPageSize - 1)) + 1;
  if (page->live != 0 || h.next_id < page_end) return;  // live, or ids still to issue
  g_directory[page_number(id)] = nullptr;
  page_free(page);
  h.page_count--;
}

// The array a value holds (a structure's included), or null.
QVA_ARRAY **array_slot(QVA_VARIABLE *v) {
  if (!(v->flags & QVA_V_ARR)) return nullptr;
  QVA_ARRAY **slot = (v->flags & QVA_V_STRUCT) ? &v->value.s.arr : &v->value.arr;
  return *slot ? slot : nullptr;
}

// A small block for src's array when it is one-dimensional and small;
// null otherwise, when a moved array is in one already, or when no block
// can be had.
QVA_ARRAY *small_block_for(QVA_VPTR src, bool move) {
  QVA_ARRAY **slot = src ? array_slot(src) : nullptr;
  if (!slot || (*slot)->n_dim != 1) return nullptr;
  if (move && ((*slot)->flags & kArrayInSmallBlock)) return nullptr;  // it moves as it is
  return small_block_new((*slot)->elt_len, (*slot)->n_elts);
}

// Moves the record's array value into `block` (its data and the texts in
// it), releasing the array it was in.
void move_into_block(HeapVar *rec, QVA_ARRAY *block) {
  QVA_ARRAY **slot = array_slot(&rec->hv.var);
  std::memcpy(block->data, (*slot)->data, static_cast<size_t>(block->arr_len));
  array_free(*slot);
  *slot = block;
}

// Whether src holds one structure element small enough for the record.
bool inline_source(const QVA_VARIABLE *src) {
  if (!src || !(src->flags & QVA_V_STRUCT)) return false;
  if (var_inline(src)) return true;
  const QVA_ARRAY *a = src->value.s.arr;
  return a && fits_inline(src->value.s.sdef, a->n_elts, a->n_dim);
}

// Makes `value` hold src's one element inline in `rec` (moved from a
// temporary, else copied with its texts).  Raises with nothing made.
void build_inline(HeapVar *rec, QVA_VPTR src, bool move, QVA_VARIABLE *value) {
  QVA_SDEF sdef = src->value.s.sdef;
  std::memset(rec->hv.idata, 0, QVA_HV_INLINE_BYTES);
  std::memcpy(rec->hv.idata, struct_data(src), sdef->length);
  if (move) {
    array_free(src->value.s.arr);  // the texts moved with the bytes
    src->type = QVA_TYP_UNDEF;
    src->flags &= QVA_V_TEMP;
    src->value = QVA_ALLTYPES{};
  } else if (sdef->has_texts) {
    sdef_dup_texts(sdef, rec->hv.idata, 1);
  }
  value->type = QVA_TYP_STRUCT;
  value->flags = QVA_V_ARR | QVA_V_STRUCT;
  value->flags2 = QVA_V2_INLINE;
  value->value.s.arr = nullptr;
  value->value.s.sdef = sdef;
}

void check_object_source(QVA_VPTR src) {
  bool ok = src && (src->flags & QVA_V_STRUCT) && (var_inline(src) || src->value.s.arr) &&
            struct_count(src) == 1 && src->value.s.sdef &&
            !src->value.s.sdef->name_str.empty();
  if (!ok)
    raise_fmt(M_BAD_ARG, "An object must be made from one element of a named structure: %s.",
              var_label(src).c_str());
}

}  // namespace

bool fits_inline(QVA_SDEF sdef, QVA_MEMINT n_elts, int n_dim) {
  return sdef && n_elts == 1 && n_dim == 1 && sdef->length > 0 &&
         sdef->length <= QVA_HV_INLINE_BYTES;
}

HeapVar *heap_find(QVA_HVID id) {
  QVA_HEAP_VAR *page = g_directory[page_number(id)];
  if (!page) return nullptr;
  QVA_HEAP_VAR *rec = page + page_index(id);
  return rec->hash_id == id && id != 0 ? reinterpret_cast<HeapVar *>(rec) : nullptr;
}

namespace {

// The record for the next identifier, its page made when missing; null
// after reporting when the allocation fails or identifiers run out.  The
// identifier is issued by record_commit.
HeapVar *record_claim(Heap &h, int action, Page **page_out) {
  if (allocation_fails()) {
    message(M_NOMEM, action, "Unable to allocate memory: to make heap variable.");
    return nullptr;
  }
  if (h.next_id > UINT32_MAX) {
    message(M_HEAP_FULL, action, "Heap identifiers exhausted.");
    return nullptr;
  }
  auto id = static_cast<QVA_HVID>(h.next_id);
  try {
    *page_out = &page_for(h, id);
  } catch (const std::bad_alloc &) {
    message(M_NOMEM, action, "Unable to allocate memory: to make heap variable.");
    return nullptr;
  }
  return &(*page_out)->records[page_index(id)];
}

// Makes the claimed record live with the value built in it.
void record_commit(Heap &h, Page *page, HeapVar *rec, bool object) {
  rec->hv.hash_id = static_cast<QVA_HVID>(h.next_id++);
  rec->hv.flags = object ? QVA_HV_OBJECT : 0;
  page->live++;
  counters().heap_vars++;
  if (object) counters().objects++;
}

}  // namespace

HeapVar *heap_new(bool object, QVA_VPTR src, bool move, int action) {
  Heap &h = heap();
  Page *page;
  HeapVar *rec = record_claim(h, action, &page);
  if (!rec) return nullptr;
  // One small structure element goes into the record itself.  Otherwise a
  // small array goes to a small block, made before the value, so that an
  // array inside a temporary's own record, which cannot stay there, has
  // somewhere to go; when there is none, it goes to a block of its own.
  const bool in_record = inline_source(src);
  QVA_ARRAY *block = in_record ? nullptr : small_block_for(src, move);
  bool in_temp = move && src && array_slot(src) && ((*array_slot(src))->flags & kArrayInTemp);
  // The value next, built in the record (which is dead until committed, so
  // a failed copy leaves nothing behind; an empty page made above is freed
  // with the next identifiers of its range).
  QVA_VARIABLE &value = rec->hv.var;
  value = QVA_VARIABLE{};
  try {
    if (in_record)
      build_inline(rec, src, move, &value);
    else if (src && move)
      var_move_value(src, &value, block != nullptr || !in_temp);
    else if (src)
      var_copy_value(src, &value);
  } catch (const HostError &e) {
    if (block) small_block_free(block);
    message(e.code, action, e.text);
    return nullptr;
  }
  record_commit(h, page, rec, object);
  if (block) move_into_block(rec, block);
  return rec;
}

HeapVar *heap_new_zeroed(bool object, QVA_SDEF sdef, int action) {
  if (!fits_inline(sdef, 1, 1)) {
    // A larger element goes behind a descriptor, as any moved value does.
    QVA_VPTR tmp = nullptr;
    try {
      QVA_MakeTempStructVector(sdef, 1, &tmp, 1);
    } catch (const HostError &e) {
      message(e.code, action, e.text);
      return nullptr;
    }
    TempGuard guard(tmp);
    return heap_new(object, tmp, true, action);
  }
  Heap &h = heap();
  Page *page;
  HeapVar *rec = record_claim(h, action, &page);
  if (!rec) return nullptr;
  // Zero bytes are a valid element of any structure: null pointers, empty
  // texts, zero numbers.  The value is written field by field into the
  // record: built in a local first, its byte-sized fields would reach the
  // record through a wider load that cannot be forwarded from those stores.
  std::memset(rec->hv.idata, 0, QVA_HV_INLINE_BYTES);
  QVA_VARIABLE &value = rec->hv.var;
  value.type = QVA_TYP_STRUCT;
  value.flags = QVA_V_ARR | QVA_V_STRUCT;
  value.flags2 = QVA_V2_INLINE;
  value.reserved = 0;
  value.name = 0;
  value.value.s.arr = nullptr;
  value.value.s.sdef = sdef;
  record_commit(h, page, rec, object);
  return rec;
}

void heap_delete(QVA_HVID id) {
  Heap &h = heap();
  HeapVar *rec = heap_find(id);
  if (!rec) return;
  Page &page = *page_at(page_number(id));
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
    const Page *page = page_at(static_cast<uint32_t>(p));
    if (!page || page->live == 0) continue;
    for (const HeapVar &rec : page->records)
      if (rec.hv.hash_id) ids.push_back(rec.hv.hash_id);
  }
  return ids;
}

uint64_t heap_next_id() { return heap().next_id; }

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

// Published as a pointer, not as the array itself: a program that reads
// the table inline then copies 8 bytes at start-up, not the directory.
QVA_HEAP_VAR *const *const QVA_HeapPages = qvahost::g_directory;

using namespace qvahost;

namespace {

// Whether `type` names a kind of heap variable; reported when not.
bool heap_type_ok(int type, int action) {
  if (type == QVA_TYP_PTR || type == QVA_TYP_OBJREF) return true;
  message(M_BAD_ARG, action, format("Heap variables are pointers or objects, not type code %d.", type));
  return false;
}

}  // namespace

QVA_HVPTR QVA_HeapVarNew(int type, QVA_VPTR src, int steal, int action) {
  if (!heap_type_ok(type, action)) return nullptr;
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

QVA_HVPTR QVA_HeapVarNewStruct(int type, QVA_SDEF sdef, int action) {
  if (!heap_type_ok(type, action)) return nullptr;
  if (!sdef) {
    message(M_STRUCT_UNKNOWN, action, "Structure type not defined: <none>.");
    return nullptr;
  }
  bool object = type == QVA_TYP_OBJREF;
  if (object && sdef->name_str.empty()) {
    message(M_BAD_ARG, action, "An object must be made from one element of a named structure.");
    return nullptr;
  }
  HeapVar *h = heap_new_zeroed(object, sdef, action);
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
