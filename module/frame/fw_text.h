// fw_text.h - string comparison that reads texts inline from the host's
// text table, for comparisons made on every level of a tree search.
#pragma once

#include <qva/qva.h>

#include <cstring>

// Byte-wise comparison (unsigned bytes, then length): -1, 0 or 1.
inline int fw_compareBytes(const char *a, size_t alen, const char *b, size_t blen) {
  int c = std::memcmp(a, b, alen < blen ? alen : blen);
  if (c) return c < 0 ? -1 : 1;
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
