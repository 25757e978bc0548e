// Temporaries, array data, and the values variables hold: freeing, deep
// copying, moving, and the QVA_* operations on variables.
//
// Temporaries live in chunks of records that are never given back, so a
// released temporary can still be recognised (flags2 holds a host marker)
// when a module releases it twice.  Live temporaries sit in an intrusive
// list in creation order: an abandoned call releases everything made since
// its mark by walking the list back from the newest.
#include <algorithm>
#include <new>
#include <cstring>

#include "internal.h"

namespace qvahost {
namespace {

constexpr QVA_UCHAR kLiveTemp = 0xA7;      // flags2 of a live pool temporary
constexpr QVA_UCHAR kReleasedTemp = 0x7A;  // flags2 of a released one
constexpr size_t kChunkRecords = 256;
constexpr size_t kArrayHeader = (sizeof(QVA_ARRAY) + 15) / 16 * 16;
constexpr QVA_UCHAR kValueFlags = QVA_V_ARR | QVA_V_STRUCT;  // what a copy carries

struct TmpRec {
  QVA_VARIABLE var;  // first: a pool temporary's address is its record's
  uint64_t serial = 0;
  TmpRec *prev = nullptr;  // live list, or nothing while free
  TmpRec *next = nullptr;  // live list, or the free list
  // A one-element structure of up to kInlineValueBytes is built here
  // instead of in a block of its own (flags kArrayInTemp): making one and
  // moving it into a heap variable then allocates and frees nothing.
  QVA_ARRAY inline_arr;
  alignas(16) QVA_UCHAR inline_data[kInlineValueBytes];
};

struct TmpPool {
  std::vector<TmpRec *> chunks;  // sorted by address
  TmpRec *free_head = nullptr;   // freed records, oldest first
  TmpRec *free_tail = nullptr;
  TmpRec *live_head = nullptr;   // oldest live temporary
  TmpRec *live_tail = nullptr;   // newest live temporary
  uint64_t next_serial = 1;
};

TmpPool &pool() {
  static TmpPool *p = new TmpPool;  // lives as long as the process
  return *p;
}

// The record at v when v is a record of the pool (live or released).
TmpRec *pool_record(const QVA_VARIABLE *v) {
  const auto &chunks = pool().chunks;
  auto addr = reinterpret_cast<uintptr_t>(v);
  auto it = std::upper_bound(chunks.begin(), chunks.end(), addr, [](uintptr_t a, TmpRec *c) {
    return a < reinterpret_cast<uintptr_t>(c);
  });
  if (it == chunks.begin()) return nullptr;
  auto begin = reinterpret_cast<uintptr_t>(*(it - 1));
  uintptr_t off = addr - begin;
  if (off >= kChunkRecords * sizeof(TmpRec) || off % sizeof(TmpRec) != 0) return nullptr;
  return reinterpret_cast<TmpRec *>(addr);
}

void add_chunk(TmpPool &p) {
  auto *chunk = static_cast<TmpRec *>(raw_alloc(kChunkRecords * sizeof(TmpRec), false));
  if (!chunk) raise(M_NOMEM, "Unable to allocate memory: to make a temporary variable.");
  p.chunks.insert(std::upper_bound(p.chunks.begin(), p.chunks.end(), chunk), chunk);
  for (size_t i = 0; i < kChunkRecords; ++i) {
    TmpRec *r = new (&chunk[i]) TmpRec{};
    r->var.flags2 = kReleasedTemp;
    if (p.free_tail)
      p.free_tail->next = r;
    else
      p.free_head = r;
    p.free_tail = r;
  }
}

void tmp_release(TmpRec *r) {
  TmpPool &p = pool();
  var_free_value(&r->var);
  (r->prev ? r->prev->next : p.live_head) = r->next;
  (r->next ? r->next->prev : p.live_tail) = r->prev;
  r->var = QVA_VARIABLE{};
  r->var.flags2 = kReleasedTemp;
  r->prev = r->next = nullptr;
  // Released records are reused oldest first, so a stale pointer stays
  // recognisable as released for as long as possible.
  if (p.free_tail)
    p.free_tail->next = r;
  else
    p.free_head = r;
  p.free_tail = r;
  counters().temporaries--;
}

// A new temporary for the array block `a`, which is freed when none can be
// made.
QVA_VPTR tmp_for_block(QVA_ARRAY *a) {
  try {
    return tmp_new();
  } catch (...) {
    array_free(a);
    throw;
  }
}

// Makes the temporary v hold `a` as an array of structure sdef; hands back
// its data (and v through var when asked).
char *hold_struct_array(QVA_VPTR v, QVA_ARRAY *a, QVA_SDEF sdef, QVA_VPTR *var) {
  v->type = QVA_TYP_STRUCT;
  v->flags |= QVA_V_STRUCT | QVA_V_ARR;
  v->value.s.arr = a;
  v->value.s.sdef = sdef;
  if (var) *var = v;
  return reinterpret_cast<char *>(a->data);
}

void release_texts(QVA_STRING *s, QVA_MEMINT n) {
  for (QVA_MEMINT i = 0; i < n; ++i) text_release(s[i].s);
}

bool needs_zeroing(int type) {
  return type == QVA_TYP_STRING || type == QVA_TYP_PTR || type == QVA_TYP_OBJREF;
}

// A deep copy of src's value into the empty variable out (type and value
// flags set).  Raises on failure with nothing made.
void build_copy(const QVA_VARIABLE *src, QVA_VARIABLE *out) {
  out->type = src->type;
  out->flags = src->flags & kValueFlags;
  if (src->type == QVA_TYP_UNDEF) {
    out->flags = 0;
    return;
  }
  if (src->flags & QVA_V_STRUCT) {
    QVA_SDEF sdef = src->value.s.sdef;
    QVA_ARRAY *a;
    if (var_inline(src)) {  // one element in a heap record
      const QVA_MEMINT one = 1;
      a = array_new(static_cast<QVA_MEMINT>(sdef->length), 1, &one, false, QVA_MSG_LONGJMP);
    } else {
      const QVA_ARRAY *from = src->value.s.arr;
      a = array_new(from->elt_len, from->n_dim, from->dim, false, QVA_MSG_LONGJMP);
    }
    std::memcpy(a->data, struct_data(src), static_cast<size_t>(a->arr_len));
    if (sdef->has_texts) {
      try {
        sdef_dup_texts(sdef, a->data, a->n_elts);
      } catch (...) {
        array_free(a);  // its texts were cleared, nothing in it is owned
        throw;
      }
    }
    out->value.s.arr = a;
    out->value.s.sdef = sdef;
  } else if (src->flags & QVA_V_ARR) {
    const QVA_ARRAY *from = src->value.arr;
    QVA_ARRAY *a = array_new(from->elt_len, from->n_dim, from->dim, false, QVA_MSG_LONGJMP);
    std::memcpy(a->data, from->data, static_cast<size_t>(from->arr_len));
    if (src->type == QVA_TYP_STRING) {
      try {
        QVA_StrDup(reinterpret_cast<QVA_STRING *>(a->data), a->n_elts);
      } catch (...) {
        array_free(a);  // StrDup failed whole: the descriptors only share
        throw;
      }
    }
    out->value.arr = a;
  } else {
    out->value = src->value;
    if (src->type == QVA_TYP_STRING) QVA_StrDup(&out->value.str, 1);
  }
}

// dst takes the value in `value` (type, value flags and value), its own
// old value freed first; its name and temporary flag stay.
void install(QVA_VPTR dst, const QVA_VARIABLE &value) {
  var_free_value(dst);
  dst->type = value.type;
  dst->flags = static_cast<QVA_UCHAR>((dst->flags & QVA_V_TEMP) | (value.flags & kValueFlags));
  dst->value = value.value;
}

}  // namespace

// ------------------------------------------------------------ temporaries

QVA_VPTR tmp_new() {
  TmpPool &p = pool();
  if (!p.free_head) add_chunk(p);
  TmpRec *r = p.free_head;
  p.free_head = r->next;
  if (!p.free_head) p.free_tail = nullptr;
  r->var = QVA_VARIABLE{};
  r->var.flags = QVA_V_TEMP;
  r->var.flags2 = kLiveTemp;
  r->serial = p.next_serial++;
  r->next = nullptr;
  r->prev = p.live_tail;
  (p.live_tail ? p.live_tail->next : p.live_head) = r;
  p.live_tail = r;
  counters().temporaries++;
  return &r->var;
}

bool is_pool_temp(QVA_VPTR v) {
  return v && v->flags2 == kLiveTemp && pool_record(v) != nullptr;
}

uint64_t tmp_mark() { return pool().next_serial; }

void tmp_release_since(uint64_t mark) {
  TmpPool &p = pool();
  while (p.live_tail && p.live_tail->serial >= mark) tmp_release(p.live_tail);
}

// ----------------------------------------------------------------- arrays

size_t type_size(int type) {
  switch (type) {
    case QVA_TYP_BYTE: return 1;
    case QVA_TYP_INT: return sizeof(QVA_INT);
    case QVA_TYP_LONG: return sizeof(QVA_LONG);
    case QVA_TYP_FLOAT: return sizeof(float);
    case QVA_TYP_DOUBLE: return sizeof(double);
    case QVA_TYP_STRING: return sizeof(QVA_STRING);
    case QVA_TYP_PTR:
    case QVA_TYP_OBJREF: return sizeof(QVA_HVID);
    case QVA_TYP_LONG64: return sizeof(QVA_LONG64);
    default: return 0;
  }
}

const char *type_name(int type) {
  switch (type) {
    case QVA_TYP_UNDEF: return "UNDEFINED";
    case QVA_TYP_BYTE: return "BYTE";
    case QVA_TYP_INT: return "INT";
    case QVA_TYP_LONG: return "LONG";
    case QVA_TYP_FLOAT: return "FLOAT";
    case QVA_TYP_DOUBLE: return "DOUBLE";
    case QVA_TYP_STRING: return "STRING";
    case QVA_TYP_STRUCT: return "STRUCT";
    case QVA_TYP_PTR: return "POINTER";
    case QVA_TYP_OBJREF: return "OBJREF";
    case QVA_TYP_LONG64: return "LONG64";
    default: return "UNKNOWN";
  }
}

QVA_ARRAY *array_new(QVA_MEMINT elt_len, int n_dim, const QVA_MEMINT *dims, bool zero,
                     int action) {
  if (n_dim < 1 || n_dim > QVA_MAX_ARRAY_DIM || elt_len <= 0) {
    message(M_BAD_ARG, action, format("Arrays have 1 to %d dimensions.", QVA_MAX_ARRAY_DIM));
    return nullptr;
  }
  QVA_MEMINT n = 1;
  for (int d = 0; d < n_dim; ++d) {
    if (dims[d] <= 0) {
      message(M_BAD_DIMS, action, "Array dimensions must be greater than 0.");
      return nullptr;
    }
    if (__builtin_mul_overflow(n, dims[d], &n)) n = INT64_MAX;
  }
  QVA_MEMINT bytes;
  if (__builtin_mul_overflow(n, elt_len, &bytes) ||
      static_cast<uint64_t>(bytes) > (uint64_t{1} << 48)) {
    message(M_BAD_ARG, action, "Array is too large.");
    return nullptr;
  }
  void *block = raw_alloc(kArrayHeader + static_cast<size_t>(bytes), true);
  if (!block) {
    message(M_NOMEM, action, "Unable to allocate memory: to make array data.");
    return nullptr;
  }
  auto *a = new (block) QVA_ARRAY{};
  a->elt_len = elt_len;
  a->arr_len = bytes;
  a->n_elts = n;
  a->data = static_cast<QVA_UCHAR *>(block) + kArrayHeader;
  a->n_dim = n_dim;
  std::copy(dims, dims + n_dim, a->dim);
  if (zero) std::memset(a->data, 0, static_cast<size_t>(bytes));
  return a;
}

void array_free(QVA_ARRAY *a) {
  if (a->flags & kArrayInSmallBlock)
    small_block_free(a);
  else if (!(a->flags & kArrayInTemp))
    raw_free(a);
}

// ----------------------------------------------------------------- values

void var_free_value(QVA_VPTR v) {
  if (v->flags & QVA_V_STRUCT) {
    QVA_ARRAY *a = v->value.s.arr;
    bool in_record = var_inline(v);
    if ((a || in_record) && v->value.s.sdef && v->value.s.sdef->has_texts)
      sdef_release_texts(v->value.s.sdef, struct_data(v), struct_count(v));
    if (a) array_free(a);  // for an inline record, its descriptor alone
    if (in_record) v->flags2 = 0;
  } else if (v->flags & QVA_V_ARR) {
    QVA_ARRAY *a = v->value.arr;
    if (a && v->type == QVA_TYP_STRING)
      release_texts(reinterpret_cast<QVA_STRING *>(a->data), a->n_elts);
    if (a) array_free(a);
  } else if (v->type == QVA_TYP_STRING) {
    text_release(v->value.str.s);
  }
  v->type = QVA_TYP_UNDEF;
  v->flags &= QVA_V_TEMP;
  v->value = QVA_ALLTYPES{};
}

void var_copy_value(const QVA_VARIABLE *src, QVA_VPTR dst) {
  if (src == dst) return;
  QVA_VARIABLE copy{};
  build_copy(src, &copy);
  install(dst, copy);
}

void var_move_value(QVA_VPTR src, QVA_VPTR dst, bool keep_embedded) {
  if (src == dst) return;
  if (var_inline(src)) {
    // The data belongs to the record: it leaves as a copy.
    QVA_VARIABLE copy{};
    build_copy(src, &copy);
    var_free_value(src);
    install(dst, copy);
    return;
  }
  QVA_VARIABLE moved{};
  moved.type = src->type;
  moved.flags = src->flags & kValueFlags;
  moved.value = src->value;
  // An array inside the temporary's record cannot leave with the pointer:
  // it goes to a block of its own first (texts in it move with the bytes).
  QVA_ARRAY **slot = (moved.flags & QVA_V_STRUCT) ? &moved.value.s.arr
                     : (moved.flags & QVA_V_ARR)  ? &moved.value.arr
                                                  : nullptr;
  if (!keep_embedded && slot && *slot && ((*slot)->flags & kArrayInTemp)) {
    const QVA_ARRAY *from = *slot;
    QVA_ARRAY *a = array_new(from->elt_len, from->n_dim, from->dim, false, QVA_MSG_LONGJMP);
    std::memcpy(a->data, from->data, static_cast<size_t>(from->arr_len));
    *slot = a;
  }
  src->type = QVA_TYP_UNDEF;
  src->flags &= QVA_V_TEMP;
  src->value = QVA_ALLTYPES{};
  install(dst, moved);
}

QVA_ARRAY *struct_array(QVA_VPTR v) {
  if (!var_inline(v) || v->value.s.arr) return v->value.s.arr;
  auto *a = static_cast<QVA_ARRAY *>(raw_alloc(sizeof(QVA_ARRAY), true));
  if (!a) raise(M_NOMEM, "Unable to allocate memory: to make array descriptor.");
  *a = QVA_ARRAY{};
  a->elt_len = a->arr_len = static_cast<QVA_MEMINT>(v->value.s.sdef->length);
  a->n_elts = 1;
  a->data = inline_data(v);
  a->n_dim = 1;
  a->dim[0] = 1;
  a->flags = kArrayInRecord;
  v->value.s.arr = a;
  return a;
}

std::string var_label(const QVA_VARIABLE *v) {
  if (v && v->name) {
    const std::string &name = ident_name(v->name);
    if (!name.empty()) return name;
  }
  std::string place = v ? running_argument_label(v) : std::string();
  return place.empty() ? "<Expression>" : place;
}

}  // namespace qvahost

