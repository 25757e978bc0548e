// The host allocator, the failing-allocation hook and the live counters.
//
// Small blocks (up to kMaxPooled bytes) come from size classes.  Each class
// carves 64 KiB pages of its own, cut from 1 MiB slabs, and every page keeps
// its own free list and count of live blocks.  A class allocates from one
// current page until it is full, then from another page with room; a page
// whose last block is freed starts carving again from its beginning.  So a
// structure built after a large one was freed gets blocks that lie side by
// side in a few pages, not scattered over all the memory the large one had.
//
// Every small block has a 16-byte header with a magic word saying whether
// it is live or free and which allocator API made it.  Slab memory is never
// handed back and a page never changes class, so wherever a block once was,
// a header can always be read: freeing twice, or freeing a pointer the host
// never handed out, is a contract violation instead of heap corruption.
// Whether an address lies in a slab is answered by a radix map of slab
// numbers, without touching the address itself.  Larger blocks go to malloc
// and are tracked in a table.
//
// Under AddressSanitizer, headers and free blocks are poisoned, so a module
// that overruns a pooled block is still caught.
#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "asan.h"
#include "internal.h"


namespace qvahost {
namespace {

constexpr size_t kAlign = 16;
constexpr size_t kHeader = 16;
constexpr size_t kMaxPooled = 1024;
constexpr size_t kClasses = kMaxPooled / kAlign;
constexpr unsigned kSlabBits = 20;
constexpr size_t kSlabSize = size_t{1} << kSlabBits;
constexpr unsigned kPageBits = 16;
constexpr size_t kPageSize = size_t{1} << kPageBits;
// A page starts with its Page record; its blocks follow from kPageHeader
// on, so that 64-byte blocks (48-byte payloads) fill whole cache lines.
constexpr size_t kPageHeader = 64;
constexpr size_t kMaxBlock = size_t{1} << 40;  // larger requests are refused outright
static_assert(alignof(std::max_align_t) >= kAlign, "malloc must align to 16");

// Which API a block belongs to; freeing through the other one is a misuse.
enum class Kind : uint32_t { Qva = 0x51A7B10C, Raw = 0x51A7B10D, Free = 0xF4EEB10C };

struct Header {
  Kind magic;
  uint32_t size_class;  // payload is (size_class + 1) * 16 bytes
  Header *next_free;    // only while free
};
static_assert(sizeof(Header) == kHeader);

// Header accessors read poisoned memory on purpose.
QVA_NO_ASAN Kind header_kind(const Header *h) { return h->magic; }
QVA_NO_ASAN uint32_t header_class(const Header *h) { return h->size_class; }
QVA_NO_ASAN Header *header_next(const Header *h) { return h->next_free; }
QVA_NO_ASAN void header_set(Header *h, Kind k, uint32_t cls, Header *next) {
  h->magic = k;
  h->size_class = cls;
  h->next_free = next;
}

// Radix map of slab numbers (address >> kSlabBits) over a 48-bit address
// space: 2^14 lazily made leaves of 2^14 bits each.
constexpr unsigned kSlabNumberBits = 48 - kSlabBits;
constexpr unsigned kLeafBits = 14;
constexpr unsigned kRootBits = kSlabNumberBits - kLeafBits;
constexpr size_t kLeafWords = (size_t{1} << kLeafBits) / 64;

// Leaves are never freed: the map stays usable while the process exits.
class SlabMap {
 public:
  bool contains(uintptr_t addr) const {
    uintptr_t n = addr >> kSlabBits;
    if (n >> kSlabNumberBits) return false;
    const uint64_t *leaf = root_[n >> kLeafBits];
    if (!leaf) return false;
    size_t bit = n & ((size_t{1} << kLeafBits) - 1);
    return (leaf[bit / 64] >> (bit % 64)) & 1;
  }
  bool add(uintptr_t base) {
    uintptr_t n = base >> kSlabBits;
    if (n >> kSlabNumberBits) return false;
    uint64_t *&leaf = root_[n >> kLeafBits];
    if (!leaf) {
      leaf = new (std::nothrow) uint64_t[kLeafWords]();
      if (!leaf) return false;
    }
    size_t bit = n & ((size_t{1} << kLeafBits) - 1);
    leaf[bit / 64] |= uint64_t{1} << (bit % 64);
    return true;
  }

