// Structure definitions: layout, the registry of named definitions, tag
// look-up, and the texts held inside structure data.
//
// Layout: inherited tags come first, flattened, at the positions they have
// in the inherited structure; the definition's own tags continue right after
// the last inherited field (not after its padded length), each at its
// natural alignment.  A definition's length is its end rounded up to its
// largest alignment, so that arrays of it keep every field aligned.
#include <cstring>
#include <memory>
#include <strings.h>

#include "internal.h"
#include "struct_walk.h"

namespace qvahost {
namespace {

struct Registry {
  std::vector<std::unique_ptr<QVA_STRUCTDEF>> owned;
  std::vector<QVA_SDEF> all;  // in order of definition
  std::unordered_map<QVA_IDENT, QVA_SDEF> by_name;
  // Tag tables a definition was made from, so that a module that defines
  // the same structure from the same static table again is answered at once.
  std::unordered_map<const QVA_STRUCT_TAG_DEF *, QVA_SDEF> by_table;
};

Registry &registry() {
  static Registry *r = new Registry;  // lives as long as the process
  return *r;
}

size_t align_of(int type, QVA_SDEF sub) {
  switch (type) {
    case QVA_TYP_DOUBLE:
    case QVA_TYP_LONG64: return 8;
    case QVA_TYP_INT: return 2;
    case QVA_TYP_BYTE: return 1;
    case QVA_TYP_STRUCT: return sub->align;
    default: return 4;  // LONG, FLOAT, STRING, PTR, OBJREF
  }
}

size_t round_up(size_t n, size_t align) { return (n + align - 1) / align * align; }

// Where the fields of `sd` end (before the padding of its length).
size_t fields_end(QVA_SDEF sd) {
  if (!sd || sd->tags.empty()) return 0;
  const TagInfo &last = sd->tags.back();
  return last.offset + static_cast<size_t>(last.n_elts) * last.elt_size;
}

bool valid_type(int type) {
  return type_size(type) != 0 || type == QVA_TYP_STRUCT;
}

// Builds the definition `name` (upper case, "" for anonymous) into `out`
// without registering it.  Returns an error text, or "" when it is sound.
std::string lay_out(const std::string &name, QVA_SDEF super, const std::vector<FieldSpec> &fields,
                    QVA_STRUCTDEF *out) {
  const std::string shown = name.empty() ? "<anonymous>" : name;
  out->name_str = name;
  out->super = super;
  size_t end = 0;
  if (super) {
    out->tags = super->tags;
    out->align = super->align;
    out->has_texts = super->has_texts;
    out->has_refs = super->has_refs;
    end = fields_end(super);
  }
  for (const FieldSpec &f : fields) {
    if (!ident_valid(f.name.data(), f.name.size()) || f.name.find(':') != std::string::npos)
      return format("Invalid identifier: '%s'.", f.name.c_str());
    TagInfo t;
    t.name = ident_of(f.name);
    t.name_str = ident_name(t.name);
    for (const TagInfo &other : out->tags)
      if (other.name == t.name)
        return format("Duplicate tag name %s in structure %s.", t.name_str.c_str(), shown.c_str());
    if (!valid_type(f.type) || (f.type == QVA_TYP_STRUCT && !f.sdef))
      return format("Tag %s of structure %s has an invalid type code %d.", t.name_str.c_str(),
                    shown.c_str(), f.type);
    if (f.dims.size() > QVA_MAX_ARRAY_DIM)
      return format("Tag %s of structure %s has more than %d dimensions.", t.name_str.c_str(),
                    shown.c_str(), QVA_MAX_ARRAY_DIM);
    t.type = f.type;
    t.sdef = f.type == QVA_TYP_STRUCT ? f.sdef : nullptr;
    t.n_dim = static_cast<int>(f.dims.size());
    for (int d = 0; d < t.n_dim; ++d) {
      if (f.dims[d] <= 0 || f.dims[d] > (QVA_MEMINT{1} << 31))
        return "Array dimensions must be greater than 0.";
      t.dims[d] = f.dims[d];
      t.n_elts *= f.dims[d];
    }
    if (t.n_elts > (QVA_MEMINT{1} << 31))
      return format("Tag %s of structure %s is too large.", t.name_str.c_str(), shown.c_str());
    t.elt_size = t.sdef ? t.sdef->length : type_size(t.type);
    size_t align = align_of(t.type, t.sdef);
    t.offset = round_up(end, align);
    end = t.offset + static_cast<size_t>(t.n_elts) * t.elt_size;
    if (align > out->align) out->align = align;
    if (t.type == QVA_TYP_STRING || (t.sdef && t.sdef->has_texts)) out->has_texts = true;
    if (t.type == QVA_TYP_PTR || t.type == QVA_TYP_OBJREF || (t.sdef && t.sdef->has_refs))
      out->has_refs = true;
    out->tags.push_back(std::move(t));
  }
  if (out->tags.empty()) return format("Structure %s has no fields.", shown.c_str());
  out->length = round_up(end, out->align);
  for (size_t i = 0; i < out->tags.size(); ++i) out->index[out->tags[i].name] = i;
  return "";
}

bool same_layout(const QVA_STRUCTDEF &a, const QVA_STRUCTDEF &b) {
  if (a.super != b.super || a.tags.size() != b.tags.size()) return false;
  for (size_t i = 0; i < a.tags.size(); ++i) {
    const TagInfo &x = a.tags[i];
    const TagInfo &y = b.tags[i];
    if (x.name != y.name || x.type != y.type || x.sdef != y.sdef || x.n_dim != y.n_dim ||
        !std::equal(x.dims, x.dims + x.n_dim, y.dims))
      return false;
  }
  return true;
}

// sdef_define with the choice whether an identical existing definition may
// be handed back.
QVA_SDEF define(const std::string &name, QVA_SDEF super, const std::vector<FieldSpec> &fields,
                bool hidden, bool reuse, int action) {
  QVA_IDENT id = 0;
  if (!name.empty()) {
    if (!ident_valid(name.data(), name.size()) || name.find(':') != std::string::npos) {
      message(M_BAD_IDENT, action, format("Invalid identifier: '%s'.", name.c_str()));
      return nullptr;
    }
    id = ident_of(name);
  }
  auto sd = std::make_unique<QVA_STRUCTDEF>();
  sd->name = id;
  sd->hidden = hidden;
  std::string error = lay_out(id ? ident_name(id) : std::string(), super, fields, sd.get());
  if (!error.empty()) {
    message(M_BAD_ARG, action, error);
    return nullptr;
  }
  Registry &r = registry();
  if (id) {
    auto it = r.by_name.find(id);
    if (it != r.by_name.end()) {
      if (reuse && same_layout(*it->second, *sd)) return it->second;
      message(M_STRUCT_CONFLICT, action,
              format("Conflicting data structures: %s.", sd->name_str.c_str()));
      return nullptr;
    }
  }
  QVA_SDEF made = sd.get();
  r.owned.push_back(std::move(sd));
  r.all.push_back(made);
  if (id) r.by_name.emplace(id, made);
  return made;
}

// Turns a module's tag table into its inherited definition and fields.
bool read_tag_table(const QVA_STRUCT_TAG_DEF *tags, QVA_SDEF *super,
                    std::vector<FieldSpec> *fields, int action) {
  *super = nullptr;
  for (const QVA_STRUCT_TAG_DEF *row = tags; row->name; ++row) {
    if (row->flags & QVA_STD_INHERIT) {
      if (row != tags) {
        message(M_BAD_ARG, action, format("Inheritance row %s must come first.", row->name));
        return false;
      }
      QVA_IDENT base = QVA_IdentHash(row->name, 0, 0, QVA_MSG_RET, 0);
      *super = base ? sdef_find(base) : nullptr;
      if (!*super) {
        message(M_STRUCT_UNKNOWN, action, format("Structure type not defined: %s.", row->name));
        return false;
      }
      continue;
    }
    if (row->type == QVA_TYP_STRUCT) {
      message(M_BAD_ARG, action,
              format("Tag %s: structure fields cannot be given in a tag table.", row->name));
      return false;
    }
    FieldSpec f{row->name, row->type, nullptr, {}};
    if (row->dims) {
      QVA_MEMINT n_dim = row->dims[0];
      if (n_dim < 1 || n_dim > QVA_MAX_ARRAY_DIM) {
        message(M_BAD_ARG, action,
                format("Tag %s has %lld dimensions.", row->name, static_cast<long long>(n_dim)));
        return false;
      }
      f.dims.assign(row->dims + 1, row->dims + 1 + n_dim);
    }
    fields->push_back(std::move(f));
  }
  return true;
}

// Calls f(QVA_STRING &) for every string in n elements of sd at data.
template <class F>
void for_each_text(QVA_SDEF sd, QVA_UCHAR *data, QVA_MEMINT n, F &f) {
  auto into = [](const TagInfo &t) { return t.sdef->has_texts; };
  auto visit = [&f](const TagInfo &t, QVA_UCHAR *p) {
    if (t.type != QVA_TYP_STRING) return;
    auto *s = reinterpret_cast<QVA_STRING *>(p);
    for (QVA_MEMINT k = 0; k < t.n_elts; ++k) f(s[k]);
  };
  walk_struct_fields(sd, data, n, into, visit);
}

}  // namespace

QVA_SDEF sdef_define(const std::string &name, QVA_SDEF super, const std::vector<FieldSpec> &fields,
                     bool hidden, int action) {
  return define(name, super, fields, hidden, true, action);
}

QVA_SDEF sdef_find(QVA_IDENT name) {
  const auto &by_name = registry().by_name;
  auto it = by_name.find(name);
  return it == by_name.end() ? nullptr : it->second;
}

const TagInfo *sdef_tag(QVA_SDEF sdef, const char *name) {
  if (!sdef || !name) return nullptr;
  size_t len = std::strlen(name);
  for (const TagInfo &t : sdef->tags)
    if (t.name_str.size() == len && strcasecmp(t.name_str.c_str(), name) == 0) return &t;
  return nullptr;
}

void sdef_dup_texts(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n) {
  size_t done = 0;
  auto dup = [&](QVA_STRING &s) {
    if (s.s) QVA_StrDup(&s, 1);
    ++done;
  };
  try {
    for_each_text(sdef, data, n, dup);
  } catch (...) {
    // Leave nothing owned and nothing shared: the copies made go, and every
    // descriptor is cleared.
    size_t k = 0;
    auto undo = [&](QVA_STRING &s) {
      if (k++ < done) text_release(s.s);
      s = QVA_STRING{};
    };
    for_each_text(sdef, data, n, undo);
    throw;
  }
}

void sdef_release_texts(QVA_SDEF sdef, QVA_UCHAR *data, QVA_MEMINT n) {
  auto release = [](QVA_STRING &s) {
    text_release(s.s);
    s = QVA_STRING{};
  };
  for_each_text(sdef, data, n, release);
}

const std::vector<QVA_SDEF> &sdef_all() { return registry().all; }

// ------------------------------------------------------ host interface

QVA_SDEF define_struct(const std::string &name, const std::string &base,
                       const std::vector<FieldSpec> &fields) {
  QVA_SDEF super = nullptr;
  if (!base.empty()) {
    super = find_struct(base);
    if (!super) raise_fmt(M_STRUCT_UNKNOWN, "Structure type not defined: %s.", base.c_str());
  }
  return sdef_define(name, super, fields, false, QVA_MSG_LONGJMP);
}

QVA_SDEF find_struct(const std::string &name) {
  if (!ident_valid(name.data(), name.size())) return nullptr;
  return sdef_find(ident_of(name));
}

std::string struct_name(QVA_SDEF sdef) { return sdef ? sdef->name_str : std::string(); }

std::vector<std::pair<std::string, QVA_MEMINT>> struct_fields(QVA_SDEF sdef) {
  std::vector<std::pair<std::string, QVA_MEMINT>> out;
  if (sdef)
    for (const TagInfo &t : sdef->tags)
      out.emplace_back(t.name_str, static_cast<QVA_MEMINT>(t.offset));
  return out;
}

QVA_MEMINT struct_length(QVA_SDEF sdef) {
  return sdef ? static_cast<QVA_MEMINT>(sdef->length) : 0;
}

QVA_SDEF struct_super(QVA_SDEF sdef) { return sdef ? sdef->super : nullptr; }

bool is_module_record(QVA_HVPTR hv) {
  return hv && (hv->var.flags & QVA_V_STRUCT) && hv->var.value.s.sdef && hv->var.value.s.sdef->hidden;
}

}  // namespace qvahost

