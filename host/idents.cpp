// Interned identifiers: every valid name gets one number for the life of
// the process, case-insensitively (names are kept in upper case).
#include <cctype>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_map>

#include "internal.h"

namespace qvahost {
namespace {

struct IdentTable {
  std::deque<std::string> names;  // names[id - 1]; a deque keeps them in place
  std::unordered_map<std::string_view, QVA_IDENT> ids;
};

IdentTable &table() {
  static IdentTable *t = new IdentTable;  // lives as long as the process
  return *t;
}

bool is_start(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool is_rest(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
}

// A plain name: a letter or '_' first, then letters, digits, '_' and '$'.
bool plain_valid(const char *s, size_t len) {
  if (len == 0 || !is_start(s[0])) return false;
  for (size_t i = 1; i < len; ++i)
    if (!is_rest(s[i])) return false;
  return true;
}

// Interns an upper-case name known to be valid.
QVA_IDENT intern_upper(std::string_view upper) {
  IdentTable &t = table();
  auto it = t.ids.find(upper);
  if (it != t.ids.end()) return it->second;
  t.names.emplace_back(upper);
  auto id = static_cast<QVA_IDENT>(t.names.size());
  t.ids.emplace(t.names.back(), id);
  return id;
}

QVA_IDENT intern(const char *name, size_t len) {
  char small[64];
  std::string big;
  char *buf = small;
  if (len > sizeof small) {
    big.resize(len);
    buf = big.data();
  }
  for (size_t i = 0; i < len; ++i)
    buf[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
  return intern_upper(std::string_view(buf, len));
}

}  // namespace

bool ident_valid(const char *name, size_t len) {
  if (!name) return false;
  std::string_view s(name, len);
  size_t sep = s.find("::");
  if (sep == std::string_view::npos) return plain_valid(name, len);
  // CLASS::METHOD: two plain names around one separator.
  return plain_valid(name, sep) && plain_valid(name + sep + 2, len - sep - 2);
}

QVA_IDENT ident_of(const std::string &name) {
  if (!ident_valid(name.data(), name.size()))
    raise_fmt(M_BAD_IDENT, "Invalid identifier: '%s'.", name.c_str());
  return intern(name.data(), name.size());
}

const std::string &ident_name(QVA_IDENT id) {
  static const std::string none;
  const IdentTable &t = table();
  if (id == 0 || id > t.names.size()) return none;
  return t.names[id - 1];
}

}  // namespace qvahost

using namespace qvahost;

QVA_IDENT QVA_IdentHash(const char *name, int len, int flags, int action, int reserved) {
  (void)flags;  // names from user data and from code are interned alike
  (void)reserved;
  size_t n = !name ? 0 : len > 0 ? static_cast<size_t>(len) : std::strlen(name);
  if (!name || len < 0 || !ident_valid(name, n)) {
    // Action 0 asks whether the name is one: no is an answer, not an error.
    if (action == QVA_MSG_RET) return 0;
    std::string shown = name && len >= 0 ? std::string(name, n) : std::string();
    message(M_BAD_IDENT, action, format("Invalid identifier: '%s'.", shown.c_str()));
    return 0;
  }
  return intern(name, n);
}

const char *QVA_IdentName(QVA_IDENT id) {
  if (id == 0) return "";
  const std::string &name = ident_name(id);
  if (name.empty()) contract_violation(format("QVA_IdentName of unknown identifier %u", id));
  return name.c_str();
}
