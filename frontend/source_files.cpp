// source_files.cpp - reading source files and finding them on the search
// path.
#include "source_files.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace qva {

namespace {

bool is_file(const std::string &path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec);
}

bool is_folder(const std::string &path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string join(const std::string &folder, const std::string &file) {
  return folder.back() == '/' ? folder + file : folder + "/" + file;
}

}  // namespace

std::optional<std::string> read_source(const std::string &path, std::string *error) {
  if (is_folder(path)) {
    *error = "is a directory";
    return std::nullopt;
  }
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    *error = std::strerror(errno);
    return std::nullopt;
  }
  std::ostringstream text;
  text << f.rdbuf();
  std::string s = text.str();
  if (s.compare(0, 3, "\xEF\xBB\xBF") == 0) s.erase(0, 3);
  return s;
}

std::vector<std::string> search_folders(const std::string &script_dir, const std::string &qva_path,
                                        const std::string &lib_dir) {
  std::vector<std::string> out;
  if (!script_dir.empty()) out.push_back(script_dir);
  size_t b = 0;
  while (b <= qva_path.size()) {
    size_t e = qva_path.find(':', b);
    if (e == std::string::npos) e = qva_path.size();
    if (e > b) out.push_back(qva_path.substr(b, e - b));
    b = e + 1;
  }
  if (!lib_dir.empty()) out.push_back(lib_dir);
  return out;
}

std::optional<std::string> find_routine_file(const std::string &name,
                                             const std::vector<std::string> &folders) {
  // A method CLASS::NAME has no file of its own.
  if (name.empty() || name.find(':') != std::string::npos) return std::nullopt;
  std::string file = lower(name) + ".pro";
  for (const std::string &folder : folders)
    if (std::string path = join(folder, file); is_file(path)) return path;
  return std::nullopt;
}

std::optional<std::string> find_source_file(const std::string &given,
                                            const std::vector<std::string> &folders) {
  if (given.empty()) return std::nullopt;
  if (given.find('/') != std::string::npos) {
    if (is_file(given)) return given;
    if (is_file(given + ".pro")) return given + ".pro";
    return std::nullopt;
  }
  std::string file = given.find('.') == std::string::npos ? given + ".pro" : given;
  for (const std::string &folder : folders)
    for (const std::string &name : {file, lower(file)})
      if (std::string path = join(folder, name); is_file(path)) return path;
  return std::nullopt;
}

std::string folder_of(const std::string &path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string file_name_of(const std::string &path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string shipped_library(const std::string &exe_dir, const std::string &installed) {
  for (const std::string &cand : {exe_dir + "/lib", exe_dir + "/../" + installed})
    if (is_folder(cand)) return cand;
  return {};
}

}  // namespace qva
