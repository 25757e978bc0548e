// fw_text.h - string comparison that reads texts inline from the host's
// text table, for comparisons made on every level of a tree search.
#pragma once

#include <qva/qva.h>

#include <cstdint>
#include <cstring>

// Byte-wise comparison (unsigned bytes, then length): -1, 0 or 1.  Keys
// are mostly short, so eight bytes are compared at a time in place rather
// than through a library call.
inline int fw_compareBytes(const char *a, size_t alen, const char *b, size_t blen) {
  size_t n = alen < blen ? alen : blen;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  for (; n >= 8; a += 8, b += 8, n -= 8) {
    uint64_t x, y;
    std::memcpy(&x, a, 8);
    std::memcpy(&y, b, 8);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  for (; n; ++a, ++b, --n)
    if (*a != *b) return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b) ? -1 : 1;
#else
  if (int c = n ? std::memcmp(a, b, n) : 0) return c < 0 ? -1 : 1;
#endif
  return alen < blen ? -1 : alen > blen ? 1 : 0;
}

// QVA_StrCmp without the host call; a text the table does not hold (a
// released one) goes to the host, which reports it.
inline int fw_strCompare(const QVA_STRING *a, const QVA_STRING *b) {
  size_t alen, blen;
  const char *ta = QVA_StrText(a, &alen);
  const char *tb = QVA_StrText(b, &blen);
  if (!ta || !tb) return QVA_StrCmp(a, b);
  return fw_compareBytes(ta, alen, tb, blen);
}
