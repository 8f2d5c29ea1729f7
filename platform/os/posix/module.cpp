// The running program and run-time modules on Linux: /proc/self/exe and the
// dynamic loader (dlopen, dladdr, dlsym, dlclose).
#include "kvos/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <mutex>

namespace kvos {

void* executable_module() {
  static void* const handle = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD);
  return handle;
}

std::string executable_path() {
  char buffer[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return std::string();
  return std::string(buffer, static_cast<size_t>(n));
}

std::string module_file_name(const std::string& base) { return "lib" + base + ".so"; }

std::string module_directory(const void* address) {
  Dl_info info{};
  if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr) return std::string();
  std::string path = info.dli_fname;
  // The main program is reported under the name it was started with.
  if (path.empty() || path.find('/') == std::string::npos) path = executable_path();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

namespace {

// dlerror's text is per thread but its buffer is shared by concurrent loads;
// taking the text under one lock keeps each reason with its own call.
std::mutex& loader_mutex() {
  static std::mutex mutex;
  return mutex;
}

void* open_one(const std::string& path, std::string& reason) {
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    const char* text = dlerror();
    reason = text != nullptr ? text : path + ": cannot be loaded";
  }
  return module;
}

}  // namespace

void* module_load(const std::string& name, const std::vector<std::string>& directories, std::string* error) {
  std::lock_guard<std::mutex> lock(loader_mutex());
  std::string reason;
  if (name.empty()) {
    reason = "no module name";
  } else if (name.find('/') != std::string::npos) {
    if (void* module = open_one(name, reason)) return module;
  } else {
    for (const std::string& directory : directories) {
      if (directory.empty()) continue;
      const std::string path = directory.back() == '/' ? directory + name : directory + "/" + name;
      // A directory that does not hold the file is passed over quietly; a file
      // that is there but cannot be loaded is the reason to report.
      if (access(path.c_str(), F_OK) != 0) continue;
      if (void* module = open_one(path, reason)) return module;
    }
    std::string searched;
    if (void* module = open_one(name, searched)) return module;
    if (reason.empty()) reason = searched;
  }
  if (error != nullptr) *error = reason;
  return nullptr;
}

void* module_symbol(void* module, const char* name) {
  if (module == nullptr || name == nullptr) return nullptr;
  return dlsym(module, name);
}

void module_unload(void* module) {
  if (module != nullptr) dlclose(module);
}

}  // namespace kvos
