// Small array blocks: the storage of the small arrays (tree nodes, most
// objects) that heap variables hold, in size classes carved from large
// chunks.
//
// A block holds a short descriptor, the fields of QVA_ARRAY up to and
// including dim[0], and the data right after it: a one-dimensional array
// needs no more, since no code reads dimensions past n_dim.  Next to a
// block of its own from the system allocator this saves the unused
// dimensions (56 bytes) and the allocator's own overhead, and a freed block
// is reused by the next array of its class at the cost of a list pop.
// Chunks are kept for the life of the process.
#include <cstring>

#include "internal.h"

namespace qvahost {
namespace {

constexpr size_t kHeader = offsetof(QVA_ARRAY, dim) + sizeof(QVA_MEMINT);
constexpr size_t kGranule = 16;
constexpr size_t kClasses = kSmallBlockData / kGranule;
constexpr size_t kChunkBytes = size_t{64} << 10;
static_assert(kHeader % kGranule == 0, "the data of a block starts 16-byte aligned");
static_assert(kSmallBlockData % kGranule == 0);

struct FreeBlock {
  FreeBlock *next;
};

struct Chunk {
  Chunk *next;  // every chunk made, so that they stay reachable
};

struct Classes {
  FreeBlock *free[kClasses];
  char *cursor[kClasses];  // the unused rest of the chunk this class carves
  char *end[kClasses];
  Chunk *chunks;
};
constinit Classes g_classes{};

size_t class_of(size_t bytes) { return (bytes + kGranule - 1) / kGranule - 1; }
size_t block_size(size_t cls) { return kHeader + (cls + 1) * kGranule; }

void *carve(size_t cls) {
  Classes &c = g_classes;
  size_t size = block_size(cls);
  if (static_cast<size_t>(c.end[cls] - c.cursor[cls]) < size) {
    auto *chunk = static_cast<char *>(raw_alloc(kChunkBytes, false));
    if (!chunk) return nullptr;
    reinterpret_cast<Chunk *>(chunk)->next = c.chunks;
    c.chunks = reinterpret_cast<Chunk *>(chunk);
    c.cursor[cls] = chunk + kGranule;
    c.end[cls] = chunk + kChunkBytes;
  }
  void *block = c.cursor[cls];
  c.cursor[cls] += size;
  return block;
}

}  // namespace

QVA_ARRAY *small_block_new(QVA_MEMINT elt_len, QVA_MEMINT n) {
  QVA_MEMINT bytes;
  if (elt_len <= 0 || n <= 0 || __builtin_mul_overflow(elt_len, n, &bytes) ||
      bytes > static_cast<QVA_MEMINT>(kSmallBlockData))
    return nullptr;
  size_t cls = class_of(static_cast<size_t>(bytes));
  void *block;
  if (FreeBlock *f = g_classes.free[cls]) {
    g_classes.free[cls] = f->next;
    block = f;
  } else if (!(block = carve(cls))) {
    return nullptr;
  }
  auto *a = static_cast<QVA_ARRAY *>(block);
  a->elt_len = elt_len;
  a->arr_len = bytes;
  a->n_elts = n;
  a->data = static_cast<QVA_UCHAR *>(block) + kHeader;
  a->n_dim = 1;
  a->flags = kArrayInSmallBlock;
  a->dim[0] = n;
  std::memset(a->data, 0, (cls + 1) * kGranule);
  return a;
}

void small_block_free(QVA_ARRAY *a) {
  size_t cls = class_of(static_cast<size_t>(a->arr_len));
  auto *f = reinterpret_cast<FreeBlock *>(a);
  f->next = g_classes.free[cls];
  g_classes.free[cls] = f;
}

}  // namespace qvahost
