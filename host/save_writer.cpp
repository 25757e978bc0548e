// Writing a session save file: the variables asked for, every heap variable
// they reach, and the structure definitions all of those values need.
#include <bit>
#include <deque>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

#include "internal.h"
#include "save_format.h"
#include "save_ids.h"
#include "value_refs.h"

namespace qvahost {
namespace {

using savefile::Writer;
static_assert(std::endian::native == std::endian::little,
              "the save file writer stores integers as they are in memory");

// What one save holds, gathered before anything is written.
class SaveSet {
 public:
  void add_variable(QVA_VPTR v) {
    vars_.push_back(v);
    add_value(v);
  }
  void add_heap(HeapVar *h) {
    if (!in_save_.insert(h->hv.hash_id)) return;
    heap_count_++;
    pending_.push_back(h);
  }
  // Follows references until every reachable heap variable is in the set.
  void close() {
    while (!pending_.empty()) {
      HeapVar *h = pending_.front();
      pending_.pop_front();
      add_value(&h->hv.var);
    }
  }
  void write(Writer &w) const;

 private:
  void add_value(QVA_VPTR v) {
    if (v->flags & QVA_V_STRUCT) add_sdef(v->value.s.sdef);
    refs_in_value(v, [this](QVA_HVID &id) {
      if (HeapVar *h = id ? heap_find(id) : nullptr) add_heap(h);
    });
  }
  void add_sdef(QVA_SDEF sd);
  void check_limits(QVA_SDEF sd);
  void write_sdef(Writer &w, QVA_SDEF sd) const;
  void write_value(Writer &w, const QVA_VARIABLE *v) const;
  void write_elts(Writer &w, int type, QVA_SDEF sd, const QVA_UCHAR *data, QVA_MEMINT n) const;
  void write_ref(Writer &w, QVA_HVID id) const {
    // A reference to a heap variable that no longer exists is saved as null.
    w.u32(in_save_.contains(id) ? id : 0);
  }