 private:
  uint64_t *root_[size_t{1} << kRootBits] = {};
};

// The record at the start of every page.  Blocks are carved at a fixed
// stride from kPageHeader on; `bump` is where carving goes on, `high` how
// far it ever went (blocks below it have headers, live or free).
struct Page {
  Header *free;  // freed blocks of this page
  char *bump, *end, *high;
  Page *prev, *next;  // the class's list of pages with room
  uint32_t cls;
  uint32_t used;  // live blocks
  bool listed;    // on the class's list
};
static_assert(sizeof(Page) <= kPageHeader);

// The pooled blocks.  Trivially destructible, so that blocks can still be
// freed while static objects are destroyed at exit.
struct Pools {
  SlabMap slabs;
  char *pages = nullptr;  // the pages of the current slab not yet given out
  char *pages_end = nullptr;
  Page *current[kClasses] = {};  // where each class allocates
  Page *room[kClasses] = {};     // other pages of the class with free blocks
};
constinit Pools g_pools;

// malloc'd blocks and their kind.
std::unordered_map<void *, Kind> &large_blocks() {
  static auto *large = new std::unordered_map<void *, Kind>;  // lives as long as the process
  return *large;
}

Counters g_counters;
int64_t g_fail_countdown = 0;  // 0: hook off
int64_t g_since_hook = 0;

constexpr size_t block_stride(uint32_t cls) { return kHeader + (cls + 1) * kAlign; }
char *page_blocks(Page *pg) { return reinterpret_cast<char *>(pg) + kPageHeader; }

// Whether an offset within a page's blocks starts a block of class `cls`,
// without a division: offsets are below 2^16 and strides below 2^11, so
// multiplying by ceil(2^32 / stride) and keeping the high half divides
// exactly.
constexpr uint64_t stride_reciprocal(uint32_t cls) {
  return ((uint64_t{1} << 32) + block_stride(cls) - 1) / block_stride(cls);
}
bool on_block_boundary(size_t offset, uint32_t cls) {
  static constexpr auto reciprocals = [] {
    std::array<uint64_t, kClasses> r{};
    for (uint32_t c = 0; c < kClasses; ++c) r[c] = stride_reciprocal(c);
    return r;
  }();
  size_t index = (offset * reciprocals[cls]) >> 32;
  return index * block_stride(cls) == offset;
}
static_assert(kPageSize <= (size_t{1} << 16) && block_stride(kClasses - 1) < (size_t{1} << 11));

bool new_slab(Pools &a) {
  void *slab = std::aligned_alloc(kSlabSize, kSlabSize);
  if (!slab) return false;
  if (!a.slabs.add(reinterpret_cast<uintptr_t>(slab))) {
    std::free(slab);
    return false;
  }
  QVA_POISON(slab, kSlabSize);
  a.pages = static_cast<char *>(slab);
  a.pages_end = a.pages + kSlabSize;
  return true;
}

Page *new_page(Pools &a, uint32_t cls) {
  if (a.pages == a.pages_end && !new_slab(a)) return nullptr;
  char *base = a.pages;
  a.pages += kPageSize;
  QVA_UNPOISON(base, kPageHeader);
  auto *pg = reinterpret_cast<Page *>(base);
  size_t stride = block_stride(cls);
  char *first = base + kPageHeader;
  *pg = Page{nullptr, first, first + (kPageSize - kPageHeader) / stride * stride, first,
             nullptr, nullptr, cls, 0, false};
  return pg;
}

void unlist(Pools &a, Page *pg) {
  (pg->prev ? pg->prev->next : a.room[pg->cls]) = pg->next;
  if (pg->next) pg->next->prev = pg->prev;
  pg->prev = pg->next = nullptr;
  pg->listed = false;
}

void list(Pools &a, Page *pg) {
  pg->prev = nullptr;
  pg->next = a.room[pg->cls];
  if (pg->next) pg->next->prev = pg;
  a.room[pg->cls] = pg;
  pg->listed = true;
}

// A free block of class `cls` from the current page, or from the next page
// with room once the current one is full.
Header *take_block(Pools &a, uint32_t cls) {
  for (;;) {
    Page *pg = a.current[cls];
    if (pg) {
      Header *h = pg->free;
      if (h) {
        pg->free = header_next(h);
      } else if (pg->bump != pg->end) {
        h = reinterpret_cast<Header *>(pg->bump);
        pg->bump += block_stride(cls);
        if (pg->bump > pg->high) pg->high = pg->bump;
      }
      if (h) {
        pg->used++;
        return h;
      }
    }
    Page *next = a.room[cls];
    if (next) {
      unlist(a, next);
    } else if (!(next = new_page(a, cls))) {
      return nullptr;
    }
    a.current[cls] = next;  // a full page leaves no trace until a block of it is freed
  }
}

void *block_alloc(size_t size, Kind kind) {
  if (size > kMaxPooled) {
    void *p = size <= kMaxBlock ? std::malloc(size) : nullptr;
    if (!p) return nullptr;
    try {
      large_blocks().emplace(p, kind);
    } catch (const std::bad_alloc &) {
      std::free(p);
      return nullptr;
    }
    return p;
  }
  uint32_t cls = size == 0 ? 0 : static_cast<uint32_t>((size - 1) / kAlign);
  Header *h = take_block(g_pools, cls);
  if (!h) return nullptr;
  header_set(h, kind, cls, nullptr);
  void *p = reinterpret_cast<char *>(h) + kHeader;
  QVA_UNPOISON(p, size);
  return p;
}

// Returns a block to its page.  A page that holds no live block any more
// carves again from its start; one that was full gets on its class's list.
void page_release(Pools &a, Page *pg, Header *h) {
  if (--pg->used == 0) {
    header_set(h, Kind::Free, pg->cls, nullptr);
    pg->free = nullptr;  // its blocks stay marked free
    pg->bump = page_blocks(pg);
  } else {
    header_set(h, Kind::Free, pg->cls, pg->free);
    pg->free = h;
  }
  if (!pg->listed && a.current[pg->cls] != pg) list(a, pg);
}

// Reports a free of something that is not a live block of its kind.
[[gnu::cold, gnu::noinline]] bool misused_free(void *p, const char *api, const char *label,
                                               const char *why) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%s(%s): %p %s", api, label ? label : "", p, why);
  contract_violation(buf);
  return false;
}

// Frees a block of `kind` and returns true; a pointer that is not a live
// block of that kind is reported (with `api` and `label` naming the caller),
// left alone, and false is returned.
bool block_free(void *p, Kind kind, const char *api, const char *label) {
  Pools &a = g_pools;
  auto addr = reinterpret_cast<uintptr_t>(p);
  auto misuse = [=](const char *why) { return misused_free(p, api, label, why); };
  if (a.slabs.contains(addr)) {
    // Pages of a slab are given out in order: those not given out yet lie
    // from the page cursor of the current slab on.
    auto *pg = reinterpret_cast<Page *>(addr & ~(kPageSize - 1));
    char *at = reinterpret_cast<char *>(addr);
    auto *page = reinterpret_cast<char *>(pg);
    bool given_out = page < a.pages || page >= a.pages_end;
    if (!given_out || at < page_blocks(pg) + kHeader || at - kHeader >= pg->high ||
        !on_block_boundary(static_cast<size_t>(at - kHeader - page_blocks(pg)), pg->cls))
      return misuse("is not a block of the host allocator");
    auto *h = reinterpret_cast<Header *>(at - kHeader);
    Kind k = header_kind(h);
    if (k == Kind::Free) return misuse("was freed already");
    if (k != Kind::Qva && k != Kind::Raw) return misuse("is not a block of the host allocator");
    if (k != kind) return misuse("belongs to the other allocator interface");
    if (header_class(h) != pg->cls) return misuse("has a damaged block header");
    page_release(a, pg, h);
    QVA_POISON(p, (pg->cls + 1) * kAlign);
    return true;
  }
  auto &large = large_blocks();
  auto it = large.find(p);
  if (it == large.end()) return misuse("is not a live block of the host allocator");
  if (it->second != kind) return misuse("belongs to the other allocator interface");
  large.erase(it);
  std::free(p);
  return true;
}

void *qva_alloc(size_t size) {
  if (allocation_fails()) return nullptr;
  void *p = block_alloc(size, Kind::Qva);
  if (p) g_counters.allocations++;
  return p;
}

void qva_free(void *p, const char *api, const char *label) {
  if (p && block_free(p, Kind::Qva, api, label)) g_counters.allocations--;
}

}  // namespace

