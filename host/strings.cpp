// The text table behind QVA_STRING and the QVA_Str* operations.
//
// A string descriptor holds a 32-bit reference instead of a pointer, so that
// it is 12 bytes on every build.  A reference is a slot number (low 24 bits,
// plus one so that no live reference is 0) and the slot's generation (high
// 8 bits).  Texts never change once made, so copies of a whole text share
// its slot, which counts its holders.  Releasing the last holder bumps the
// slot's generation, and freed slots are reused oldest first, so a stale
// reference read again is recognised as such and reported instead of
// reading someone else's text.
#include <cstring>
#include <memory>

#include "internal.h"

namespace qvahost {
namespace {

constexpr unsigned kIndexBits = QVA_TEXT_INDEX_BITS;
constexpr uint32_t kIndexMask = (uint32_t{1} << kIndexBits) - 1;
constexpr uint32_t kMaxSlots = kIndexMask;  // slot numbers 0 .. kMaxSlots - 1
constexpr unsigned kPageBits = QVA_TEXT_PAGE_BITS;
constexpr uint32_t kPageSize = uint32_t{1} << kPageBits;
constexpr QVA_INT kOwnsText = 1;  // stype of a descriptor holding a text

// Half a cache line (its layout is published as QVA_TEXT_SLOT, so that a
// module can read texts inline).  A short text (most keys and names) is
// kept in the slot itself, so that reading it (a key compared on every
// level of a tree walk, say) touches the slot only and costs no block of
// its own; a longer one gets a block, whose address takes the slot's text
// bytes.  A free slot keeps the next free slot's number (+ 1, 0 = none)
// there instead.
constexpr size_t kSlotTextBytes = QVA_TEXT_SMALL_BYTES;
using Slot = QVA_TEXT_SLOT;
inline const char *slot_text(const Slot &s) { return s.len < kSlotTextBytes ? s.u.small : s.u.block; }
static_assert(sizeof(Slot) == 32 && kSlotTextBytes == 24, "a text slot is half a cache line");

// The slot pages are listed in a fixed directory (one pointer per 4096
// slots, for every slot number a reference can hold), so that finding a
// slot is two loads, as every string comparison does twice.  Constant-
// initialised and never destroyed: no initialisation check, and pages
// live as long as the process.
constexpr size_t kDirectoryPages = (size_t{kMaxSlots} >> kPageBits) + 1;

struct TextTable {
  Slot *pages[kDirectoryPages];
  uint32_t page_count;  // pages made
  uint32_t used;        // slots handed out at least once
  uint32_t free_head;   // oldest freed slot + 1; 0 = none
  uint32_t free_tail;   // newest freed slot + 1
};
constinit TextTable g_table{};

inline TextTable &table() { return g_table; }

inline Slot &slot_at(TextTable &t, uint32_t index) {
  return t.pages[index >> kPageBits][index & (kPageSize - 1)];
}

// The live slot a reference names, or nullptr for a stale or foreign one.
[[gnu::always_inline]] inline Slot *lookup(uint32_t ref) {
  TextTable &t = table();
  uint32_t index = (ref & kIndexMask) - 1;
  if ((ref & kIndexMask) == 0 || index >= t.used) return nullptr;
  Slot &s = slot_at(t, index);
  if (!s.live || s.gen != static_cast<uint8_t>(ref >> kIndexBits)) return nullptr;
  return &s;
}

// A free slot number, or raises when the table cannot grow.
uint32_t take_slot(TextTable &t) {
  if (t.free_head) {
    uint32_t index = t.free_head - 1;
    Slot &s = slot_at(t, index);
    t.free_head = s.u.next_free;
    if (!t.free_head) t.free_tail = 0;
    return index;
  }
  if (t.used == kMaxSlots) raise(M_NOMEM, "Unable to allocate memory: to make a string.");
  if ((t.used >> kPageBits) == t.page_count) {
    Slot *page = new (std::nothrow) Slot[kPageSize]();  // zeroed: free, generation 0
    if (!page) raise(M_NOMEM, "Unable to allocate memory: to make a string.");
    t.pages[t.page_count++] = page;
  }
  return t.used++;
}

void put_slot(TextTable &t, uint32_t index) {
  Slot &s = slot_at(t, index);
  s.u.next_free = 0;
  if (t.free_tail)
    slot_at(t, t.free_tail - 1).u.next_free = index + 1;
  else
    t.free_head = index + 1;
  t.free_tail = index + 1;
}

const char *stale(uint32_t ref) {
  contract_violation(format("string text reference 0x%08x is stale (released) or unknown", ref));
  return "";
}

// The text of a descriptor and its length, limited to the text really
// held, so that a damaged descriptor cannot make a reader overrun.
[[gnu::always_inline]] inline const char *text_of(const QVA_STRING *d, size_t *len,
                                                 Slot **slot = nullptr) {
  *len = 0;
  if (!d || !d->s) return "";
  Slot *s = lookup(d->s);
  if (!s) return stale(d->s);
  if (slot) *slot = s;
  *len = d->slen < 0 ? 0 : static_cast<size_t>(d->slen);
  if (*len > s->len) *len = s->len;
  return slot_text(*s);
}

// A descriptor owning a copy of d's text.  Texts never change once made,
// so a copy of the whole text shares its slot (a behaviour's procedure
// name, a map's key taken from an argument); only a copy of part of it, or
// of a text with as many holders as the count can take, gets a slot of its
// own.  Sharing still counts as an allocation where failures are injected,
// so that every caller's recovery from a copy that cannot be made stays
// exercised.
QVA_STRING copy_of(const QVA_STRING &d) {
  size_t len;
  Slot *shared = nullptr;
  const char *text = text_of(&d, &len, &shared);
  QVA_STRING out{};
  if (shared && len && len == shared->len && shared->holders < UINT16_MAX) {
    if (allocation_fails()) raise(M_NOMEM, "Unable to allocate memory: to make a string.");
    shared->holders++;
    out.slen = static_cast<QVA_LONG>(len);
    out.stype = kOwnsText;
    out.s = d.s;
    return out;
  }
  string_set(&out, text, len);
  return out;
}

}  // namespace

uint32_t text_new(const char *s, size_t len) {
  if (len == 0) return 0;
  if (len > INT32_MAX) raise(M_BAD_ARG, "String is too long.");
  // A text kept in its slot still counts as an allocation where failures
  // are injected, so that every caller's recovery from a text that cannot
  // be made stays exercised whatever the text's length.
  const bool in_slot = len < kSlotTextBytes;
  char *block = in_slot ? nullptr : static_cast<char *>(raw_alloc(len + 1, true));
  if (in_slot ? allocation_fails() : !block)
    raise(M_NOMEM, "Unable to allocate memory: to make a string.");
  TextTable &t = table();
  uint32_t index;
  try {
    index = take_slot(t);
  } catch (...) {
    raw_free(block);
    throw;
  }
  Slot &slot = slot_at(t, index);
  if (!in_slot) slot.u.block = block;
  char *text = in_slot ? slot.u.small : block;
  if (s)
    std::memcpy(text, s, len);
  else
    std::memset(text, ' ', len);
  text[len] = '\0';
  slot.holders = 1;
  slot.len = static_cast<uint32_t>(len);
  slot.live = 1;
  counters().texts++;
  return (uint32_t{slot.gen} << kIndexBits) | (index + 1);
}

void text_release(uint32_t ref) {
  if (ref == 0) return;
  Slot *s = lookup(ref);
  if (!s) {
    stale(ref);
    return;
  }
  if (--s->holders > 0) return;
  if (s->len >= kSlotTextBytes) raw_free(s->u.block);
  s->len = 0;
  s->live = 0;
  s->gen++;
  put_slot(table(), (ref & kIndexMask) - 1);
  counters().texts--;
}

const char *text_get(uint32_t ref) {
  if (ref == 0) return "";
  Slot *s = lookup(ref);
  return s ? slot_text(*s) : stale(ref);
}

void string_set(QVA_STRING *out, const char *s, size_t len) {
  uint32_t ref = text_new(s, len);
  out->slen = static_cast<QVA_LONG>(len);
  out->stype = ref ? kOwnsText : 0;
  out->reserved = 0;
  out->s = ref;
}

}  // namespace qvahost

