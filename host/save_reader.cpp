// Reading a session save file back into the running session.
//
// The file is read twice.  The first pass checks everything (bounds,
// counts, types, references, structure definitions against those in force)
// without touching the session; only then does the second pass build the
// values, give every saved heap variable a new heap identifier, remap every
// reference and install the variables.  A failure in the second pass (memory
// running out) undoes what it made, so a bad or unreadable file leaves the
// session as it was.
#include <algorithm>
#include <array>
#include <cerrno>
#include <unordered_set>

#include <fcntl.h>
#include <isa-l/crc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "save_format.h"
#include "save_ids.h"

namespace qvahost {
namespace {

using savefile::min_encoded;
using savefile::Reader;

struct Corrupt {
  std::string why;
};
struct OutOfMemory {};
// A sound file whose class layout disagrees with the definition in force.
struct Conflict {
  std::string why;
};

[[noreturn]] void corrupt(const std::string &why) { throw Corrupt{why}; }

// A field's type as a message shows it: LONG, STRING[4], structure NAME.
std::string shape(int type, QVA_MEMINT n_elts, const std::string &sub) {
  std::string s = type == QVA_TYP_STRUCT ? "structure " + (sub.empty() ? "<anonymous>" : sub)
                                         : std::string(type_name(type));
  return n_elts > 1 ? s + "[" + std::to_string(n_elts) + "]" : s;
}

bool scalar_type(int t) {
  switch (t) {
    case QVA_TYP_BYTE: case QVA_TYP_INT: case QVA_TYP_LONG: case QVA_TYP_FLOAT: case QVA_TYP_DOUBLE:
    case QVA_TYP_STRING: case QVA_TYP_PTR: case QVA_TYP_OBJREF: case QVA_TYP_LONG64:
      return true;
    default:
      return false;
  }
}

struct SavedTag {
  std::string name;
  int type = 0;
  int32_t sub = -1;  // definition index for a structure field
  int n_dim = 0;
  QVA_MEMINT dims[QVA_MAX_ARRAY_DIM] = {};
  QVA_MEMINT n_elts = 1;
};

struct SavedSdef {
  std::string name;
  bool hidden = false;
  int32_t super = -1;
  std::vector<SavedTag> own;
  std::vector<SavedTag> all;  // inherited fields first
  int depth = 1;
  uint64_t min_bytes = 0;     // smallest encoding of one element
  // No string at any depth: every element takes exactly min_bytes, so a
  // pass that only checks can step over elements without reading them.
  bool fixed = true;
  QVA_SDEF live = nullptr;    // the definition in force, when there is one
  // Hidden (a module's own record, as the definition in force says when
  // there is one): its pointer fields may name objects (see remap_reference).
  bool record = false;
  // Where each saved field goes in the live layout (nullptr: dropped).
  std::vector<const TagInfo *> target;
};


struct SavedVar {
  std::string name;
  const uint8_t *value;
};

class Restorer {
 public:
  // `mapped`: data is a private read-only mapping of a file, whose pages
  // may be given back once read (reading them again faults them back in).
  Restorer(const uint8_t *data, size_t size, bool mapped)
      : r_(data, size), data_(data), size_(size), mapped_(mapped), released_(data) {}
  void check(bool verify_checksum);
  std::vector<std::string> commit();
  // Saved fields the definitions in force have no place for (CLASS.FIELD):
  // their values are not restored.
  const std::vector<std::string> &dropped() const { return dropped_; }

 private:
  enum Mode { kCheck, kBuild };

  void read_sdefs();
  void resolve(SavedSdef &sd);
  void read_value(Mode mode, QVA_VPTR out, bool in_heap = false);
  void read_elts(Mode mode, int type, int32_t sdef, QVA_UCHAR *dst, QVA_MEMINT n);
  void read_dims(int *n_dim, QVA_MEMINT *dims, QVA_MEMINT *n_elts, uint64_t elt_min);
  void map_fields(SavedSdef &sd);
  void rollback();
  QVA_HVID remap_reference(QVA_HVID id, int type);
  void release_read_pages();

