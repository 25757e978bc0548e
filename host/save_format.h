// save_format.h - the layout of a session save file, shared by the writer
// and the reader.
//
//   magic "QVASAVE\0", u32 version
//   u32 n, then n structure definitions (a definition's superclass and the
//          structures of its fields always come earlier in the list)
//   u32 n, then n heap variables: u32 saved hvid, u32 flags, value
//   u32 n, then n variables: name, value
//   u32 CRC-32 of every byte before it
//
// Integers are little-endian.  A name or text is u32 length + bytes.
// Definition: name ("" for an anonymous structure), u8 hidden, i32 index of
//   the inherited definition (-1: none), u32 count of its own fields, each:
//   name, u8 type, i32 index of the field's structure (-1 unless type 8),
//   u8 number of dimensions (0: scalar), i64 each dimension.
// Value: u8 type; type 0 ends it.  Then u8 shape (0 scalar, 1 array,
//   2 structure array); arrays give u8 dimension count and i64 dimensions,
//   structure arrays first a u32 definition index.  Then the elements:
//   BYTE 1 byte, INT 2, LONG 4, DOUBLE 8 (IEEE bits), LONG64 8, STRING a
//   text, PTR and OBJREF the u32 saved hvid (0: null); a structure element
//   is its fields in order, each as its elements.
#pragma once

#include <cstdlib>
#include <cstring>
#include <new>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "internal.h"

namespace qvahost::savefile {

inline constexpr char kMagic[8] = {'Q', 'V', 'A', 'S', 'A', 'V', 'E', '\0'};
inline constexpr uint32_t kVersion = 1;

// Limits on the structure definitions of a file.  The writer refuses to
// write, and the reader refuses to read, a definition beyond any of them,
// so that SAVE never writes a file that RESTORE would refuse.
inline constexpr int kMaxStructDepth = 32;                       // nesting of structures in fields
inline constexpr uint64_t kMaxFieldElements = uint64_t{1} << 24;  // elements of one field
inline constexpr uint64_t kMaxStructBytes = uint64_t{1} << 40;   // fewest bytes of one element

// Bytes the smallest encoding of one element of a plain type takes (a text
// is at least its length word).
inline uint64_t min_encoded(int type) { return type == QVA_TYP_STRING ? 4 : type_size(type); }

// What the limits look at in one definition, gathered field by field
// (inherited fields included): how deep its structure fields nest, and
// the fewest bytes one element takes in a file.
struct DefinitionMeasure {
  int depth = 1;
  uint64_t min_bytes = 0;
  // A field of n_elts elements (n_elts <= kMaxFieldElements) of at least
  // elt_bytes each; sub_depth is the depth of a structure field's
  // definition, 0 for a plain field.
  void add_field(uint64_t n_elts, uint64_t elt_bytes, int sub_depth) {
    if (sub_depth + 1 > depth) depth = sub_depth + 1;
    uint64_t bytes;
    if (__builtin_mul_overflow(n_elts, elt_bytes, &bytes) ||
        __builtin_add_overflow(min_bytes, bytes, &min_bytes))
      min_bytes = UINT64_MAX;
  }
  // What breaks a limit, or nullptr.
  const char *problem() const {
    if (depth > kMaxStructDepth) return "structures nested too deeply";
    if (min_bytes > kMaxStructBytes) return "structure too large";
    return nullptr;
  }
};

enum Shape : uint8_t { kScalar = 0, kArray = 1, kStructArray = 2 };

uint32_t crc32(const uint8_t *data, size_t size);

uint32_t crc32_update(uint32_t crc, const uint8_t *data, size_t size);

// Appends encoded values to a byte buffer, keeping the checksum of
// everything written.  With a sink, the buffer is handed to the sink
// whenever it holds kSpill bytes, so that a large save never sits in
// memory whole; without one it grows by doubling with realloc (which moves
// a large block by remapping its pages rather than copying them) and is
// never zero-filled first.
class Writer {
 public:
  using Sink = void (*)(void *context, const uint8_t *data, size_t size);
  static constexpr size_t kSpill = size_t{1} << 20;

  Writer() = default;
  Writer(Sink sink, void *context) : sink_(sink), context_(context) {}
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;
  ~Writer() { std::free(data_); }

  void u8(uint8_t v) { bytes(&v, 1); }
  void u16(uint16_t v) { bytes(&v, 2); }
  void u32(uint32_t v) { bytes(&v, 4); }
  void i32(int32_t v) { bytes(&v, 4); }
  void i64(int64_t v) { bytes(&v, 8); }
  void text(const char *s, size_t n) {
    u32(static_cast<uint32_t>(n));
    bytes(s, n);
  }
  void bytes(const void *p, size_t n) {
    if (n > cap_ - size_) grow(n);
    if (n) std::memcpy(data_ + size_, p, n);
    size_ += n;
    if (sink_ && size_ >= kSpill) flush();
  }
  // The checksum of everything written so far.
  uint32_t checksum() {
    flush_checksum();
    return crc_;
  }
  // Hands what is buffered to the sink (with one).
  void flush() {
    flush_checksum();
    if (sink_ && size_) sink_(context_, data_, size_);
    if (sink_) size_ = summed_ = 0;
  }
  // Without a sink: everything written.
  const uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  void flush_checksum() {
    crc_ = crc32_update(crc_, data_ + summed_, size_ - summed_);
    summed_ = size_;
  }
  void grow(size_t more) {
    size_t cap = cap_ ? cap_ * 2 : size_t{64} << 10;
    while (cap - size_ < more) cap *= 2;
    void *p = std::realloc(data_, cap);
    if (!p) throw std::bad_alloc();
    data_ = static_cast<uint8_t *>(p);
    cap_ = cap;
  }
  Sink sink_ = nullptr;
  void *context_ = nullptr;
  uint8_t *data_ = nullptr;  // host is little-endian (checked in the writer)
  size_t size_ = 0;
  size_t cap_ = 0;
  size_t summed_ = 0;  // buffered bytes already in crc_
  uint32_t crc_ = 0;
};

// Reads encoded values; any read past the end throws Truncated.
struct Truncated {};
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
  uint8_t u8() { return take<uint8_t>(); }
  uint16_t u16() { return take<uint16_t>(); }
  uint32_t u32() { return take<uint32_t>(); }
  int32_t i32() { return take<int32_t>(); }
  int64_t i64() { return take<int64_t>(); }
  const uint8_t *skip(size_t n) {
    if (static_cast<size_t>(end_ - p_) < n) throw Truncated{};
    const uint8_t *at = p_;
    p_ += n;
    return at;
  }
  std::string text() {
    uint32_t n = u32();
    const uint8_t *s = skip(n);
    return std::string(reinterpret_cast<const char *>(s), n);
  }
  size_t left() const { return static_cast<size_t>(end_ - p_); }
  const uint8_t *pos() const { return p_; }
  void seek(const uint8_t *at) { p_ = at; }
 private:
  template <class T>
  T take() {
    T v;
    std::memcpy(&v, skip(sizeof v), sizeof v);
    return v;
  }
  const uint8_t *p_;
  const uint8_t *end_;
};

}  // namespace qvahost::savefile