Counters &counters() { return g_counters; }

bool allocation_fails() {
  ++g_since_hook;
  return g_fail_countdown > 0 && --g_fail_countdown == 0;
}

void fail_allocation_after(int64_t n) {
  g_fail_countdown = n > 0 ? n : 0;
  g_since_hook = 0;
}

int64_t allocations_since_hook() { return g_since_hook; }

void *raw_alloc(size_t size, bool hooked) {
  if (hooked && allocation_fails()) return nullptr;
  return block_alloc(size, Kind::Raw);
}

void raw_free(void *p) {
  if (p) block_free(p, Kind::Raw, "raw_free", "host record");
}

Accounting accounting() {
  const Counters &c = g_counters;
  return Accounting{c.temporaries, c.heap_vars, c.objects, c.allocations, c.texts, c.violations};
}

std::string to_string(const Accounting &a) {
  return format("temporaries=%" PRId64 " heap_vars=%" PRId64 " objects=%" PRId64
                " allocations=%" PRId64 " texts=%" PRId64 " violations=%" PRId64,
                a.temporaries, a.heap_vars, a.objects, a.allocations, a.texts, a.violations);
}

void contract_violation(const std::string &what) {
  g_counters.violations++;
  std::fprintf(stderr, "QVA host contract violation: %s\n", what.c_str());
  std::fflush(stderr);
}

}  // namespace qvahost

namespace qvahost {
void raise_out_of_memory() { raise(M_NOMEM, "Unable to allocate memory: to make a memory block."); }
}  // namespace qvahost

using qvahost::raise_fmt;

void *QVA_MemAllocMSG_LONGJMP(size_t size, const char *label) {
  void *p = qvahost::qva_alloc(size);
  if (!p)
    raise_fmt(qvahost::M_NOMEM, "Unable to allocate memory: to make %s.",
              label && *label ? label : "a memory block");
  return p;
}

void *QVA_MemAllocQuiet(size_t size) { return qvahost::qva_alloc(size); }

void QVA_MemFreeQuiet(void *p) { qvahost::qva_free(p, "QVA_MemFreeQuiet", nullptr); }

void QVA_MemFreeMSG_RET(void *p, const char *label) {
  qvahost::qva_free(p, "QVA_MemFreeMSG_RET", label);
}

void QVA_MemFreeMSG_INFO(void *p, const char *label) {
  qvahost::qva_free(p, "QVA_MemFreeMSG_INFO", label);
}
