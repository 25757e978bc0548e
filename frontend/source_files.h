// source_files.h - reading QVA source files, and finding them by name: a
// routine NAME not yet defined is looked for as name.pro in the script's
// folder, then in the folders of QVA_PATH, then in the library folder
// shipped with qva.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qva {

// The text of a source file, without a leading UTF-8 byte-order mark; on
// failure nothing, with why in `error` ("is a directory", ...).
std::optional<std::string> read_source(const std::string &path, std::string *error);

// The folders searched, in order: `script_dir`, each folder of the
// colon-separated `qva_path` (empty entries skipped), `lib_dir`; empty
// folders are left out.
std::vector<std::string> search_folders(const std::string &script_dir, const std::string &qva_path,
                                        const std::string &lib_dir);

// The file that defines routine `name` (upper case; NAME__DEFINE for a
// class): the first `name.pro`, lower case, in `folders`.
std::optional<std::string> find_routine_file(const std::string &name,
                                             const std::vector<std::string> &folders);

// The file a .COMPILE or .RUN argument names: a path as given when it
// holds a '/', otherwise the name (with ".pro" added when it has no
// extension) in `folders`, as given and then lower case.
std::optional<std::string> find_source_file(const std::string &given,
                                            const std::vector<std::string> &folders);

// The folder part of a path ("." when it has none), and the rest.
std::string folder_of(const std::string &path);
std::string file_name_of(const std::string &path);

// The library of QVA routines shipped with qva, from the folder the
// program stands in: lib/ beside it in the build tree, `installed` (relative
// to the prefix, exe_dir/..) in an installed tree; "" when neither exists.
std::string shipped_library(const std::string &exe_dir, const std::string &installed);

}  // namespace qva
