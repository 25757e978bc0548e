// The session's main-level variables: named variables that live until the
// session is reset.  Saving, restoring and heap garbage collection start
// from them.
#include <map>
#include <memory>

#include "internal.h"

namespace qvahost {
namespace {

std::map<std::string, std::unique_ptr<QVA_VARIABLE>> &table() {
  static std::map<std::string, std::unique_ptr<QVA_VARIABLE>> vars;
  return vars;
}

std::string upper(const std::string &s) {
  std::string u = s;
  for (char &c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

}  // namespace

QVA_VPTR main_variable(const std::string &name) {
  QVA_IDENT id = ident_of(name);  // refuses an invalid name
  auto &slot = table()[ident_name(id)];
  if (!slot) {
    slot = std::make_unique<QVA_VARIABLE>();
    slot->name = id;
  }
  return slot.get();
}

QVA_VPTR find_main_variable(const std::string &name) {
  auto it = table().find(upper(name));
  return it == table().end() ? nullptr : it->second.get();
}

std::vector<std::string> main_variable_names() {
  std::vector<std::string> names;
  for (const auto &[name, var] : table()) names.push_back(name);
  return names;
}

std::vector<QVA_VPTR> main_variables() {
  std::vector<QVA_VPTR> vars;
  for (const auto &[name, var] : table()) vars.push_back(var.get());
  return vars;
}

void delete_main_variable(const std::string &name) {
  auto it = table().find(upper(name));
  if (it == table().end()) return;
  var_free_value(it->second.get());
  table().erase(it);
}

void main_variables_clear() {
  for (auto &[name, var] : table()) var_free_value(var.get());
  table().clear();
}

}  // namespace qvahost