// ------------------------------------------------------------- module API

using namespace qvahost;

QVA_VPTR QVA_Gettmp(void) { return tmp_new(); }

QVA_VPTR QVA_GettmpLong(QVA_LONG value) {
  QVA_VPTR v = tmp_new();
  v->type = QVA_TYP_LONG;
  v->value.l = value;
  return v;
}

void QVA_Deltmp(QVA_VPTR v) {
  if (!v) return;
  TmpRec *r = pool_record(v);
  if (!r) {
    contract_violation("QVA_Deltmp given a variable that is not a temporary: " + var_label(v));
    return;
  }
  if (v->flags2 != kLiveTemp) {
    contract_violation("QVA_Deltmp given a temporary that was released already");
    return;
  }
  if (!(v->flags & QVA_V_TEMP))
    contract_violation("QVA_Deltmp given a temporary whose temporary flag was cleared");
  tmp_release(r);
}

char *QVA_MakeTempVector(int type, QVA_MEMINT n, int zero, QVA_VPTR *var) {
  size_t size = type_size(type);
  if (!size) raise_fmt(M_BAD_ARG, "Unable to make an array of type code %d.", type);
  // The language has no empty arrays: a vector of no elements is the
  // undefined value (!NULL), which counts 0 elements.
  if (n == 0) {
    QVA_VPTR v = tmp_new();
    if (var) *var = v;
    return nullptr;
  }
  QVA_MEMINT dims[1] = {n};
  QVA_ARRAY *a = array_new(static_cast<QVA_MEMINT>(size), 1, dims, zero || needs_zeroing(type),
                           QVA_MSG_LONGJMP);
  QVA_VPTR v = tmp_for_block(a);
  v->type = static_cast<QVA_UCHAR>(type);
  v->flags |= QVA_V_ARR;
  v->value.arr = a;
  if (var) *var = v;
  return reinterpret_cast<char *>(a->data);
}