  std::vector<QVA_VPTR> vars_;
  uint32_t heap_count_ = 0;
  std::deque<HeapVar *> pending_;
  savefile::IdBits in_save_;
  std::vector<QVA_SDEF> sdefs_;
  std::unordered_map<QVA_SDEF, int32_t> sdef_index_;
  std::vector<savefile::DefinitionMeasure> measures_;  // by definition index
};

// Adds a definition after what it needs (its superclass and the
// definitions of its structure fields), so that the reader meets every
// definition after those it refers to.  Definitions may nest far deeper
// than the file allows, so the walk keeps its own stack; the limits are
// checked as each definition is added, from the bottom up, and a refusal
// comes before anything is written.
void SaveSet::add_sdef(QVA_SDEF root) {
  if (sdef_index_.count(root)) return;
  std::vector<QVA_SDEF> stack{root};
  while (!stack.empty()) {
    QVA_SDEF sd = stack.back();
    if (sdef_index_.count(sd)) {  // reached twice before its turn
      stack.pop_back();
      continue;
    }
    size_t waiting = stack.size();
    if (sd->super && !sdef_index_.count(sd->super)) stack.push_back(sd->super);
    for (const TagInfo &t : sd->tags)
      if (t.type == QVA_TYP_STRUCT && !sdef_index_.count(t.sdef)) stack.push_back(t.sdef);
    if (stack.size() != waiting) continue;
    stack.pop_back();
    check_limits(sd);
    sdef_index_[sd] = static_cast<int32_t>(sdefs_.size());
    sdefs_.push_back(sd);
  }
}

// Refuses a definition that the reader would refuse; its fields'
// definitions are in the set already.
void SaveSet::check_limits(QVA_SDEF sd) {
  savefile::DefinitionMeasure m;
  for (const TagInfo &t : sd->tags) {
    if (static_cast<uint64_t>(t.n_elts) > savefile::kMaxFieldElements)
      raise_fmt(M_BAD_ARG, "Unable to save: field %s has more than %llu elements.",
                t.name_str.c_str(), static_cast<unsigned long long>(savefile::kMaxFieldElements));
    if (t.type == QVA_TYP_STRUCT) {
      const savefile::DefinitionMeasure &sub = measures_[sdef_index_.at(t.sdef)];
      m.add_field(static_cast<uint64_t>(t.n_elts), sub.min_bytes, sub.depth);
    } else {
      m.add_field(static_cast<uint64_t>(t.n_elts), savefile::min_encoded(t.type), 0);
    }
  }
  if (m.depth > savefile::kMaxStructDepth)
    raise_fmt(M_BAD_ARG, "Unable to save: structures nested more than %d levels deep.",
              savefile::kMaxStructDepth);
  if (m.problem())
    raise_fmt(M_BAD_ARG, "Unable to save: structure %s is too large.",
              sd->name_str.empty() ? "<anonymous>" : sd->name_str.c_str());
  measures_.push_back(m);
}

void SaveSet::write_sdef(Writer &w, QVA_SDEF sd) const {
  w.text(sd->name_str.data(), sd->name_str.size());
  w.u8(sd->hidden ? 1 : 0);
  w.i32(sd->super ? sdef_index_.at(sd->super) : -1);
  size_t first_own = sd->super ? sd->super->tags.size() : 0;
  w.u32(static_cast<uint32_t>(sd->tags.size() - first_own));
  for (size_t i = first_own; i < sd->tags.size(); ++i) {
    const TagInfo &t = sd->tags[i];
    w.text(t.name_str.data(), t.name_str.size());
    w.u8(static_cast<uint8_t>(t.type));
    w.i32(t.type == QVA_TYP_STRUCT ? sdef_index_.at(t.sdef) : -1);
    w.u8(static_cast<uint8_t>(t.n_dim));
    for (int d = 0; d < t.n_dim; ++d) w.i64(t.dims[d]);
  }
}

void SaveSet::write_elts(Writer &w, int type, QVA_SDEF sd, const QVA_UCHAR *data,
                         QVA_MEMINT n) const {
  switch (type) {
    case QVA_TYP_BYTE:
    case QVA_TYP_INT:
    case QVA_TYP_LONG:
    case QVA_TYP_FLOAT:
    case QVA_TYP_DOUBLE:
    case QVA_TYP_LONG64:
      w.bytes(data, static_cast<size_t>(n) * type_size(type));
      return;
    case QVA_TYP_STRING:
      for (QVA_MEMINT i = 0; i < n; ++i) {
        const auto *s = reinterpret_cast<const QVA_STRING *>(data) + i;
        w.text(text_get(s->s), static_cast<size_t>(s->slen));
      }
      return;
    case QVA_TYP_PTR:
    case QVA_TYP_OBJREF:
      for (QVA_MEMINT i = 0; i < n; ++i)
        write_ref(w, reinterpret_cast<const QVA_HVID *>(data)[i]);
      return;
    case QVA_TYP_STRUCT:
      for (QVA_MEMINT i = 0; i < n; ++i) {
        const QVA_UCHAR *elt = data + i * static_cast<QVA_MEMINT>(sd->length);
        for (const TagInfo &t : sd->tags) write_elts(w, t.type, t.sdef, elt + t.offset, t.n_elts);
      }
      return;
    default:
      raise_fmt(M_BAD_ARG, "Unable to save a value of type code %d.", type);
  }
}

void SaveSet::write_value(Writer &w, const QVA_VARIABLE *v) const {
  w.u8(v->type);
  if (v->type == QVA_TYP_UNDEF) return;
  if (v->flags & QVA_V_STRUCT) {
    w.u8(savefile::kStructArray);
    w.u32(static_cast<uint32_t>(sdef_index_.at(v->value.s.sdef)));
    if (var_inline(v)) {  // one element, one dimension
      w.u8(1);
      w.i64(1);
    } else {
      const QVA_ARRAY *a = v->value.s.arr;
      w.u8(static_cast<uint8_t>(a->n_dim));
      for (int d = 0; d < a->n_dim; ++d) w.i64(a->dim[d]);
    }
    write_elts(w, QVA_TYP_STRUCT, v->value.s.sdef, struct_data(v), struct_count(v));
  } else if (v->flags & QVA_V_ARR) {
    const QVA_ARRAY *a = v->value.arr;
    w.u8(savefile::kArray);
    w.u8(static_cast<uint8_t>(a->n_dim));
    for (int d = 0; d < a->n_dim; ++d) w.i64(a->dim[d]);
    write_elts(w, v->type, nullptr, a->data, a->n_elts);
  } else {
    w.u8(savefile::kScalar);
    write_elts(w, v->type, nullptr, reinterpret_cast<const QVA_UCHAR *>(&v->value), 1);
  }
}

void SaveSet::write(Writer &w) const {
  w.bytes(savefile::kMagic, sizeof savefile::kMagic);
  w.u32(savefile::kVersion);
  w.u32(static_cast<uint32_t>(sdefs_.size()));
  for (QVA_SDEF sd : sdefs_) write_sdef(w, sd);
  // By identifier: RESTORE then makes and fills each record in one pass,
  // and the records are read in the order they lie in memory.
  w.u32(heap_count_);
  in_save_.for_each([&](QVA_HVID id) {
    const HeapVar *h = heap_find(id);
    w.u32(id);
    w.u32(h->hv.flags & (QVA_HV_OBJECT | QVA_HV_HELD));
    write_value(w, &h->hv.var);
  });
  w.u32(static_cast<uint32_t>(vars_.size()));
  for (QVA_VPTR v : vars_) {
    const std::string &name = ident_name(v->name);
    w.text(name.data(), name.size());
    write_value(w, v);
  }
  w.u32(w.checksum());
  w.flush();
}

// Encodes the set into `w`.
void finish(SaveSet &set, Writer &w) {
  set.close();
  set.write(w);
}

std::vector<uint8_t> bytes_of(const Writer &w) { return {w.data(), w.data() + w.size()}; }

// A save file being written: a temporary beside the destination that
// takes the destination's place once complete, so that a SAVE that fails
// part-way leaves the file it would have replaced as it was.  Where no
// temporary can be made beside it, the destination is written directly.
class SaveFile {
 public:
  explicit SaveFile(const std::string &path) : path_(path) {
    // A link is followed: the file it names is the one replaced.
    if (char *real = ::realpath(path.c_str(), nullptr)) {
      target_ = real;
      std::free(real);
    } else {
      target_ = path;
    }
    // Only a regular file (or none yet) is replaced: a device or a pipe is
    // written to where it is.
    struct stat st {};
    const bool exists = ::stat(target_.c_str(), &st) == 0;
    // A file that may not be written is not replaced either.
    if (exists && ::access(target_.c_str(), W_OK) != 0) fail();
    std::string tmp = target_ + ".saving-XXXXXX";
    if (!exists || S_ISREG(st.st_mode)) fd_ = ::mkstemp(tmp.data());
    if (fd_ >= 0) {
      temp_ = tmp;
      mode_t mode;
      if (exists) {
        mode = st.st_mode & 07777;
      } else {
        mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
      }
      ::fchmod(fd_, mode);
    } else {
      fd_ = ::open(target_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    }
    if (fd_ < 0) fail();
  }
  ~SaveFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!temp_.empty()) ::unlink(temp_.c_str());
  }
  SaveFile(const SaveFile &) = delete;
  SaveFile &operator=(const SaveFile &) = delete;

