// fw_text.h - string comparison that reads texts inline from the host's
// text table, for comparisons made on every level of a tree search.
#pragma once

#include <qva/qva.h>

// QVA_StrCmp without the host call; a text the table does not hold (a
// released one) goes to the host, which reports it.
inline int fw_strCompare(const QVA_STRING *a, const QVA_STRING *b) {
  size_t alen, blen;
  const char *ta = QVA_StrText(a, &alen);
  const char *tb = QVA_StrText(b, &blen);
  if (!ta || !tb) return QVA_StrCmp(a, b);
  return QVA_TextCompare(ta, alen, tb, blen);
}
