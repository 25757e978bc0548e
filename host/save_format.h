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

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace qvahost::savefile {

inline constexpr char kMagic[8] = {'Q', 'V', 'A', 'S', 'A', 'V', 'E', '\0'};
inline constexpr uint32_t kVersion = 1;
inline constexpr int kMaxStructDepth = 32;  // nesting of structures in fields

enum Shape : uint8_t { kScalar = 0, kArray = 1, kStructArray = 2 };

uint32_t crc32(const uint8_t *data, size_t size);

// Appends encoded values to a byte buffer.
class Writer {
 public:
  void u8(uint8_t v) { out_.push_back(v); }
  void u16(uint16_t v) { bytes(&v, 2); }
  void u32(uint32_t v) { bytes(&v, 4); }
  void i32(int32_t v) { bytes(&v, 4); }
  void i64(int64_t v) { bytes(&v, 8); }
  void text(const char *s, size_t n) {
    u32(static_cast<uint32_t>(n));
    bytes(s, n);
  }
  void bytes(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    out_.insert(out_.end(), b, b + n);
  }
  std::vector<uint8_t> &buffer() { return out_; }
 private:
  std::vector<uint8_t> out_;  // host is little-endian (checked in the writer)
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
