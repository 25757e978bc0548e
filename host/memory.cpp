// The host allocator, the failing-allocation hook and the live counters.
//
// Small blocks (up to kMaxPooled bytes) come from size-class free lists
// carved out of 1 MiB slabs; every such block has a 16-byte header with a
// magic word saying whether it is live or free and which allocator API made
// it.  Slab memory is never handed back, so a header can always be read:
// freeing twice, or freeing a pointer the host never handed out, is a
// contract violation instead of heap corruption.  Whether an address lies in
// a slab is answered by a radix map of slab numbers, without touching the
// address itself.  Larger blocks go to malloc and are tracked in a table.
//
// Under AddressSanitizer, headers and free blocks are poisoned, so a module
// that overruns a pooled block is still caught.
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
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

class SlabMap {
 public:
  bool contains(uintptr_t addr) const {
    uintptr_t n = addr >> kSlabBits;
    if (n >> kSlabNumberBits) return false;
    const uint64_t *leaf = root_[n >> kLeafBits].get();
    if (!leaf) return false;
    size_t bit = n & ((size_t{1} << kLeafBits) - 1);
    return (leaf[bit / 64] >> (bit % 64)) & 1;
  }
  bool add(uintptr_t base) {
    uintptr_t n = base >> kSlabBits;
    if (n >> kSlabNumberBits) return false;
    auto &leaf = root_[n >> kLeafBits];
    if (!leaf) {
      leaf.reset(new (std::nothrow) uint64_t[kLeafWords]());
      if (!leaf) return false;
    }
    size_t bit = n & ((size_t{1} << kLeafBits) - 1);
    leaf[bit / 64] |= uint64_t{1} << (bit % 64);
    return true;
  }

 private:
  std::unique_ptr<uint64_t[]> root_[size_t{1} << kRootBits];
};

struct Allocator {
  SlabMap slabs;
  char *bump = nullptr;  // next unused byte of the current slab
  char *bump_end = nullptr;
  Header *free_lists[kClasses] = {};
  std::unordered_map<void *, Kind> large;  // malloc'd blocks and their kind
};

Allocator &allocator() {
  static Allocator *a = new Allocator;  // lives as long as the process
  return *a;
}

Counters g_counters;
int64_t g_fail_countdown = 0;  // 0: hook off
int64_t g_since_hook = 0;

bool new_slab(Allocator &a) {
  void *slab = std::aligned_alloc(kSlabSize, kSlabSize);
  if (!slab) return false;
  if (!a.slabs.add(reinterpret_cast<uintptr_t>(slab))) {
    std::free(slab);
    return false;
  }
  QVA_POISON(slab, kSlabSize);
  a.bump = static_cast<char *>(slab);
  a.bump_end = a.bump + kSlabSize;
  return true;
}

void *block_alloc(size_t size, Kind kind) {
  Allocator &a = allocator();
  if (size > kMaxPooled) {
    void *p = size <= kMaxBlock ? std::malloc(size) : nullptr;
    if (!p) return nullptr;
    try {
      a.large.emplace(p, kind);
    } catch (const std::bad_alloc &) {
      std::free(p);
      return nullptr;
    }
    return p;
  }
  uint32_t cls = size == 0 ? 0 : static_cast<uint32_t>((size - 1) / kAlign);
  size_t payload = (cls + 1) * kAlign;
  Header *h = a.free_lists[cls];
  if (h) {
    a.free_lists[cls] = header_next(h);
  } else {
    if (static_cast<size_t>(a.bump_end - a.bump) < kHeader + payload && !new_slab(a))
      return nullptr;
    h = reinterpret_cast<Header *>(a.bump);
    a.bump += kHeader + payload;
  }
  header_set(h, kind, cls, nullptr);
  void *p = reinterpret_cast<char *>(h) + kHeader;
  QVA_UNPOISON(p, size);
  return p;
}

// Frees a block of `kind` and returns true; a pointer that is not a live
// block of that kind is reported (with `api` and `label` naming the caller),
// left alone, and false is returned.
bool block_free(void *p, Kind kind, const char *api, const char *label) {
  Allocator &a = allocator();
  auto addr = reinterpret_cast<uintptr_t>(p);
  auto misuse = [&](const char *why) {
    char buf[256];
    std::snprintf(buf, sizeof buf, "%s(%s): %p %s", api, label ? label : "", p, why);
    contract_violation(buf);
    return false;
  };
  if (a.slabs.contains(addr)) {
    uintptr_t base = addr & ~(kSlabSize - 1);
    if (addr % kAlign != 0 || addr - base < kHeader)
      return misuse("is not a block of the host allocator");
    auto *h = reinterpret_cast<Header *>(addr - kHeader);
    Kind k = header_kind(h);
    if (k == Kind::Free) return misuse("was freed already");
    if (k != Kind::Qva && k != Kind::Raw) return misuse("is not a block of the host allocator");
    if (k != kind) return misuse("belongs to the other allocator interface");
    uint32_t cls = header_class(h);
    if (cls >= kClasses) return misuse("has a damaged block header");
    header_set(h, Kind::Free, cls, a.free_lists[cls]);
    a.free_lists[cls] = h;
    QVA_POISON(p, (cls + 1) * kAlign);
    return true;
  }
  auto it = a.large.find(p);
  if (it == a.large.end()) return misuse("is not a live block of the host allocator");
  if (it->second != kind) return misuse("belongs to the other allocator interface");
  a.large.erase(it);
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
