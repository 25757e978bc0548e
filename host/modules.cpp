// Loading extension modules, from entry points linked into the program or
// from shared objects, and passing session resets on to them.
#include <dlfcn.h>

#include <cstdlib>
#include <memory>

#include "dispatch.h"

namespace qvahost {
namespace {

using LoadFn = int (*)();
using ResetFn = void (*)();

struct LoadedModule {
  LoadFn load = nullptr;
  ResetFn reset = nullptr;
  std::string path;  // "" for a module linked into the program
};

std::vector<LoadedModule> &modules() {
  static std::vector<LoadedModule> list;
  return list;
}

bool already_loaded(LoadFn load, const std::string &path) {
  for (const LoadedModule &m : modules())
    if (m.load == load || (!path.empty() && m.path == path)) return true;
  return false;
}

// Runs QVA_Load and returns its result; a host error raised by it (already
// reported) counts as a failed load.
int run_load(LoadFn load, std::string *error) {
  int result = 0;
  std::string report = try_call([&] { result = load(); });
  if (!report.empty()) {
    if (error) *error = report;
    return 0;
  }
  if (result == 0 && error) *error = "QVA_Load failed";
  return result;
}

int load_entry_points(LoadFn load, ResetFn reset, const std::string &path, std::string *error) {
  if (!load) {
    if (error) *error = "no QVA_Load entry point";
    return 0;
  }
  if (already_loaded(load, path)) {
    if (error) *error = "module already loaded" + (path.empty() ? "" : ": " + path);
    return 0;
  }
  int result = run_load(load, error);
  if (result != 0) modules().push_back({load, reset, path});
  return result;
}

// The path a module is known by: its canonical form when it exists.
std::string module_key(const std::string &path) {
  std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  return real ? std::string(real.get()) : path;
}

}  // namespace

int load_module(int (*load)(), void (*reset)()) {
  std::string error;
  return load_entry_points(load, reset, "", &error);
}

int load_module_file(const std::string &path, std::string *error) {
  std::string key = module_key(path);
  for (const LoadedModule &m : modules()) {
    if (m.path == key) {
      if (error) *error = "module already loaded: " + key;
      return 0;
    }
  }
  void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!handle) {
    const char *why = dlerror();
    if (error) *error = why ? why : "cannot load " + path;
    return 0;
  }
  auto load = reinterpret_cast<LoadFn>(dlsym(handle, "QVA_Load"));
  auto reset = reinterpret_cast<ResetFn>(dlsym(handle, "QVA_ResetSession"));
  if (!load) {
    if (error) *error = path + ": no QVA_Load entry point";
    dlclose(handle);
    return 0;
  }
  // The library stays loaded even when its QVA_Load fails: routines it
  // registered before failing point into it.
  return load_entry_points(load, reset, key, error);
}

void modules_reset_session() {
  // A module's failing reset is reported; the others still run.
  std::vector<LoadedModule> loaded = modules();
  for (const LoadedModule &m : loaded)
    if (m.reset) try_call([&] { m.reset(); });
}

}  // namespace qvahost
