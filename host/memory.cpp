// The host allocator, the failing-allocation hook and the live counters.
//
// Small blocks (up to kMaxPooled bytes) come from size classes.  Each class
// of each allocator interface (QVA_MemAlloc*, the host's raw records)
// carves 64 KiB pages of its own, cut from 1 MiB slabs, and every page
// keeps its own free list and count of live blocks.  A class allocates
// from one current page until it is full, then from another page with
// room; a page whose last block is freed starts carving again from its
// beginning.  So a structure built after a large one was freed gets blocks
// that lie side by side in a few pages, not scattered over all the memory
// the large one had.
//
// Blocks carry no header: they lie back to back, and what a free must know
// is kept per page.  The page's record at its start says the class and the
// interface of all its blocks, and a bitmap there has one bit per 16 bytes
// of the page, set where a live block starts.  A free finds the page by
// aligning the address down and checks the bit, so freeing twice, freeing
// through the other interface or freeing a pointer the host never handed
// out is a contract violation instead of heap corruption.  Slab memory is
// never handed back and a page never changes class.  Whether an address
// lies in a slab is answered by a radix map of slab numbers, without
// touching the address itself.  Larger blocks go to malloc and are tracked
// in a table.
//
// Under AddressSanitizer every block is preceded by a 16-byte poisoned
// gap and free blocks are poisoned, so a module that overruns a pooled
// block is still caught.
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
constexpr size_t kMaxPooled = 1024;
constexpr size_t kClasses = kMaxPooled / kAlign;
constexpr unsigned kSlabBits = 20;
constexpr size_t kSlabSize = size_t{1} << kSlabBits;
constexpr unsigned kPageBits = 16;
constexpr size_t kPageSize = size_t{1} << kPageBits;
#if defined(QVA_ASAN)
constexpr size_t kGap = 16;  // poisoned bytes before each block
#else
constexpr size_t kGap = 0;
#endif
constexpr size_t kMaxBlock = size_t{1} << 40;  // larger requests are refused outright
static_assert(alignof(std::max_align_t) >= kAlign, "malloc must align to 16");

// Which API a block belongs to; freeing through the other one is a misuse.
enum class Kind : uint32_t { Qva = 0, Raw = 1 };
constexpr size_t kKinds = 2;

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

// The record at the start of every page; its blocks follow it.  Blocks are
// carved at a fixed stride, `bump` is where carving goes on, `high` how far
// it ever went (blocks below it were handed out once, live or free).
// `live` has bit i set when a live block starts at byte 16 * i of the page.
// A free block holds the next one of the page's free list in its first word.
struct Page {
  void *free;  // freed blocks of this page
  char *bump, *end, *high;
  Page *prev, *next;  // the pages with room of the same class and kind
  uint32_t cls;
  Kind kind;
  uint32_t used;  // live blocks
  bool listed;    // on its class's list
  alignas(64) uint64_t live[kPageSize / kAlign / 64];
};
constexpr size_t kBlocksStart = sizeof(Page);
static_assert(kBlocksStart % 64 == 0, "blocks start on a cache line");