char *QVA_MakeTempStructVector(QVA_SDEF sdef, QVA_MEMINT n, QVA_VPTR *var, int zero) {
  if (!sdef) raise(M_STRUCT_UNKNOWN, "Structure type not defined: <none>.");
  (void)zero;
  if (n == 1 && sdef->length > 0 && static_cast<size_t>(sdef->length) <= kInlineValueBytes) {
    // Small enough for the temporary's own record (always zeroed, as below).
    QVA_VPTR v = tmp_new();
    TmpRec *r = reinterpret_cast<TmpRec *>(v);
    // The descriptor's dimensions past the first are never read for a
    // one-dimensional array (and were zeroed with the record's chunk).
    QVA_ARRAY *a = &r->inline_arr;
    a->elt_len = a->arr_len = static_cast<QVA_MEMINT>(sdef->length);
    a->n_elts = 1;
    a->data = r->inline_data;
    a->n_dim = 1;
    a->flags = kArrayInTemp;
    a->dim[0] = 1;
    std::memset(r->inline_data, 0, kInlineValueBytes);
    return hold_struct_array(v, a, sdef, var);
  }
  QVA_MEMINT dims[1] = {n};
  // Texts and heap references must never be read from uninitialised data.
  QVA_ARRAY *a = array_new(static_cast<QVA_MEMINT>(sdef->length), 1, dims, true, QVA_MSG_LONGJMP);
  return hold_struct_array(tmp_for_block(a), a, sdef, var);
}

