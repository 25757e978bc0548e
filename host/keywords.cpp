// Keyword processing: matching the keywords of a call against a routine's
// keyword table and writing them into the routine's keyword record.
//
// A record's value positions need not be aligned for their type, so every
// value is written with memcpy.  A string made from a number is a text the
// host owns until QVA_KWFree (or the end of the call, when the routine is
// abandoned first); it waits on the pending stack below.
#include <cctype>
#include <cstring>

#include "dispatch.h"

namespace qvahost {
namespace {

struct PendingState {
  std::vector<uint32_t> texts;  // texts made by conversions, newest last
  size_t floor = 0;             // the current routine call owns texts[floor..]
};

// Constant-initialised: no first-use check on the path of every call.
constinit PendingState g_pending;

inline PendingState &pending() { return g_pending; }

size_t release_above(size_t floor) {
  auto &texts = pending().texts;
  size_t released = 0;
  while (texts.size() > floor) {
    text_release(texts.back());
    texts.pop_back();
    ++released;
  }
  return released;
}

bool is_by_variable(const QVA_KW_PAR &row) {
  return row.type == QVA_TYP_UNDEF || (row.flags & QVA_KW_BY_VAR) == QVA_KW_BY_VAR;
}

size_t value_size(const QVA_KW_PAR &row) {
  if (is_by_variable(row)) return sizeof(QVA_VPTR);
  if (row.type == QVA_TYP_STRING) return sizeof(QVA_STRING);
  return type_size(row.type);
}

bool same_nocase(const char *a, const std::string &b) {
  size_t n = std::strlen(a);
  if (n != b.size()) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != static_cast<unsigned char>(b[i]))
      return false;
  return true;
}

bool prefix_nocase(const std::string &prefix, const char *word) {
  size_t n = std::strlen(word);
  if (prefix.size() > n) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(word[i])) != static_cast<unsigned char>(prefix[i]))
      return false;
  return true;
}

// The table rows this call may use (the leading "" row excluded).
std::vector<const QVA_KW_PAR *> usable_rows(const QVA_KW_PAR *table, int mask) {
  std::vector<const QVA_KW_PAR *> rows;
  for (const QVA_KW_PAR *row = table + 1; row->keyword; ++row) {
    if (!(row->mask & mask)) continue;
    if (!is_by_variable(*row) && value_size(*row) == 0)
      raise_fmt(M_BAD_ARG, "Keyword %s has a type (%d) that keywords cannot take.",
                row->keyword, row->type);
    rows.push_back(row);
  }
  return rows;
}

// The row a given keyword names: an exact name, else a unique prefix.
size_t match_row(const std::vector<const QVA_KW_PAR *> &rows, const std::string &given) {
  std::string name = upper_name(given);
  size_t found = rows.size();
  int prefixes = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (same_nocase(rows[i]->keyword, name)) return i;
    if (!name.empty() && prefix_nocase(name, rows[i]->keyword)) {
      if (prefixes++ == 0) found = i;
    }
  }
  if (prefixes == 0)
    raise_fmt(M_KW_UNKNOWN, "Keyword %s not allowed in call to: %s", name.c_str(),
              current_routine().c_str());
  if (prefixes > 1) raise_fmt(M_KW_AMBIGUOUS, "Ambiguous keyword abbreviation: %s.", name.c_str());
  return found;
}

// Texts made during one QVA_KWProcessByOffset: released if it is abandoned,
// handed to the pending stack if it completes.
class MadeTexts {
 public:
  ~MadeTexts() {
    for (uint32_t t : texts_) text_release(t);
  }
  void add(uint32_t t) { texts_.push_back(t); }
  bool empty() const { return texts_.empty(); }
  void hand_over() {
    auto &p = pending().texts;
    p.insert(p.end(), texts_.begin(), texts_.end());
    texts_.clear();
  }

 private:
  std::vector<uint32_t> texts_;
};

// A keyword's value as errors name it: the caller's variable, else the keyword.
std::string keyword_value_label(const QVA_KW_PAR &row, QVA_VPTR v) {
  std::string label = var_label(v);
  return label == "<Expression>" ? row.keyword : label;
}

// Converts one keyword's value as its row asks and writes it at `dst`.
void store_value(const QVA_KW_PAR &row, QVA_VPTR v, char *dst, MadeTexts &made) {
  if (is_by_variable(row)) {
    std::memcpy(dst, &v, sizeof v);
    return;
  }
  if (v->type == QVA_TYP_UNDEF)
    raise_fmt(M_UNDEFVAR, "Variable is undefined: %s.", keyword_value_label(row, v).c_str());
  if (v->flags & QVA_V_NOT_SCALAR)
    raise_fmt(M_NOTSCALAR, "Expression must be a scalar in this context: %s.", keyword_value_label(row, v).c_str());
  if (row.type == QVA_TYP_OBJREF && v->type != QVA_TYP_OBJREF)
    raise_fmt(M_REQOBJREF, "Object reference type required in this context: %s.", keyword_value_label(row, v).c_str());
  if (row.type == QVA_TYP_STRING && v->type == QVA_TYP_STRING) {
    std::memcpy(dst, &v->value.str, sizeof(QVA_STRING));  // shares the caller's text
    return;
  }
  QVA_ALLTYPES converted = scalar_as(v, row.type);
  if (row.type == QVA_TYP_STRING && converted.str.s) made.add(converted.str.s);
  std::memcpy(dst, &converted, value_size(row));
}

void store_long(char *base, uint32_t pos, QVA_LONG value) {
  std::memcpy(base + pos, &value, sizeof value);
}

}  // namespace

size_t keyword_scope_open() {
  size_t old = pending().floor;
  pending().floor = pending().texts.size();
  return old;
}

size_t keyword_scope_close(size_t old_floor) {
  size_t released = release_above(pending().floor);
  pending().floor = old_floor;
  return released;
}

void keyword_scope_leave(size_t old_floor) { pending().floor = old_floor; }

}  // namespace qvahost

using namespace qvahost;

int QVA_KWProcessByOffset(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk, QVA_KW_PAR *table,
                          QVA_VPTR plain_args[], int mask, void *base_ptr) {
  if (!table || !table->keyword || !base_ptr)
    raise(M_BAD_ARG, "Keyword processing without a keyword table or record.");
  char *base = static_cast<char *>(base_ptr);
  std::vector<const QVA_KW_PAR *> rows = usable_rows(table, mask);

  // Which row each given keyword names; given twice, the last one wins.
  std::vector<QVA_VPTR> given(rows.size(), nullptr);
  if (argk) {
    for (const Keyword &kw : argk->items) {
      size_t row = match_row(rows, kw.name);
      if (!kw.value)
        raise_fmt(M_BAD_ARG, "Keyword %s was given no value.", rows[row]->keyword);
      given[row] = kw.value;
    }
  }

  MadeTexts made;
  for (size_t i = 0; i < rows.size(); ++i) {
    const QVA_KW_PAR &row = *rows[i];
    char *value = base + row.value;
    if (given[i]) {
      store_value(row, given[i], value, made);
    } else if (row.flags & QVA_KW_ZERO) {
      std::memset(value, 0, value_size(row));
    }
    store_long(base, row.specified, given[i] ? 1 : 0);
  }

  store_long(base, 0, made.empty() ? 0 : 1);
  made.hand_over();
  if (plain_args)
    for (int i = 0; i < argc; ++i) plain_args[i] = argv[i];
  return argc;
}

void QVA_KWFree(void) { release_above(pending().floor); }