  Reader r_;
  const uint8_t *data_;
  size_t size_;
  bool mapped_;
  const uint8_t *released_;  // the mapping's pages before this are given back
  std::vector<SavedSdef> sdefs_;
  const uint8_t *heap_start_ = nullptr;  // the first heap variable's identifier
  uint32_t n_heap_ = 0;
  std::vector<SavedVar> vars_;
  bool in_record_ = false;  // reading the fields of a hidden structure
  savefile::IdRemap ids_;
  std::vector<bool> is_object_;  // by rank in ids_
  bool ascending_ = true;        // the file lists its heap variables by identifier
  // The records made so far: identifiers made_base_ + rank, issued in a run.
  QVA_HVID made_base_ = 0;
  uint32_t made_count_ = 0;
  void build_heap_vars(bool make_each);
  HeapVar *make_record(uint32_t rank);
  std::vector<QVA_VARIABLE> staged_;
  std::vector<std::string> dropped_;
};

void Restorer::read_dims(int *n_dim, QVA_MEMINT *dims, QVA_MEMINT *n_elts, uint64_t elt_min) {
  *n_dim = r_.u8();
  if (*n_dim < 1 || *n_dim > QVA_MAX_ARRAY_DIM) corrupt("bad number of dimensions");
  uint64_t n = 1;
  for (int d = 0; d < *n_dim; ++d) {
    int64_t len = r_.i64();
    if (len < 1) corrupt("bad dimension");
    if (__builtin_mul_overflow(n, static_cast<uint64_t>(len), &n)) corrupt("array too large");
    dims[d] = len;
  }
  // Every element takes at least elt_min bytes of the file: an array larger
  // than the rest of the file is a lie, and must not make us allocate.
  uint64_t need;
  if (__builtin_mul_overflow(n, elt_min, &need) || need > r_.left()) corrupt("array larger than the file");
  *n_elts = static_cast<QVA_MEMINT>(n);
}

void Restorer::read_sdefs() {
  uint32_t count = r_.u32();
  if (count > r_.left() / 10) corrupt("too many structure definitions");
  std::unordered_set<std::string> names;
  for (uint32_t i = 0; i < count; ++i) {
    SavedSdef sd;
    sd.name = r_.text();
    if (!sd.name.empty()) {
      if (!ident_valid(sd.name.data(), sd.name.size())) corrupt("bad structure name");
      if (!names.insert(sd.name).second) corrupt("structure defined twice: " + sd.name);
    }
    sd.hidden = r_.u8() != 0;
    sd.super = r_.i32();
    if (sd.super < -1 || sd.super >= static_cast<int32_t>(i)) corrupt("bad inherited structure");
    if (sd.super >= 0) sd.all = sdefs_[sd.super].all;
    uint32_t n_own = r_.u32();
    if (n_own > r_.left() / 10) corrupt("too many fields");
    for (uint32_t k = 0; k < n_own; ++k) {
      SavedTag t;
      t.name = r_.text();
      if (!ident_valid(t.name.data(), t.name.size())) corrupt("bad field name");
      for (const SavedTag &other : sd.all)
        if (other.name == t.name) corrupt("field defined twice: " + t.name);
      t.type = r_.u8();
      t.sub = r_.i32();
      if (t.type == QVA_TYP_STRUCT) {
        if (t.sub < 0 || t.sub >= static_cast<int32_t>(i)) corrupt("bad field structure");
      } else if (!scalar_type(t.type) || t.sub != -1) {
        corrupt("bad field type");
      }
      t.n_dim = r_.u8();
      if (t.n_dim > QVA_MAX_ARRAY_DIM) corrupt("bad field dimensions");
      uint64_t n = 1;
      for (int d = 0; d < t.n_dim; ++d) {
        t.dims[d] = r_.i64();
        if (t.dims[d] < 1 || __builtin_mul_overflow(n, static_cast<uint64_t>(t.dims[d]), &n) ||
            n > savefile::kMaxFieldElements)
          corrupt("bad field dimensions");
      }
      t.n_elts = static_cast<QVA_MEMINT>(n);
      sd.own.push_back(t);
      sd.all.push_back(t);
    }
    if (sd.all.empty()) corrupt("structure without fields");
    savefile::DefinitionMeasure measure;
    for (const SavedTag &t : sd.all) {
      bool sub = t.type == QVA_TYP_STRUCT;
      measure.add_field(static_cast<uint64_t>(t.n_elts),
                        sub ? sdefs_[t.sub].min_bytes : min_encoded(t.type),
                        sub ? sdefs_[t.sub].depth : 0);
      if (sub ? !sdefs_[t.sub].fixed : t.type == QVA_TYP_STRING) sd.fixed = false;
    }
    if (const char *problem = measure.problem()) corrupt(problem);
    sd.depth = measure.depth;
    sd.min_bytes = measure.min_bytes;
    resolve(sd);
    sd.record = sd.live ? sd.live->hidden : sd.hidden;
    sdefs_.push_back(std::move(sd));
  }
}

// Compares a saved definition with the one in force of the same name.  An
// identical one is used as it is; a different one is still used, with the
// saved fields matched by name (fields it lacks are dropped, fields the
// file lacks stay zero), provided every field both have agrees in type and
// size.  Anything else is refused rather than guessed at.
void Restorer::resolve(SavedSdef &sd) {
  if (sd.name.empty()) return;
  sd.live = sdef_find(ident_of(sd.name));
  if (!sd.live) return;
  for (const SavedTag &t : sd.all) {
    const TagInfo *live = sdef_tag(sd.live, t.name.c_str());
    if (!live) {
      dropped_.push_back(sd.name + "." + t.name);
      continue;
    }
    bool same = live->type == t.type && live->n_elts == t.n_elts;
    if (same && t.type == QVA_TYP_STRUCT) same = sdefs_[t.sub].live == live->sdef;
    if (!same)
      throw Conflict{"field " + t.name + " of " + sd.name + " is " +
                     shape(t.type, t.n_elts, t.type == QVA_TYP_STRUCT ? sdefs_[t.sub].name : "") +
                     " in the file but " +
                     shape(live->type, live->n_elts, live->sdef ? live->sdef->name_str : "") +
                     " in the definition in force"};
  }
}

void Restorer::read_elts(Mode mode, int type, int32_t sdef, QVA_UCHAR *dst, QVA_MEMINT n) {
  switch (type) {
    case QVA_TYP_BYTE: case QVA_TYP_INT: case QVA_TYP_LONG: case QVA_TYP_FLOAT: case QVA_TYP_DOUBLE:
    case QVA_TYP_LONG64: {
      size_t bytes = static_cast<size_t>(n) * type_size(type);
      const uint8_t *src = r_.skip(bytes);
      if (dst) std::memcpy(dst, src, bytes);
      return;
    }
    case QVA_TYP_STRING:
      for (QVA_MEMINT i = 0; i < n; ++i) {
        uint32_t len = r_.u32();
        if (len > INT32_MAX) corrupt("string too long");
        const uint8_t *s = r_.skip(len);
        if (dst) string_set(reinterpret_cast<QVA_STRING *>(dst) + i,
                            reinterpret_cast<const char *>(s), len);
      }
      return;
    case QVA_TYP_PTR:
    case QVA_TYP_OBJREF:
      for (QVA_MEMINT i = 0; i < n; ++i) {
        QVA_HVID id = r_.u32();
        if (dst) {
          QVA_HVID mapped = id ? remap_reference(id, type) : 0;
          std::memcpy(dst + i * sizeof(QVA_HVID), &mapped, sizeof mapped);
        }
      }
      return;
    case QVA_TYP_STRUCT: {
      const SavedSdef &sd = sdefs_[sdef];
      if (!dst && sd.fixed) {
        // Nothing inside to check but the bounds.  No overflow: a field's
        // elements take at most kMaxStructBytes together, and a value's
        // elements were found to fit in the rest of the file.
        r_.skip(static_cast<size_t>(n) * sd.min_bytes);
        return;
      }
      bool outer = in_record_;
      in_record_ = outer || sd.record;
      for (QVA_MEMINT i = 0; i < n; ++i) {
        QVA_UCHAR *elt = dst ? dst + i * static_cast<QVA_MEMINT>(sd.live->length) : nullptr;
        for (size_t k = 0; k < sd.all.size(); ++k) {
          const SavedTag &t = sd.all[k];
          const TagInfo *to = elt ? sd.target[k] : nullptr;
          read_elts(mode, t.type, t.sub, to ? elt + to->offset : nullptr, t.n_elts);
        }
      }
      in_record_ = outer;
      return;
    }
    default:
      corrupt("bad value type");
  }
}

// Reads one value: checks it (mode kCheck, out ignored) or builds it into
// `out`, an undefined variable (mode kBuild).  When `out` is the value of
// a heap variable, a small array goes straight into a small block.
void Restorer::read_value(Mode mode, QVA_VPTR out, bool in_heap) {
  int type = r_.u8();
  if (type == QVA_TYP_UNDEF) return;
  int shape = r_.u8();
  if (shape == savefile::kScalar) {
    if (!scalar_type(type)) corrupt("bad scalar type");
    if (mode == kBuild) {
      out->type = static_cast<QVA_UCHAR>(type);
      read_elts(mode, type, -1, reinterpret_cast<QVA_UCHAR *>(&out->value), 1);
    } else {
      read_elts(mode, type, -1, nullptr, 1);
    }
    return;
  }
  int32_t sdef = -1;
  if (shape == savefile::kStructArray) {
    if (type != QVA_TYP_STRUCT) corrupt("bad structure value");
    sdef = static_cast<int32_t>(r_.u32());
    if (sdef < 0 || sdef >= static_cast<int32_t>(sdefs_.size())) corrupt("bad structure index");
  } else if (shape != savefile::kArray || !scalar_type(type)) {
    corrupt("bad value shape");
  }
  int n_dim;
  QVA_MEMINT dims[QVA_MAX_ARRAY_DIM];
  QVA_MEMINT n;
  read_dims(&n_dim, dims, &n, sdef >= 0 ? sdefs_[sdef].min_bytes : min_encoded(type));
  if (mode == kCheck) {
    read_elts(mode, type, sdef, nullptr, n);
    return;
  }
  if (in_heap && sdef >= 0 && fits_inline(sdefs_[sdef].live, n, n_dim)) {
    // One small element: read straight into the record.
    out->type = QVA_TYP_STRUCT;
    out->flags |= QVA_V_ARR | QVA_V_STRUCT;
    out->flags2 = QVA_V2_INLINE;
    out->value.s.arr = nullptr;
    out->value.s.sdef = sdefs_[sdef].live;
    QVA_UCHAR *data = inline_data(out);
    std::memset(data, 0, QVA_HV_INLINE_BYTES);
    read_elts(mode, type, sdef, data, n);
    return;
  }
  auto elt_len = static_cast<QVA_MEMINT>(sdef >= 0 ? sdefs_[sdef].live->length : type_size(type));
  QVA_ARRAY *a = in_heap && n_dim == 1 ? small_block_new(elt_len, n) : nullptr;
  if (!a) a = array_new(elt_len, n_dim, dims, true, QVA_MSG_RET);
  if (!a) throw OutOfMemory{};
  out->type = static_cast<QVA_UCHAR>(type);
  if (sdef >= 0) {
    out->flags |= QVA_V_ARR | QVA_V_STRUCT;
    out->value.s.arr = a;
    out->value.s.sdef = sdefs_[sdef].live;
  } else {
    out->flags |= QVA_V_ARR;
    out->value.arr = a;
  }
  read_elts(mode, type, sdef, a->data, n);
}

void Restorer::check(bool verify_checksum) {
  if (size_ < sizeof savefile::kMagic + 8 ||
      std::memcmp(data_, savefile::kMagic, sizeof savefile::kMagic) != 0)
    corrupt("not a save file");
  if (verify_checksum) {
    uint32_t stored;
    std::memcpy(&stored, data_ + size_ - 4, 4);
    if (stored != savefile::crc32(data_, size_ - 4)) corrupt("checksum mismatch");
  }
  r_.skip(sizeof savefile::kMagic);
  uint32_t version = r_.u32();
  if (version != savefile::kVersion) corrupt("unsupported version " + std::to_string(version));
  read_sdefs();

  uint32_t n_heap = r_.u32();
  if (n_heap > r_.left() / 9) corrupt("too many heap variables");
  n_heap_ = n_heap;
  heap_start_ = r_.pos();
  // Only the identifiers are kept (and which are objects): the build reads
  // the values again in file order.
  std::vector<QVA_HVID> saved_ids;
  saved_ids.reserve(n_heap);
  std::vector<bool> object_in_file(n_heap);
  for (uint32_t i = 0; i < n_heap; ++i) {
    QVA_HVID id = r_.u32();
    uint32_t flags = r_.u32();
    if (id == 0) corrupt("bad heap identifier");
    if (flags & ~uint32_t{QVA_HV_OBJECT | QVA_HV_HELD}) corrupt("bad heap flags");
    const uint8_t *value = r_.pos();
    read_value(kCheck, nullptr);
    if (flags & QVA_HV_OBJECT) {
      // An object holds one instance of a named structure.
      Reader again(value, static_cast<size_t>(r_.pos() - value));
      if (again.u8() != QVA_TYP_STRUCT || again.u8() != savefile::kStructArray) corrupt("bad object");
      const SavedSdef &sd = sdefs_[again.u32()];
      if (sd.name.empty() || again.u8() != 1 || again.i64() != 1) corrupt("bad object");
      object_in_file[i] = true;
    }
    if (!saved_ids.empty() && id <= saved_ids.back()) ascending_ = false;
    saved_ids.push_back(id);
  }
  uint32_t n_vars = r_.u32();
  if (n_vars > r_.left() / 5) corrupt("too many variables");
  std::unordered_set<std::string> names;
  for (uint32_t i = 0; i < n_vars; ++i) {
    SavedVar v;
    v.name = r_.text();
    if (!ident_valid(v.name.data(), v.name.size()) || !names.insert(v.name).second)
      corrupt("bad variable name");
    v.value = r_.pos();
    read_value(kCheck, nullptr);
    vars_.push_back(std::move(v));
  }
  if (r_.left() != 4) corrupt("unexpected data at the end");
  if (!ids_.build(saved_ids)) corrupt("bad heap identifier");
  if (ascending_) {
    is_object_ = std::move(object_in_file);
  } else {
    is_object_.resize(n_heap);
    for (uint32_t i = 0; i < n_heap; ++i) is_object_[ids_.rank(saved_ids[i])] = object_in_file[i];
  }
}

// The new identifier of a reference the file makes, checked as it is
// built (a failure rolls the whole restore back): it must name a heap
// variable of the file, a pointer one for a pointer and an object for an
// object reference, as code that follows a pointer writes through it as a
// heap variable and code given an object reference runs its class's
// methods.  Fields of hidden structures are a module's own records (the
// nodes of its heap trees), whose pointer fields carry words that name
// heap variables or objects as the module chooses; there only the
// target's presence is checked.
QVA_HVID Restorer::remap_reference(QVA_HVID id, int type) {
  uint32_t rank = ids_.rank(id);
  if (rank == savefile::IdRemap::kAbsent)
    corrupt(format("a reference names heap variable %u, which is not in the file", id));
  if (!in_record_) {
    if (type == QVA_TYP_PTR && is_object_[rank])
      corrupt(format("a pointer names <ObjHeapVar%u>, an object", id));
    if (type == QVA_TYP_OBJREF && !is_object_[rank])
      corrupt(format("an object reference names <PtrHeapVar%u>, which is not an object", id));
  }
  return made_base_ + rank;
}

// The heap variables are built in file order: the file's pages behind the
// one being read are given back as the heap grows, so that the file and
// the heap made from it are not both resident at their full size.
void Restorer::release_read_pages() {
  constexpr size_t kStep = size_t{4} << 20;
  if (!mapped_) return;
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t upto = reinterpret_cast<uintptr_t>(r_.pos()) & ~(page - 1);
  const uintptr_t from = reinterpret_cast<uintptr_t>(released_);
  if (upto < from + kStep) return;
  ::madvise(const_cast<uint8_t *>(released_), upto - from, MADV_DONTNEED);
  released_ = reinterpret_cast<const uint8_t *>(upto);
}

HeapVar *Restorer::make_record(uint32_t rank) {
  HeapVar *made = heap_new(false, nullptr, false, QVA_MSG_RET);
  if (!made) throw OutOfMemory{};
  made_count_++;
  if (made->hv.hash_id != made_base_ + rank) corrupt("heap identifiers not issued in a run");
  return made;
}

// Builds every heap variable's value in file order, making each record
// first when make_each (the file lists them by identifier, so file order is
// rank order), else into the records made already.
void Restorer::build_heap_vars(bool make_each) {
  r_.seek(heap_start_);
  for (uint32_t i = 0; i < n_heap_; ++i) {
    QVA_HVID id = r_.u32();
    uint32_t flags = r_.u32();
    HeapVar *made = make_each ? make_record(i) : heap_find(made_base_ + ids_.rank(id));
    read_value(kBuild, &made->hv.var, true);
    release_read_pages();
    made->hv.flags |= flags & QVA_HV_HELD;
    if (flags & QVA_HV_OBJECT) {
      made->hv.flags |= QVA_HV_OBJECT;
      counters().objects++;
    }
  }
}

void Restorer::map_fields(SavedSdef &sd) {
  sd.target.clear();
  for (const SavedTag &t : sd.all) sd.target.push_back(sdef_tag(sd.live, t.name.c_str()));
}

void Restorer::rollback() {
  for (QVA_VARIABLE &v : staged_) var_free_value(&v);
  staged_.clear();
  for (uint32_t rank = 0; rank < made_count_; ++rank) heap_delete(made_base_ + rank);
  made_count_ = 0;
}

std::vector<std::string> Restorer::commit() {
  try {
    // Definitions the session lacks are made now; they stay even if the
    // restore fails later, as definitions are not session data.
    for (SavedSdef &sd : sdefs_) {
      if (!sd.live) {
        std::vector<FieldSpec> fields;
        for (const SavedTag &t : sd.own) {
          FieldSpec f{t.name, t.type, t.type == QVA_TYP_STRUCT ? sdefs_[t.sub].live : nullptr, {}};
          f.dims.assign(t.dims, t.dims + t.n_dim);
          fields.push_back(std::move(f));
        }
        sd.live = sdef_define(sd.name, sd.super >= 0 ? sdefs_[sd.super].live : nullptr, fields,
                              sd.hidden, QVA_MSG_RET);
        if (!sd.live) corrupt("structure " + sd.name + " cannot be defined");
      }
      map_fields(sd);
    }
    // New identifiers are handed out in the order of the saved ones (their
    // ranks), in one run, so whatever was ordered by heap identifier (lists
    // kept in identifier order) is still in order after the remapping, and
    // a reference's new identifier is known before its target is made.  A
    // file that lists its heap variables by identifier (as SAVE writes
    // them) is built in one pass, each record made and filled while it is
    // in the cache; otherwise every record is made first.
    made_base_ = static_cast<QVA_HVID>(heap_next_id());
    if (!ascending_)
      for (uint32_t rank = 0; rank < n_heap_; ++rank) make_record(rank);
    build_heap_vars(ascending_);
    staged_.resize(vars_.size());
    for (size_t i = 0; i < vars_.size(); ++i) {
      r_.seek(vars_[i].value);
      read_value(kBuild, &staged_[i]);
    }
  } catch (...) {
    rollback();
    throw;
  }
  // Nothing below can fail: the variables take their new values.
  std::vector<std::string> restored;
  for (size_t i = 0; i < vars_.size(); ++i) {
    QVA_VPTR v = main_variable(vars_[i].name);
    var_move_value(&staged_[i], v);
    restored.push_back(ident_name(v->name));
  }
  staged_.clear();
  return restored;
}

}  // namespace

namespace {

std::vector<std::string> restore_bytes(const uint8_t *data, size_t size, bool verify_checksum,
                                       bool mapped) {
  Restorer restorer(data, size, mapped);
  try {
    restorer.check(verify_checksum);
    std::vector<std::string> restored = restorer.commit();
    for (const std::string &field : restorer.dropped())
      message(M_GENERIC, QVA_MSG_INFO,
              "Saved field " + field + " has no place in the definition in force: not restored.");
    return restored;
  } catch (const Conflict &c) {
    raise_fmt(M_BAD_ARG, "Unable to restore: %s.", c.why.c_str());
  } catch (const Corrupt &c) {
    raise_fmt(M_BAD_ARG, "Save file is corrupt: %s.", c.why.c_str());
  } catch (const savefile::Truncated &) {
    raise_fmt(M_BAD_ARG, "Save file is truncated.");
  } catch (const OutOfMemory &) {
    raise_fmt(M_NOMEM, "Unable to allocate memory: to make %s.", "restored variables");
  }
}

}  // namespace

std::vector<std::string> restore_from_bytes(const uint8_t *data, size_t size,
                                            bool verify_checksum) {
  return restore_bytes(data, size, verify_checksum, false);
}

namespace {

// A regular file mapped read-only: restored from where it lies in the page
// cache, with no zero-filled buffer to read it into and no copy.
class MappedFile {
 public:
  explicit MappedFile(const std::string &path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
      // Every page is read (the checksum first), so they are all mapped in
      // one call instead of a fault each.
      void *p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ,
                       MAP_PRIVATE | MAP_POPULATE, fd, 0);
      if (p != MAP_FAILED) {
        data_ = static_cast<const uint8_t *>(p);
        size_ = static_cast<size_t>(st.st_size);
        ::madvise(p, size_, MADV_SEQUENTIAL);
      }
    }
    ::close(fd);
  }
  ~MappedFile() {
    if (data_) ::munmap(const_cast<uint8_t *>(data_), size_);
  }
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;
  const uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  const uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace

std::vector<std::string> restore(const std::string &path) {
  // A regular file is mapped; anything else (a pipe, a directory, an empty
  // file) is read to its end as a stream.
  MappedFile mapped(path);
  if (mapped.data()) return restore_bytes(mapped.data(), mapped.size(), true, true);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) raise_fmt(M_BAD_ARG, "Unable to open save file: %s.", path.c_str());
  std::vector<uint8_t> bytes;
  uint8_t chunk[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      raise_fmt(M_BAD_ARG, "Unable to read save file: %s.", path.c_str());
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  ::close(fd);
  return restore_from_bytes(bytes.data(), bytes.size());
}

// The CRC-32 of gzip and zlib (polynomial 0xEDB88320, reflected, inverted
// in and out), by ISA-L's carry-less multiplication: several times faster
// than a table, and RESTORE reads the whole file through it first.
uint32_t savefile::crc32_update(uint32_t crc, const uint8_t *data, size_t size) {
  return size ? ::crc32_gzip_refl(crc, data, size) : crc;
}

uint32_t savefile::crc32(const uint8_t *data, size_t size) { return crc32_update(0, data, size); }

}  // namespace qvahost