// The pooled blocks.  Trivially destructible, so that blocks can still be
// freed while static objects are destroyed at exit.
struct Pools {
  SlabMap slabs;
  char *pages = nullptr;  // the pages of the current slab not yet given out
  char *pages_end = nullptr;
  Page *current[kKinds][kClasses] = {};  // where each class allocates
  Page *room[kKinds][kClasses] = {};     // other pages of the class with free blocks
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

constexpr size_t block_size(uint32_t cls) { return (cls + 1) * kAlign; }
constexpr size_t block_stride(uint32_t cls) { return kGap + block_size(cls); }
char *page_blocks(Page *pg) { return reinterpret_cast<char *>(pg) + kBlocksStart + kGap; }
static_assert(sizeof(Page::live) * 8 == kPageSize / kAlign, "one live bit per 16 bytes");

// The live bit of the block starting at `p`, as a word of the bitmap and a
// mask in it.
struct LiveBit {
  uint64_t *word;
  uint64_t mask;
};
LiveBit live_bit(Page *pg, const void *p) {
  size_t granule = (reinterpret_cast<uintptr_t>(p) & (kPageSize - 1)) / kAlign;
  return {&pg->live[granule / 64], uint64_t{1} << (granule % 64)};
}

// A free block's link to the next; free blocks are poisoned.
QVA_NO_ASAN void *next_free(const void *block) { return *static_cast<void *const *>(block); }
QVA_NO_ASAN void set_next_free(void *block, void *next) { *static_cast<void **>(block) = next; }

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

Page *new_page(Pools &a, Kind kind, uint32_t cls) {
  if (a.pages == a.pages_end && !new_slab(a)) return nullptr;
  char *base = a.pages;
  a.pages += kPageSize;
  QVA_UNPOISON(base, kBlocksStart);
  auto *pg = new (base) Page{};
  size_t stride = block_stride(cls);
  char *first = page_blocks(pg);
  pg->bump = pg->high = first;
  pg->end = first + (kPageSize - kBlocksStart - kGap) / stride * stride;
  pg->cls = cls;
  pg->kind = kind;
  return pg;
}

void unlist(Pools &a, Page *pg) {
  (pg->prev ? pg->prev->next : a.room[size_t(pg->kind)][pg->cls]) = pg->next;
  if (pg->next) pg->next->prev = pg->prev;
  pg->prev = pg->next = nullptr;
  pg->listed = false;
}

void list(Pools &a, Page *pg) {
  Page *&room = a.room[size_t(pg->kind)][pg->cls];
  pg->prev = nullptr;
  pg->next = room;
  if (pg->next) pg->next->prev = pg;
  room = pg;
  pg->listed = true;
}

// A block of class `cls` from the current page of the class, or from the
// next page with room once the current one is full; marked live.
void *take_block(Pools &a, Kind kind, uint32_t cls) {
  Page *&current = a.current[size_t(kind)][cls];
  for (;;) {
    Page *pg = current;
    if (pg) {
      void *b = pg->free;
      if (b) {
        pg->free = next_free(b);
      } else if (pg->bump != pg->end) {
        b = pg->bump;
        pg->bump += block_stride(cls);
        if (pg->bump > pg->high) pg->high = pg->bump;
      }
      if (b) {
        pg->used++;
        LiveBit bit = live_bit(pg, b);
        *bit.word |= bit.mask;
        return b;
      }
    }
    Page *next = a.room[size_t(kind)][cls];
    if (next) {
      unlist(a, next);
    } else if (!(next = new_page(a, kind, cls))) {
      return nullptr;
    }
    current = next;  // a full page leaves no trace until a block of it is freed
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
  void *p = take_block(g_pools, kind, cls);
  if (p) QVA_UNPOISON(p, size);
  return p;
}

// Returns a live block to its page.  A page that holds no live block any
// more carves again from its start; one that was full gets on its class's
// list.
void page_release(Pools &a, Page *pg, void *p, LiveBit bit) {
  *bit.word &= ~bit.mask;
  QVA_POISON(p, block_size(pg->cls));
  if (--pg->used == 0) {
    pg->free = nullptr;
    pg->bump = page_blocks(pg);
  } else {
    set_next_free(p, pg->free);
    pg->free = p;
  }
  if (!pg->listed && a.current[size_t(pg->kind)][pg->cls] != pg) list(a, pg);
}

// Reports a free of something that is not a live block of its kind.
[[gnu::cold, gnu::noinline]] bool misused_free(void *p, const char *api, const char *label,
                                               const char *why) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%s(%s): %p %s", api, label ? label : "", p, why);
  contract_violation(buf);
  return false;
}

// Why `p`, in a page given out whose live bit for it is clear, is no live
// block: a block the page handed out once is free now, else `p` is no
// block at all.
[[gnu::cold, gnu::noinline]] const char *not_live(Page *pg, const char *p) {
  const char *first = page_blocks(pg);
  bool a_block =
      p >= first && p < pg->high && static_cast<size_t>(p - first) % block_stride(pg->cls) == 0;
  return a_block ? "was freed already" : "is not a block of the host allocator";
}

// Frees a block of `kind` and returns true; a pointer that is not a live
// block of that kind is reported (with `api` and `label` naming the caller),
// left alone, and false is returned.
bool block_free(void *p, Kind kind, const char *api, const char *label) {
  Pools &a = g_pools;
  auto addr = reinterpret_cast<uintptr_t>(p);
  if (a.slabs.contains(addr)) {
    // Pages of a slab are given out in order: those not given out yet lie
    // from the page cursor of the current slab on, and hold no record.
    auto *pg = reinterpret_cast<Page *>(addr & ~(kPageSize - 1));
    auto *page = reinterpret_cast<char *>(pg);
    if (page >= a.pages && page < a.pages_end)
      return misused_free(p, api, label, "is not a block of the host allocator");
    LiveBit bit = live_bit(pg, p);
    // Bits are set only where blocks start, and the record below the first
    // block has none; a pointer into a block's first 16 bytes shares its
    // bit but is not aligned.
    if ((addr & (kAlign - 1)) != 0 || !(*bit.word & bit.mask))
      return misused_free(p, api, label, not_live(pg, static_cast<char *>(p)));
    if (pg->kind != kind)
      return misused_free(p, api, label, "belongs to the other allocator interface");
    page_release(a, pg, p, bit);
    return true;
  }
  auto &large = large_blocks();
  auto it = large.find(p);
  if (it == large.end())
    return misused_free(p, api, label, "is not a live block of the host allocator");
  if (it->second != kind)
    return misused_free(p, api, label, "belongs to the other allocator interface");
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