void QVA_VarCopy(QVA_VPTR src, QVA_VPTR dst) {
  if (!src || !dst) {
    contract_violation("QVA_VarCopy given no source or no destination");
    return;
  }
  var_copy_value(src, dst);
}

// The copy is always a plain value (no constant or other attribute bits);
// `flags` is accepted for compatibility and has nothing further to strip.
void QVA_VarCopy_strip(QVA_VPTR src, QVA_VPTR dst, int flags) {
  (void)flags;
  QVA_VarCopy(src, dst);
}

void QVA_VarGetData(QVA_VPTR v, QVA_MEMINT *n, char **data, int ensure_simple) {
  if (v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", var_label(v).c_str());
  if (ensure_simple && (v->flags & QVA_V_STRUCT))
    raise_fmt(M_BAD_ARG, "Structure expression not allowed in this context: %s.",
              var_label(v).c_str());
  QVA_MEMINT count = 1;
  char *p = reinterpret_cast<char *>(&v->value);
  if (v->flags & QVA_V_STRUCT) {
    count = struct_count(v);
    p = reinterpret_cast<char *>(struct_data(v));
  } else if (v->flags & QVA_V_ARR) {
    count = v->value.arr->n_elts;
    p = reinterpret_cast<char *>(v->value.arr->data);
  }
  if (n) *n = count;
  if (data) *data = p;
}

QVA_STRING *QVA_VarGet1EltStringDesc(QVA_VPTR v, QVA_VPTR *tmp_out, int must_be_scalar) {
  if (tmp_out) *tmp_out = nullptr;
  if (v->type != QVA_TYP_STRING || (v->flags & QVA_V_STRUCT)) QVA_MessageVE_REQSTR(v, QVA_MSG_LONGJMP);
  if (!(v->flags & QVA_V_ARR)) return &v->value.str;
  if (must_be_scalar && v->value.arr->n_elts != 1) QVA_MessageVE_NOTSCALAR(v, QVA_MSG_LONGJMP);
  return reinterpret_cast<QVA_STRING *>(v->value.arr->data);
}

void QVA_Delvar(QVA_VPTR v) {
  if (v) var_free_value(v);
}