// ------------------------------------------------------------ module API

using namespace qvahost;

QVA_SDEF QVA_MakeStructInternal(const char *name, int flags, QVA_STRUCT_TAG_DEF *tags,
                                int action) {
  bool named = name && *name;
  bool reuse = flags & QVA_SDEF_REUSE;
  Registry &r = registry();
  if (named && tags && reuse) {
    auto it = r.by_table.find(tags);
    if (it != r.by_table.end() && strcasecmp(it->second->name_str.c_str(), name) == 0)
      return it->second;
  }
  if (!tags) {
    message(M_BAD_ARG, action, format("Structure %s has no tag table.", named ? name : "<anonymous>"));
    return nullptr;
  }
  QVA_SDEF super;
  std::vector<FieldSpec> fields;
  if (!read_tag_table(tags, &super, &fields, action)) return nullptr;
  QVA_SDEF sdef = define(named ? name : "", super, fields, flags & QVA_SDEF_HIDDEN, reuse, action);
  if (sdef && named) r.by_table[tags] = sdef;
  return sdef;
}

void *QVA_StructGetTagAddress(QVA_VPTR sv, const char *tag, QVA_MEMINT *offset,
                              QVA_SDEF *tag_sdef, int action) {
  if (!sv || !(sv->flags & QVA_V_STRUCT)) {
    message(M_BAD_ARG, action,
            format("Expression must be a structure in this context: %s.", var_label(sv).c_str()));
    return nullptr;
  }
  QVA_SDEF sd = sv->value.s.sdef;
  const TagInfo *t = nullptr;
  // Modules pass the same literal every time: one pointer comparison (and
  // a check that the text there still names that tag) answers them.
  if (tag && sd->cache_name == tag) {
    const TagInfo &cached = sd->tags[sd->cache_index];
    if (same_upper_name(cached.name_str, tag)) t = &cached;
  }
  if (!t) {
    t = sdef_tag(sd, tag);
    if (!t) {
      if (action == QVA_MSG_LONGJMP)
        raise_fmt(M_NO_TAG, "Tag name %s is undefined for structure %s.", tag ? tag : "<none>",
                  sd->name_str.empty() ? "<anonymous>" : sd->name_str.c_str());
      return nullptr;
    }
    sd->cache_name = tag;
    sd->cache_index = static_cast<size_t>(t - sd->tags.data());
  }
  if (offset) *offset = static_cast<QVA_MEMINT>(t->offset);
  if (tag_sdef) *tag_sdef = t->sdef;
  return struct_data(sv) + t->offset;
}
