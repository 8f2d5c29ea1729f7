// The running program and run-time modules on Windows: GetModuleFileNameA,
// LoadLibraryExA, GetProcAddress and FreeLibrary.
#include <windows.h>

#include "kvos/module.h"
#include "system_error.h"

namespace kvos {
namespace {

std::string module_path(HMODULE module) {
  std::string path(MAX_PATH, '\0');
  for (;;) {
    const DWORD n = GetModuleFileNameA(module, path.data(), static_cast<DWORD>(path.size()));
    if (n == 0) return std::string();
    if (n < path.size()) return path.substr(0, n);
    if (path.size() >= 32768) return std::string();
    path.resize(path.size() * 2);  // truncated: a longer path
  }
}

bool has_directory(const std::string& name) { return name.find_first_of("\\/:") != std::string::npos; }

// A module's dependencies are looked up beside it first.
HMODULE load_file(const std::string& path, std::string& reason) {
  HMODULE module = LoadLibraryExA(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) reason = path + ": " + win32::error_text(GetLastError());
  return module;
}

}  // namespace

void* executable_module() { return GetModuleHandleA(nullptr); }

std::string executable_path() { return module_path(nullptr); }

std::string module_file_name(const std::string& base) { return base + ".dll"; }

std::string module_directory(const void* address) {
  HMODULE module = nullptr;
  if (address == nullptr ||
      !GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<const char*>(address), &module))
    return std::string();
  const std::string path = module_path(module);
  const size_t cut = path.find_last_of("\\/");
  if (cut == std::string::npos) return std::string();
  return cut == 2 && path[1] == ':' ? path.substr(0, 3) : path.substr(0, cut);  // "C:\" keeps its separator
}

void* module_load(const std::string& name, const std::vector<std::string>& directories, std::string* error) {
  std::string reason;
  if (name.empty()) {
    reason = "no module name";
  } else if (has_directory(name)) {
    if (HMODULE module = load_file(name, reason)) return module;
  } else {
    for (const std::string& directory : directories) {
      if (directory.empty()) continue;
      const char last = directory.back();
      const std::string path = last == '\\' || last == '/' ? directory + name : directory + "\\" + name;
      // A directory that does not hold the file is passed over quietly; a file
      // that is there but cannot be loaded is the reason to report.
      if (GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
      if (HMODULE module = load_file(path, reason)) return module;
    }
    if (HMODULE module = LoadLibraryA(name.c_str())) return module;
    if (reason.empty()) reason = name + ": " + win32::error_text(GetLastError());
  }
  if (error != nullptr) *error = reason;
  return nullptr;
}

void* module_symbol(void* module, const char* name) {
  if (module == nullptr || name == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void module_unload(void* module) {
  if (module != nullptr) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace kvos