  static void sink(void *self, const uint8_t *data, size_t size) {
    static_cast<SaveFile *>(self)->write(data, size);
  }
  void write(const uint8_t *data, size_t size) {
    while (size) {
      ssize_t n = ::write(fd_, data, size);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) fail();
      data += n;
      size -= static_cast<size_t>(n);
    }
  }
  void commit() {
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) fail();
    if (!temp_.empty()) {
      if (::rename(temp_.c_str(), target_.c_str()) != 0) fail();
      temp_.clear();
    }
  }

 private:
  [[noreturn]] void fail() { raise_fmt(M_BAD_ARG, "Error writing save file: %s.", path_.c_str()); }
  std::string path_, target_, temp_;
  int fd_ = -1;
};

void write_file(const std::string &path, SaveSet &set) {
  set.close();  // whatever makes the save impossible is found before any file is touched
  SaveFile file(path);
  Writer w(&SaveFile::sink, &file);
  set.write(w);
  file.commit();
}

void add_named(SaveSet &set, const std::vector<std::string> &names) {
  for (const std::string &name : names) {
    QVA_VPTR v = find_main_variable(name);
    if (!v) raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", name.c_str());
    set.add_variable(v);
  }
}

void add_all(SaveSet &set) {
  for (QVA_VPTR v : main_variables()) set.add_variable(v);
  for (QVA_HVID id : heap_all())
    if (HeapVar *h = heap_find(id)) set.add_heap(h);
}

}  // namespace

std::vector<uint8_t> save_variables_to_bytes(const std::vector<std::string> &names) {
  SaveSet set;
  add_named(set, names);
  Writer w;
  finish(set, w);
  return bytes_of(w);
}

std::vector<uint8_t> save_all_to_bytes() {
  SaveSet set;
  add_all(set);
  Writer w;
  finish(set, w);
  return bytes_of(w);
}

void save_variables(const std::string &path, const std::vector<std::string> &names) {
  SaveSet set;
  add_named(set, names);
  write_file(path, set);
}

void save_all(const std::string &path) {
  SaveSet set;
  add_all(set);
  write_file(path, set);
}

}  // namespace qvahost
