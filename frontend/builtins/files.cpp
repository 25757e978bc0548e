// files.cpp - built-ins that write text files through logical units:
// OPENW, PRINTF, CLOSE and FREE_LUN.  Units 1 to 99 are the program's to
// choose; GET_LUN hands out units from 100 up.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

#include "builtins.h"

namespace qva {
namespace {

constexpr int kFirstFreeUnit = 100;
constexpr int kLastUnit = 128;

struct OpenFile {
  std::string path;
  std::ofstream out;
};

std::map<int, std::unique_ptr<OpenFile>> &units() {
  static std::map<int, std::unique_ptr<OpenFile>> open;
  return open;
}

int unit_of(QVA_VPTR v) {
  if (v->type == QVA_TYP_UNDEF) qvahost::raise_error("Variable is undefined: " + var_name(v) + ".");
  if (!is_scalar(v) || !is_numeric_type(v->type))
    qvahost::raise_error("File unit must be a scalar number: " + var_name(v) + ".");
  Val u = Val::temp(qvahost::convert_value(v, QVA_TYP_LONG64));
  QVA_LONG64 unit = qvahost::integer_value(u.get());
  if (unit < 1 || unit > kLastUnit)
    qvahost::raise_error("File unit is not within allowed range: " + std::to_string(unit) + ".");
  return static_cast<int>(unit);
}

OpenFile &open_unit(int unit) {
  auto it = units().find(unit);
  if (it == units().end())
    qvahost::raise_error("File unit is not open: " + std::to_string(unit) + ".");
  return *it->second;
}

void close_unit(int unit) {
  auto it = units().find(unit);
  if (it == units().end()) return;
  it->second->out.close();
  bool failed = it->second->out.fail();
  std::string path = it->second->path;
  units().erase(it);
  if (failed) qvahost::raise_error("Error writing file: " + path + ".");
}

// OPENW, unit, file [, /GET_LUN] [, /APPEND]: opens file for writing
// (emptied unless APPEND); with GET_LUN, a free unit is chosen and stored
// in the unit variable.
QVA_VPTR openw(int, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("OPENW", argk, {"GET_LUN", "APPEND"});
  if (argv[1]->type != QVA_TYP_STRING || !is_scalar(argv[1]))
    qvahost::raise_error("File name must be a scalar string: " + var_name(argv[1]) + ".");
  std::string path = qvahost::string_value(argv[1]);
  int unit = 0;
  if (keyword_set(kw[0])) {
    for (int u = kFirstFreeUnit; u <= kLastUnit && !unit; ++u)
      if (!units().count(u)) unit = u;
    if (!unit) qvahost::raise_error("All available logical units are currently in use.");
  } else {
    unit = unit_of(argv[0]);
    if (unit >= kFirstFreeUnit)
      qvahost::raise_error("File unit is reserved for GET_LUN: " + std::to_string(unit) + ".");
    close_unit(unit);
  }
  auto file = std::make_unique<OpenFile>();
  file->path = path;
  file->out.open(path, keyword_set(kw[1]) ? std::ios::app : std::ios::trunc);
  if (!file->out)
    qvahost::raise_error("Error opening file: " + path + " (" + std::strerror(errno) + ").");
  units()[unit] = std::move(file);
  if (keyword_set(kw[0])) {
    Val u = Val::temp(qvahost::make_long(unit));
    QVA_VarCopy(u.get(), argv[0]);
  }
  return nullptr;
}

// PRINTF, unit, values...: the values as PRINT shows them.
QVA_VPTR printf_unit(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  take_keywords("PRINTF", argk, {});
  OpenFile &file = open_unit(unit_of(argv[0]));
  for (int i = 1; i < argc; ++i)
    if (argv[i]->type == QVA_TYP_UNDEF)
      qvahost::raise_error("Variable is undefined: " + var_name(argv[i]) + ".");
  for (const std::string &line : printed_lines(std::vector<QVA_VPTR>(argv + 1, argv + argc)))
    file.out << line << '\n';
  if (!file.out) qvahost::raise_error("Error writing file: " + file.path + ".");
  return nullptr;
}

// CLOSE, units... and FREE_LUN, units...: close each (a unit not open is
// passed over); FREE_LUN also gives GET_LUN's units back.
QVA_VPTR close_units(int argc, QVA_VPTR argv[], QVA_KW_ARGS *argk) {
  auto kw = take_keywords("CLOSE", argk, {"ALL"});
  if (keyword_set(kw[0])) {
    while (!units().empty()) close_unit(units().begin()->first);
    return nullptr;
  }
  for (int i = 0; i < argc; ++i) close_unit(unit_of(argv[i]));
  return nullptr;
}

}  // namespace

std::vector<Builtin> file_builtins() {
  return {
      {"OPENW", false, 2, 2, true, openw},
      {"PRINTF", false, 1, kManyArgs, true, printf_unit},
      {"CLOSE", false, 0, kManyArgs, true, close_units},
      {"FREE_LUN", false, 0, kManyArgs, false,
       [](int argc, QVA_VPTR argv[], QVA_KW_ARGS *) {
         for (int i = 0; i < argc; ++i) close_unit(unit_of(argv[i]));
         return static_cast<QVA_VPTR>(nullptr);
       }},
  };
}

}  // namespace qva