// Published as a pointer, not as the array itself (see QVA_HeapPages).
QVA_TEXT_SLOT *const *const QVA_TextPages = qvahost::g_table.pages;

using namespace qvahost;

const char *QVA_STRING_STR(const QVA_STRING *s) { return s ? text_get(s->s) : ""; }

int QVA_StrCmp(const QVA_STRING *a, const QVA_STRING *b) {
  size_t la, lb;
  const char *ta = text_of(a, &la);
  const char *tb = text_of(b, &lb);
  return QVA_TextCompare(ta, la, tb, lb);
}

void QVA_StrDup(QVA_STRING *s, QVA_MEMINT n) {
  if (n == 1) {
    if (s->s) *s = copy_of(*s);
    return;
  }
  // All or nothing: every copy is made before any descriptor changes, so a
  // failure leaves the caller's descriptors as they were.
  std::vector<QVA_STRING> copies;
  copies.reserve(static_cast<size_t>(n > 0 ? n : 0));
  try {
    for (QVA_MEMINT i = 0; i < n; ++i) copies.push_back(s[i].s ? copy_of(s[i]) : s[i]);
  } catch (...) {
    for (const QVA_STRING &c : copies) text_release(c.s);
    throw;
  }
  for (QVA_MEMINT i = 0; i < n; ++i) s[i] = copies[static_cast<size_t>(i)];
}

void QVA_StrDelete(QVA_STRING *s, QVA_MEMINT n) {
  for (QVA_MEMINT i = 0; i < n; ++i) {
    text_release(s[i].s);
    s[i] = QVA_STRING{};
  }
}

void QVA_StrStore(QVA_STRING *s, const char *text) {
  string_set(s, text, text ? std::strlen(text) : 0);
}

QVA_VPTR QVA_StrToSTRING(const char *text) {
  QVA_STRING str{};
  QVA_StrStore(&str, text);
  QVA_VPTR v = tmp_new();
  v->type = QVA_TYP_STRING;
  v->value.str = str;
  return v;
}
